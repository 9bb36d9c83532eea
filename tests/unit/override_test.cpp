// A strong definition of a generated name replaces it for every caller.
#include "testing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace testing_support;
using testing::ElementsAre;

namespace {

std::vector<std::string> translate(const char *module_path)
{
    yfwhost::Module module(module_path);
    Recorded r(YFW_MAP_REQ_GET);
    auto tree = build(nest(
        "tunnel-ip-ma/database/tunnel-ids/tunnel-id", NS_VALMORA_TUNNEL_IP_MA_OPER,
        {N("tid", "5"),
         N("idb-array", {N("destination-address", {N("ipv4", "198.51.100.7")}), N("ttl", "64")})}));
    verrno rc = module.registration().native_to_oc_root(r.ctx(), tree.get(), r.out());
    EXPECT_EQ(rc, YFW_OK);
    std::vector<std::string> adds;
    for (const yfwhost::Emission &e : r.req.emissions())
        adds.push_back(e.path + "=" + e.value.value_or(""));
    return adds;
}

TEST(Override, StrongDefinitionReplacesGeneratedHandlerAndWalker)
{
    EXPECT_THAT(translate(OCTUNNEL_MODULE_PATH),
                ElementsAre("/interfaces/interface/tunnel/state/dst=198.51.100.7",
                            "/interfaces/interface/tunnel/state/ttl=64"));
    EXPECT_THAT(translate(OCTUNNEL_OVERRIDE_MODULE_PATH),
                ElementsAre("/interfaces/interface/tunnel/state/ttl=overridden"));
}

// A declining entry of a list nested in a list ends its outer entry, and the
// container around the outer list takes the walk on to the next one.
TEST(Override, DecliningNestedListEndsItsOuterEntryOnly)
{
    auto address = [](const char *a) {
        return N("address", {N("address", a), N("address-state", "preferred")});
    };
    auto detail = [&](const char *name) {
        return N("detail",
                 {N("interface-name", name), address("2001:db8::1"), address("2001:db8::2")});
    };
    const N shape = nest(
        "ipv6-network/nodes/node", NS_VALMORA_IPV6_MA_OPER,
        {N("node-name", "0"), nest("interface-data/vrfs/vrf", "",
                                   {N("vrf-name", "default"),
                                    N("details", {detail("tunnel-ip1"), detail("tunnel-ip2")})})});
    const char *root = "ymap_vo_octunnel_valmoraipv6maoper_lvla_ipv6network";
    for (const char *path : {OCTUNNEL_MODULE_PATH, OCTUNNEL_OVERRIDE_MODULE_PATH}) {
        SCOPED_TRACE(path);
        yfwhost::Module module(path);
        Recorded r(YFW_MAP_REQ_GET);
        auto tree = build(shape);
        EXPECT_EQ(module.function(root)(r.ctx(), tree.get(), r.out()), YFW_OK);
        std::size_t adds = only(r.events, {"add"}).size();
        EXPECT_EQ(adds, path == std::string(OCTUNNEL_MODULE_PATH) ? 4u : 0u);
        EXPECT_THAT(only(r.events, {"out+ detail", "out- detail"}),
                    ElementsAre("out+ detail", "out- detail", "out+ detail", "out- detail"));
        EXPECT_EQ(r.req.hierarchy_depth(), 0u);
    }
}

} // namespace
