// The mapping module as the framework meets it: loaded by the host,
// registered, and walked through its exported names.
#include "octunnel/yfw_framework.h"
#include "testing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

using namespace testing_support;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char *IFMGR = NS_VALMORA_IFMGR_CFG;
constexpr const char *GRE = NS_VALMORA_TUNNEL_GRE_CFG;
constexpr const char *V4CFG = NS_VALMORA_IPV4_IO_CFG;
constexpr const char *V6CFG = NS_VALMORA_IPV6_MA_CFG;
constexpr const char *TIPMA = NS_VALMORA_TUNNEL_IP_MA_OPER;
constexpr const char *V6OPER = NS_VALMORA_IPV6_MA_OPER;

const yfwhost::Module &module()
{
    static yfwhost::Module m(OCTUNNEL_MODULE_PATH);
    return m;
}

map_function fn(const std::string &name)
{
    map_function f = module().function(name.c_str());
    EXPECT_NE(f, nullptr) << name << " is not exported";
    return f;
}
map_function vo(const std::string &model, const std::string &rest)
{
    return fn("ymap_vo_octunnel_" + model + "_" + rest);
}

// Walks `tree` through `walker` in a request of `kind` and keeps the events.
struct Walk {
    Recorded r;
    yfwhost::Tree tree;
    verrno rc;
    Walk(map_function walker, const N &shape, uint32_t kind = YFW_MAP_REQ_GET)
        : r(kind), tree(build(shape))
    {
        r.req.add_input(tree.get());
        rc = walker(r.ctx(), tree.get(), r.out());
    }
    std::vector<std::string> events(std::initializer_list<std::string> prefixes) const
    {
        return only(r.events, prefixes);
    }
    std::vector<std::string> adds() const { return events({"add "}); }
};

N interface_configuration(std::vector<N> augments)
{
    std::vector<N> children{N("active", "act"), N("interface-name", "tunnel-ip12")};
    children.insert(children.end(), augments.begin(), augments.end());
    return N("interface-configurations", IFMGR, {N("interface-configuration", children)});
}

map_function interface_configurations()
{
    return vo("valmoraifmgrcfg", "lvla_interfaceconfigurations");
}

// ---------------------------------------------------------------- registration

TEST(Registration, FillsTheRecordAndLeavesTheFrameworkSlots)
{
    using reg_function = void (*)(yfw_map_reg_mod_t *);
    auto reg = reinterpret_cast<reg_function>(module().symbol("yfw_map_reg_ociftunnel_oper"));
    ASSERT_NE(reg, nullptr);
    yfw_map_reg_mod_t record;
    std::memset(&record, 0xab, sizeof record);
    void *slot_a = record.reg_slot_a, *slot_b = record.reg_slot_b;
    reg(&record);
    EXPECT_STREQ(record.reg_name, "OC tunnel tree");
    EXPECT_STREQ(record.native_ns, NS_VALMORA_TUNNEL_IP_MA_OPER);
    EXPECT_STREQ(record.oc_ns, NS_OC_INTERFACES);
    EXPECT_STREQ(record.native_root_tag, "tunnel-ip-ma");
    EXPECT_STREQ(record.oc_root_tag, "interfaces");
    EXPECT_EQ(record.native_to_oc_root,
              fn("ymap_vo_octunnel_valmoratunnelipmaoper_lvla_tunnelipma"));
    EXPECT_EQ(record.oc_to_native_root, &ymap_ov_ocif_openconfiginterfaces_lvla_interfaces);
    EXPECT_EQ(record.reg_slot_a, slot_a);
    EXPECT_EQ(record.reg_slot_b, slot_b);
    EXPECT_EQ(record.reg_reserved, 0u);
}

TEST(RegistrationDeathTest, FailedCopyIsAFaultOfTheFramework)
{
    using reg_function = void (*)(yfw_map_reg_mod_t *);
    auto reg = reinterpret_cast<reg_function>(module().symbol("yfw_map_reg_ociftunnel_oper"));
    yfw_map_reg_mod_t record{};
    EXPECT_DEATH(
        {
            yfwhost::fail_strcpy_after(3);
            reg(&record);
        },
        R"(tunnel_mapping_registration.cpp:[0-9]+: void yfw_map_reg_ociftunnel_oper\(yfw_map_reg_mod_t \*\): Assertion `rc == 0' failed)");
}

