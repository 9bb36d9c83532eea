// Hand-written functions of Valmora-tunnel-gre-cfg: the IPv4 tunnel
// endpoints back to OpenConfig.  An IPv6 endpoint lands on the same leaf
// through a generated handler; the native type and mode leaves have no
// OpenConfig counterpart.
#include "conversions.h"
#include "engine/vo_engine.h"

// /interface-configurations/interface-configuration/tunnel-ip/source/address
YFW_EXPORT verrno to_high_config_src(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                                     struct vidl_yfw_datatree *out)
{
    YFW_ASSERT_CTX();
    return vo::guarded_leaf(__func__, ctx, in, out, nullptr,
                            "/interfaces/interface/tunnel/config/src", nullptr);
}

// /interface-configurations/interface-configuration/tunnel-ip/destination/address
YFW_EXPORT verrno to_high_config_dst(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                                     struct vidl_yfw_datatree *out)
{
    YFW_ASSERT_CTX();
    return vo::guarded_leaf(__func__, ctx, in, out, nullptr,
                            "/interfaces/interface/tunnel/config/dst", nullptr);
}
