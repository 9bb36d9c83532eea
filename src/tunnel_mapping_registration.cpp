// Registration: the one function the framework looks up by its fixed name
// after loading the module.
#include "engine/module.h"
#include "ymap_octunnel_valmora_tunnel_ip_ma_oper.h"

namespace {

void copy(char *field, const char *text)
{
    int rc = yfw_strcpy_s("yfw_map_reg_ociftunnel_oper", field, YFW_REG_TEXT_SIZE, text);
    YFW_ASSERT_SIG(rc == 0, "void yfw_map_reg_ociftunnel_oper(yfw_map_reg_mod_t *)");
}

} // namespace

// The OpenConfig root is the one of the module that owns /interfaces, which
// steps into this module through its augment entries; the native root is the
// walker of the tunnel operational data.  The two slots between the roots are
// the framework's and stay as they are.
YFW_EXPORT void yfw_map_reg_ociftunnel_oper(yfw_map_reg_mod_t *reg)
{
    copy(reg->native_ns, NS_VALMORA_TUNNEL_IP_MA_OPER);
    copy(reg->oc_ns, NS_OC_INTERFACES);
    copy(reg->reg_name, "OC tunnel tree");
    copy(reg->native_root_tag, "tunnel-ip-ma");
    copy(reg->oc_root_tag, "interfaces");
    reg->oc_to_native_root = ymap_ov_ocif_openconfiginterfaces_lvla_interfaces;
    reg->native_to_oc_root = ymap_vo_octunnel_valmoratunnelipmaoper_lvla_tunnelipma;
    reg->reg_reserved = 0;
}
