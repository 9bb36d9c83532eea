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

verrno walk(const container &c, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
            vidl_yfw_datatree *out);
verrno walk(const list &l, yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out);
verrno walk(const leaf &l, yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out);
verrno augment_entry(const entry &e, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                     vidl_yfw_datatree *out);

// Defaults: a foreign child fails an adding request and is passed over
// otherwise; an unmapped leaf is refused; containers pass (yfw::pass) and
// lists pass with their End alone (yfw::end_only).
verrno default_parse_augments(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                              vidl_yfw_datatree *out);
verrno refuse_leaf(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                   vidl_yfw_datatree *out);

// Handler forms: each adds one native path in `ns` to the native tree.
// A configuration leaf: its value (reads, writes) or its operation (writes,
// deletes).
verrno config_leaf(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                   vidl_yfw_datatree *out, const char *path, const char *ns);
// A list key: as a configuration leaf, but a write keeps the value on a delete.
verrno key_leaf(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                vidl_yfw_datatree *out, const char *path, const char *ns);
// A state leaf: a selection in reads, nothing in writes.
verrno state_leaf(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                  vidl_yfw_datatree *out, const char *path, const char *ns, uint32_t path_flag);
// A container: a plain step of the native path when it has children, the
// deletion of the native container when a write deletes it empty.
verrno cont_handler(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                    unsigned int subtree_count, vidl_yfw_datatree *out, const char *path,
                    const char *ns);
verrno list_handler(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                    vidl_yfw_datatree *out, const char *path, const char *ns);

} // namespace ov
