// The router's operational data as the agent sees it: native documents
// (`*.xml`, as `octunnel to-oc` reads them) in a directory, standing in for
// the router's components.
//
// A reader thread of its own reads and parses them, apart from the requests:
// it is told of every change by inotify and publishes, after each document
// it has read whole, an immutable snapshot of all of them.  A request takes
// the snapshot that stands at its start, a pointer copied under a lock that
// nothing holds for longer than that copy, so it never waits for a document
// being read, however large.
#pragma once

#include "agent/tree.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace octunnel::serve {

// One document as it was read whole.
struct OperDocument {
    std::string path;
    std::size_t bytes = 0;
    Tree tree; // its top-level elements, but those passed over
};

// The operational data at one moment: every document in the last version
// the reader took whole.  Never changed once published (but for the marks a
// filter pass leaves on its nodes, which the agent's one request at a time
// owns), and kept whole for as long as anyone holds it.
struct OperationalSnapshot {
    // 1 for the documents as the agent found them at its start, one more
    // for each change published since.
    uint64_t sequence = 0;
    // In the order of their names; a document shared with the snapshots
    // before and after it for as long as it does not change.
    std::vector<std::shared_ptr<const OperDocument>> documents;
    // The holders of each document's top-level nodes, in the same order.
    std::vector<const Node *> holders;
};

struct OperOptions {
    // The largest document read, in bytes: a larger one is named in the log
    // and left as it was last read (or out).
    std::size_t max_document = std::size_t{256} << 20;
    // When set, hears of each document once it is answered, and of each one
    // gone (the agent's --verbose).
    std::function<void(const std::string &)> note;
    // When set, called on the reader's thread with a document's path as the
    // reader begins to read it: tests hold the reader there.
    std::function<void(const std::string &)> reading;
};

class OperationalData {
public:
    // Reads the documents of `dir` once before it returns, so that the
    // agent answers its first request with what it found at its start, then
    // leaves the rest to its reader.  No directory: no operational data, and
    // no reader.
    //
    // `warn` hears, once for each version of it, of a document that is not
    // taken and of one whose top-level elements are passed over, in part or
    // all of them.  A document is not taken when it cannot be read, is not
    // well-formed (a writer left it half-written) or is larger than
    // `max_document`: the snapshots keep its last version read whole, or
    // nothing of it, and the log line says which.  An element is passed over
    // when it is
    //
    // - native configuration (of a Valmora-*-cfg model): <get> answers the
    //   configuration from the running configuration alone, so it is left
    //   out;
    // - no native root the module walks;
    // - a native root that holds no leaf the model descriptions describe:
    //   the walk would make nothing of it.
    //
    // This looks at the documents as they are read, never translating
    // them: a document the module makes nothing of for another reason is
    // not told of.  `warn` and the options' callbacks are called on the
    // reader's thread.
    OperationalData(std::string dir, std::function<void(const std::string &)> warn,
                    OperOptions options = {});
    // Stops the reader.  No snapshot may be held past it.
    ~OperationalData();
    OperationalData(const OperationalData &) = delete;
    OperationalData &operator=(const OperationalData &) = delete;

    // The last snapshot published; never waits for the reader.
    std::shared_ptr<const OperationalSnapshot> snapshot() const;

    // Whoever must know when the operational data changes (streaming
    // telemetry on change) subscribes: `listener` is called on the reader's
    // thread with each snapshot as it is published, in order, never two at
    // once.  It must be quick (the reader waits for it) and must not
    // subscribe or unsubscribe itself.  Returns the subscription's id.
    using Listener = std::function<void(const std::shared_ptr<const OperationalSnapshot> &)>;
    uint64_t subscribe(Listener listener);
    // Once this returns, the listener is not called again.
    void unsubscribe(uint64_t id);
    // Waits until a snapshot later than `sequence` is published and every
    // listener has heard of it, and returns the last one.
    std::shared_ptr<const OperationalSnapshot> wait_after(uint64_t sequence) const;

private:
    struct Reader;
    std::unique_ptr<Reader> reader_;
};

} // namespace octunnel::serve
