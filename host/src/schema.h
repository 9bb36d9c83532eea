// What the host knows of the models' schemas in order to build the trees
// that the module adds paths to: which model owns a node, and how an
// instance of a list in an added path is found.
#pragma once

#include "octunnel/yfw_types.h"

#include <span>
#include <string_view>

namespace yfwhost::schema {

// A node of the schema the host knows, reached one step of an added path at
// a time.  The host knows the nodes that the tables below name and the
// steps that lead to them; below those it knows nothing.
struct Node;
// The node `tag` below `parent` (null: the root of every model), or null.
const Node *child(const Node *parent, std::string_view tag);
// The namespace of the model that owns `node`, or null when the added path's
// own namespace applies; `subtree` tells whether it owns what lies below too.
const char *owner(const Node *node, bool &subtree);

// A node of the walk that names an instance of a list: while the walk stands
// in (or under) a node with this tag and namespace, entries of the list are
// the instance keyed `prefix` + the value found at `key_path` below it.
struct Anchor {
    const char *ns;
    const char *tag;
    const char *key_path; // child, or child/grandchild
    const char *prefix;
};

struct ListBinding {
    const char *path; // schema path of the list
    const char *key;
    const char *key_ns;
    std::span<const Anchor> anchors;
    // A key of the same value on every entry, written before the other.
    const char *fixed_key = nullptr;
    const char *fixed_value = nullptr;
};

// The binding of the list at `node`, or null for a node that is no list.
const ListBinding *list(const Node *node);

// Names of the key leaves of a list with this tag, for readable error paths
// of entries whose keys the walk has not marked.
std::span<const char *const> key_names(std::string_view list_tag);

} // namespace yfwhost::schema