TEST(FunctionFrameDeathTest, NullContextStopsTheProcess)
{
    auto t = build(N("tunnel-ip-ma", TIPMA, {}));
    yfwhost::Request req(YFW_MAP_REQ_GET);
    for (const char *name :
         {"ymap_vo_octunnel_valmoratunnelipmaoper_lvla_tunnelipma",
          "ymap_vo_octunnel_valmoraipv6macfg_leaf_lvla_ipv6network_mtu", "to_high_state_src"}) {
        SCOPED_TRACE(name);
        map_function f = fn(name);
        EXPECT_DEATH(f(nullptr, t.get(), req.out()),
                     R"(Assertion `\(\(void \*\)0\) != ctx' failed)");
    }
}

// ---------------------------------------------------------------- interface-configuration

TEST(InterfaceConfiguration, MarksBothKeysAndWalksTheUnmappedFrame)
{
    Walk w(interface_configurations(),
           interface_configuration({N("description", "to the branch"), N("dampening", {}),
                                    N("mtus", {N("mtu", {N("owner", "ipv4"), N("mtu", "1500")})}),
                                    N("encapsulation", {})}));
    ASSERT_EQ(w.rc, YFW_OK);
    const vidl_yfw_datatree &entry = w.tree->subtrees[0];
    EXPECT_TRUE(entry.subtrees[0].is_key && entry.subtrees[1].is_key);
    EXPECT_FALSE(entry.subtrees[2].is_key);
    EXPECT_THAT(w.events({"list-node", "out", "hier+"}),
                ElementsAre("hier+ interface-configurations 1", "hier+ interface-configuration 2",
                            "list-node /interface-configurations/interface-configuration",
                            "out+ interface-configuration", "hier+ dampening 1", "hier+ mtus 1",
                            "hier+ mtu 2",
                            "list-node /interface-configurations/interface-configuration/mtus/mtu",
                            "out+ mtu", "out- mtu", "hier+ encapsulation 1",
                            "out- interface-configuration"));
    EXPECT_THAT(w.adds(), IsEmpty());
}

