// Frame helpers shared by both directions.
#include "engine/module.h"

namespace yfw {

verrno delegate(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                vidl_yfw_datatree *out, map_function to)
{
    YFW_FRAME_START_OR_RETURN(ctx, fn, in, out);
    verrno rc = to(ctx, in, out);
    YFW_TRC(ctx, fn, "End");
    return rc;
}

verrno pass(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out)
{
    YFW_FRAME_START_OR_RETURN(ctx, fn, in, out);
    YFW_TRC(ctx, fn, "End");
    return YFW_OK;
}

verrno end_only(const char *fn, yfw_map_ctx ctx)
{
    YFW_TRC(ctx, fn, "End");
    return YFW_OK;
}

} // namespace yfw
