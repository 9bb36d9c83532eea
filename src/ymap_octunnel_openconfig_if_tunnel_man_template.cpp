// Hand-written functions of openconfig-if-tunnel: the tunnel endpoints, the
// operational reads and the IPv4 prefix length, to native paths.
#include "conversions.h"
#include "engine/ov_engine.h"
#include "octunnel/model_tables.h"
#include "ymap_octunnel_openconfig_if_tunnel.h"

#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>

#include <string>

namespace {

namespace models = octunnel::models;

constexpr uint32_t FAMILY_NONE = 0xFFFFFFFFu;
constexpr int ROUTER_WITHOUT_IPV6_TUNNELS = 13;

// The interface whose tunnel a state leaf reads, and how the router names
// the interface of a tunnel: its id behind a fixed prefix.
constexpr const models::list &INTERFACE = models::openconfiginterfaces::lvla_interfaces_interface;
constexpr const models::naming &TUNNEL_NAME =
    models::valmoratunnelipmaoper::lvla_tunnelipma_tunnelids_tunnelid_names;
constexpr std::size_t TUNNEL_NAME_PREFIX = TUNNEL_NAME.prefix.size();

// The tunnel id of an interface named "tunnel-ip<id>": the name behind its
// prefix.  A shorter name gives an empty id rather than a read past its end.
const char *tunnel_id(const char *name)
{
    const char *p = name;
    for (std::size_t i = 0; i < TUNNEL_NAME_PREFIX && *p != '\0'; ++i)
        ++p;
    return p;
}

verrno add_gre(yfw_map_ctx ctx, vidl_yfw_datatree *out, const char *path, const char *value,
               const vidl_yfw_datatree *op_node)
{
    return yfw_map_datatree_add_path_flagged(ctx, out, path, NS_VALMORA_TUNNEL_GRE_CFG, value,
                                             op_node, nullptr, 0, 1);
}

// One endpoint's native paths: its two family leaves, its type leaf with
// the value of each family, and the tunnel mode.
struct endpoint {
    const char *container;
    const char *address;
    const char *ipv6_address;
    const char *type;
    const char *type_ipv4;
    const char *type_ipv6;
    // The delete takes out the container and then each leaf, in this order.
    const char *delete_order[4];
};

#define P "/interface-configurations/interface-configuration/tunnel-ip"
constexpr endpoint source = {
    P "/source",
    P "/source/address",
    P "/source/ipv6-address",
    P "/source/type",
    "2",
    "3",
    {P "/source", P "/source/address", P "/source/type", P "/source/ipv6-address"}};
constexpr endpoint destination = {P "/destination",
                                  P "/destination/address",
                                  P "/destination/ipv6-address",
                                  P "/destination/type",
                                  "1",
                                  "2",
                                  {P "/destination", P "/destination/type",
                                   P "/destination/address", P "/destination/ipv6-address"}};
constexpr const char *mode = P "/mode/value";
#undef P

// Every path of a row is added; the row's result is its last add's.
verrno endpoint_to_native(const endpoint &e, uint32_t family, yfw_map_ctx ctx,
                          const vidl_yfw_datatree *in, vidl_yfw_datatree *out)
{
    verrno rc = YFW_OK;
    if (yfw::is_read(ctx)) {
        add_gre(ctx, out, e.address, in->value, nullptr);
        rc = add_gre(ctx, out, e.ipv6_address, in->value, nullptr);
    } else if (yfw_map_is_request_delete(in)) {
        for (const char *path : e.delete_order)
            rc = add_gre(ctx, out, path, nullptr, in);
    } else if (family == AF_INET) {
        add_gre(ctx, out, e.address, in->value, in);
        add_gre(ctx, out, e.type, e.type_ipv4, in);
        rc = add_gre(ctx, out, mode, "1", in);
    } else if (family == AF_INET6) {
        add_gre(ctx, out, e.ipv6_address, in->value, in);
        add_gre(ctx, out, e.type, e.type_ipv6, in);
        rc = add_gre(ctx, out, mode, "2", in);
    }
    return rc;
}

verrno refuse_ipv6(const char *fn, yfw_map_ctx ctx)
{
    YFW_ERR(ctx, fn, "IPV6 Mode not supported");
    yfw::set_error_text(ctx, "IPV6 mode not supported.");
    YFW_TRC(ctx, fn, "End");
    return YFW_ERR_NOT_SUPPORTED;
}

// The family of the address decides the native leaves; an IPv6 endpoint is
// refused on a router without IPv6 tunnels, in every kind of request.
verrno endpoint_conversion(const char *fn, const endpoint &e, yfw_map_ctx ctx,
                           const vidl_yfw_datatree *in, vidl_yfw_datatree *out)
{
    YFW_FRAME_START_OR_RETURN(ctx, fn, in, out);
    uint32_t family = get_ntwk_family(in->value);
    const bool src = &e == &source;
    if (family == AF_INET) {
        if (src)
            YFW_TRC(ctx, fn, "SRC IP :%s is ipv4", YFW_TEXT(in->value));
        else
            YFW_TRC(ctx, fn, "Dst IP :%s is ipv4", YFW_TEXT(in->value));
    } else if (family == AF_INET6) {
        if (platform_get_router_type() == ROUTER_WITHOUT_IPV6_TUNNELS)
            return refuse_ipv6(fn, ctx);
        if (src)
            YFW_TRC(ctx, fn, "SRC IP :%s is ipv6", YFW_TEXT(in->value));
        else
            YFW_TRC(ctx, fn, "Dst IP :%s is ipv6", YFW_TEXT(in->value));
    }
    verrno rc = endpoint_to_native(e, family, ctx, in, out);
    YFW_TRC(ctx, fn, "End");
    return rc;
}

// ---------------------------------------------------------------- operational reads

verrno add_oper(yfw_map_ctx ctx, vidl_yfw_datatree *out, const char *path, const char *value)
{
    return yfw_map_datatree_add_path_flagged(ctx, out, path, NS_VALMORA_TUNNEL_IP_MA_OPER, value,
                                             nullptr, nullptr, 0, 0);
}

#define Q "/tunnel-ip-ma/database/tunnel-ids/tunnel-id"

// A read of a tunnel's state leaf selects the native operational leaves
// under the tunnel id of the interface being walked; a write selects nothing.
verrno state_to_native(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                       vidl_yfw_datatree *out, const char *first, const char *second)
{
    YFW_FRAME_START_OR_RETURN(ctx, fn, in, out);
    const char *name = nullptr;
    verrno rc = yfw_map_get_node_info(ctx, INTERFACE.path, INTERFACE.keys[0], &name);
    if (name != nullptr && yfw::is_read(ctx)) {
        add_oper(ctx, out, Q "/tid", tunnel_id(name));
        rc = add_oper(ctx, out, first, in->value);
        if (second != nullptr)
            rc = add_oper(ctx, out, second, in->value);
    }
    YFW_TRC(ctx, fn, "End");
    return rc;
}

// ---------------------------------------------------------------- prefix length

constexpr const char *netmask_path =
    "/interface-configurations/interface-configuration/ipv4-network/addresses/primary/netmask";

// A prefix length as `atoi` reads it: blanks, an optional sign, and the
// decimal digits that follow; whatever comes after the digits is not looked
// at ("24abc" and "24.5" are 24, "2 4" is 2), and a text without leading
// digits is 0.  The value is kept only as far as a netmask needs it, so that
// no text, however long, overflows.
//
// Past the range of an int `atoi` settles nothing; here such a number is
// large: an edit refuses it like any other above 32, while a read takes its
// residue modulo 32, as it does for every number.
struct PrefixLength {
    bool zero = true;     // the number is 0, or the text does not start with one
    bool netmask = true;  // from 0 to 32: a netmask an edit may write
    uint32_t residue = 0; // the number modulo 32, of a negative one too
};

bool blank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

PrefixLength prefix_length(const char *text)
{
    const char *p = text;
    while (blank(*p))
        ++p;
    const bool negative = *p == '-';
    if (*p == '-' || *p == '+')
        ++p;
    uint32_t value = 0; // stops at what no prefix length reaches
    uint32_t residue = 0;
    for (; *p >= '0' && *p <= '9'; ++p) {
        const uint32_t d = static_cast<uint32_t>(*p - '0');
        value = value * 10 + d;
        if (value > 1000)
            value = 1000;
        residue = (residue * 10 + d) % 32;
    }
    PrefixLength n;
    n.zero = value == 0;
    n.netmask = n.zero || (!negative && value <= 32);
    n.residue = negative ? (32 - residue) % 32 : residue;
    return n;
}

// The dotted netmask of a prefix length; the shift is taken modulo 32, so a
// read has no bound (40 gives 255.0.0.0).
const char *netmask(const PrefixLength &n)
{
    uint32_t word = n.zero ? 0 : 0xFFFFFFFFu << ((32u - n.residue) % 32u);
    return vlm_inet_ntoa(htonl(word));
}

} // namespace

