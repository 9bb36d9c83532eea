// The rule engine of access control (serve/nacm.h) against the models
// served: which rule decides, in what order, with which defaults, for
// which user; what a rules file must be; which changes of an edit are
// checked.
#include "agent/nacm.h"
#include "translate/oc_models.h"

#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using namespace octunnel;
using namespace octunnel::serve;
using nacm::Access;

const OpenConfigModels &models()
{
    static const OpenConfigModels m(OCTUNNEL_YANG_DIR);
    return m;
}

// A rules file: `body` inside <nacm>, with the prefixes of the OpenConfig
// models and of the NACM module itself declared for its paths.
std::shared_ptr<const nacm::Rules> rules(const std::string &body)
{
    return nacm::parse_rules(models().context(),
                             "<nacm xmlns=\"urn:ietf:params:xml:ns:yang:ietf-netconf-acm\" "
                             "xmlns:n=\"urn:ietf:params:xml:ns:yang:ietf-netconf-acm\" "
                             "xmlns:oc-if=\"http://openconfig.net/yang/interfaces\" "
                             "xmlns:oc-tun=\"http://openconfig.net/yang/interfaces/tunnel\">" +
                                 body + "</nacm>",
                             "rules.xml");
}

const std::string groups = "<groups><group><name>ops</name><user-name>olga</user-name>"
                           "<user-name>oscar</user-name></group>"
                           "<group><name>net</name><user-name>oscar</user-name></group></groups>";

std::string rule(const std::string &name, const std::string &inner, const std::string &action)
{
    return "<rule><name>" + name + "</name>" + inner + "<action>" + action + "</action></rule>";
}

std::string list(const std::string &name, const std::string &group, const std::string &rules)
{
    return "<rule-list><name>" + name + "</name><group>" + group + "</group>" + rules +
           "</rule-list>";
}

// A data node made at `path` (of libyang's JSON form), and the tree that
// holds it.
struct Made {
    DataTree tree;
    lyd_node *node = nullptr;
};

Made make(const std::string &path, const char *value = nullptr)
{
    Made m;
    lyd_node *top = nullptr;
    EXPECT_EQ(lyd_new_path2(nullptr, models().context(), path.c_str(), value, 0, LYD_ANYDATA_STRING,
                            0, &top, &m.node),
              LY_SUCCESS)
        << path;
    m.tree.reset(top);
    return m;
}

const std::string t12 = "/openconfig-interfaces:interfaces/interface[name='tunnel-ip12']";
const std::string t13 = "/openconfig-interfaces:interfaces/interface[name='tunnel-ip13']";
const std::string ttl = "/openconfig-if-tunnel:tunnel/config/ttl";
const std::string ttl12_rule =
    "<path>/oc-if:interfaces/oc-if:interface[oc-if:name='tunnel-ip12']/oc-tun:tunnel/"
    "oc-tun:config/oc-tun:ttl</path>";

struct DataCase {
    const char *what;
    std::string body; // the rules
    const char *user;
    Access access;
    std::string path;
    bool permitted;
};

