// Handler forms of the OpenConfig-to-native direction: what a mapped node of
// a request adds to the native request tree.
#include "engine/ov_engine.h"

namespace ov {
namespace {

verrno add(yfw_map_ctx ctx, vidl_yfw_datatree *out, const char *path, const char *ns,
           const char *value, const vidl_yfw_datatree *op_node, uint32_t list_entry = 0,
           uint32_t path_flag = 1)
{
    return yfw_map_datatree_add_path_flagged(ctx, out, path, ns, value, op_node, nullptr,
                                             list_entry, path_flag);
}

// In a schema walk `in` is an ancestor without a value: its field is null.
const char *value_of(const vidl_yfw_datatree *in)
{
    return in->value;
}

} // namespace

verrno config_leaf(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                   vidl_yfw_datatree *out, const char *path, const char *ns)
{
    YFW_FRAME_START_OR_RETURN(ctx, fn, in, out);
    verrno rc;
    if (yfw::is_read(ctx))
        rc = add(ctx, out, path, ns, value_of(in), nullptr);
    else if (yfw_map_is_request_delete(in))
        rc = add(ctx, out, path, ns, nullptr, in);
    else
        rc = add(ctx, out, path, ns, value_of(in), in);
    YFW_TRC(ctx, fn, "End");
    return rc;
}

verrno key_leaf(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                vidl_yfw_datatree *out, const char *path, const char *ns)
{
    YFW_FRAME_START_OR_RETURN(ctx, fn, in, out);
    verrno rc = yfw::is_read(ctx) ? add(ctx, out, path, ns, value_of(in), nullptr)
                                  : add(ctx, out, path, ns, value_of(in), in);
    YFW_TRC(ctx, fn, "End");
    return rc;
}

verrno state_leaf(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                  vidl_yfw_datatree *out, const char *path, const char *ns, uint32_t path_flag)
{
    YFW_FRAME_START_OR_RETURN(ctx, fn, in, out);
    verrno rc = YFW_OK;
    if (yfw::is_read(ctx))
        rc = add(ctx, out, path, ns, value_of(in), nullptr, 0, path_flag);
    YFW_TRC(ctx, fn, "End");
    return rc;
}

verrno cont_handler(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                    unsigned int subtree_count, vidl_yfw_datatree *out, const char *path,
                    const char *ns)
{
    YFW_FRAME_START_OR_RETURN(ctx, fn, in, out);
    verrno rc = YFW_OK;
    if (subtree_count != 0) {
        YFW_TRC(ctx, fn, "Mapping done for this node");
        rc = add(ctx, out, path, ns, nullptr, nullptr);
    } else {
        YFW_TRC(ctx, fn, "No subtrees");
        if (!yfw::is_read(ctx) && yfw_map_is_request_delete(in))
            rc = add(ctx, out, path, ns, nullptr, in);
    }
    YFW_TRC(ctx, fn, "End");
    return rc;
}

verrno list_handler(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                    vidl_yfw_datatree *out, const char *path, const char *ns)
{
    YFW_FRAME_START_OR_RETURN(ctx, fn, in, out);
    const vidl_yfw_datatree *op_node = yfw_map_is_request_delete(in) ? in : nullptr;
    verrno rc = add(ctx, out, path, ns, nullptr, op_node, 1);
    YFW_TRC(ctx, fn, "End");
    return rc;
}

} // namespace ov
