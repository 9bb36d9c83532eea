// Edits through the agent in process, with the module loaded: what the
// OpenConfig models refuse, and what the router's configuration cannot hold
// (RFC 6241's operations are held by edit_property_test.cpp).  Each refusal
// names its error-tag and the OpenConfig node, and leaves the configuration
// and its file as they were.
#include "agent/agent.h"

#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace {

using namespace octunnel;
using namespace octunnel::serve;
namespace fs = std::filesystem;

const std::string OC = "http://openconfig.net/yang/interfaces";
const std::string TUN = "http://openconfig.net/yang/interfaces/tunnel";
const std::string IP = "http://openconfig.net/yang/interfaces/ip";
const std::string NC = "urn:ietf:params:xml:ns:netconf:base:1.0";

std::string interfaces(const std::string &inner, const std::string &op = "")
{
    return "<interfaces xmlns=\"" + OC + "\" xmlns:nc=\"" + NC + "\"" +
           (op.empty() ? "" : " nc:operation=\"" + op + "\"") + ">" + inner + "</interfaces>";
}

std::string interface(const std::string &name, const std::string &inner)
{
    return "<interface><name>" + name + "</name>" + inner + "</interface>";
}

std::string tunnel(const std::string &inner)
{
    return "<tunnel xmlns=\"" + TUN + "\">" + inner + "</tunnel>";
}

// A leaf of the tunnel's config of tunnel-ip12.
std::string tunnel_leaf(const std::string &leaf, const std::string &value)
{
    return interfaces(interface(
        "tunnel-ip12", tunnel("<config><" + leaf + ">" + value + "</" + leaf + "></config>")));
}

const std::string T12 = "/oc-if:interfaces/oc-if:interface[oc-if:name='tunnel-ip12']";

std::string slurp(const fs::path &p)
{
    std::ifstream in(p);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

class AgentEdit : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_ = fs::temp_directory_path() /
               ("octunnel-agent-edit-" + std::to_string(getpid()) + "-" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        ly_log_options(LY_LOSTORE_LAST); // refusals are the tests' to read, not to print
        static const auto models = std::make_shared<const OpenConfigModels>(OCTUNNEL_YANG_DIR);
        AgentOptions o;
        o.state_dir = dir_.string();
        o.module_path = OCTUNNEL_MODULE_PATH;
        o.models = models;
        agent_ = std::make_unique<Agent>(o, [](const std::string &) {});
        // Two tunnels: tunnel-ip12 with an IPv4 address, tunnel-ip13.
        ok(interfaces(
            interface(
                "tunnel-ip12",
                tunnel("<config><src>192.0.2.1</src><ttl>64</ttl><gre-key>7</gre-key></config>"
                       "<ipv4><addresses><address><ip>10.12.0.1</ip><config><ip>10.12.0.1"
                       "</ip><prefix-length>24</prefix-length></config></address>"
                       "</addresses></ipv4>")) +
            interface("tunnel-ip13", tunnel("<config><ttl>128</ttl></config>"))));
    }
    void TearDown() override
    {
        agent_.reset();
        fs::remove_all(dir_);
    }

    Outcome edit(const std::string &config, DefaultOperation op = DefaultOperation::merge,
                 bool test_only = false)
    {
        return agent_->edit_config(1, config, op, test_only);
    }
    void ok(const std::string &config, DefaultOperation op = DefaultOperation::merge)
    {
        Outcome o = edit(config, op);
        ASSERT_TRUE(o.ok()) << config << "\n"
                            << o.errors.front().tag << ": " << o.errors.front().message;
    }
    std::string running()
    {
        Outcome o = agent_->read(1, true, std::nullopt);
        EXPECT_TRUE(o.ok());
        return o.data;
    }
    std::string file() { return slurp(dir_ / "running.xml"); }

    // `config` is refused with `tag` about `path`, and nothing changes.
    void refused(const std::string &config, const std::string &tag, const std::string &path,
                 DefaultOperation op = DefaultOperation::merge)
    {
        SCOPED_TRACE(config);
        const std::string before = running(), file_before = file();
        for (bool test_only : {true, false}) {
            Outcome o = edit(config, op, test_only);
            ASSERT_EQ(o.errors.size(), 1u);
            const RpcError &e = o.errors.front();
            EXPECT_EQ(e.tag, tag) << e.message;
            EXPECT_EQ(e.path, path) << e.message;
            EXPECT_FALSE(e.message.empty());
            // Every prefix of the path is declared with its namespace.
            for (const auto &[prefix, ns] : e.path_namespaces)
                EXPECT_NE(e.path.find(prefix + ":"), std::string::npos) << prefix;
            EXPECT_EQ(running(), before);
            EXPECT_EQ(file(), file_before);
        }
    }

    fs::path dir_;
    std::unique_ptr<Agent> agent_;
};