TEST(Nacm, DataNodesByModulePathOrderGroupsAndDefaults)
{
    const std::string deny_tunnel_read =
        groups +
        list("l", "ops", rule("r", "<module-name>openconfig-if-tunnel</module-name>", "deny"));
    const std::vector<DataCase> cases = {
        {"a module-name rule takes its module's nodes", deny_tunnel_read, "olga", Access::read,
         t12 + ttl, false},
        {"and no other module's", deny_tunnel_read, "olga", Access::read, t12 + "/name", true},
        {"a path with a key: that entry", groups + list("l", "ops", rule("r", ttl12_rule, "deny")),
         "olga", Access::read, t12 + ttl, false},
        {"a path with a key: no other entry",
         groups + list("l", "ops", rule("r", ttl12_rule, "deny")), "olga", Access::read, t13 + ttl,
         true},
        {"a path without keys: every entry",
         groups + list("l", "ops",
                       rule("r", "<path>/oc-if:interfaces/oc-if:interface/oc-tun:tunnel</path>",
                            "deny")),
         "olga", Access::read, t13 + ttl, false},
        {"a path takes what is below it, not above",
         groups + list("l", "ops", rule("r", ttl12_rule, "deny")), "olga", Access::read,
         t12 + "/openconfig-if-tunnel:tunnel/config", true},
        {"'/' is every node", groups + list("l", "ops", rule("r", "<path>/</path>", "deny")),
         "olga", Access::read, t12 + "/name", false},
        {"first match wins within a rule-list",
         groups + list("l", "ops", rule("a", ttl12_rule, "permit") + rule("b", "", "deny")), "olga",
         Access::update, t12 + ttl, true},
        {"first match wins across rule-lists",
         groups + list("a", "ops", rule("a", "", "deny")) +
             list("b", "ops", rule("b", ttl12_rule, "permit")),
         "olga", Access::update, t12 + ttl, false},
        {"a rule for other access does not match",
         groups + list("l", "ops",
                       rule("r", "<access-operations>update delete</access-operations>", "deny")),
         "olga", Access::create, t12 + ttl, false /* write-default deny */},
        {"a rule for other access does not match, read-default permits",
         groups + list("l", "ops",
                       rule("r", "<access-operations>update delete</access-operations>", "deny")),
         "olga", Access::read, t12 + ttl, true},
        {"access bits that match",
         groups + "<write-default>permit</write-default>" +
             list("l", "ops",
                  rule("r", "<access-operations>create delete</access-operations>", "deny")),
         "olga", Access::del, t12 + ttl, false},
        {"a rule-list of another group does not apply",
         groups + list("l", "net", rule("r", "", "deny")), "olga", Access::read, t12 + ttl, true},
        {"a user in two groups has both rule-lists",
         groups + list("l", "net", rule("r", "", "deny")), "oscar", Access::read, t12 + ttl, false},
        {"group '*' applies to every user of a group",
         groups + list("l", "*", rule("r", "", "deny")), "olga", Access::read, t12 + ttl, false},
        {"a user of no group gets the defaults alone",
         groups + list("l", "*", rule("r", "", "deny")), "nobody", Access::read, t12 + ttl, true},
        {"read-default", groups + "<read-default>deny</read-default>", "olga", Access::read,
         t12 + ttl, false},
        {"write-default deny by the model's default", groups, "olga", Access::create, t12 + ttl,
         false},
        {"write-default permit", groups + "<write-default>permit</write-default>", "olga",
         Access::update, t12 + ttl, true},
        {"an operation rule is no data rule",
         groups + list("l", "ops", rule("r", "<rpc-name>*</rpc-name>", "deny")), "olga",
         Access::read, t12 + ttl, true},
        {"default-deny-all keeps /nacm from every reader without a rule", groups, "olga",
         Access::read, "/ietf-netconf-acm:nacm/enable-nacm", false},
        {"and from writers, whatever write-default says",
         groups + "<write-default>permit</write-default>", "olga", Access::update,
         "/ietf-netconf-acm:nacm/enable-nacm", false},
        {"an explicit rule opens it",
         groups + list("l", "ops",
                       rule("r",
                            "<module-name>ietf-netconf-acm</module-name>"
                            "<access-operations>read</access-operations>",
                            "permit")),
         "olga", Access::read, "/ietf-netconf-acm:nacm/enable-nacm", true},
        {"enable-nacm false: nothing is denied",
         groups + "<enable-nacm>false</enable-nacm>" + list("l", "*", rule("r", "", "deny")),
         "olga", Access::del, t12 + ttl, true},
    };
    for (const DataCase &c : cases) {
        const Made m = make(c.path, c.path.ends_with("ttl")           ? "64"
                                    : c.path.ends_with("enable-nacm") ? "true"
                                                                      : nullptr);
        ASSERT_NE(m.node, nullptr) << c.what;
        const nacm::Subject who(rules(c.body), c.user, false);
        EXPECT_EQ(who.may(c.access, m.node), c.permitted) << c.what;
        // The recovery session, and a server without rules, never deny.
        EXPECT_TRUE(nacm::Subject(rules(c.body), c.user, true).may(c.access, m.node)) << c.what;
        EXPECT_TRUE(nacm::Subject(nullptr, c.user, false).may(c.access, m.node)) << c.what;
    }
}

