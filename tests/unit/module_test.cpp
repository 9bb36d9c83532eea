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

// Walks `tree` through `walker` in a request of `kind` and keeps the events,
// with the functions' names made short: "ymap_vo_octunnel_" taken off, the
// interface-configuration dispatch "dispatch", and the models' entries
// into it "<model>_entry".
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
    std::vector<std::string> events(const std::vector<std::string> &prefixes) const
    {
        static const std::pair<std::regex, const char *> short_names[] = {
            {std::regex("ymap_vo_octunnel_valmoraifmgrcfg_lvla_interfaceconfigurations_"
                        "interfaceconfiguration_parse_augments"),
             "dispatch"},
            {std::regex("_augment_lvla_interface_configuration"), "_entry"},
            {std::regex("ymap_vo_octunnel_"), ""}};
        std::vector<std::string> out;
        for (std::string e : plain(r.events)) {
            for (const auto &[name, short_name] : short_names)
                e = std::regex_replace(e, name, short_name);
            out.push_back(e);
        }
        return only(out, prefixes);
    }
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

// ---------------------------------------------------------------- native walks

struct Case {
    const char *name;
    const char *walker; // without "ymap_vo_octunnel_"
    N tree;
    const char *seen;     // events with these prefixes...
    const char *expected; // ...in this order
    uint32_t kind = YFW_MAP_REQ_GET;
};

void check(const Case &c)
{
    SCOPED_TRACE(c.name);
    Walk w(fn(std::string("ymap_vo_octunnel_") + c.walker), c.tree, c.kind);
    EXPECT_EQ(w.rc, YFW_OK);
    EXPECT_EQ(w.events(split(c.seen)), split(c.expected));
}

constexpr const char *CONFIGURATIONS = "valmoraifmgrcfg_lvla_interfaceconfigurations";
constexpr const char *DISPATCHED =
    "add; TRC dispatch; TRC valmoratunnelgrecfg_entry P; TRC valmoraipv6macfg_entry P; "
    "TRC valmoraipv6macfg_entry U; TRC valmoraipv4iocfg_entry P; TRC valmoraipv4iocfg_entry U";

