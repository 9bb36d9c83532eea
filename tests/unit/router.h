// Trees of a router's size, built in process for the scale test and the
// benchmarks: the same shapes as tools/gendoc.py writes, N tunnel
// interfaces each with endpoints (every third IPv6), ttl, GRE key and an
// address of each family.
#pragma once

#include "octunnel/yfw_namespaces.h"
#include "yfwhost/host.h"

#include <string>

namespace testing_support {

inline std::string endpoint(int i, bool source)
{
    if (i % 3 == 2)
        return "2001:db8:" + std::to_string(i >> 16) + ":" + std::to_string(i & 0xFFFF) +
               (source ? "::1" : "::2");
    return (source ? "10." : "172.16.") + std::to_string(i / 256 % 256) + "." +
           std::to_string(source ? i % 256 : i % 254 + 1) + (source ? ".1" : "");
}

inline std::string ipv4_address(int i)
{
    return "10." + std::to_string(64 + i / 65024 % 64) + "." + std::to_string(i / 254 % 256) + "." +
           std::to_string(i % 254 + 1);
}

inline std::string ipv6_address(int i)
{
    return "2001:db8:1" + std::to_string(i >> 16) + ":" + std::to_string(i & 0xFFFF) + "::1";
}

inline void leaf(vidl_yfw_datatree *parent, const char *tag, const std::string &value)
{
    yfwhost::tree_set_value(yfwhost::tree_add_child(parent, tag, parent->ns), value);
}

inline vidl_yfw_datatree *container(vidl_yfw_datatree *parent, const char *tag,
                                    const char *ns = nullptr)
{
    return yfwhost::tree_add_child(parent, tag, ns != nullptr ? ns : parent->ns);
}

// One interface entry of an OpenConfig edit, under `interfaces`.
inline void oc_interface(vidl_yfw_datatree *interfaces, int i)
{
    vidl_yfw_datatree *itf = container(interfaces, "interface");
    leaf(itf, "name", "tunnel-ip" + std::to_string(i));
    vidl_yfw_datatree *tunnel = container(itf, "tunnel", NS_OC_IF_TUNNEL);
    vidl_yfw_datatree *config = container(tunnel, "config");
    leaf(config, "src", endpoint(i, true));
    leaf(config, "dst", endpoint(i, false));
    leaf(config, "ttl", std::to_string(64 + i % 192));
    leaf(config, "gre-key", std::to_string(1000 + i));
    for (const char *family : {"ipv4", "ipv6"}) {
        const bool v4 = family[3] == '4';
        const std::string ip = v4 ? ipv4_address(i) : ipv6_address(i);
        vidl_yfw_datatree *address =
            container(container(container(tunnel, family), "addresses"), "address");
        leaf(address, "ip", ip);
        vidl_yfw_datatree *c = container(address, "config");
        leaf(c, "ip", ip);
        leaf(c, "prefix-length", v4 ? std::to_string(24 + i % 8) : "64");
    }
}

// An OpenConfig edit of interfaces [0, n).
inline yfwhost::Tree oc_edit(int n)
{
    yfwhost::Tree root(yfwhost::tree_new("interfaces", NS_OC_INTERFACES));
    for (int i = 0; i < n; ++i)
        oc_interface(root.get(), i);
    return root;
}

// The native running configuration of interfaces [0, n).
inline yfwhost::Tree native_config(int n)
{
    yfwhost::Tree root(yfwhost::tree_new("interface-configurations", NS_VALMORA_IFMGR_CFG));
    for (int i = 0; i < n; ++i) {
        vidl_yfw_datatree *cfg = container(root.get(), "interface-configuration");
        leaf(cfg, "active", "act");
        leaf(cfg, "interface-name", "tunnel-ip" + std::to_string(i));
        const bool v6 = i % 3 == 2;
        vidl_yfw_datatree *gre = container(cfg, "tunnel-ip", NS_VALMORA_TUNNEL_GRE_CFG);
        leaf(container(gre, "mode"), "value", v6 ? "2" : "1");
        vidl_yfw_datatree *src = container(gre, "source");
        leaf(src, "type", v6 ? "3" : "2");
        leaf(src, v6 ? "ipv6-address" : "address", endpoint(i, true));
        vidl_yfw_datatree *dst = container(gre, "destination");
        leaf(dst, "type", v6 ? "2" : "1");
        leaf(dst, v6 ? "ipv6-address" : "address", endpoint(i, false));
        leaf(container(gre, "ttl"), "value", std::to_string(64 + i % 192));
        leaf(container(gre, "key"), "value", std::to_string(1000 + i));
        vidl_yfw_datatree *primary = container(
            container(container(cfg, "ipv4-network", NS_VALMORA_IPV4_IO_CFG), "addresses"),
            "primary");
        leaf(primary, "address", ipv4_address(i));
        leaf(primary, "netmask", "255.255.255.0");
        vidl_yfw_datatree *regular =
            container(container(container(container(cfg, "ipv6-network", NS_VALMORA_IPV6_MA_CFG),
                                          "addresses"),
                                "regular-addresses"),
                      "regular-address");
        leaf(regular, "address", ipv6_address(i));
        leaf(regular, "prefix-length", "64");
    }
    return root;
}

} // namespace testing_support