struct OperationCase {
    const char *what;
    std::string body;
    const char *user;
    const char *operation; // a path of the models
    bool permitted;
};

TEST(Nacm, OperationsByNameModuleAndDefaults)
{
    const char *get = "/ietf-netconf:get-config";
    const std::vector<OperationCase> cases = {
        {"exec-default permits", groups, "olga", get, true},
        {"exec-default deny", groups + "<exec-default>deny</exec-default>", "olga", get, false},
        {"rpc-name",
         groups + list("l", "ops", rule("r", "<rpc-name>get-config</rpc-name>", "deny")), "olga",
         get, false},
        {"another rpc-name",
         groups + list("l", "ops", rule("r", "<rpc-name>get</rpc-name>", "deny")), "olga", get,
         true},
        {"rpc-name '*' of a module",
         groups + list("l", "ops",
                       rule("r",
                            "<module-name>ietf-netconf-monitoring</module-name>"
                            "<rpc-name>*</rpc-name>",
                            "deny")),
         "olga", "/ietf-netconf-monitoring:get-schema", false},
        {"of another module",
         groups + list("l", "ops",
                       rule("r",
                            "<module-name>ietf-netconf-monitoring</module-name>"
                            "<rpc-name>*</rpc-name>",
                            "deny")),
         "olga", get, true},
        {"a rule without exec does not match",
         groups +
             list("l", "ops", rule("r", "<access-operations>read</access-operations>", "deny")),
         "olga", get, true},
        {"a data rule does not match", groups + list("l", "ops", rule("r", ttl12_rule, "deny")),
         "olga", get, true},
        {"kill-session: default-deny-all", groups, "olga", "/ietf-netconf:kill-session", false},
        {"kill-session with a rule",
         groups + list("l", "ops", rule("r", "<rpc-name>kill-session</rpc-name>", "permit")),
         "olga", "/ietf-netconf:kill-session", true},
        {"delete-config: default-deny-all", groups, "olga", "/ietf-netconf:delete-config", false},
        {"close-session always", groups + list("l", "*", rule("r", "", "deny")), "olga",
         "/ietf-netconf:close-session", true},
    };
    for (const OperationCase &c : cases) {
        const lysc_node *op = lys_find_path(models().context(), nullptr, c.operation, 0);
        ASSERT_NE(op, nullptr) << c.operation;
        EXPECT_EQ(nacm::Subject(rules(c.body), c.user, false).may_execute(op), c.permitted)
            << c.what;
        EXPECT_TRUE(nacm::Subject(rules(c.body), c.user, true).may_execute(op)) << c.what;
    }
}

TEST(Nacm, RulesFilesWithAFaultAreNamedByFileAndLine)
{
    const struct {
        std::string body;
        std::string said; // the beginning of the message
    } cases[] = {
        {"<rule-list><name>l</name>\n<rule><name>r</name>\n<action>maybe</action></rule>"
         "</rule-list>",
         "rules.xml:3: "},
        {"\n<rule-list><name>l</name><rule><name>r</name>\n<path>/oc-if:interfaces/oc-if:frob"
         "</path><action>deny</action></rule></rule-list>",
         "rules.xml:3: "},
        {"\n\n<denied-data-writes>1</denied-data-writes>", "rules.xml:3: "},
        {"<groups><group><name>*</name></group></groups>", "rules.xml:1: "},
        {"<frob/>", "rules.xml:1: "},
    };
    for (const auto &c : cases) {
        try {
            rules(c.body);
            ADD_FAILURE() << "taken: " << c.body;
        } catch (const nacm::RulesError &e) {
            EXPECT_TRUE(std::string(e.what()).starts_with(c.said)) << e.what();
        }
    }
    EXPECT_THROW(nacm::parse_rules(models().context(),
                                   "<interfaces xmlns=\"http://openconfig.net/yang/interfaces\"/>",
                                   "rules.xml"),
                 nacm::RulesError);
    EXPECT_THROW(nacm::load_rules(models().context(), "/nonexistent/rules.xml"), nacm::RulesError);
}