// interface-configuration: the frame that maps nothing is walked; the
// foreign children go to the entries of their models by namespace, the
// tunnel's compared with its ".yang" form, and the dispatch has no End on
// any way.  ipv4-network-forwarding reaches the ipv4-network entry, not its
// own, which walks its container inline.
TEST(NativeWalks, InterfaceConfiguration)
{
    const Case cases[] = {
        {"the frame", CONFIGURATIONS,
         interface_configuration({N("description", "to the branch"), N("dampening", {}),
                                  N("mtus", {N("mtu", {N("owner", "ipv4"), N("mtu", "1500")})}),
                                  N("encapsulation", {})}),
         "out; hier+; add",
         "hier+ interface-configurations 1; hier+ interface-configuration 2; out+ "
         "interface-configuration; hier+ dampening 1; hier+ mtus 1; hier+ mtu 2; out+ mtu; out- "
         "mtu; hier+ encapsulation 1; out- interface-configuration"},
        {"tunnel, plain namespace", CONFIGURATIONS,
         interface_configuration({N("tunnel-ip", GRE, {})}), DISPATCHED,
         "TRC dispatch Start; TRC dispatch REVERSE MAPPING HERE "
         "http://valmora.com/ns/yang/Valmora-tunnel-gre-cfg ; TRC valmoratunnelgrecfg_entry "
         "Processing tag 'tunnel-ip'; add /interfaces/interface/tunnel"},
        {"tunnel, namespace with .yang", CONFIGURATIONS,
         interface_configuration({N("tunnel-ip", NS_VALMORA_TUNNEL_GRE_CFG_YANG, {})}), DISPATCHED,
         "TRC dispatch Start; TRC dispatch REVERSE MAPPING HERE "
         "http://valmora.com/ns/yang/Valmora-tunnel-gre-cfg.yang ; TRC valmoratunnelgrecfg_entry "
         "Processing tag 'tunnel-ip'; add /interfaces/interface/tunnel"},
        {"unknown tag of the ipv6 model", CONFIGURATIONS,
         interface_configuration({N("ipv6-other", V6CFG, {N("mtu", "1400")})}), DISPATCHED,
         "TRC dispatch Start; TRC valmoraipv6macfg_entry Processing tag 'ipv6-other'; TRC "
         "valmoraipv6macfg_entry Unsupported tag. Ignoring."},
        {"ipv4 forwarding", CONFIGURATIONS,
         interface_configuration({N("ipv4-network-forwarding", V4CFG, {})}), DISPATCHED,
         "TRC dispatch Start; TRC valmoraipv4iocfg_entry Processing tag 'ipv4-network-forwarding'; "
         "TRC valmoraipv4iocfg_entry Unsupported tag. Ignoring."},
        {"unknown module", CONFIGURATIONS,
         interface_configuration({N("ethernet", "urn:example:other", {N("speed", "10")})}),
         DISPATCHED, "TRC dispatch Start"},
        {"the forwarding entry", "valmoraipv4iocfg_augment_lvlb_interface_configuration",
         N("ipv4-network-forwarding", V4CFG, {N("ssrr", "true"), N("x", "urn:other", {})}),
         "TRC valmoraipv4iocfg_lvla_ipv4networkforwarding; hier",
         "TRC valmoraipv4iocfg_lvla_ipv4networkforwarding Start; hier+ ipv4-network-forwarding 1; "
         "TRC valmoraipv4iocfg_lvla_ipv4networkforwarding Unsupported tag. Ignoring.; TRC "
         "valmoraipv4iocfg_lvla_ipv4networkforwarding_parse_augments Start; TRC "
         "valmoraipv4iocfg_lvla_ipv4networkforwarding_parse_augments End; hier- "
         "ipv4-network-forwarding; TRC valmoraipv4iocfg_lvla_ipv4networkforwarding End"},
        {"regular-address entries come before their leaves",
         "valmoraipv6macfg_augment_lvla_interface_configuration",
         N("ipv6-network", V6CFG,
           {N("addresses",
              {N("regular-addresses",
                 {N("regular-address", {N("prefix-length", "64"), N("address", "2001:db8::1")}),
                  N("regular-address", {})})})}),
         "add; ERR",
         "add /interfaces/interface/tunnel/ipv6/addresses/address; add "
         "/interfaces/interface/tunnel/ipv6/addresses/address/config/prefix-length; add "
         "/interfaces/interface/tunnel/ipv6/addresses/address/state/prefix-length; add "
         "/interfaces/interface/tunnel/ipv6/addresses/address/ip; add "
         "/interfaces/interface/tunnel/ipv6/addresses/address/config/ip; add "
         "/interfaces/interface/tunnel/ipv6/addresses/address/state/ip; ERR "
         "valmoraipv6macfg_lvla_ipv6network_regularaddresses_regularaddress No keys specified "
         "with a list node.; add /interfaces/interface/tunnel/ipv6/addresses/address"},
    };
    for (const Case &c : cases)
        check(c);
}

