#include "schema.h"

#include "octunnel/yfw_namespaces.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

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

// The tables as a tree of steps, built once.  Node 0 stands above every
// model's top node.
struct Node {
    std::string_view tag;
    const char *owner = nullptr; // the model that owns the node, if not the path's
    bool owns_subtree = false;
    const ListBinding *list = nullptr;
    std::vector<std::pair<std::string_view, uint32_t>> children;
};

namespace {

std::vector<Node> build()
{
    std::vector<Node> nodes(1);
    auto at = [&](std::string_view path) -> Node & {
        uint32_t n = 0;
        while (!path.empty()) {
            path.remove_prefix(1); // the '/'
            std::string_view step = path.substr(0, path.find('/'));
            path.remove_prefix(step.size());
            auto &kids = nodes[n].children;
            auto it = std::find_if(kids.begin(), kids.end(),
                                   [&](const auto &c) { return c.first == step; });
            if (it != kids.end()) {
                n = it->second;
                continue;
            }
            auto next = static_cast<uint32_t>(nodes.size());
            nodes[n].children.emplace_back(step, next);
            nodes.push_back(Node{step, nullptr, false, nullptr, {}});
            n = next;
        }
        return nodes[n];
    };
    for (const Owner &o : owners) {
        Node &n = at(o.path);
        n.owner = o.ns;
        n.owns_subtree = o.subtree;
    }
    for (const ListBinding &b : lists)
        at(b.path).list = &b;
    return nodes;
}

const std::vector<Node> &tree()
{
    static const std::vector<Node> nodes = build();
    return nodes;
}

} // namespace

const Node *child(const Node *parent, std::string_view tag)
{
    const std::vector<Node> &nodes = tree();
    const Node &from = parent != nullptr ? *parent : nodes[0];
    for (const auto &[step, index] : from.children)
        if (step == tag)
            return &nodes[index];
    return nullptr;
}

const char *owner(const Node *node, bool &subtree)
{
    subtree = node != nullptr && node->owns_subtree;
    return node != nullptr ? node->owner : nullptr;
}

const ListBinding *list(const Node *node)
{
    return node != nullptr ? node->list : nullptr;
}

std::span<const char *const> key_names(std::string_view list_tag)
{
    for (const Keys &k : keys)
        if (list_tag == k.list_tag)
            return k.names;
    return {};
}

} // namespace yfwhost::schema