DataTree parse(const std::string &xml)
{
    lyd_node *tree = nullptr;
    EXPECT_EQ(lyd_parse_data_mem(models().context(), xml.c_str(), LYD_XML,
                                 LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0, &tree),
              LY_SUCCESS)
        << xml;
    return DataTree(tree);
}

std::string config(const std::string &t12_inner, const std::string &more = "")
{
    return "<interfaces xmlns=\"http://openconfig.net/yang/interfaces\"><interface>"
           "<name>tunnel-ip12</name><tunnel xmlns=\"http://openconfig.net/yang/interfaces/"
           "tunnel\"><config>" +
           t12_inner + "</config></tunnel></interface>" + more + "</interfaces>";
}

TEST(Nacm, AnEditIsCheckedNodeByNodeWithItsEffectiveAccess)
{
    const std::string t13_entry = "<interface><name>tunnel-ip13</name><tunnel xmlns=\"http://"
                                  "openconfig.net/yang/interfaces/tunnel\"><config><ttl>7</ttl>"
                                  "</config></tunnel></interface>";
    const std::string before = config("<ttl>64</ttl><gre-key>5</gre-key>", t13_entry);
    // Only what changes is checked: olga may touch nothing but the ttl of
    // tunnel-ip12, and that only by changing it.
    const auto only_ttl_update =
        rules(groups + list("l", "ops",
                            rule("r", ttl12_rule + "<access-operations>update</access-operations>",
                                 "permit")));
    const struct {
        const char *what;
        std::string after;
        const char *denied; // the node named, or null
        Access access;
    } cases[] = {
        {"nothing changes", before, nullptr, Access::read},
        {"a change of the ttl", config("<ttl>65</ttl><gre-key>5</gre-key>", t13_entry), nullptr,
         Access::read},
        {"a leaf created",
         config("<ttl>64</ttl><gre-key>5</gre-key><dst>192.0.2.1</dst>", t13_entry), "dst",
         Access::create},
        {"a leaf deleted", config("<ttl>64</ttl>", t13_entry), "gre-key", Access::del},
        {"an entry deleted", config("<ttl>64</ttl><gre-key>5</gre-key>"), "interface", Access::del},
        {"the ttl deleted", config("<gre-key>5</gre-key>", t13_entry), "ttl", Access::del},
    };
    const DataTree was = parse(before);
    for (const auto &c : cases) {
        const DataTree now = parse(c.after);
        const auto d = nacm::first_denied_change(nacm::Subject(only_ttl_update, "olga", false),
                                                 was.get(), now.get());
        if (c.denied == nullptr) {
            EXPECT_FALSE(d) << c.what << ": " << (d ? LYD_NAME(d->node) : "");
            continue;
        }
        ASSERT_TRUE(d) << c.what;

        EXPECT_EQ(std::string(LYD_NAME(d->node)), c.denied) << c.what;
        EXPECT_EQ(d->access, c.access) << c.what;
        EXPECT_FALSE(nacm::first_denied_change(nacm::Subject(only_ttl_update, "olga", true),
                                               was.get(), now.get()))
            << c.what;
    }
    // What a delete takes is checked to its leaves: a deny of one leaf
    // refuses the delete of what holds it.
    const auto keep_key =
        rules(groups + "<write-default>permit</write-default>" +
              list("l", "ops",
                   rule("r",
                        "<path>/oc-if:interfaces/oc-if:interface/oc-tun:tunnel/oc-tun:config/"
                        "oc-tun:gre-key</path><access-operations>delete</access-operations>",
                        "deny")));
    const auto d = nacm::first_denied_change(nacm::Subject(keep_key, "olga", false), was.get(),
                                             parse(config("", t13_entry)).get());
    ASSERT_TRUE(d);
    EXPECT_EQ(std::string(LYD_NAME(d->node)), "gre-key");
}

} // namespace