TEST_F(AgentEdit, AValueOutsideItsTypeIsRefusedAsInvalid)
{
    const std::string addr4 = T12 + "/oc-tun:tunnel/oc-tun:ipv4/oc-tun:addresses/oc-tun:address";
    const std::string addr6 = T12 + "/oc-tun:tunnel/oc-tun:ipv6/oc-tun:addresses/oc-tun:address";
    struct Row {
        const char *type;
        std::string config;
        std::string path;
    };
    const Row rows[] = {
        {"uint8 out of range", tunnel_leaf("ttl", "300"),
         T12 + "/oc-tun:tunnel/oc-tun:config/oc-tun:ttl"},
        {"uint8 below its range", tunnel_leaf("ttl", "0"),
         T12 + "/oc-tun:tunnel/oc-tun:config/oc-tun:ttl"},
        {"uint8 not a number", tunnel_leaf("ttl", "abc"),
         T12 + "/oc-tun:tunnel/oc-tun:config/oc-tun:ttl"},
        {"uint8 of many digits", tunnel_leaf("ttl", std::string(100000, '9')),
         T12 + "/oc-tun:tunnel/oc-tun:config/oc-tun:ttl"},
        {"uint32 negative", tunnel_leaf("gre-key", "-5"),
         T12 + "/oc-tun:tunnel/oc-tun:config/oc-tun:gre-key"},
        {"ip-address union", tunnel_leaf("src", "not-an-ip"),
         T12 + "/oc-tun:tunnel/oc-tun:config/oc-tun:src"},
        {"ip-address, an octet too large", tunnel_leaf("dst", "999.1.1.1"),
         T12 + "/oc-tun:tunnel/oc-tun:config/oc-tun:dst"},
        {"ipv4-address key",
         interfaces(
             interface("tunnel-ip12", tunnel("<ipv4><addresses><address><ip>10.1.1</ip></address>"
                                             "</addresses></ipv4>"))),
         addr4 + "/oc-tun:ip"},
        {"prefix length of IPv4 above 32",
         interfaces(interface("tunnel-ip12", tunnel("<ipv4><addresses><address><ip>10.12.0.1</ip>"
                                                    "<config><prefix-length>33</prefix-length>"
                                                    "</config></address></addresses></ipv4>"))),
         addr4 + "[oc-tun:ip='10.12.0.1']/oc-tun:config/oc-tun:prefix-length"},
        {"ipv6-address pattern",
         interfaces(interface("tunnel-ip12", tunnel("<ipv6><addresses><address><ip>2001:db8::1</ip>"
                                                    "<config><ip>2001:zz8::1</ip></config>"
                                                    "</address></addresses></ipv6>"))),
         addr6 + "[oc-tun:ip='2001:db8::1']/oc-tun:config/oc-tun:ip"},
        {"prefix length of IPv6 above 128",
         interfaces(interface("tunnel-ip12", tunnel("<ipv6><addresses><address><ip>2001:db8::1</ip>"
                                                    "<config><prefix-length>129</prefix-length>"
                                                    "</config></address></addresses></ipv6>"))),
         addr6 + "[oc-tun:ip='2001:db8::1']/oc-tun:config/oc-tun:prefix-length"},
        {"uint32 below its range (IPv6 mtu)",
         interfaces(
             interface("tunnel-ip12", tunnel("<ipv6><config><mtu>1000</mtu></config></ipv6>"))),
         T12 + "/oc-tun:tunnel/oc-tun:ipv6/oc-tun:config/oc-tun:mtu"},
        {"boolean",
         interfaces(interface("tunnel-ip12", tunnel("<ipv6><config><enabled>yes</enabled>"
                                                    "</config></ipv6>"))),
         T12 + "/oc-tun:tunnel/oc-tun:ipv6/oc-tun:config/oc-tun:enabled"},
        {"uint16 out of range (interface mtu)",
         interfaces(interface("tunnel-ip12", "<config><mtu>70000</mtu></config>")),
         T12 + "/oc-if:config/oc-if:mtu"},
        {"identityref of no identity",
         interfaces(interface(
             "tunnel-ip12", "<config><type xmlns:ift=\"urn:ietf:params:xml:ns:yang:iana-if-type\">"
                            "ift:no-such-type</type></config>")),
         T12 + "/oc-if:config/oc-if:type"},
        {"enumeration",
         interfaces(
             interface("tunnel-ip12",
                       tunnel("<ipv4><proxy-arp><config><mode>SOMETIMES</mode></config></proxy-arp>"
                              "</ipv4>"))),
         T12 + "/oc-tun:tunnel/oc-tun:ipv4/oc-tun:proxy-arp/oc-tun:config/oc-tun:mode"},
        {"vlan-id of openconfig-vlan",
         interfaces(interface("eth0", "<subinterfaces><subinterface><index>0</index>"
                                      "<vlan xmlns=\"http://openconfig.net/yang/vlan\"><config>"
                                      "<vlan-id>5000</vlan-id></config></vlan></subinterface>"
                                      "</subinterfaces>")),
         "/oc-if:interfaces/oc-if:interface[oc-if:name='eth0']/oc-if:subinterfaces/"
         "oc-if:subinterface[oc-if:index='0']/oc-vlan:vlan/oc-vlan:config/oc-vlan:vlan-id"},
        {"phys-address pattern",
         interfaces(
             interface("tunnel-ip12",
                       tunnel("<ipv4><neighbors><neighbor><ip>10.0.0.9</ip><config>"
                              "<link-layer-address>zz:00</link-layer-address></config></neighbor>"
                              "</neighbors></ipv4>"))),
         T12 + "/oc-tun:tunnel/oc-tun:ipv4/oc-tun:neighbors/oc-tun:neighbor[oc-tun:ip='10.0.0.9']/"
               "oc-tun:config/oc-tun:link-layer-address"},
        {"a leaf deleted with a value that does not fit",
         interfaces(interface("tunnel-ip12", tunnel("<config><ttl nc:operation=\"delete\">x</ttl>"
                                                    "</config>"))),
         T12 + "/oc-tun:tunnel/oc-tun:config/oc-tun:ttl"},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.type);
        refused(r.config, "invalid-value", r.path);
    }
}