// The dispatch of foreign children of interface-configuration, by namespace.
TEST(InterfaceConfiguration, DispatchSendsForeignChildrenToTheirModelsEntries)
{
    const std::string dispatch = "ymap_vo_octunnel_valmoraifmgrcfg_lvla_interfaceconfigurations_"
                                 "interfaceconfiguration_parse_augments";
    struct Case {
        const char *name;
        N child;
        std::vector<std::string> seen;
    };
    const Case cases[] = {
        {"tunnel, plain namespace",
         N("tunnel-ip", GRE, {}),
         {"TRC " + dispatch + " REVERSE MAPPING HERE " + GRE + " ",
          "TRC ymap_vo_octunnel_valmoratunnelgrecfg_augment_lvla_interface_configuration "
          "Processing tag 'tunnel-ip'",
          "add /interfaces/interface/tunnel"}},
        {"tunnel, namespace with .yang",
         N("tunnel-ip", std::string(GRE) + ".yang", {}),
         {"TRC " + dispatch + " REVERSE MAPPING HERE " + GRE + ".yang ",
          "TRC ymap_vo_octunnel_valmoratunnelgrecfg_augment_lvla_interface_configuration "
          "Processing tag 'tunnel-ip'",
          "add /interfaces/interface/tunnel"}},
        {"ipv6 network",
         N("ipv6-network", V6CFG, {N("mtu", "1400")}),
         {"TRC ymap_vo_octunnel_valmoraipv6macfg_augment_lvla_interface_configuration "
          "Processing tag 'ipv6-network'",
          "add /interfaces/interface/tunnel/ipv6/config/mtu",
          "add /interfaces/interface/tunnel/ipv6/state/mtu"}},
        {"unknown tag of the ipv6 model",
         N("ipv6-other", V6CFG, {N("mtu", "1400")}),
         {"TRC ymap_vo_octunnel_valmoraipv6macfg_augment_lvla_interface_configuration "
          "Processing tag 'ipv6-other'",
          "TRC ymap_vo_octunnel_valmoraipv6macfg_augment_lvla_interface_configuration "
          "Unsupported tag. Ignoring."}},
        // ipv4-network-forwarding reaches the ipv4-network entry, not its own.
        {"ipv4 forwarding",
         N("ipv4-network-forwarding", V4CFG, {}),
         {"TRC ymap_vo_octunnel_valmoraipv4iocfg_augment_lvla_interface_configuration "
          "Processing tag 'ipv4-network-forwarding'",
          "TRC ymap_vo_octunnel_valmoraipv4iocfg_augment_lvla_interface_configuration "
          "Unsupported tag. Ignoring."}},
        {"unknown module", N("ethernet", "urn:example:other", {N("speed", "10")}), {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Walk w(interface_configurations(), interface_configuration({c.child}));
        ASSERT_EQ(w.rc, YFW_OK);
        std::vector<std::string> seen;
        for (const std::string &e : w.events({"add", "TRC"}))
            if (e.starts_with("add") || e.find(" REVERSE ") != std::string::npos ||
                (e.find("_augment_") != std::string::npos &&
                 (e.find(" Processing ") != std::string::npos ||
                  e.find(" Unsupported ") != std::string::npos)))
                seen.push_back(e);
        EXPECT_EQ(seen, c.seen);
        // The dispatch itself has no End on any path.
        EXPECT_THAT(w.events({"TRC " + dispatch + " Start", "TRC " + dispatch + " End"}),
                    ElementsAre("TRC " + dispatch + " Start"));
    }
}

TEST(InterfaceConfiguration, ForwardingEntryWalksItsContainerInline)
{
    Walk w(fn("ymap_vo_octunnel_valmoraipv4iocfg_augment_lvlb_interface_configuration"),
           N("ipv4-network-forwarding", V4CFG, {N("ssrr", "true"), N("x", "urn:other", {})}));
    ASSERT_EQ(w.rc, YFW_OK);
    const std::string fwd = "ymap_vo_octunnel_valmoraipv4iocfg_lvla_ipv4networkforwarding";
    EXPECT_THAT(w.events({"TRC " + fwd, "hier"}),
                ElementsAre("TRC " + fwd + " Start", "hier+ ipv4-network-forwarding 1",
                            "TRC " + fwd + " Unsupported tag. Ignoring.",
                            "TRC " + fwd + "_parse_augments Start",
                            "TRC " + fwd + "_parse_augments End", "hier- ipv4-network-forwarding",
                            "TRC " + fwd + " End"));
}

// ---------------------------------------------------------------- operational models

TEST(OperationalModels, MapOnlyInAGetThoughTheirEntriesAlwaysEnter)
{
    N tunnel(
        "tunnel-ip-ma", TIPMA,
        {N("database", {N("tunnel-ids",
                          {N("tunnel-id", {N("tid", "12"), N("idb-array", {N("ttl", "64")})})})})});
    N v4("interfaces", NS_VALMORA_IPV4_MA_OPER,
         {N("interface", {N("interface-name", "tunnel-ip3"),
                          N("vrfs", {N("vrf", {N("vrf-name", "default"),
                                               N("detail", {N("primary-address", "10.0.0.1"),
                                                            N("prefix-length", "24")})})})})});
    map_function tunnel_root = vo("valmoratunnelipmaoper", "lvla_tunnelipma");
    map_function v4_entry = vo("valmoraipv4maoper", "augment_lvla_ipv4_network");
    for (uint32_t kind : {0u, 1u, 15u}) {
        SCOPED_TRACE(kind);
        Walk t(tunnel_root, tunnel, kind);
        EXPECT_EQ(t.rc, YFW_OK);
        EXPECT_THAT(t.events({"add", "list-node", "hier+"}), ElementsAre("hier+ tunnel-ip-ma 1"));
        Walk a(v4_entry, v4, kind);
        EXPECT_EQ(a.rc, YFW_OK);
        EXPECT_THAT(a.events({"add", "list-node", "hier+"}), ElementsAre("hier+ interfaces 1"));
    }
    Walk t(tunnel_root, tunnel);
    EXPECT_THAT(t.adds(), ElementsAre("add /interfaces/interface/tunnel/state/ttl"));
    Walk a(v4_entry, v4);
    EXPECT_THAT(
        a.adds(),
        ElementsAre("add /interfaces/interface/tunnel/ipv4/addresses/address/state/ip",
                    "add /interfaces/interface/tunnel/ipv4/addresses/address/state/prefix-length"));
}

TEST(OperationalModels, Ipv4IoOperRootLeavesInterfacesToItsOwnEntry)
{
    Walk w(vo("valmoraipv4iooper", "lvla_ipv4network"),
           N("ipv4-network", NS_VALMORA_IPV4_IO_OPER,
             {N("interfaces", NS_VALMORA_IPV4_MA_OPER,
                {N("interface", {N("interface-name", "x")})})}));
    ASSERT_EQ(w.rc, YFW_OK);
    EXPECT_THAT(
        w.events(
            {"hier+", "TRC ymap_vo_octunnel_valmoraipv4iooper_lvla_ipv4network_parse_augments"}),
        ElementsAre("hier+ ipv4-network 1",
                    "TRC ymap_vo_octunnel_valmoraipv4iooper_lvla_ipv4network_parse_augments Start",
                    "TRC ymap_vo_octunnel_valmoraipv4iooper_lvla_ipv4network_parse_augments End"));
}

TEST(OperationalModels, NestedListsStandOnTheOutputListTogether)
{
    Walk w(vo("valmoraipv6maoper", "lvla_ipv6network"),
           N("ipv6-network", V6OPER,
             {N("nodes",
                {N("node",
                   {N("node-name", "0/RP0"),
                    N("interface-data",
                      {N("vrfs",
                         {N("vrf", {N("vrf-name", "default"),
                                    N("details",
                                      {N("detail", {N("interface-name", "tunnel-ip7"),
                                                    N("address", {N("address", "2001:db8::1"),
                                                                  N("address-state",
                                                                    "preferred")})})})})})})})})}));
    ASSERT_EQ(w.rc, YFW_OK);
    EXPECT_THAT(w.events({"out", "add"}),
                ElementsAre("out+ node", "out+ vrf", "out+ detail", "out+ address",
                            "add /interfaces/interface/tunnel/ipv6/addresses/address/state/status",
                            "out- address", "out- detail", "out- vrf", "out- node"));
    EXPECT_THAT(
        w.events({"list-node"}),
        ElementsAre(
            "list-node /ipv6-network/nodes/node",
            "list-node /ipv6-network/nodes/node/interface-data/vrfs/vrf",
            "list-node /ipv6-network/nodes/node/interface-data/vrfs/vrf/details/detail",
            "list-node /ipv6-network/nodes/node/interface-data/vrfs/vrf/details/detail/address"));
}

TEST(OperationalModels, TunnelIdKeyIsMarkedAndIgnoredAndEmptyIdbArrayReported)
{
    Walk w(vo("valmoratunnelipmaoper", "lvla_tunnelipma"),
           N("tunnel-ip-ma", TIPMA,
             {N("database",
                {N("tunnel-ids", {N("tunnel-id", {N("tid", "12"), N("idb-array", {})})})})}));
    ASSERT_EQ(w.rc, YFW_OK);
    const vidl_yfw_datatree &tid = w.tree->subtrees[0].subtrees[0].subtrees[0].subtrees[0];
    EXPECT_TRUE(tid.is_key && (tid.present & YFW_PRESENT_IS_KEY));
    EXPECT_THAT(
        w.events(
            {"ERR",
             "TRC ymap_vo_octunnel_valmoratunnelipmaoper_lvla_tunnelipma_tunnelids_tunnelid U"}),
        ElementsAre("TRC ymap_vo_octunnel_valmoratunnelipmaoper_lvla_tunnelipma_tunnelids_tunnelid "
                    "Unsupported tag. Ignoring.",
                    "ERR ymap_vo_octunnel_valmoratunnelipmaoper_lvla_tunnelipma_tunnelid_idbarray "
                    "No keys specified with a list node."));
}

// ---------------------------------------------------------------- configuration models

TEST(ConfigurationModels, EndpointsOfEitherFamilyLandOnOneLeafInChildOrder)
{
    Walk w(interface_configurations(),
           interface_configuration({N("tunnel-ip", GRE,
                                      {N("source", {N("type", "2"), N("address", "192.0.2.1"),
                                                    N("ipv6-address", "2001:db8::1")}),
                                       N("bfd", {N("destination", {N("address", "203.0.113.9")})}),
                                       N("destination", {N("ipv6-address", "2001:db8::2"),
                                                         N("address", "198.51.100.7")})})}));
    ASSERT_EQ(w.rc, YFW_OK);
    std::vector<std::pair<std::string, std::string>> got;
    for (const auto &e : w.r.req.emissions())
        got.emplace_back(e.path, e.value.value_or("-"));
    using P = std::pair<std::string, std::string>;
    EXPECT_THAT(got, ElementsAre(P{"/interfaces/interface/tunnel/config/src", "192.0.2.1"},
                                 P{"/interfaces/interface/tunnel/config/src", "2001:db8::1"},
                                 P{"/interfaces/interface/tunnel/config/dst", "2001:db8::2"},
                                 P{"/interfaces/interface/tunnel/config/dst", "198.51.100.7"}));
}

TEST(ConfigurationModels, RegularAddressEntryComesBeforeItsLeaves)
{
    Walk w(vo("valmoraipv6macfg", "augment_lvla_interface_configuration"),
           N("ipv6-network", V6CFG,
             {N("addresses",
                {N("regular-addresses",
                   {N("regular-address", {N("prefix-length", "64"), N("address", "2001:db8::1")}),
                    N("regular-address", {})})})}));
    ASSERT_EQ(w.rc, YFW_OK);
    const std::string A = "add /interfaces/interface/tunnel/ipv6/addresses/address";
    EXPECT_THAT(
        w.events({"add", "ERR"}),
        ElementsAre(
            A, A + "/config/prefix-length", A + "/state/prefix-length", A + "/ip", A + "/config/ip",
            A + "/state/ip",
            "ERR "
            "ymap_vo_octunnel_valmoraipv6macfg_lvla_ipv6network_regularaddresses_regularaddress "
            "No keys specified with a list node.",
            A));
    for (const auto &e : w.r.req.emissions()) {
        EXPECT_EQ(e.list_entry, e.path.ends_with("/address") ? 1u : 0u) << e.path;
    }
}

// ---------------------------------------------------------------- tunnel endpoints

// The refusal replaces an earlier error text rather than leaking it (the
// sanitizer build's leak check holds the old copy to being freed).
TEST(Endpoints, EachIpv6RefusalLeavesOneErrorText)
{
    yfwhost::set_router_type(13);
    Recorded r(1);
    auto endpoint = build(N("src", NS_OC_IF_TUNNEL, "2001:db8::1"));
    for (const char *name : {"to_low_config_src", "to_low_config_dst"})
        EXPECT_EQ(fn(name)(r.ctx(), endpoint.get(), r.out()), YFW_ERR_NOT_SUPPORTED) << name;
    yfwhost::set_router_type(0);
    EXPECT_STREQ(r.req.state().error_text, "IPV6 mode not supported.");
    EXPECT_THAT(r.req.emissions(), IsEmpty());
}

// ---------------------------------------------------------------- config_or_state_allowed

// A mark hides configuration and state in read view 2 only, and a bit
// outside every mark's mask counts for nothing: the edges of the masks of
// the first and the last fields, and of the widest one.
TEST(ConfigOrStateAllowed, MarksHideConfigurationInReadViewTwoOnly)
{
    using predicate = bool (*)(const yfw_map_request *);
    auto allowed = reinterpret_cast<predicate>(module().symbol("config_or_state_allowed"));
    ASSERT_NE(allowed, nullptr);
    using R = yfw_map_request;
    const struct {
        uint32_t R::*field;
        uint32_t bits;
        uint32_t view;
        bool allowed;
    } rows[] = {
        {&R::req_marks_a, 0x0, 2, true},     {&R::req_marks_a, 0x1, 2, false},
        {&R::req_marks_a, 0x8, 2, false},    {&R::req_marks_a, 0x10, 2, true},
        {&R::req_marks_a, 0x1, 1, true},     {&R::req_marks_a, 0x1, 3, true},
        {&R::req_marks_e, 0x1, 2, false},    {&R::req_marks_e, 0x20000, 2, false},
        {&R::req_marks_e, 0x40000, 2, true}, {&R::req_marks_i, 0x10000, 2, false},
        {&R::req_marks_i, 0xFFFF, 2, true},  {&R::req_marks_i, 0x20000, 2, true},
        {&R::req_marks_g, 0x8, 0, true},     {&R::req_marks_g, 0x10, 2, true},
    };
    for (const auto &row : rows) {
        R r{};
        r.*row.field = row.bits;
        r.read_view = row.view;
        EXPECT_EQ(allowed(&r), row.allowed) << std::hex << row.bits << " in view " << row.view;
    }
}

} // namespace
