#include "schema.h"

#include "octunnel/yfw_namespaces.h"

#include <array>

namespace yfwhost::schema {
namespace {

struct Owner {
    const char *path;
    const char *ns;
    bool subtree; // the whole subtree below `path` too
};

// Nodes that an added path passes through but that belong to another model
// than the path's last node: the OpenConfig interface list around the
// tunnel, and the interface-configuration list around the native
// configuration models that augment it.
constexpr Owner owners[] = {
    {"/interfaces", NS_OC_INTERFACES, false},
    {"/interfaces/interface", NS_OC_INTERFACES, false},
    {"/interfaces/interface/name", NS_OC_INTERFACES, false},
    {"/interfaces/interface/config", NS_OC_INTERFACES, true},
    {"/interfaces/interface/state", NS_OC_INTERFACES, true},
    {"/interfaces/interface/hold-time", NS_OC_INTERFACES, true},
    {"/interface-configurations", NS_VALMORA_IFMGR_CFG, false},
    {"/interface-configurations/interface-configuration", NS_VALMORA_IFMGR_CFG, false},
    {"/interface-configurations/interface-configuration/active", NS_VALMORA_IFMGR_CFG, false},
    {"/interface-configurations/interface-configuration/interface-name", NS_VALMORA_IFMGR_CFG,
     false},
    {"/ipv4-network", NS_VALMORA_IPV4_IO_OPER, false},
};

// OpenConfig interfaces answered from native data: the native list entry
// (or container) that the walk stands in names the interface.  Tunnel ids
// become names the way the router names its tunnel interfaces.
constexpr Anchor interface_anchors[] = {
    {NS_VALMORA_IFMGR_CFG, "interface-configuration", "interface-name", ""},
    {NS_VALMORA_TUNNEL_IP_MA_OPER, "tunnel-id", "tid", "tunnel-ip"},
    {NS_VALMORA_IPV4_MA_OPER, "interface", "interface-name", ""},
    {NS_VALMORA_IPV6_MA_OPER, "detail", "interface-name", ""},
};
constexpr Anchor ipv4_address_anchors[] = {
    {NS_VALMORA_IPV4_IO_CFG, "primary", "address", ""},
    {NS_VALMORA_IPV4_MA_OPER, "detail", "primary-address", ""},
};
constexpr Anchor ipv6_address_anchors[] = {
    {NS_VALMORA_IPV6_MA_CFG, "regular-address", "address", ""},
    {NS_VALMORA_IPV6_MA_OPER, "address", "address", ""},
};

// Native entries asked for by an OpenConfig request: the OpenConfig list
// entry that the walk stands in names them.  The running configuration is
// the one an edit changes, hence "act".
constexpr Anchor oc_interface[] = {{NS_OC_INTERFACES, "interface", "name", ""}};
constexpr Anchor oc_address[] = {{NS_OC_IF_TUNNEL, "address", "ip", ""}};

#define CFG "/interface-configurations/interface-configuration"
#define DETAIL "/ipv6-network/nodes/node/interface-data/vrfs/vrf/details/detail"
constexpr ListBinding lists[] = {
    {"/interfaces/interface", "name", NS_OC_INTERFACES, interface_anchors},
    {"/interfaces/interface/tunnel/ipv4/addresses/address", "ip", NS_OC_IF_TUNNEL,
     ipv4_address_anchors},
    {"/interfaces/interface/tunnel/ipv6/addresses/address", "ip", NS_OC_IF_TUNNEL,
     ipv6_address_anchors},
    {CFG, "interface-name", NS_VALMORA_IFMGR_CFG, oc_interface, "active", "act"},
    {CFG "/ipv6-network/addresses/regular-addresses/regular-address", "address",
     NS_VALMORA_IPV6_MA_CFG, oc_address},
    // The tunnel id is named by the added path itself.
    {"/tunnel-ip-ma/database/tunnel-ids/tunnel-id", "tid", NS_VALMORA_TUNNEL_IP_MA_OPER, {}},
    {"/ipv4-network/interfaces/interface", "interface-name", NS_VALMORA_IPV4_MA_OPER, oc_interface},
    {DETAIL, "interface-name", NS_VALMORA_IPV6_MA_OPER, oc_interface},
    {DETAIL "/address", "address", NS_VALMORA_IPV6_MA_OPER, oc_address},
};
#undef CFG
#undef DETAIL

struct Keys {
    const char *list_tag;
    std::span<const char *const> names;
};
constexpr const char *name_key[] = {"name"};
constexpr const char *ip_key[] = {"ip"};
constexpr const char *index_key[] = {"index"};
constexpr const char *interface_configuration_keys[] = {"active", "interface-name"};
constexpr const char *tid_key[] = {"tid"};
constexpr Keys keys[] = {
    {"interface", name_key},
    {"subinterface", index_key},
    {"address", ip_key},
    {"neighbor", ip_key},
    {"interface-configuration", interface_configuration_keys},
    {"tunnel-id", tid_key},
};

} // namespace

const char *owner(std::string_view path)
{
    for (const Owner &o : owners) {
        std::string_view p(o.path);
        if (path == p ||
            (o.subtree && path.starts_with(p) && path.size() > p.size() && path[p.size()] == '/'))
            return o.ns;
    }
    return nullptr;
}

const ListBinding *list(std::string_view path)
{
    for (const ListBinding &b : lists)
        if (path == b.path)
            return &b;
    return nullptr;
}

std::span<const char *const> key_names(std::string_view list_tag)
{
    for (const Keys &k : keys)
        if (list_tag == k.list_tag)
            return k.names;
    return {};
}

} // namespace yfwhost::schema