TEST_F(AgentEdit, AnEditOfAShapeTheModelsDoNotHaveIsRefusedAtItsNode)
{
    struct Row {
        const char *what;
        std::string config;
        std::string tag;
        std::string path;
        std::string bad_element;
    };
    const Row rows[] = {
        {"an interface without its name",
         interfaces("<interface>" + tunnel("<config><ttl>99</ttl></config>") + "</interface>"),
         "missing-element", "/oc-if:interfaces/oc-if:interface", "name"},
        {"an address without its key",
         interfaces(interface("tunnel-ip12", tunnel("<ipv6><addresses><address><config>"
                                                    "<prefix-length>64</prefix-length></config>"
                                                    "</address></addresses></ipv6>"))),
         "missing-element", T12 + "/oc-tun:tunnel/oc-tun:ipv6/oc-tun:addresses/oc-tun:address",
         "ip"},
        {"an element the models do not have", tunnel_leaf("frob", "1"), "unknown-element",
         T12 + "/oc-tun:tunnel/oc-tun:config", "frob"},
        {"a namespace no model has",
         interfaces(interface("tunnel-ip12", "<tunnel xmlns=\"urn:example:x\"/>")),
         "unknown-namespace", T12, "tunnel"},
        {"a root outside the models", "<system xmlns=\"urn:example:system\"/>", "unknown-namespace",
         "", "system"},
        {"state data", interfaces(interface("tunnel-ip12", tunnel("<state><ttl>5</ttl></state>"))),
         "invalid-value", T12 + "/oc-tun:tunnel/oc-tun:state", "state"},
        {"text in a container", interfaces(interface("tunnel-ip12", tunnel("<config>5</config>"))),
         "bad-element", T12 + "/oc-tun:tunnel/oc-tun:config", "config"},
        {"elements in a leaf",
         interfaces(interface("tunnel-ip12", tunnel("<config><ttl><x/></ttl></config>"))),
         "bad-element", T12 + "/oc-tun:tunnel/oc-tun:config/oc-tun:ttl", "ttl"},
        {"a key deleted apart from its entry",
         interfaces("<interface><name nc:operation=\"delete\">tunnel-ip12</name></interface>"),
         "bad-attribute", T12 + "/oc-if:name", "name"},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        refused(r.config, r.tag, r.path);
        EXPECT_EQ(edit(r.config).errors.front().bad_element, r.bad_element);
    }
}