// ---------------------------------------------------------------- endpoints

// The family of an address text: 10 when it resolves as IPv6, 2 as IPv4,
// 0xFFFFFFFF otherwise (no value included).  The platform's resolver decides.
YFW_EXPORT uint32_t get_ntwk_family(const char *value)
{
    struct addrinfo hints;
    struct addrinfo *result = nullptr;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET6;
    if (getaddrinfo_vlm(value, nullptr, &hints, &result) == 0) {
        freeaddrinfo_vlm(result);
        return AF_INET6;
    }
    hints.ai_family = AF_INET;
    if (getaddrinfo_vlm(value, nullptr, &hints, &result) == 0) {
        freeaddrinfo_vlm(result);
        return AF_INET;
    }
    return FAMILY_NONE;
}

// /interfaces/interface/tunnel/config/src
YFW_EXPORT verrno to_low_config_src(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                                    struct vidl_yfw_datatree *out)
{
    YFW_ASSERT_CTX();
    return endpoint_conversion(__func__, source, ctx, in, out);
}

// /interfaces/interface/tunnel/config/dst
YFW_EXPORT verrno to_low_config_dst(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                                    struct vidl_yfw_datatree *out)
{
    YFW_ASSERT_CTX();
    return endpoint_conversion(__func__, destination, ctx, in, out);
}

