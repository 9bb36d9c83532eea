// The native-to-OpenConfig walk engine.
//
// A native model is a constant table of nodes (generated from its
// description in src/models); each node's exported visit function is a thin
// entry point that hands its row to the engine.  The engine carries out the
// three forms of visit (container, list entry, leaf), the child loop with its
// namespace rules, the augment entries, and the handler forms that add
// OpenConfig paths to the output tree.
#pragma once

#include "engine/module.h"

namespace vo {

enum class form : uint8_t { container, list, leaf };

struct model {
    const char *ns;
    // Operational models take a branch only in a GET; any other kind lets
    // every known tag fall through to the namespace test.
    bool operational;
};

// A child that the parent knows by tag.
struct branch {
    const char *tag;
    form kind;
    map_function visit;
};

struct node {
    const char *name = nullptr; // the visit's exported name, for traces
    const model *mdl = nullptr;
    form kind = form::container;
    container_hook cont_hook = nullptr; // containers: duck_map_container or cont_...
    map_function hook = nullptr;        // lists: duck_map_list or list_...; leaves: the handler
    const char *list_path = nullptr;    // lists: handed to yfw_map_update_current_list_node
    const char *const *keys = nullptr;  // lists: key names, in the order they are tried
    uint32_t key_count = 0;
    const branch *branches = nullptr; // containers and lists
    uint32_t branch_count = 0;
    map_function parse_augments = nullptr; // containers and lists: children of other namespaces
};

// An augment entry: the door through which a walk crosses into a model that
// augments a node of another one.
struct entry {
    const char *name = nullptr;
    const model *mdl = nullptr;
    const char *accepts = nullptr;
    map_function visit = nullptr;      // the visit of the accepted node, or
    const node *inline_node = nullptr; // a container visited inside the entry itself
    map_function parse_augments = nullptr;
};

// Common to every function below, as to every mapping function:
//   ctx  never null; the generated entry point asserts it.  Its request is
//        read; map_state's walk_flags may get YFW_WALK_XPATH_ERROR.
//   in   the native node; null: ERR "Invalid arguments passed!", the error
//        path, YFW_ERR_INVALID_ARG and no End.  Only read, but for the key
//        marks below.  A child's tag may be null (a broken tree: reported).
//   out  the root of the OpenConfig answer; only passed on, or added to by
//        a handler; null as for `in`.
//   fn   (handler forms) the name the traces give, never null.

// A visit of `in` in the form of its row: a container, a list entry (the
// children with a key tag get is_key and YFW_PRESENT_IS_KEY for good,
// before the hook) or a leaf.  Returns 0, or the first code that stopped
// it; a list entry whose hook declines returns YFW_SKIP_NODE, which the
// nearest enclosing container turns into 0.
verrno visit(const node &n, yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out);
// An augment entry: `in` is any node, visited when its tag is the accepted
// one.  A null tag is reported and does not end it.
verrno augment_entry(const entry &e, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                     vidl_yfw_datatree *out);

// Defaults: a parse_augments drops the foreign child (yfw::pass), and the
// three hooks pass (yfw::end_only).

// Handler forms.  Each adds full OpenConfig paths in NS_OC_IF_TUNNEL, from
// literals of the model's table (never null unless said), and returns the
// last add's result; `in` is only read, and its value may be null.
//
// A container: its path when it is empty (`subtree_count` 0).
verrno cont_handler(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                    unsigned int subtree_count, vidl_yfw_datatree *out, const char *path);
// A list entry: its path, with `in` as op_node when it is deleted.
verrno list_handler(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                    vidl_yfw_datatree *out, const char *path);
// A leaf: its path with `in`'s value, whatever YFW_PRESENT_VALUE says.
verrno plain_leaf(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                  vidl_yfw_datatree *out, const char *path);
// A configuration leaf: `always` (a list key; null for none)
// unconditionally, then `config` and `state` (null for none) when the
// request lets configuration and state through.
verrno guarded_leaf(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                    vidl_yfw_datatree *out, const char *always, const char *config,
                    const char *state);

} // namespace vo
