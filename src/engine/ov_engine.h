// The OpenConfig-to-native walk engine.
//
// An OpenConfig model is a constant table of walkers (generated from its
// description in src/models); each exported walker is a thin entry point
// that hands its row to the engine.  The engine carries out the container
// walker in its ordinary and `state` forms, the list walker, the three leaf
// functions and the augment entries, with the rules of a read (subtree
// filter selection and content match), the expansion of a deletion and the
// two passes of a replace; the handler forms add the native paths.
//
// A walker changes the request tree in place (op, subtrees and presence
// bits for the length of its walk, node_kind and is_key for good) and puts
// back on every way out what it changed for a while.
#pragma once

#include "engine/module.h"

namespace ov {

struct model {
    const char *ns;
};

// A child the walker knows by tag.  A gated child (a `state` container, any
// child of a `state`-form container) is known only in a GET.
struct child {
    const char *tag;
    map_function fn;
    bool gated;
};

struct container {
    const char *name = nullptr;
    const model *mdl = nullptr;
    bool state_form = false;
    container_hook hook = nullptr;
    const child *children = nullptr; // in the order of the tag tests
    uint32_t child_count = 0;
    map_function parse_augments = nullptr;
};

struct list {
    const char *name = nullptr;
    const model *mdl = nullptr;
    const char *key_tag = nullptr;
    map_function key_fn = nullptr;
    const child *children = nullptr; // the non-key children, in the order of the tag tests
    uint32_t child_count = 0;
    const char *list_path = nullptr;    // for yfw_map_update_current_list_node
    const char *leafref_path = nullptr; // for yfw_map_check_oc_leafref
    map_function hook = nullptr;
    map_function parse_augments = nullptr;
};

enum class leaf_form : uint8_t { ordinary, key, leaf_list };

struct leaf {
    const char *name = nullptr;
    leaf_form form = leaf_form::ordinary;
    map_function handler = nullptr;
};

struct entry {
    const char *name = nullptr;
    const model *mdl = nullptr;
    const char *accepts = nullptr;
    map_function walker = nullptr;
    map_function parse_augments = nullptr;
};

// Common to every function below, as to every mapping function:
//   ctx  never null; the generated entry point asserts it.  Its map_state
//        and request are read; map_state's walk fields (schema_walk,
//        delete_walk, replace_pass, walk_flags, filter_bits) are changed
//        and put back as the walk protocol says, error_tag may be replaced.
//   in   the request node; null: ERR "Invalid arguments passed!", the
//        error path, YFW_ERR_INVALID_ARG and no End.  Written in place
//        although it is const, as each function says.
//   out  the root of the native request tree; only passed on, or added to
//        by a handler; null as for `in`.
//   fn   (handler forms) the name the traces give, never null.
// Each returns 0, or the first code that stopped it (the codes of its own,
// a child's, or a framework operation's, unchanged).

// The container walker.  `in` may change for the length of the walk (op,
// subtrees, subtree_count and their presence bits: put back on every way
// out) and for good (node_kind).  Its children, read in the request tree,
// are walked by their own functions.  A hook that answers YFW_SKIP_NODE
// ends the walk with 0 and no End.
verrno walk(const container &c, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
            vidl_yfw_datatree *out);
// The list walker.  `in` changes as a container's does, and also for good:
// op stays REMOVE after a deletion by key, key children get is_key and
// YFW_PRESENT_IS_KEY, a keyless read gets its key added as a new child
// (which may move its child array).  A failed leafref check returns at once
// and leaves the node in the hierarchy.
verrno walk(const list &l, yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out);
// A leaf function.  `in` may be an ancestor's node in a schema walk or a
// deletion expansion; outside them node_kind (and in a read filter_bits)
// are written.  The handler's result is returned.
verrno walk(const leaf &l, yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out);
// An augment entry: `in` is any node, which it walks when its tag is the
// accepted one.  A null tag is reported and does not end it.  op of a
// deleted node reads REMOVE while it walks the node by its schema, and
// DELETE again afterwards.
verrno augment_entry(const entry &e, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                     vidl_yfw_datatree *out);

// Defaults: a foreign child fails an adding request and is passed over
// otherwise; an unmapped leaf is refused, naming `in`'s tag.  Neither
// changes `in`.  Containers pass (yfw::pass) and lists pass with their End
// alone (yfw::end_only).
verrno default_parse_augments(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                              vidl_yfw_datatree *out);
verrno refuse_leaf(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                   vidl_yfw_datatree *out);

// Handler forms: each adds one native path in `ns` to `out` and returns the
// add's result; `in` is only read.  `path` and `ns` are literals of the
// model's table, never null; the add copies what it keeps.
//
// A configuration leaf: its value (reads, writes) or its operation (writes,
// deletes).  `in`'s value may be null (an ancestor's node in a schema walk).
verrno config_leaf(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                   vidl_yfw_datatree *out, const char *path, const char *ns);
// A list key: as a configuration leaf, but a write keeps the value on a delete.
verrno key_leaf(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                vidl_yfw_datatree *out, const char *path, const char *ns);
// A state leaf: a selection in reads, nothing in writes.
verrno state_leaf(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                  vidl_yfw_datatree *out, const char *path, const char *ns, uint32_t path_flag);
// A container: a plain step of the native path when it has children
// (`subtree_count` those the walker visits), the deletion of the native
// container when a write deletes it empty.
verrno cont_handler(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                    unsigned int subtree_count, vidl_yfw_datatree *out, const char *path,
                    const char *ns);
// A list entry: the native entry, with `in` as op_node when it is deleted.
verrno list_handler(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                    vidl_yfw_datatree *out, const char *path, const char *ns);

} // namespace ov
