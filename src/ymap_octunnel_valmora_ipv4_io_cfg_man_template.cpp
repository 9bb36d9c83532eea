// Hand-written functions of Valmora-ipv4-io-cfg.
#include "conversions.h"
#include "engine/module.h"

// /interface-configurations/interface-configuration/ipv4-network/addresses/primary/netmask
//
// The native netmask has no OpenConfig counterpart on the way back: the
// IPv4 prefix length of a tunnel address is reported from operational data
// only, so a configuration read adds nothing here.
YFW_EXPORT verrno to_high_config_preLen(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                                        struct vidl_yfw_datatree *out)
{
    YFW_ASSERT_CTX();
    YFW_FRAME_START_OR_RETURN(ctx, __func__, in, out);
    YFW_TRC(ctx, __func__, "End");
    return YFW_OK;
}
