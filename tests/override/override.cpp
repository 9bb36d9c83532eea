// Hand-written definitions of two generated names, linked into a copy of the
// module the way a _man_template source is: the generated tables and the
// generated walkers around them must reach these, not their own.
#include "engine/module.h"
#include "ymap_octunnel_valmora_ipv6_ma_oper.h"
#include "ymap_octunnel_valmora_tunnel_ip_ma_oper.h"

// A leaf handler: the ttl is reported through a different value.
YFW_EXPORT verrno ymap_vo_octunnel_valmoratunnelipmaoper_leaf_lvla_tunnelipma_idbarray_ttl(
    yfw_map_ctx ctx, const struct vidl_yfw_datatree *, struct vidl_yfw_datatree *out)
{
    return yfw_map_datatree_add_path_flagged(ctx, out, "/interfaces/interface/tunnel/state/ttl",
                                             NS_OC_IF_TUNNEL, "overridden", nullptr, nullptr, 0, 1);
}

// A walker called from the generated table of its parent: destination
// addresses are no longer walked.
YFW_EXPORT verrno
ymap_vo_octunnel_valmoratunnelipmaoper_lvla_tunnelipma_idbarray_destinationaddress(
    yfw_map_ctx, const struct vidl_yfw_datatree *, struct vidl_yfw_datatree *)
{
    return YFW_OK;
}

// A list nested directly in a list whose entries all decline, as a list hook
// answering YFW_SKIP_NODE makes them: the IPv6 address entries of a detail.
YFW_EXPORT verrno ymap_vo_octunnel_valmoraipv6maoper_lvla_ipv6network_detail_address(
    yfw_map_ctx, const struct vidl_yfw_datatree *, struct vidl_yfw_datatree *)
{
    return YFW_SKIP_NODE;
}