// What the models allow but the router's configuration cannot hold through
// the tunnel mapping is refused whole at the first such node, never kept
// in part and never acknowledged and dropped.
TEST_F(AgentEdit, WhatTheMappingDoesNotCarryIsRefusedNotDropped)
{
    struct Row {
        const char *what;
        std::string config;
        std::string path;
    };
    const Row rows[] = {
        {"an interface's description",
         interfaces(interface("tunnel-ip12", "<config><description>uplink</description></config>")),
         T12 + "/oc-if:config/oc-if:description"},
        {"a new interface's type, beside a tunnel leaf that is carried",
         interfaces(interface(
             "tunnel-ip14",
             "<config><type xmlns:ift=\"urn:ietf:params:xml:ns:yang:iana-if-type\">ift:tunnel"
             "</type></config>" +
                 tunnel("<config><ttl>5</ttl></config>"))),
         "/oc-if:interfaces/oc-if:interface[oc-if:name='tunnel-ip14']/oc-if:config/oc-if:type"},
        {"an Ethernet interface's mtu",
         interfaces(interface("eth0", "<config><mtu>1500</mtu></config>")),
         "/oc-if:interfaces/oc-if:interface[oc-if:name='eth0']/oc-if:config/oc-if:mtu"},
        {"a second IPv4 address: the router keeps one primary address, the first would go",
         interfaces(interface("tunnel-ip12", tunnel("<ipv4><addresses><address><ip>10.12.0.2</ip>"
                                                    "<config><ip>10.12.0.2</ip></config></address>"
                                                    "</addresses></ipv4>"))),
         T12 + "/oc-tun:tunnel/oc-tun:ipv4/oc-tun:addresses/oc-tun:address[oc-tun:ip='10.12.0.1']/"
               "oc-tun:config/oc-tun:ip"},
        {"the tunnel's IPv4 mtu",
         interfaces(
             interface("tunnel-ip12", tunnel("<ipv4><config><mtu>1400</mtu></config></ipv4>"))),
         T12 + "/oc-tun:tunnel/oc-tun:ipv4/oc-tun:config/oc-tun:mtu"},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        refused(r.config, "operation-not-supported", r.path);
    }
}

} // namespace
