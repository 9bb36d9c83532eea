// The router's operational data as the agent sees it: native documents
// (`*.xml`, as `octunnel to-oc` reads them) in a directory, standing in for
// the router's components, each read again once it changes.
#pragma once

#include "tree.h"

#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace octunnel::serve {

class OperationalData {
public:
    // No directory: no operational data.  `warn` hears, once for each
    // version of it, of a document that cannot be read, and of one whose
    // top-level elements are passed over, in part or all of them:
    //
    // - native configuration (of a Valmora-*-cfg model): <get> answers the
    //   configuration from the running configuration alone, so it is left
    //   out;
    // - an element that is no native root the module walks;
    // - a native root that holds no leaf the model descriptions describe:
    //   the walk would make nothing of it.
    //
    // This looks at the documents as they are read, never translating
    // them: a document the module makes nothing of for another reason is
    // not told of.
    OperationalData(std::string dir, std::function<void(const std::string &)> warn);

    // The documents as they stand now: their trees' holders of the
    // top-level nodes, in the order of their names; without the elements
    // passed over.
    std::vector<const Node *> current();

private:
    struct Version {
        ino_t inode = 0;
        off_t size = -1;
        timespec modified{};
        bool operator==(const Version &o) const
        {
            return inode == o.inode && size == o.size && modified.tv_sec == o.modified.tv_sec &&
                   modified.tv_nsec == o.modified.tv_nsec;
        }
    };
    struct Doc {
        Version version;
        std::unique_ptr<Tree> tree; // null: it could not be read
    };
    std::string dir_;
    std::function<void(const std::string &)> warn_;
    std::map<std::string, Doc> docs_;
};

} // namespace octunnel::serve
