// Frame helpers shared by both directions.
#include "engine/module.h"

namespace yfw {

verrno delegate(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                vidl_yfw_datatree *out, map_function to)
{
    YFW_TRC(ctx, fn, "Start");
    if (in == nullptr || out == nullptr)
        YFW_INVALID_ARGS(ctx, fn);
    verrno rc = to(ctx, in, out);
    YFW_TRC(ctx, fn, "End");
    return rc;
}

} // namespace yfw
