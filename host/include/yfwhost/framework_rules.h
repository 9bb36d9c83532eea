// The framework's own behaviour: the rules that the reference host follows
// on the framework's behalf, which no model table holds and the module only
// relies on.  Everything else the host knows of the models (which model owns
// a node, which native node names which OpenConfig list entry, the fixed
// key of a native list, the augment entries) comes from the models' tables,
// octunnel/model_tables.h.
//
// Here, as small functions: how names are compared, what a deletion and an
// addition are, how repeated adds settle the operation of a node, and when
// a list key agrees with its reference under `config`.
//
// The framework's own behaviour that is more than a rule lives where the
// host carries it out:
// - the walk of /interfaces by the module that owns it, which steps into
//   the tunnel module through its augment entries (interfaces_root.cpp);
// - the entry of a list that an added path reaches: the one the innermost
//   naming node of the walk gives the key of, merged by key, else the last
//   one (Request::list_entry_for);
// - the hierarchy, the output list and the instance stack, and the error
//   path as text with the keys of each list entry (request.cpp).
#pragma once

#include "octunnel/yfw_types.h"

#include <cstring>

namespace yfwhost {

// Two names match when they are equal, or when two namespaces are equal once
// a trailing ".yang" is taken off one of them.  A namespace is a URI and so
// carries the ':' of its scheme, which no tag (a YANG identifier) can hold:
// "ttl.yang" is a tag of its own and never "ttl".  Null matches nothing.
// In one pass, without measuring either string first: where the two part,
// one has ended and the other goes on with ".yang" alone; only then is the
// shared part looked at for a ':'.  It is asked of every tag the module
// looks up, so it is inline.
inline bool ns_match(const char *a, const char *b)
{
    if (a == nullptr || b == nullptr)
        return false;
    if (a == b)
        return true;
    const char *start = a;
    while (*a != '\0' && *a == *b) {
        ++a;
        ++b;
    }
    if (*a == *b)
        return true;
    const char *rest = *a == '\0' ? b : *b == '\0' ? a : nullptr;
    if (rest == nullptr || rest[0] != '.' || rest[1] != 'y' || rest[2] != 'a' || rest[3] != 'n' ||
        rest[4] != 'g' || rest[5] != '\0')
        return false;
    for (const char *p = start; p != a; ++p) // namespaces only: a scheme's ':'
        if (*p == ':')
            return true;
    return false;
}

namespace rules {

// A removal, in the client's words (delete) or the walker's (remove).
inline bool is_removal(uint32_t op)
{
    return op == YFW_OP_DELETE || op == YFW_OP_REMOVE;
}

// A node is deleted by its own operation only: its ancestors' do not count.
inline bool is_request_delete(const vidl_yfw_datatree *node)
{
    return node != nullptr && (node->present & YFW_PRESENT_OP) != 0 && is_removal(node->op);
}

// A node of a writing request is added or changed unless its effective
// operation (its own, or its nearest ancestor's that has one) is a removal.
// A read adds nothing.  `holder_of()` gives the node whose operation is the
// effective one, or null for none; it is asked in a writing request only.
template <typename HolderOf> bool is_request_add(uint32_t kind, HolderOf &&holder_of)
{
    if (kind == YFW_MAP_REQ_GET_CONFIG || kind == YFW_MAP_REQ_GET)
        return false;
    const vidl_yfw_datatree *holder = holder_of();
    return holder == nullptr || !is_removal(holder->op);
}

// The operation a node of a built tree ends with after an add that carries
// a request node (`op_node`, whose effective operation `holder` has; null
// for merge).  A node that an earlier add removed and a later one writes,
// to it or below it, is replaced: its old content goes and the new stands,
// which is how the two passes of a replace meet in one tree.  A removal
// never weakens the client's delete.  Adds without a request node
// (selections, plain steps of a path, answers) leave operations alone.
// `Node` gives has_op(), op() and set_op(op) of a node of either tree.
template <typename Node> void rewrite_removed(const Node &n)
{
    if (n.has_op() && is_removal(n.op()))
        n.set_op(YFW_OP_REPLACE);
}

template <typename Node>
void settle_operation(const Node &n, const vidl_yfw_datatree *op_node,
                      const vidl_yfw_datatree *holder)
{
    if (op_node == nullptr)
        return;
    if (holder == nullptr) {
        rewrite_removed(n); // merge by default
        return;
    }
    const bool had = n.has_op();
    if (is_removal(holder->op)) {
        if (!(had && n.op() == YFW_OP_DELETE))
            n.set_op(holder->op);
    } else if (had && is_removal(n.op())) {
        n.set_op(YFW_OP_REPLACE);
    } else {
        n.set_op(holder->op);
    }
}

// A list's key leaf and its reference under `config` agree when they carry
// the same value, or when either of them, or its value, is missing.
inline bool key_agrees(const vidl_yfw_datatree *key, const vidl_yfw_datatree *reference)
{
    if (key == nullptr || reference == nullptr || (key->present & YFW_PRESENT_VALUE) == 0 ||
        (reference->present & YFW_PRESENT_VALUE) == 0)
        return true;
    return std::strcmp(key->value, reference->value) == 0;
}

} // namespace rules
} // namespace yfwhost