// The operational models map only in a GET, though their entries always
// enter; the walker of ipv4-network leaves interfaces to that model's own
// entry; lists nested in lists stand on the output list together; a
// mapped list's unmapped key is passed over, and an empty idb-array is
// reported.
TEST(NativeWalks, OperationalModels)
{
    const N tunnel = nest("tunnel-ip-ma/database/tunnel-ids/tunnel-id", TIPMA,
                          {N("tid", "12"), N("idb-array", {N("ttl", "64")})});
    const N v4 =
        nest("interfaces/interface", NS_VALMORA_IPV4_MA_OPER,
             {N("interface-name", "tunnel-ip3"),
              nest("vrfs/vrf", "",
                   {N("vrf-name", "default"),
                    N("detail", {N("primary-address", "10.0.0.1"), N("prefix-length", "24")})})});
    const N address = N("address", {N("address", "2001:db8::1"), N("address-state", "preferred")});
    const N v6 =
        nest("ipv6-network/nodes/node", V6OPER,
             {N("node-name", "0/RP0"),
              nest("interface-data/vrfs/vrf", "",
                   {N("vrf-name", "default"),
                    nest("details/detail", "", {N("interface-name", "tunnel-ip7"), address})})});
    const char *root = "valmoratunnelipmaoper_lvla_tunnelipma";
    const char *entry = "valmoraipv4maoper_augment_lvla_ipv4_network";
    const Case cases[] = {
        {"tunnel, an edit", root, tunnel, "add; list-node; hier+", "hier+ tunnel-ip-ma 1", 1},
        {"tunnel, a GET", root, tunnel, "add", "add /interfaces/interface/tunnel/state/ttl"},
        {"ipv4 entry, an edit", entry, v4, "add; list-node; hier+", "hier+ interfaces 1", 1},
        {"ipv4 entry, a GET", entry, v4, "add",
         "add /interfaces/interface/tunnel/ipv4/addresses/address/state/ip; add "
         "/interfaces/interface/tunnel/ipv4/addresses/address/state/prefix-length"},
        {"the ipv4-network root", "valmoraipv4iooper_lvla_ipv4network",
         N("ipv4-network", NS_VALMORA_IPV4_IO_OPER,
           {N("interfaces", NS_VALMORA_IPV4_MA_OPER,
              {N("interface", {N("interface-name", "x")})})}),
         "hier+; TRC valmoraipv4iooper_lvla_ipv4network_parse_augments",
         "hier+ ipv4-network 1; TRC valmoraipv4iooper_lvla_ipv4network_parse_augments Start; TRC "
         "valmoraipv4iooper_lvla_ipv4network_parse_augments End"},
        {"nested lists on the output list", "valmoraipv6maoper_lvla_ipv6network", v6, "out; add",
         "out+ node; out+ vrf; out+ detail; out+ address; add "
         "/interfaces/interface/tunnel/ipv6/addresses/address/state/status; out- address; out- "
         "detail; out- vrf; out- node"},
        {"an unmapped key, an empty idb-array", root,
         nest("tunnel-ip-ma/database/tunnel-ids/tunnel-id", TIPMA,
              {N("tid", "12"), N("idb-array", {})}),
         "ERR; TRC valmoratunnelipmaoper_lvla_tunnelipma_tunnelids_tunnelid U",
         "TRC valmoratunnelipmaoper_lvla_tunnelipma_tunnelids_tunnelid Unsupported tag. "
         "Ignoring.; ERR valmoratunnelipmaoper_lvla_tunnelipma_tunnelid_idbarray No keys "
         "specified with a list node."},
    };
    for (const Case &c : cases)
        check(c);
}

// What the walks leave on the native tree (the keys marked, the unmapped
// ones too) and add (the endpoints of either family on one leaf, in the
// children's order).
TEST(NativeWalks, MarksAndValues)
{
    Walk frame(interface_configurations(), interface_configuration({N("description", "x")}));
    const vidl_yfw_datatree &entry = frame.tree->subtrees[0];
    EXPECT_TRUE(entry.subtrees[0].is_key && entry.subtrees[1].is_key);
    EXPECT_FALSE(entry.subtrees[2].is_key);

    Walk tid(vo("valmoratunnelipmaoper", "lvla_tunnelipma"),
             nest("tunnel-ip-ma/database/tunnel-ids/tunnel-id", TIPMA, {N("tid", "12")}));
    const vidl_yfw_datatree &key = tid.tree->subtrees[0].subtrees[0].subtrees[0].subtrees[0];
    EXPECT_TRUE(key.is_key && (key.present & YFW_PRESENT_IS_KEY));

    Walk w(interface_configurations(),
           interface_configuration({N("tunnel-ip", GRE,
                                      {N("source", {N("type", "2"), N("address", "192.0.2.1"),
                                                    N("ipv6-address", "2001:db8::1")}),
                                       N("bfd", {N("destination", {N("address", "203.0.113.9")})}),
                                       N("destination", {N("ipv6-address", "2001:db8::2"),
                                                         N("address", "198.51.100.7")})})}));
    std::string got;
    for (const auto &e : w.r.req.emissions())
        got += e.path + "=" + e.value.value_or("") + "; ";
    EXPECT_EQ(got, "/interfaces/interface/tunnel/config/src=192.0.2.1; "
                   "/interfaces/interface/tunnel/config/src=2001:db8::1; "
                   "/interfaces/interface/tunnel/config/dst=2001:db8::2; "
                   "/interfaces/interface/tunnel/config/dst=198.51.100.7; ");
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
