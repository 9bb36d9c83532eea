// A strong definition of a generated name replaces it for every caller.
#include "testing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace testing_support;
using testing::ElementsAre;

namespace
{

std::vector<std::string> translate(const char *module_path)
{
    yfwhost::Module module(module_path);
    Recorded r(YFW_MAP_REQ_GET);
    auto tree = build(
        N("tunnel-ip-ma", NS_VALMORA_TUNNEL_IP_MA_OPER,
          {N("database",
             {N("tunnel-ids",
                {N("tunnel-id", {N("tid", "5"), N("idb-array", {N("destination-address",
                                                                  {N("ipv4", "198.51.100.7")}),
                                                                N("ttl", "64")})})})})}));
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

} // namespace
