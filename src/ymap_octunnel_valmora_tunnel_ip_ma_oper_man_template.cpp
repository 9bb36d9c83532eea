// Hand-written functions of Valmora-tunnel-ip-ma-oper: the operational IPv4
// tunnel endpoints back to OpenConfig state.
#include "conversions.h"
#include "engine/vo_engine.h"

// /tunnel-ip-ma/database/tunnel-ids/tunnel-id/idb-array/source-address/ipv4
YFW_EXPORT verrno to_high_state_src(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                                    struct vidl_yfw_datatree *out)
{
    YFW_ASSERT_CTX();
    return vo::plain_leaf(__func__, ctx, in, out, "/interfaces/interface/tunnel/state/src");
}

// /tunnel-ip-ma/database/tunnel-ids/tunnel-id/idb-array/destination-address/ipv4
YFW_EXPORT verrno to_high_state_dst(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                                    struct vidl_yfw_datatree *out)
{
    YFW_ASSERT_CTX();
    return vo::plain_leaf(__func__, ctx, in, out, "/interfaces/interface/tunnel/state/dst");
}
