// Hand-written functions of Valmora-ifmgr-cfg.
#include "engine/module.h"
#include "ymap_octunnel_valmora_ifmgr_cfg.h"
#include "ymap_octunnel_valmora_ipv4_io_cfg.h"
#include "ymap_octunnel_valmora_ipv6_ma_cfg.h"
#include "ymap_octunnel_valmora_tunnel_gre_cfg.h"

// /interface-configurations/interface-configuration, children of other models
//
// Sends each foreign child of an interface-configuration entry to the entry
// of the model that owns it.  The tests run one after the other; only the
// tunnel one ends the dispatch.  The tunnel namespace is compared with its
// ".yang" form, which the framework's comparison matches against the plain
// namespace that native data carries.  There is no End trace on any path.
YFW_OVERRIDE verrno
ymap_vo_octunnel_valmoraifmgrcfg_lvla_interfaceconfigurations_interfaceconfiguration_parse_augments(
    yfw_map_ctx ctx, const struct vidl_yfw_datatree *in, struct vidl_yfw_datatree *out)
{
    YFW_ASSERT_CTX();
    YFW_FRAME_START_OR_RETURN(ctx, __func__, in, out);
    verrno rc = YFW_OK;
    if (yfw_map_do_these_match(NS_VALMORA_IPV4_IO_CFG, in->ns))
        rc = ymap_vo_octunnel_valmoraipv4iocfg_augment_lvla_interface_configuration(ctx, in, out);
    if (yfw_map_do_these_match(NS_VALMORA_IPV6_MA_CFG, in->ns))
        rc = ymap_vo_octunnel_valmoraipv6macfg_augment_lvla_interface_configuration(ctx, in, out);
    if (yfw_map_do_these_match(NS_VALMORA_TUNNEL_GRE_CFG_YANG, in->ns)) {
        YFW_TRC(ctx, __func__, "REVERSE MAPPING HERE %s ", YFW_TEXT(in->ns));
        return ymap_vo_octunnel_valmoratunnelgrecfg_augment_lvla_interface_configuration(ctx, in,
                                                                                         out);
    }
    return rc;
}
