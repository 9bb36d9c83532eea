// The native-to-OpenConfig walk: containers, list entries and leaves of a
// native tree, visited by the table of their model.
#include "engine/vo_engine.h"

#include "engine/walk.h"

namespace vo {
namespace {

using yfw::children;

bool branch_allowed(const model &m, yfw_map_ctx ctx)
{
    return !m.operational || yfw::is_get(ctx);
}

const branch *find_branch(const node &n, yfw_map_ctx ctx, const char *tag)
{
    for (uint32_t i = 0; i < n.branch_count; ++i)
        if (yfw_map_do_these_match(tag, n.branches[i].tag))
            return branch_allowed(*n.mdl, ctx) ? &n.branches[i] : nullptr;
    return nullptr;
}

// Visits the children of a container or list entry in array order until one
// of them answers non-zero.  A list entry that skipped itself is no failure
// for an enclosing container; an enclosing list entry passes the skip on.
verrno child_loop(const node &n, yfw_map_ctx ctx, const children &c, vidl_yfw_datatree *out)
{
    verrno rc = YFW_OK;
    for (uint32_t i = 0; i < c.count; ++i) {
        const vidl_yfw_datatree *child = &c.array[i];
        if (child->tag == nullptr) {
            YFW_ERR(ctx, n.name, "Tag name is not available!");
            return YFW_ERR_NO_SUBTREES;
        }
        const branch *b = find_branch(n, ctx, child->tag);
        if (b != nullptr) {
            rc = b->visit(ctx, child, out);
            if (rc == YFW_SKIP_NODE && n.kind == form::container && b->kind == form::list)
                rc = YFW_OK;
        } else if (yfw_map_do_these_match(n.mdl->ns, child->ns)) {
            YFW_TRC(ctx, n.name, "Unsupported tag. Ignoring.");
            rc = YFW_OK;
        } else {
            rc = n.parse_augments(ctx, child, out);
        }
        if (rc != YFW_OK)
            break;
    }
    return rc;
}

verrno visit_container(const node &n, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                       vidl_yfw_datatree *out)
{
    children c;
    YFW_OPEN_WALKER_OR_RETURN(ctx, n.name, in, out, c);
    yfw_map_add_to_node_hierarchy(ctx, in, YFW_LEVEL_CONTAINER);
    verrno rc = n.cont_hook(ctx, in, c.count, out);
    if (c.count != 0 && rc == YFW_OK)
        rc = child_loop(n, ctx, c, out);
    yfw_map_remove_from_node_hierarchy(ctx, in);
    YFW_TRC(ctx, n.name, "End");
    return rc;
}

// Keys are marked before the hook runs, so that the hook and everything
// below see them.  Every key name is tried on every child.
void mark_keys(const node &n, const children &c)
{
    for (uint32_t i = 0; i < c.count; ++i) {
        vidl_yfw_datatree *child = &c.array[i];
        for (uint32_t k = 0; k < n.key_count; ++k) {
            if (yfw_map_do_these_match(child->tag, n.keys[k])) {
                child->is_key = 1;
                child->present |= YFW_PRESENT_IS_KEY;
            }
        }
    }
}

// A list entry stands on the framework's output list exactly while its
// children are visited; an add that did not take effect is not undone.
verrno visit_list_entry(const node &n, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                        vidl_yfw_datatree *out)
{
    children c;
    YFW_OPEN_WALKER_OR_RETURN(ctx, n.name, in, out, c);
    if (c.count == 0)
        YFW_ERR(ctx, n.name, "No keys specified with a list node.");
    yfw_map_add_to_node_hierarchy(ctx, in, YFW_LEVEL_LIST);
    verrno rc = yfw_map_update_current_list_node(ctx, n.list_path);
    if (rc == YFW_OK && c.count != 0 && n.key_count != 0)
        mark_keys(n, c);
    if (rc == YFW_OK) {
        rc = n.hook(ctx, in, out);
        if (rc == YFW_SKIP_NODE) {
            yfw_map_remove_from_node_hierarchy(ctx, in);
            YFW_TRC(ctx, n.name, "End");
            return YFW_SKIP_NODE;
        }
    }
    uint8_t before = ctx->map_state->output_count;
    yfw_add_to_output_list_ctx(ctx, in, out);
    uint8_t after = ctx->map_state->output_count;
    if (c.count != 0 && rc == YFW_OK)
        rc = child_loop(n, ctx, c, out);
    yfw_map_remove_from_node_hierarchy(ctx, in);
    if (before < after)
        yfw_remove_from_output_list_ctx(ctx, in, out);
    YFW_TRC(ctx, n.name, "End");
    return rc;
}

verrno visit_leaf(const node &n, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                  vidl_yfw_datatree *out)
{
    YFW_FRAME_START_OR_RETURN(ctx, n.name, in, out);
    if ((in->present & YFW_PRESENT_ERROR_KIND) != 0 && in->error_kind == YFW_ERROR_KIND_XPATH) {
        YFW_TRC(ctx, n.name, "got xpath error node ");
        ctx->map_state->walk_flags |= YFW_WALK_XPATH_ERROR;
    }
    verrno rc = n.hook(ctx, in, out);
    YFW_TRC(ctx, n.name, "End");
    return rc;
}

} // namespace

verrno visit(const node &n, yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out)
{
    switch (n.kind) {
    case form::container:
        return visit_container(n, ctx, in, out);
    case form::list:
        return visit_list_entry(n, ctx, in, out);
    case form::leaf:
        break;
    }
    return visit_leaf(n, ctx, in, out);
}

// A missing tag is reported but does not end the entry: the namespace test
// decides whether the code stands or parse_augments replaces it.  No entry
// looks at the request kind, the operational ones included.
verrno augment_entry(const entry &e, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                     vidl_yfw_datatree *out)
{
    children c;
    YFW_OPEN_WALKER_OR_RETURN(ctx, e.name, in, out, c);
    verrno rc = YFW_OK;
    if (in->tag == nullptr) {
        YFW_ERR(ctx, e.name, "Tag name is not available!");
        rc = YFW_ERR_NO_SUBTREES;
    }
    YFW_TRC(ctx, e.name, "Processing tag '%s'", YFW_TEXT(in->tag));
    if (yfw_map_do_these_match(in->tag, e.accepts))
        rc = e.inline_node != nullptr ? visit(*e.inline_node, ctx, in, out) : e.visit(ctx, in, out);
    else if (yfw_map_do_these_match(e.mdl->ns, in->ns))
        YFW_TRC(ctx, e.name, "Unsupported tag. Ignoring.");
    else
        rc = e.parse_augments(ctx, in, out);
    YFW_TRC(ctx, e.name, "End");
    return rc;
}

} // namespace vo
