// What a commit changed in the OpenConfig configuration, as those who
// watch the configuration hear of it: the nodes highest in the tree that
// the commit created, deleted or replaced, each by its path.  A protocol's
// front makes its own notice of it (NETCONF's netconf-config-change).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct lyd_node;

namespace octunnel::serve {

struct ConfigChange {
    struct Edit {
        // The node's path as libyang writes it: module names before the
        // first node and wherever the module changes, keys in predicates
        // (/openconfig-interfaces:interfaces/interface[name='tunnel-ip12']).
        std::string path;
        // What became of it: "create", "delete" or "replace" (a leaf given
        // another value).
        std::string operation;
    };
    uint32_t session = 0; // the session that committed it
    // The agent's own act (a confirmed commit taken back, startup loaded):
    // no session made it.
    bool by_server = false;
    std::string datastore = "running"; // or "startup", whose edits are not told
    std::vector<Edit> edits;
};

// The edits a notice names at most: past them, one edit of the whole
// configuration ("replace" of /interfaces) says what changed, so that a
// change of 100,000 interfaces is not told one by one.
inline constexpr std::size_t max_change_edits = 1000;

using ChangeListener = std::function<void(const ConfigChange &)>;

// A step of a confirmed commit: "start", "extend", "complete" (confirmed),
// "cancel" (by <cancel-commit>, or its session ended) or "timeout" (taken
// back when no confirmation came, by no session).
struct ConfirmedCommitEvent {
    std::string event;
    uint32_t session = 0;
    uint32_t timeout = 0; // seconds left, for start and extend
};

using ConfirmedCommitListener = std::function<void(const ConfirmedCommitEvent &)>;

// The node among `siblings` that stands where `node` stands in another
// tree of the same models: a list entry of the same keys, a leaf-list value
// that is the same, else the node of the same schema node (a leaf of
// another value included: libyang looks a leaf up by its value too where
// its siblings are too few for a hash table).  Null when there is none.
const lyd_node *counterpart(const lyd_node *siblings, const lyd_node *node);

// The edits that turn the configuration `before` into `after` (siblings of
// the top level, either null when empty); in document order, linear in
// what they hold, and stops early past max_change_edits.
std::vector<ConfigChange::Edit> edits_between(const lyd_node *before, const lyd_node *after);

} // namespace octunnel::serve
