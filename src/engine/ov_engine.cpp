// The OpenConfig-to-native walk: containers, lists and leaves of a request
// tree, visited by the table of their model.
#include "engine/ov_engine.h"

#include "engine/walk.h"

namespace ov {
namespace {

using yfw::children;
using yfw::has_op;
using yfw::is_get;
using yfw::set_op;

constexpr uint32_t SEEN_BITS = YFW_FILTER_MATCH_SEEN | YFW_FILTER_SELECT_SEEN;

bool keyed_kind(uint32_t kind)
{
    return kind < 16 && ((YFW_MAP_KEYED_KINDS >> kind) & 1u) != 0;
}

bool is_delete(const vidl_yfw_datatree *n)
{
    return yfw_map_is_request_delete(n) != 0;
}

void set_node_kind(vidl_yfw_datatree *n, uint32_t kind)
{
    n->node_kind = kind;
    n->node_kind_present |= YFW_NODE_KIND_PRESENT;
}

void mark_key(vidl_yfw_datatree *n)
{
    n->is_key = 1;
    n->present |= YFW_PRESENT_IS_KEY;
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

// The node's place in the framework's hierarchy for the life of the scope,
// outside schema walks: joined with its level and its node_kind written, and
// in a read the low filter bits cleared for the children to come.  keep()
// leaves the node in the hierarchy on the way out.
class hierarchy_scope {
public:
    hierarchy_scope(yfw_map_ctx ctx, vidl_yfw_datatree *in, int level, uint32_t node_kind)
        : ctx_(ctx), in_(in), joined_(ctx->map_state->schema_walk != 1)
    {
        if (!joined_)
            return;
        yfw_map_add_to_node_hierarchy(ctx, in, level);
        set_node_kind(in, node_kind);
        if (yfw::is_read(ctx))
            ctx->map_state->filter_bits &= YFW_FILTER_LOW_CLEAR_MASK;
    }
    ~hierarchy_scope()
    {
        if (joined_)
            yfw_map_remove_from_node_hierarchy(ctx_, in_);
    }
    hierarchy_scope(const hierarchy_scope &) = delete;
    hierarchy_scope &operator=(const hierarchy_scope &) = delete;

    void keep() { joined_ = false; }

private:
    yfw_map_ctx ctx_;
    vidl_yfw_datatree *in_;
    bool joined_;
};

// The two passes of a replace, as a scope.  A node with op REPLACE is
// walked first as a removal of all it holds (op REMOVE,
// YFW_WALK_REPLACE_CLEAR, replace_pass 1; a container's children put aside,
// so that its whole schema is removed), then as a merge of what the request
// gives.  On every way out the flags are cleared and the node's op is
// REPLACE again, unless a replace nested below has already ended the pass.
class replace_scope {
public:
    // `container`: the node's children are put aside for pass one, and pass
    // two is marked with YFW_WALK_REPLACE_WRITE.
    replace_scope(yfw_map_state *st, vidl_yfw_datatree *in, bool container)
        : st_(st), in_(in), active_(has_op(in, YFW_OP_REPLACE)), container_(container)
    {
        if (!active_)
            return;
        set_op(in, YFW_OP_REMOVE);
        st->walk_flags |= YFW_WALK_REPLACE_CLEAR;
        st->replace_pass = 1;
        if (container_)
            kept_ = yfw::detach(in);
    }
    ~replace_scope()
    {
        if (!active_)
            return;
        st_->walk_flags &= ~(YFW_WALK_REPLACE_CLEAR | YFW_WALK_REPLACE_WRITE);
        if (st_->replace_pass == 1)
            set_op(in_, YFW_OP_REPLACE);
        st_->replace_pass = 0;
    }
    replace_scope(const replace_scope &) = delete;
    replace_scope &operator=(const replace_scope &) = delete;

    bool active() const { return active_; }
    int passes() const { return active_ ? 2 : 1; }

    // The removal is over: the node is a merge again, and a container has
    // its children back.
    void end_removal()
    {
        if (!active_)
            return;
        set_op(in_, YFW_OP_MERGE);
        if (container_) {
            st_->walk_flags |= YFW_WALK_REPLACE_WRITE;
            st_->walk_flags &= ~YFW_WALK_REPLACE_CLEAR;
            yfw::reattach(in_, kept_);
        } else {
            st_->walk_flags &= ~YFW_WALK_REPLACE_CLEAR;
        }
    }

private:
    yfw_map_state *st_;
    vidl_yfw_datatree *in_;
    bool active_;
    bool container_;
    yfw::detached kept_{};
};

// The children of a schema walk, each handed `in` and their results
// dropped: the ungated ones in table order, then the client's delete back
// where the walk saw it as a removal, then (in a GET) the gated ones.
void schema_children(const child *table, uint32_t count, yfw::removal_view &removal,
                     yfw_map_ctx ctx, vidl_yfw_datatree *in, vidl_yfw_datatree *out)
{
    for (uint32_t i = 0; i < count; ++i)
        if (!table[i].gated)
            table[i].fn(ctx, in, out);
    removal.restore();
    if (is_get(ctx))
        for (uint32_t i = 0; i < count; ++i)
            if (table[i].gated)
                table[i].fn(ctx, in, out);
}

// ---------------------------------------------------------------- containers

// A deletion may name a container only as a whole: outside schema walks
// and deletion expansions, one with children of its own is refused.
bool deletes_with_children(const container &c, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                           const children &ch)
{
    const yfw_map_state *st = ctx->map_state;
    return !c.state_form && st->schema_walk != 1 && ch.count != 0 && st->delete_walk == 0 &&
           is_delete(in);
}

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

// The schema of a container: its children, then parse_augments.  A deletion
// is seen by the children as a removal.
void container_schema(const container &c, yfw_map_ctx ctx, vidl_yfw_datatree *in,
                      vidl_yfw_datatree *out)
{
    yfw::schema_walk_guard guard(ctx->map_state);
    yfw::removal_view removal(in, !c.state_form && is_delete(in));
    schema_children(c.children, c.child_count, removal, ctx, in, out);
    c.parse_augments(ctx, in, out);
}

// After the request children: content matches alone select the whole
// container, and a container without children (or so selected) is walked
// by its schema in a read or a deletion.
void container_filter_and_schema(const container &c, yfw_map_ctx ctx, vidl_yfw_datatree *in,
                                 uint32_t count, vidl_yfw_datatree *out)
{
    yfw_map_state *st = ctx->map_state;
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

enum class pass_end { walked, skipped, node_declined };

// One pass: the hook, the request children, then the filter test and the
// schema walk.  A hook that declines the node ends the pass at once; outside
// pass one of a replace it declines the whole walk.
pass_end container_pass(const container &c, yfw_map_ctx ctx, vidl_yfw_datatree *in,
                        const children &ch, uint32_t count, vidl_yfw_datatree *out, verrno &code)
{
    if (code == YFW_OK) {
        verrno answer = c.hook(ctx, in, count, out);
        if (answer == YFW_SKIP_NODE)
            return (ctx->map_state->walk_flags & YFW_WALK_REPLACE_CLEAR) != 0
                       ? pass_end::skipped
                       : pass_end::node_declined;
        code = answer;
        if (code == YFW_OK && count != 0)
            code = container_children(c, ctx, children{ch.array, count}, out);
    }
    container_filter_and_schema(c, ctx, in, count, out);
    return pass_end::walked;
}

// The passes of a container, in its place in the hierarchy.  Sets
// `declined` when a hook declined the node.
verrno container_passes(const container &c, yfw_map_ctx ctx, vidl_yfw_datatree *in,
                        const children &ch, vidl_yfw_datatree *out, bool &declined)
{
    hierarchy_scope joined(ctx, in, YFW_LEVEL_CONTAINER, YFW_NODE_CONTAINER);
    replace_scope replace(ctx->map_state, in, true);
    uint32_t count = replace.active() ? 0 : ch.count;
    verrno code = YFW_OK;
    for (int pass = 1; pass <= replace.passes(); ++pass) {
        if (container_pass(c, ctx, in, ch, count, out, code) == pass_end::node_declined) {
            declined = true;
            return YFW_OK;
        }
        if (pass == 1 && replace.active()) {
            replace.end_removal();
            count = ch.count;
        }
    }
    return code;
}

} // namespace

verrno walk(const container &c, yfw_map_ctx ctx, const vidl_yfw_datatree *node,
            vidl_yfw_datatree *out)
{
    children ch;
    YFW_OPEN_WALKER_OR_RETURN(ctx, c.name, node, out, ch);
    auto *in = const_cast<vidl_yfw_datatree *>(node);
    if (deletes_with_children(c, ctx, in, ch)) {
        YFW_TRC(ctx, c.name, "Delete request with subtree present");
        YFW_TRC(ctx, c.name, "End");
        return YFW_ERR_INVALID_ARG;
    }
    // Handed an ancestor in a schema walk of a content match: its children
    // are not this walker's.
    if ((ctx->map_state->filter_bits & YFW_FILTER_WALK_ALL) != 0 &&
        ctx->map_state->schema_walk == 1)
        ch.count = 0;
    bool declined = false;
    verrno code = container_passes(c, ctx, in, ch, out, declined);
    if (declined)
        return YFW_OK; // the node is the hook's: no End
    YFW_TRC(ctx, c.name, "End");
    return code;
}

// ---------------------------------------------------------------- lists

namespace {

// One run of a list walker: its node, its children and the marks it keeps.
class list_walk {
public:
    list_walk(const list &l, yfw_map_ctx ctx, vidl_yfw_datatree *in, const children &ch,
              vidl_yfw_datatree *out)
        : l_(l), ctx_(ctx), st_(ctx->map_state), kind_(yfw::request(ctx)->kind), in_(in), ch_(ch),
          out_(out)
    {
    }

    verrno run();

private:
    verrno key_loop();
    verrno key_count_test(verrno code);
    verrno passes(verrno code);
    verrno pass(verrno code);
    verrno call_hook();
    verrno instances(verrno code);
    verrno instance(uint32_t i, verrno code);
    verrno instance_children(const children &inst);
    void key_only_schema(vidl_yfw_datatree *target);
    void childless_schema();
    verrno add_missing_key(verrno code);
    void release_delete_walk();
    bool read_or_deleted() const { return yfw::is_read(ctx_) || is_delete(in_); }

    const list &l_;
    yfw_map_ctx ctx_;
    yfw_map_state *st_;
    uint32_t kind_;
    vidl_yfw_datatree *in_;
    children ch_;
    vidl_yfw_datatree *out_;

    // What the walker learns of the request's children, and what it owns.
    uint8_t keys_seen_ = 0;
    uint32_t keys_with_value_ = 0;
    bool missing_key_value_ = false;
    bool non_key_seen_ = false;
    bool hook_delete_ = false;
    bool delete_owned_ = false;
    itree_record *record_ = nullptr;
};

// The list's place in the hierarchy, its key checks, then its passes.  A
// failed leafref check returns at once and leaves the node in the
// hierarchy.
verrno list_walk::run()
{
    hierarchy_scope joined(ctx_, in_, YFW_LEVEL_LIST, YFW_NODE_LIST);
    verrno code = yfw_map_update_current_list_node(ctx_, l_.list_path);
    if (ch_.count != 0 && code == YFW_OK) {
        if (verrno rc = key_loop(); rc != YFW_OK) {
            joined.keep();
            return rc;
        }
    }
    code = passes(key_count_test(code));
    if (record_ != nullptr && record_->nodes != nullptr)
        yfw_map_util_itree_stack_pop(ctx_);
    return code;
}

// ---- key checks

// Counts and marks the key children and notes any other.  Stops at once in
// a schema walk or a deletion expansion.  Returns non-zero only for a failed
// leafref check.
verrno list_walk::key_loop()
{
    for (uint32_t i = 0; i < ch_.count; ++i) {
        if (st_->schema_walk == 1 || st_->delete_walk != 0)
            break;
        vidl_yfw_datatree *child = &ch_.array[i];
        if (!yfw_map_do_these_match(child->tag, l_.key_tag)) {
            non_key_seen_ = true;
            continue;
        }
        if (keyed_kind(kind_)) {
            verrno rc = yfw_map_check_oc_leafref(ctx_, l_.leafref_path, "config", child->tag, in_);
            if (rc != YFW_OK) {
                YFW_ERR(ctx_, l_.name, "leafref value check fail");
                return rc;
            }
        }
        keys_seen_++;
        mark_key(child);
        if ((child->present & YFW_PRESENT_VALUE) != 0)
            keys_with_value_++;
        else
            missing_key_value_ = true;
    }
    return YFW_OK;
}

// How many keys a request kind wants: exactly one valued key in the keyed
// kinds (8 no second key beside it), at most one otherwise.  A failure
// keeps the hook and the children from running.
verrno list_walk::key_count_test(verrno code)
{
    if (st_->schema_walk == 1 || ch_.count == 0 || st_->delete_walk != 0)
        return code;
    bool passes;
    if (kind_ == 1 || kind_ == 15)
        passes = keys_with_value_ == 1 && keys_seen_ < 2;
    else if (kind_ == 8)
        passes = keys_with_value_ == 1 && keys_seen_ == 1;
    else
        passes = keys_seen_ <= 1 && keys_with_value_ <= 1;
    if (passes)
        return code;
    YFW_ERR(ctx_, l_.name, "List key node error.");
    yfw::set_error_tag(ctx_, l_.key_tag);
    yfw_oc_error_path(ctx_);
    return YFW_ERR_LIST_KEY;
}

// ---- passes

verrno list_walk::passes(verrno code)
{
    replace_scope replace(st_, in_, false);
    if (replace.active()) {
        missing_key_value_ = false;
        non_key_seen_ = false;
    }
    for (int p = 1; p <= replace.passes(); ++p) {
        code = pass(code);
        replace.end_removal();
    }
    return code;
}

// The hook, the instances, then the key a keyless read wants.  A hook that
// declines gives the pass up, with code 0.
verrno list_walk::pass(verrno code)
{
    if (code == YFW_OK) {
        uint16_t stack_before = yfw_map_util_itree_stack_size(ctx_);
        verrno answer = call_hook();
        if (answer == YFW_SKIP_NODE) {
            release_delete_walk();
            return YFW_OK;
        }
        if (yfw_map_util_itree_stack_size(ctx_) > stack_before)
            yfw_map_util_itree_stack_peak(ctx_, &record_);
        code = answer;
        if (code == YFW_OK)
            ctx_->last_op = (in_->present & YFW_PRESENT_OP) != 0 ? in_->op : 0;
    }
    return add_missing_key(instances(code));
}

// Calls the list hook, under the deletion marks it is owed: an instance
// deleted by its key alone is announced with delete_walk 2; a childless
// deletion met in a schema walk owns delete_walk from here on.
verrno list_walk::call_hook()
{
    if (is_delete(in_) && !non_key_seen_ && keys_seen_ != 0 && st_->delete_walk == 0) {
        st_->delete_walk = 2;
        verrno answer = l_.hook(ctx_, in_, out_);
        st_->delete_walk = 0;
        hook_delete_ = true;
        return answer;
    }
    if (ch_.count == 0 && is_delete(in_) && st_->delete_walk == 0 && st_->schema_walk == 1) {
        st_->delete_walk = 1;
        delete_owned_ = true;
        hook_delete_ = true;
    }
    return l_.hook(ctx_, in_, out_);
}

void list_walk::release_delete_walk()
{
    if (delete_owned_) {
        st_->delete_walk = 0;
        delete_owned_ = false;
    }
}

// ---- instances

// Each instance: the list node itself, or each node a hook pushed.
verrno list_walk::instances(verrno code)
{
    const uint32_t n = record_ != nullptr && record_->count > 1 ? record_->count : 1;
    for (uint32_t i = 0; i < n; ++i)
        code = instance(i, code);
    return code;
}

verrno list_walk::instance(uint32_t i, verrno code)
{
    vidl_yfw_datatree *entry = nullptr;
    children inst = ch_;
    if (code == YFW_OK && record_ != nullptr && record_->count != 0) {
        entry = &record_->nodes[i];
        inst = children{};
        yfw::fetch_children(entry, inst);
        if (i > 0) {
            yfw_map_add_to_node_hierarchy(ctx_, entry, YFW_LEVEL_LIST);
            code = yfw_map_update_current_list_node(ctx_, l_.list_path);
        }
        if (record_->handler != nullptr) {
            if (is_delete(in_))
                set_op(entry, YFW_OP_REMOVE);
            record_->handler(ctx_, entry, out_, 0);
        }
    }
    if (inst.count != 0 && code == YFW_OK)
        code = instance_children(inst);
    if (code == YFW_OK && !missing_key_value_ && !non_key_seen_ && keys_seen_ != 0 &&
        read_or_deleted())
        key_only_schema(entry != nullptr ? entry : in_);
    if (inst.count == 0 && read_or_deleted())
        childless_schema();
    if (entry != nullptr && i > 0)
        yfw_map_remove_from_node_hierarchy(ctx_, entry);
    return code;
}

// The request children of one instance, in request order.  In pass one of
// a replace only the key is walked.
verrno list_walk::instance_children(const children &inst)
{
    const bool clearing = (st_->walk_flags & YFW_WALK_REPLACE_CLEAR) != 0;
    const bool get = is_get(ctx_);
    verrno code = YFW_OK;
    for (uint32_t i = 0; i < inst.count && code == YFW_OK; ++i) {
        vidl_yfw_datatree *child = &inst.array[i];
        if (child->tag == nullptr) {
            YFW_ERR(ctx_, l_.name, "Tag name is not available!");
            return YFW_ERR_NO_SUBTREES;
        }
        if (yfw_map_do_these_match(child->tag, l_.key_tag)) {
            if (keyed_kind(kind_) && (child->present & YFW_PRESENT_VALUE) == 0) {
                YFW_ERR(ctx_, l_.name, "Empty list key specified.");
                yfw::set_error_tag(ctx_, child->tag);
                yfw_oc_error_path(ctx_);
                return YFW_ERR_LIST_KEY;
            }
            if (is_delete(child)) {
                YFW_ERR(ctx_, l_.name, "The key node should not have delete operation.");
                yfw_oc_error_path(ctx_);
                return YFW_ERR_KEY_DELETE;
            }
            code = l_.key_fn(ctx_, child, out_);
            if ((child->present & YFW_PRESENT_VALUE) != 0)
                keys_seen_ = 1;
            mark_key(child);
        } else if (const ov::child *known = find(l_.children, l_.child_count, child->tag, get)) {
            if (!clearing) {
                code = known->fn(ctx_, child, out_);
                non_key_seen_ = true;
            }
        } else if (clearing) {
            continue;
        } else if (yfw_map_do_these_match(l_.mdl->ns, child->ns)) {
            code = unknown_tag(l_.name, ctx_, child);
        } else {
            code = l_.parse_augments(ctx_, child, out_);
            non_key_seen_ = true;
        }
    }
    return code;
}

// An instance named by its key alone: everything it holds is wanted, or is
// to go.  Its children are parked on the instance stack meanwhile; a
// deleted instance keeps op REMOVE afterwards.
void list_walk::key_only_schema(vidl_yfw_datatree *target)
{
    yfw::schema_walk_guard guard(st_);
    if (hook_delete_) {
        st_->delete_walk = 1;
        delete_owned_ = true;
    }
    if (is_delete(in_))
        set_op(target, YFW_OP_REMOVE); // stays: the instance is deleted by its key
    {
        yfw::parked_children parked(ctx_, target);
        const bool get = is_get(ctx_);
        for (uint32_t i = 0; i < l_.child_count; ++i)
            if (!l_.children[i].gated || get)
                l_.children[i].fn(ctx_, target, out_);
        l_.parse_augments(ctx_, target, out_);
        if (delete_owned_)
            st_->delete_walk = 0;
    }
    delete_owned_ = false;
}

// An instance without children, in a read or a deletion: the key and every
// other child by the schema, with the list node itself.
void list_walk::childless_schema()
{
    yfw::schema_walk_guard guard(st_);
    const bool deleted = is_delete(in_);
    yfw::removal_view removal(in_, deleted);
    if (deleted && st_->delete_walk == 0) {
        st_->delete_walk = 1;
        delete_owned_ = true;
    }
    l_.key_fn(ctx_, in_, out_);
    schema_children(l_.children, l_.child_count, removal, ctx_, in_, out_);
    l_.parse_augments(ctx_, in_, out_);
    release_delete_walk();
}

// A read that asks for children of a list without naming the key gets the
// key added to its request node, so that each instance of the answer
// carries it.
verrno list_walk::add_missing_key(verrno code)
{
    if (code != YFW_OK || !yfw::is_read(ctx_) || st_->schema_walk == 1 || !non_key_seen_ ||
        keys_seen_ != 0)
        return code;
    vidl_yfw_datatree *key = nullptr;
    code = yfw_map_datatree_add_path_flagged(ctx_, in_, l_.key_tag, in_->ns, nullptr, nullptr, &key,
                                             0, 0);
    if (key != nullptr)
        mark_key(key);
    return code;
}

} // namespace

verrno walk(const list &l, yfw_map_ctx ctx, const vidl_yfw_datatree *node, vidl_yfw_datatree *out)
{
    children ch;
    YFW_OPEN_WALKER_OR_RETURN(ctx, l.name, node, out, ch);
    auto *in = const_cast<vidl_yfw_datatree *>(node);
    const yfw_map_state *st = ctx->map_state;
    if (ch.count == 0) {
        YFW_ERR(ctx, l.name, "No keys specified with a list node.");
        if (st->schema_walk != 1 && st->delete_walk == 0 && keyed_kind(yfw::request(ctx)->kind)) {
            YFW_ERR(ctx, l.name, "No keys specified with a list node.");
            YFW_TRC(ctx, l.name, "End");
            return YFW_ERR_NO_SUBTREES;
        }
    }
    verrno code = list_walk(l, ctx, in, ch, out).run();
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
    children ch;
    YFW_OPEN_WALKER_OR_RETURN(ctx, e.name, node, out, ch);
    auto *in = const_cast<vidl_yfw_datatree *>(node);
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
        {
            yfw::removal_view removal(in, is_delete(in));
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
