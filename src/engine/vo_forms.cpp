// Handler forms of the native-to-OpenConfig direction: what a container, a
// list entry or a leaf of a native tree adds to the OpenConfig answer.
#include "conversions.h"
#include "engine/vo_engine.h"

namespace vo {
namespace {

verrno add(yfw_map_ctx ctx, vidl_yfw_datatree *out, const char *path, const char *value,
           const vidl_yfw_datatree *op_node = nullptr, uint32_t list_entry = 0)
{
    return yfw_map_datatree_add_path_flagged(ctx, out, path, NS_OC_IF_TUNNEL, value, op_node,
                                             nullptr, list_entry, 1);
}

} // namespace

// A native container with children adds nothing by itself: its OpenConfig
// container comes into being through the paths of its leaves.
verrno cont_handler(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                    unsigned int subtree_count, vidl_yfw_datatree *out, const char *path)
{
    YFW_FRAME_START_OR_RETURN(ctx, fn, in, out);
    verrno rc = YFW_OK;
    if (subtree_count == 0) {
        YFW_TRC(ctx, fn, "No subtrees");
        rc = add(ctx, out, path, nullptr);
    } else {
        YFW_TRC(ctx, fn, "No mapping done for this node");
    }
    YFW_TRC(ctx, fn, "End");
    return rc;
}

verrno list_handler(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                    vidl_yfw_datatree *out, const char *path)
{
    YFW_FRAME_START_OR_RETURN(ctx, fn, in, out);
    const vidl_yfw_datatree *op_node = yfw_map_is_request_delete(in) ? in : nullptr;
    verrno rc = add(ctx, out, path, nullptr, op_node, 1);
    YFW_TRC(ctx, fn, "End");
    return rc;
}

// The value is passed on whether or not the node says it has one.
verrno plain_leaf(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                  vidl_yfw_datatree *out, const char *path)
{
    YFW_FRAME_START_OR_RETURN(ctx, fn, in, out);
    verrno rc = add(ctx, out, path, in->value);
    YFW_TRC(ctx, fn, "End");
    return rc;
}

// Every add is made; the result is the last one's.
verrno guarded_leaf(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                    vidl_yfw_datatree *out, const char *always, const char *config,
                    const char *state)
{
    YFW_FRAME_START_OR_RETURN(ctx, fn, in, out);
    verrno rc = YFW_OK;
    if (always != nullptr)
        rc = add(ctx, out, always, in->value);
    if (config_or_state_allowed(yfw::request(ctx))) {
        rc = add(ctx, out, config, in->value);
        if (state != nullptr)
            rc = add(ctx, out, state, in->value);
    }
    YFW_TRC(ctx, fn, "End");
    return rc;
}

} // namespace vo
