// The OpenConfig-to-native walk: containers, lists and leaves of a request
// tree, visited by the table of their model.
#include "engine/ov_engine.h"

namespace ov {
namespace {

constexpr uint32_t SEEN_BITS = YFW_FILTER_MATCH_SEEN | YFW_FILTER_SELECT_SEEN;

bool keyed_kind(uint32_t kind)
{
    return kind < 16 && ((YFW_MAP_KEYED_KINDS >> kind) & 1u) != 0;
}

bool is_get(yfw_map_ctx ctx)
{
    return yfw::request(ctx)->kind == YFW_MAP_REQ_GET;
}

bool is_delete(const vidl_yfw_datatree *n)
{
    return yfw_map_is_request_delete(n) != 0;
}

// op is written together with its presence bit, always.
void set_op(vidl_yfw_datatree *n, uint32_t op)
{
    n->op = op;
    n->present |= YFW_PRESENT_OP;
}

bool has_op(const vidl_yfw_datatree *n, uint32_t op)
{
    return (n->present & YFW_PRESENT_OP) != 0 && n->op == op;
}

void set_node_kind(vidl_yfw_datatree *n, uint32_t kind)
{
    n->node_kind = kind;
    n->node_kind_present |= YFW_NODE_KIND_PRESENT;
}

// The request's children of a node, and the node's own fields for putting
// them back exactly after a detachment.
struct children {
    vidl_yfw_datatree *array = nullptr;
    uint32_t count = 0;
};

bool fetch_children(const vidl_yfw_datatree *in, children &c)
{
    if ((in->present & YFW_PRESENT_SUBTREES) == 0)
        return true;
    c.array = in->subtrees;
    c.count = in->subtree_count;
    return c.array != nullptr || c.count == 0;
}

struct detached {
    vidl_yfw_datatree *subtrees;
    uint32_t subtree_count;
    bool present;
};

detached detach(vidl_yfw_datatree *n)
{
    detached d{n->subtrees, n->subtree_count, (n->present & YFW_PRESENT_SUBTREES) != 0};
    n->subtrees = nullptr;
    n->subtree_count = 0;
    n->present &= ~YFW_PRESENT_SUBTREES;
    return d;
}

void reattach(vidl_yfw_datatree *n, const detached &d)
{
    n->subtrees = d.subtrees;
    n->subtree_count = d.subtree_count;
    if (d.present)
        n->present |= YFW_PRESENT_SUBTREES;
}

const child *find(const child *table, uint32_t count, const char *tag, bool get)
{
    for (uint32_t i = 0; i < count; ++i)
        if (yfw_map_do_these_match(tag, table[i].tag) && (!table[i].gated || get))
            return &table[i];
    return nullptr;
}

// A tag the table does not hold, in the model's own namespace: a read goes
// on, a write fails naming the tag.  Returns the code to go on with.
verrno unknown_tag(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *child)
{
    YFW_ERR(ctx, fn, "Unsupported tag is specified in the request.");
    if (yfw::is_read(ctx))
        return YFW_OK;
    yfw::set_error_tag(ctx, child->tag);
    yfw_oc_error_path(ctx);
    return YFW_ERR_UNSUPPORTED_TAG;
}

// The end of the two passes of a replace: the flags cleared and the node's
// replace back, unless a replace nested below has already ended the pass.
void end_replace(yfw_map_state *st, vidl_yfw_datatree *in)
{
    st->walk_flags &= ~(YFW_WALK_REPLACE_CLEAR | YFW_WALK_REPLACE_WRITE);
    if (st->replace_pass == 1)
        set_op(in, YFW_OP_REPLACE);
    st->replace_pass = 0;
}

// Sets schema_walk for the length of a schema walk, unless an outer walker
// already did; only the walker that set it clears it.
struct schema_walk_guard {
    yfw_map_state *st;
    bool owned;
    explicit schema_walk_guard(yfw_map_state *s) : st(s), owned(s->schema_walk != 1)
    {
        st->schema_walk = 1;
    }
    ~schema_walk_guard()
    {
        if (owned)
            st->schema_walk = 0;
    }
};

// ---------------------------------------------------------------- containers

verrno container_children(const container &c, yfw_map_ctx ctx, const children &ch,
                          vidl_yfw_datatree *out)
{
    verrno code = YFW_OK;
    const bool get = is_get(ctx);
    for (uint32_t i = 0; i < ch.count && code == YFW_OK; ++i) {
        const vidl_yfw_datatree *child = &ch.array[i];
        if (child->tag == nullptr) {
            YFW_ERR(ctx, c.name, "Tag name is not available!");
            return YFW_ERR_NO_SUBTREES;
        }
        if (const ov::child *known = find(c.children, c.child_count, child->tag, get))
            code = known->fn(ctx, child, out);
        else if (yfw_map_do_these_match(c.mdl->ns, child->ns))
            code = unknown_tag(c.name, ctx, child);
        else
            code = c.parse_augments(ctx, child, out);
    }
    return code;
}

// The children of a schema walk, each handed `in` and their results
// dropped: the ungated ones in table order, then `op` back to delete where
// the walk had made the deletion a removal, then (in a GET) the gated ones.
void schema_children(const child *children, uint32_t count, bool was_delete, yfw_map_ctx ctx,
                     vidl_yfw_datatree *in, vidl_yfw_datatree *out)
{
    for (uint32_t i = 0; i < count; ++i)
        if (!children[i].gated)
            children[i].fn(ctx, in, out);
    if (was_delete)
        set_op(in, YFW_OP_DELETE);
    if (is_get(ctx))
        for (uint32_t i = 0; i < count; ++i)
            if (children[i].gated)
                children[i].fn(ctx, in, out);
}

// The schema of a container: its children, then parse_augments.  A deletion
// is seen by the children as a removal.
void container_schema(const container &c, yfw_map_ctx ctx, vidl_yfw_datatree *in,
                      vidl_yfw_datatree *out)
{
    schema_walk_guard guard(ctx->map_state);
    const bool was_delete = !c.state_form && is_delete(in) && has_op(in, YFW_OP_DELETE);
    if (was_delete)
        set_op(in, YFW_OP_REMOVE);
    schema_children(c.children, c.child_count, was_delete, ctx, in, out);
    c.parse_augments(ctx, in, out);
}

} // namespace

verrno walk(const container &c, yfw_map_ctx ctx, const vidl_yfw_datatree *node,
            vidl_yfw_datatree *out)
{
    YFW_FRAME_START_OR_RETURN(ctx, c.name, node, out);
    auto *in = const_cast<vidl_yfw_datatree *>(node);
    yfw_map_state *st = ctx->map_state;
    children ch;
    if (!fetch_children(in, ch)) {
        YFW_ERR(ctx, c.name, "Failed to get subtrees!");
        YFW_TRC(ctx, c.name, "End");
        return YFW_ERR_NO_SUBTREES;
    }
    if (!c.state_form && st->schema_walk != 1 && ch.count != 0 && st->delete_walk == 0 &&
        is_delete(in)) {
        YFW_TRC(ctx, c.name, "Delete request with subtree present");
        YFW_TRC(ctx, c.name, "End");
        return YFW_ERR_INVALID_ARG;
    }
    // Handed an ancestor in a schema walk of a content match: its children
    // are not this walker's.
    if ((st->filter_bits & YFW_FILTER_WALK_ALL) != 0 && st->schema_walk == 1)
        ch.count = 0;
    const bool joined = st->schema_walk != 1;
    if (joined) {
        yfw_map_add_to_node_hierarchy(ctx, in, YFW_LEVEL_CONTAINER);
        set_node_kind(in, YFW_NODE_CONTAINER);
        if (yfw::is_read(ctx))
            st->filter_bits &= YFW_FILTER_LOW_CLEAR_MASK;
    }

    const bool replace = has_op(in, YFW_OP_REPLACE);
    detached kept{};
    uint32_t count = ch.count;
    if (replace) {
        set_op(in, YFW_OP_REMOVE);
        st->walk_flags |= YFW_WALK_REPLACE_CLEAR;
        st->replace_pass = 1;
        kept = detach(in);
        count = 0;
    }

    verrno code = YFW_OK;
    for (int pass = 1; pass <= (replace ? 2 : 1); ++pass) {
        bool declined = false;
        if (code == YFW_OK) {
            verrno answer = c.hook(ctx, in, count, out);
            if (answer == YFW_SKIP_NODE && (st->walk_flags & YFW_WALK_REPLACE_CLEAR) == 0) {
                // The hook declines the node.  Outside pass one of a replace
                // the walker leaves at once, putting back what it changed.
                if (replace) {
                    end_replace(st, in);
                }
                if (joined)
                    yfw_map_remove_from_node_hierarchy(ctx, in);
                return YFW_OK;
            }
            declined = answer == YFW_SKIP_NODE; // in pass one: on to the second pass
            if (!declined) {
                code = answer;
                if (code == YFW_OK && count != 0)
                    code = container_children(c, ctx, children{in->subtrees, count}, out);
            }
        }
        if (!declined) {
            if ((st->filter_bits & SEEN_BITS) == YFW_FILTER_MATCH_SEEN) {
                st->filter_bits |= YFW_FILTER_WALK_ALL;
                st->filter_bits &= ~SEEN_BITS;
            }
            const bool by_schema = count == 0 || (st->filter_bits & YFW_FILTER_WALK_ALL) != 0;
            const bool wanted = yfw::is_read(ctx) || (!c.state_form && is_delete(in));
            if (by_schema && wanted) {
                container_schema(c, ctx, in, out);
                st->filter_bits &= YFW_FILTER_LOW_CLEAR_MASK;
                st->filter_bits &= ~SEEN_BITS;
            }
        }
        if (replace && pass == 1) {
            set_op(in, YFW_OP_MERGE);
            st->walk_flags |= YFW_WALK_REPLACE_WRITE;
            st->walk_flags &= ~YFW_WALK_REPLACE_CLEAR;
            reattach(in, kept);
            count = ch.count;
        }
    }
    if (replace) {
        end_replace(st, in);
    }
    if (joined)
        yfw_map_remove_from_node_hierarchy(ctx, in);
    YFW_TRC(ctx, c.name, "End");
    return code;
}

// ---------------------------------------------------------------- lists

namespace {

// What a list walker keeps for its own run.
struct list_marks {
    uint8_t keys_seen = 0;
    uint32_t keys_with_value = 0;
    bool missing_key_value = false;
    bool non_key_seen = false;
    bool hook_delete = false;
    bool delete_owned = false;
    itree_record *record = nullptr;
};

bool key_count_passes(uint32_t kind, const list_marks &m)
{
    if (kind == 1 || kind == 15)
        return m.keys_with_value == 1 && m.keys_seen < 2;
    if (kind == 8)
        return m.keys_with_value == 1 && m.keys_seen == 1;
    return m.keys_seen <= 1 && m.keys_with_value <= 1;
}

// The key loop: counts and marks the key children and notes any other.
// Returns non-zero only for a failed leafref check.
verrno key_loop(const list &l, yfw_map_ctx ctx, vidl_yfw_datatree *in, const children &ch,
                list_marks &m)
{
    const yfw_map_state *st = ctx->map_state;
    for (uint32_t i = 0; i < ch.count; ++i) {
        if (st->schema_walk == 1 || st->delete_walk != 0)
            break;
        vidl_yfw_datatree *child = &ch.array[i];
        if (!yfw_map_do_these_match(child->tag, l.key_tag)) {
            m.non_key_seen = true;
            continue;
        }
        if (keyed_kind(yfw::request(ctx)->kind)) {
            verrno rc = yfw_map_check_oc_leafref(ctx, l.leafref_path, "config", child->tag, in);
            if (rc != YFW_OK) {
                YFW_ERR(ctx, l.name, "leafref value check fail");
                return rc;
            }
        }
        m.keys_seen++;
        child->is_key = 1;
        child->present |= YFW_PRESENT_IS_KEY;
        if ((child->present & YFW_PRESENT_VALUE) != 0)
            m.keys_with_value++;
        else
            m.missing_key_value = true;
    }
    return YFW_OK;
}

// The request children of one instance, in request order.
verrno list_children(const list &l, yfw_map_ctx ctx, const children &ch, vidl_yfw_datatree *out,
                     list_marks &m)
{
    const yfw_map_state *st = ctx->map_state;
    const bool clearing = (st->walk_flags & YFW_WALK_REPLACE_CLEAR) != 0;
    const bool get = is_get(ctx);
    verrno code = YFW_OK;
    for (uint32_t i = 0; i < ch.count && code == YFW_OK; ++i) {
        vidl_yfw_datatree *child = &ch.array[i];
        if (child->tag == nullptr) {
            YFW_ERR(ctx, l.name, "Tag name is not available!");
            return YFW_ERR_NO_SUBTREES;
        }
        if (yfw_map_do_these_match(child->tag, l.key_tag)) {
            if (keyed_kind(yfw::request(ctx)->kind) && (child->present & YFW_PRESENT_VALUE) == 0) {
                YFW_ERR(ctx, l.name, "Empty list key specified.");
                yfw::set_error_tag(ctx, child->tag);
                yfw_oc_error_path(ctx);
                return YFW_ERR_LIST_KEY;
            }
            if (is_delete(child)) {
                YFW_ERR(ctx, l.name, "The key node should not have delete operation.");
                yfw_oc_error_path(ctx);
                return YFW_ERR_KEY_DELETE;
            }
            code = l.key_fn(ctx, child, out);
            if ((child->present & YFW_PRESENT_VALUE) != 0)
                m.keys_seen = 1;
            child->is_key = 1;
            child->present |= YFW_PRESENT_IS_KEY;
        } else if (const ov::child *known = find(l.children, l.child_count, child->tag, get)) {
            if (!clearing) {
                code = known->fn(ctx, child, out);
                m.non_key_seen = true;
            }
        } else if (clearing) {
            continue;
        } else if (yfw_map_do_these_match(l.mdl->ns, child->ns)) {
            code = unknown_tag(l.name, ctx, child);
        } else {
            code = l.parse_augments(ctx, child, out);
            m.non_key_seen = true;
        }
    }
    return code;
}

// An instance named by its key alone: everything it holds is wanted, or is
// to go.  Its children are parked on the instance stack meanwhile.
void key_only_schema(const list &l, yfw_map_ctx ctx, vidl_yfw_datatree *in,
                     vidl_yfw_datatree *target, vidl_yfw_datatree *out, list_marks &m)
{
    yfw_map_state *st = ctx->map_state;
    schema_walk_guard guard(st);
    if (m.hook_delete) {
        st->delete_walk = 1;
        m.delete_owned = true;
    }
    if (is_delete(in))
        set_op(target, YFW_OP_REMOVE); // stays: the instance is deleted by its key
    yfw_map_util_itree_stack_push(ctx, target->subtrees, target->subtree_count, nullptr);
    detached kept = detach(target);
    const bool get = is_get(ctx);
    for (uint32_t i = 0; i < l.child_count; ++i)
        if (!l.children[i].gated || get)
            l.children[i].fn(ctx, target, out);
    l.parse_augments(ctx, target, out);
    if (m.delete_owned)
        st->delete_walk = 0;
    reattach(target, kept);
    yfw_map_util_itree_stack_pop(ctx);
    m.delete_owned = false;
}

// An instance without children, in a read or a deletion: the key and every
// other child by the schema, with the list node itself.
void childless_schema(const list &l, yfw_map_ctx ctx, vidl_yfw_datatree *in, vidl_yfw_datatree *out,
                      list_marks &m)
{
    yfw_map_state *st = ctx->map_state;
    schema_walk_guard guard(st);
    bool was_delete = false;
    if (is_delete(in)) {
        if (has_op(in, YFW_OP_DELETE)) {
            set_op(in, YFW_OP_REMOVE);
            was_delete = true;
        }
        if (st->delete_walk == 0) {
            st->delete_walk = 1;
            m.delete_owned = true;
        }
    }
    l.key_fn(ctx, in, out);
    schema_children(l.children, l.child_count, was_delete, ctx, in, out);
    l.parse_augments(ctx, in, out);
    if (m.delete_owned) {
        st->delete_walk = 0;
        m.delete_owned = false;
    }
}

// Calls the list hook, under the deletion marks it is owed.
verrno call_hook(const list &l, yfw_map_ctx ctx, vidl_yfw_datatree *in, uint32_t count,
                 vidl_yfw_datatree *out, list_marks &m)
{
    yfw_map_state *st = ctx->map_state;
    if (is_delete(in) && !m.non_key_seen && m.keys_seen != 0 && st->delete_walk == 0) {
        st->delete_walk = 2;
        verrno answer = l.hook(ctx, in, out);
        st->delete_walk = 0;
        m.hook_delete = true;
        return answer;
    }
    if (count == 0 && is_delete(in) && st->delete_walk == 0 && st->schema_walk == 1) {
        st->delete_walk = 1;
        m.delete_owned = true;
        m.hook_delete = true;
    }
    return l.hook(ctx, in, out);
}

} // namespace

verrno walk(const list &l, yfw_map_ctx ctx, const vidl_yfw_datatree *node, vidl_yfw_datatree *out)
{
    YFW_FRAME_START_OR_RETURN(ctx, l.name, node, out);
    auto *in = const_cast<vidl_yfw_datatree *>(node);
    yfw_map_state *st = ctx->map_state;
    const uint32_t kind = yfw::request(ctx)->kind;
    children ch;
    if (!fetch_children(in, ch)) {
        YFW_ERR(ctx, l.name, "Failed to get subtrees!");
        YFW_TRC(ctx, l.name, "End");
        return YFW_ERR_NO_SUBTREES;
    }
    if (ch.count == 0) {
        YFW_ERR(ctx, l.name, "No keys specified with a list node.");
        if (st->schema_walk != 1 && st->delete_walk == 0 && keyed_kind(kind)) {
            YFW_ERR(ctx, l.name, "No keys specified with a list node.");
            YFW_TRC(ctx, l.name, "End");
            return YFW_ERR_NO_SUBTREES;
        }
    }
    const bool joined = st->schema_walk != 1;
    if (joined) {
        yfw_map_add_to_node_hierarchy(ctx, in, YFW_LEVEL_LIST);
        set_node_kind(in, YFW_NODE_LIST);
        if (yfw::is_read(ctx))
            st->filter_bits &= YFW_FILTER_LOW_CLEAR_MASK;
    }
    verrno code = yfw_map_update_current_list_node(ctx, l.list_path);

    list_marks m;
    if (ch.count != 0 && code == YFW_OK) {
        if (verrno rc = key_loop(l, ctx, in, ch, m); rc != YFW_OK) {
            YFW_TRC(ctx, l.name, "End");
            return rc; // the node stays in the hierarchy
        }
    }
    if (st->schema_walk != 1 && ch.count != 0 && st->delete_walk == 0 &&
        !key_count_passes(kind, m)) {
        YFW_ERR(ctx, l.name, "List key node error.");
        yfw::set_error_tag(ctx, l.key_tag);
        yfw_oc_error_path(ctx);
        code = YFW_ERR_LIST_KEY;
    }

    const bool replace = has_op(in, YFW_OP_REPLACE);
    if (replace) {
        set_op(in, YFW_OP_REMOVE);
        st->walk_flags |= YFW_WALK_REPLACE_CLEAR;
        st->replace_pass = 1;
        m.missing_key_value = false;
        m.non_key_seen = false;
    }

    const bool read = yfw::is_read(ctx);
    for (int pass = 1; pass <= (replace ? 2 : 1); ++pass) {
        if (code == YFW_OK) {
            uint16_t stack_before = yfw_map_util_itree_stack_size(ctx);
            verrno answer = call_hook(l, ctx, in, ch.count, out, m);
            if (answer == YFW_SKIP_NODE) {
                if (m.delete_owned) {
                    st->delete_walk = 0;
                    m.delete_owned = false;
                }
                if (replace) {
                    set_op(in, YFW_OP_MERGE);
                    st->walk_flags &= ~YFW_WALK_REPLACE_CLEAR;
                }
                code = YFW_OK;
                continue;
            }
            if (yfw_map_util_itree_stack_size(ctx) > stack_before)
                yfw_map_util_itree_stack_peak(ctx, &m.record);
            code = answer;
            if (code == YFW_OK)
                ctx->last_op = (in->present & YFW_PRESENT_OP) != 0 ? in->op : 0;
        }

        // Each instance: the list node itself, or the nodes a hook pushed.
        const uint32_t instances = m.record != nullptr && m.record->count > 1 ? m.record->count : 1;
        for (uint32_t i = 0; i < instances; ++i) {
            vidl_yfw_datatree *entry = nullptr;
            children inst = ch;
            if (code == YFW_OK && m.record != nullptr && m.record->count != 0) {
                entry = &m.record->nodes[i];
                inst = children{};
                fetch_children(entry, inst);
                if (i > 0) {
                    yfw_map_add_to_node_hierarchy(ctx, entry, YFW_LEVEL_LIST);
                    code = yfw_map_update_current_list_node(ctx, l.list_path);
                }
                if (m.record->handler != nullptr) {
                    if (is_delete(in))
                        set_op(entry, YFW_OP_REMOVE);
                    m.record->handler(ctx, entry, out, 0);
                }
            }
            if (inst.count != 0 && code == YFW_OK)
                code = list_children(l, ctx, inst, out, m);
            if (code == YFW_OK && !m.missing_key_value && !m.non_key_seen && m.keys_seen != 0 &&
                (read || is_delete(in)))
                key_only_schema(l, ctx, in, entry != nullptr ? entry : in, out, m);
            if (inst.count == 0 && (read || is_delete(in)))
                childless_schema(l, ctx, in, out, m);
            if (entry != nullptr && i > 0)
                yfw_map_remove_from_node_hierarchy(ctx, entry);
        }

        // A read that asks for children of a list without naming the key
        // gets the key added to its request node, so that each instance of
        // the answer carries it.
        if (code == YFW_OK && read && st->schema_walk != 1 && m.non_key_seen && m.keys_seen == 0) {
            vidl_yfw_datatree *key = nullptr;
            code = yfw_map_datatree_add_path_flagged(ctx, in, l.key_tag, in->ns, nullptr, nullptr,
                                                     &key, 0, 0);
            if (key != nullptr) {
                key->is_key = 1;
                key->present |= YFW_PRESENT_IS_KEY;
            }
        }
        if (replace) {
            set_op(in, YFW_OP_MERGE);
            st->walk_flags &= ~YFW_WALK_REPLACE_CLEAR;
        }
    }

    if (replace) {
        end_replace(st, in);
    }
    if (m.record != nullptr && m.record->nodes != nullptr)
        yfw_map_util_itree_stack_pop(ctx);
    if (joined)
        yfw_map_remove_from_node_hierarchy(ctx, in);
    YFW_TRC(ctx, l.name, "End");
    return code;
}

// ---------------------------------------------------------------- leaves

// The handler runs in every case; the marks for the subtree filter are made
// only on a node of the leaf's own, outside schema walks and deletions.
verrno walk(const leaf &l, yfw_map_ctx ctx, const vidl_yfw_datatree *node, vidl_yfw_datatree *out)
{
    YFW_FRAME_START_OR_RETURN(ctx, l.name, node, out);
    auto *in = const_cast<vidl_yfw_datatree *>(node);
    yfw_map_state *st = ctx->map_state;
    verrno code = l.handler(ctx, in, out);
    if (st->schema_walk != 1 && st->delete_walk == 0) {
        switch (l.form) {
        case leaf_form::leaf_list:
            set_node_kind(in, YFW_NODE_LEAF_LIST);
            break;
        case leaf_form::key:
            set_node_kind(in, YFW_NODE_LEAF);
            break;
        case leaf_form::ordinary:
            set_node_kind(in, YFW_NODE_LEAF);
            if (yfw::is_read(ctx)) {
                if ((in->present & YFW_PRESENT_VALUE) != 0) {
                    st->filter_bits |= YFW_FILTER_MATCH_SEEN;
                    set_node_kind(in, YFW_NODE_MATCH_LEAF);
                    st->filter_bits |= YFW_FILTER_MATCH_EVER;
                } else {
                    st->filter_bits |= YFW_FILTER_SELECT_SEEN;
                }
            }
            break;
        }
    }
    YFW_TRC(ctx, l.name, "End");
    return code;
}

// ---------------------------------------------------------------- entries

verrno augment_entry(const entry &e, yfw_map_ctx ctx, const vidl_yfw_datatree *node,
                     vidl_yfw_datatree *out)
{
    YFW_FRAME_START_OR_RETURN(ctx, e.name, node, out);
    auto *in = const_cast<vidl_yfw_datatree *>(node);
    children ch;
    if (!fetch_children(in, ch)) {
        YFW_ERR(ctx, e.name, "Failed to get subtrees!");
        YFW_TRC(ctx, e.name, "End");
        return YFW_ERR_NO_SUBTREES;
    }
    verrno code = YFW_OK;
    if (in->tag == nullptr) {
        YFW_ERR(ctx, e.name, "Tag name is not available!");
        code = YFW_ERR_NO_SUBTREES;
    }
    YFW_TRC(ctx, e.name, "Processing tag '%s'", YFW_TEXT(in->tag));
    if (yfw_map_do_these_match(in->tag, e.accepts))
        code = e.walker(ctx, in, out);
    else if (yfw_map_do_these_match(e.mdl->ns, in->ns)) {
        YFW_ERR(ctx, e.name, "Unsupported tag is specified in the request.");
        if (!yfw::is_read(ctx)) {
            yfw::set_error_tag(ctx, in->tag);
            yfw_oc_error_path(ctx);
            code = YFW_ERR_UNSUPPORTED_TAG;
        }
    } else {
        code = e.parse_augments(ctx, in, out);
    }
    // The augment as a whole is wanted, or goes; the results are dropped.
    if (ch.count == 0 && code == YFW_OK && (yfw::is_read(ctx) || is_delete(in))) {
        if (is_delete(in) && has_op(in, YFW_OP_DELETE)) {
            set_op(in, YFW_OP_REMOVE);
            e.walker(ctx, in, out);
            set_op(in, YFW_OP_DELETE);
        } else {
            e.walker(ctx, in, out);
        }
        e.parse_augments(ctx, in, out);
    }
    YFW_TRC(ctx, e.name, "End");
    return code;
}

// ---------------------------------------------------------------- defaults

verrno default_parse_augments(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                              vidl_yfw_datatree *out)
{
    YFW_FRAME_START_OR_RETURN(ctx, fn, in, out);
    verrno code = YFW_OK;
    if (yfw_map_is_request_add(ctx, in)) {
        yfw::set_error_tag(ctx, in->tag);
        yfw_oc_error_path(ctx);
        code = YFW_ERR_AUGMENT_NOT_SUPPORTED;
    }
    YFW_TRC(ctx, fn, "End");
    return code;
}

// The error path is recorded before the tag, the reverse of every other
// failure that names a node.
verrno refuse_leaf(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                   vidl_yfw_datatree *out)
{
    YFW_FRAME_START_OR_RETURN(ctx, fn, in, out);
    yfw_oc_error_path(ctx);
    yfw::set_error_tag(ctx, in->tag);
    YFW_TRC(ctx, fn, "End");
    return YFW_ERR_UNSUPPORTED_TAG;
}

} // namespace ov
