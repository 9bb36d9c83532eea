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
    // No directory: no operational data.  `warn` hears of a document that
    // cannot be read, once for each version of it.
    OperationalData(std::string dir, std::function<void(const std::string &)> warn);

    // The documents as they stand now: their trees' holders of the
    // top-level nodes, in the order of their names.
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