// ---------------------------------------------------------------- operational reads

// /interfaces/interface/tunnel/state/src
YFW_EXPORT verrno to_low_state_src(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                                   struct vidl_yfw_datatree *out)
{
    YFW_ASSERT_CTX();
    return state_to_native(__func__, ctx, in, out, Q "/idb-array/source-address/ipv4",
                           Q "/idb-array/source-address/ipv6");
}

// /interfaces/interface/tunnel/state/dst
YFW_EXPORT verrno to_low_state_dst(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                                   struct vidl_yfw_datatree *out)
{
    YFW_ASSERT_CTX();
    return state_to_native(__func__, ctx, in, out, Q "/idb-array/destination-address/ipv4",
                           Q "/idb-array/destination-address/ipv6");
}

// /interfaces/interface/tunnel/state/ttl (declared hand-written in its table)
YFW_OVERRIDE verrno ymap_ov_octunnel_openconfigiftunnel_leaf_lvla_tunnel_state_ttl(
    yfw_map_ctx ctx, const struct vidl_yfw_datatree *in, struct vidl_yfw_datatree *out)
{
    YFW_ASSERT_CTX();
    return state_to_native(__func__, ctx, in, out, Q "/idb-array/ttl", nullptr);
}

// /interfaces/interface/tunnel/state/gre-key (declared hand-written in its table)
YFW_OVERRIDE verrno ymap_ov_octunnel_openconfigiftunnel_leaf_lvla_tunnel_state_grekey(
    yfw_map_ctx ctx, const struct vidl_yfw_datatree *in, struct vidl_yfw_datatree *out)
{
    YFW_ASSERT_CTX();
    return state_to_native(__func__, ctx, in, out, Q "/idb-array/key", nullptr);
}
#undef Q

// ---------------------------------------------------------------- prefix length

// The netmask text for a read of a prefix length, or none without a value.
YFW_EXPORT const char *
oc_tunnel_plat_to_vlm_inv_name_conv_prefixlength(const struct vidl_yfw_datatree *in)
{
    if ((in->present & YFW_PRESENT_VALUE) == 0 || in->value == nullptr)
        return nullptr;
    return netmask(prefix_length(in->value));
}

// /interfaces/interface/tunnel/ipv4/addresses/address/config/prefix-length
//
// A read selects the native netmask; a delete leaves it to the address
// leaves, which delete the primary address; an edit writes the netmask of a
// prefix length from 0 to 32.  An edit without a value is refused like one
// out of range: there is no netmask to write.
YFW_EXPORT verrno to_low_config_preLen(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                                       struct vidl_yfw_datatree *out)
{
    YFW_ASSERT_CTX();
    YFW_FRAME_START_OR_RETURN(ctx, __func__, in, out);
    verrno rc = YFW_OK;
    if (yfw::is_read(ctx)) {
        rc = yfw_map_datatree_add_path_flagged(ctx, out, netmask_path, NS_VALMORA_IPV4_IO_CFG,
                                               oc_tunnel_plat_to_vlm_inv_name_conv_prefixlength(in),
                                               nullptr, nullptr, 0, 1);
    } else if (!yfw_map_is_request_delete(in)) {
        // A negative number, or one above 32 however long, is refused;
        // so is an edit without a value, which has no netmask to write.
        const bool valued = (in->present & YFW_PRESENT_VALUE) != 0 && in->value != nullptr;
        const PrefixLength n = valued ? prefix_length(in->value) : PrefixLength{false, false, 0};
        if (!n.netmask) {
            YFW_ERR(ctx, __func__, "Invalid prefix-length");
            YFW_TRC(ctx, __func__, "End");
            return YFW_INVALID_PREFIX_LENGTH;
        }
        rc = yfw_map_datatree_add_path_flagged(ctx, out, netmask_path, NS_VALMORA_IPV4_IO_CFG,
                                               netmask(n), in, nullptr, 0, 1);
    }
    YFW_TRC(ctx, __func__, "End");
    return rc;
}
