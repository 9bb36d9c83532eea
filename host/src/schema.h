// What the host knows of the models' schemas, all of it from the models'
// tables (octunnel/model_tables.h): which model owns a node of an added
// path, how the entry of a list in an added path is found, and the keys of
// a list entry for readable error paths.
#pragma once

#include "octunnel/model_tables.h"

#include <span>
#include <string_view>

namespace yfwhost::schema {

// A node of the models' schema, reached one step of an added path at a
// time; below the nodes that the tables hold the host knows nothing.
struct Node;
// The node `tag` below `parent` (null: the root of every model), or null.
// The schema is built once, on the first call, and never changes.
const Node *child(const Node *parent, std::string_view tag);
// The namespace of the model that owns `node`, or null for a node the
// tables do not hold (the added path's own namespace applies then).
const char *owner(const Node *node);

using ListBinding = octunnel::models::binding;
using Naming = octunnel::models::naming;
// The binding of the list at `node`, or null for a node whose entries are
// found by their tag alone (no list, or no entry named by the walk).
const ListBinding *list(const Node *node);

// The key names of a list entry with this tag in this namespace, for
// readable error paths of entries whose keys the walk has not marked; none
// for a null tag or namespace, or a node of no list.
std::span<const char *const> key_names(const char *tag, const char *ns);

} // namespace yfwhost::schema
