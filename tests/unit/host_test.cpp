// The reference host's operations, as a module sees them.
#include "octunnel/yfw_framework.h"
#include "testing.h"

#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>
#include <netdb.h>

using namespace testing_support;

namespace {

constexpr const char *TUN = NS_OC_IF_TUNNEL;

// The answer of a request in one line: tag [if], =value, opN, then the
// children in braces: "data {c {t op1 {ttl=5 op1}, x op0}}".
std::string outline(const yfwhost::Answer &a, yfwhost::Answer::Id n = yfwhost::Answer::root)
{
    std::string s = a.tag(n);
    if (n != yfwhost::Answer::root && std::string_view(a.ns(n)) == NS_OC_INTERFACES)
        s += " [if]";
    if (a.value(n) != nullptr)
        s += std::string("=") + a.value(n);
    if (a.has_op(n))
        s += " op" + std::to_string(a.op(n));
    for (auto c = a.first_child(n); c != yfwhost::Answer::none; c = a.next_sibling(c))
        s += (c == a.first_child(n) ? " {" : ", ") + outline(a, c);
    return a.first_child(n) != yfwhost::Answer::none ? s + "}" : s;
}

// The node at `path`, child indexes from the root.
yfwhost::Answer::Id at(const yfwhost::Answer &a, std::initializer_list<int> path)
{
    yfwhost::Answer::Id n = yfwhost::Answer::root;
    for (int i : path) {
        n = a.first_child(n);
        while (i-- > 0)
            n = a.next_sibling(n);
    }
    return n;
}

verrno add(yfwhost::Request &r, const char *path, const char *value = nullptr,
           const vidl_yfw_datatree *op_node = nullptr, uint32_t list_entry = 0)
{
    return yfw_map_datatree_add_path_flagged(r.ctx(), r.out(), path, TUN, value, op_node, nullptr,
                                             list_entry, 1);
}

TEST(AddPath, CreatesMergesCopiesAndTakesOwnersNamespaces)
{
    yfwhost::Request r(YFW_MAP_REQ_GET);
    std::string value = "64";
    auto deleted = build(N("x", "", {}).with_op(YFW_OP_DELETE));
    ASSERT_EQ(add(r, "/interfaces/interface/tunnel/state/ttl", value.c_str()), YFW_OK);
    value = "changed";
    ASSERT_EQ(add(r, "/oc-if:interfaces/oc-if:interface/tunnel/state/gre-key", "7", deleted.get()),
              YFW_OK);
    ASSERT_EQ(add(r, "/interfaces/interface/tunnel/state/ttl", "65"), YFW_OK);
    EXPECT_EQ(outline(r.answer()),
              "data {interfaces [if] {interface [if] {tunnel {state {ttl=65, gre-key=7 op3}}}}}");
    EXPECT_STREQ(r.answer().ns(at(r.answer(), {0, 0, 0})), TUN); // tunnel

    // Native paths: the interface-configuration frame belongs to ifmgr-cfg.
    ASSERT_EQ(yfw_map_datatree_add_path_flagged(
                  r.ctx(), r.out(), "/interface-configurations/interface-configuration/tunnel-ip",
                  NS_VALMORA_TUNNEL_GRE_CFG, nullptr, nullptr, nullptr, 0, 1),
              YFW_OK);
    EXPECT_STREQ(r.answer().ns(at(r.answer(), {1})), NS_VALMORA_IFMGR_CFG);
    EXPECT_STREQ(r.answer().ns(at(r.answer(), {1, 0})), NS_VALMORA_IFMGR_CFG);
    EXPECT_STREQ(r.answer().ns(at(r.answer(), {1, 0, 1})), NS_VALMORA_TUNNEL_GRE_CFG)
        << "tunnel-ip, after the fixed key";
}

// Operations from request nodes: a write after a removal is a replace, a
// removal never weakens a delete, adds without a request node touch nothing.
TEST(AddPath, RepeatedAddsSettleOnOneOperation)
{
    yfwhost::Request r(1);
    auto req = build(N("tunnel", TUN, {N("ttl", "5")}).with_op(YFW_OP_REMOVE));
    r.add_input(req.get());
    const vidl_yfw_datatree *ttl = &req->subtrees[0]; // inherits remove
    add(r, "/c/t", nullptr, req.get());               // removal of the container
    add(r, "/c/t/ttl", nullptr, ttl);                 // and of its leaf
    yfwhost::tree_set_op(req.get(), YFW_OP_MERGE);
    add(r, "/c/t/ttl", "5", ttl); // written again: replace, and its parent too
    add(r, "/c/x", nullptr, req.get());
    yfwhost::tree_set_op(req.get(), YFW_OP_DELETE);
    add(r, "/c/d", nullptr, req.get());
    yfwhost::tree_set_op(req.get(), YFW_OP_REMOVE);
    add(r, "/c/d", nullptr, req.get()); // a removal keeps the delete
    add(r, "/c/d");                     // a plain step changes nothing
    EXPECT_EQ(outline(r.answer()), "data {c {t op1 {ttl=5 op1}, x op0, d op3}}");
}

TEST(AddPath, UnboundListEntryIsAlwaysANewInstance)
{
    yfwhost::Request r(YFW_MAP_REQ_GET);
    ASSERT_EQ(add(r, "/a/entry", nullptr, nullptr, 1), YFW_OK);
    ASSERT_EQ(add(r, "/a/entry", nullptr, nullptr, 1), YFW_OK);
    ASSERT_EQ(add(r, "/a/entry/leaf", "v"), YFW_OK);
    EXPECT_EQ(outline(r.answer()), "data {a {entry {leaf=v}, entry}}");
}

TEST(AddPath, WithoutAnAnchorTheKeyComesFromThePathOrTheLastEntry)
{
    yfwhost::Request r(YFW_MAP_REQ_GET);
    const char *A = "/interfaces/interface/tunnel/ipv4/addresses/address";
    add(r, (std::string(A) + "/ip").c_str(), "10.0.0.1");
    add(r, (std::string(A) + "/config/ip").c_str(), "10.0.0.1");
    add(r, (std::string(A) + "/ip").c_str(), "10.0.0.2");
    add(r, (std::string(A) + "/ip").c_str(), "10.0.0.1");
    EXPECT_EQ(outline(r.answer()), "data {interfaces [if] {interface [if] {tunnel {ipv4 {addresses "
                                   "{address {ip=10.0.0.1, config {ip=10.0.0.1}}, address "
                                   "{ip=10.0.0.2}}}}}}}");
}

TEST(Matching, StringsAndNamespacesWithTheirYangSuffix)
{
    EXPECT_TRUE(yfw_map_do_these_match("ttl", "ttl"));
    EXPECT_FALSE(yfw_map_do_these_match("ttl", "tt"));
    EXPECT_FALSE(yfw_map_do_these_match(nullptr, "ttl"));
    EXPECT_FALSE(yfw_map_do_these_match(nullptr, nullptr));
    EXPECT_TRUE(yfw_map_do_these_match(NS_VALMORA_TUNNEL_GRE_CFG_YANG, NS_VALMORA_TUNNEL_GRE_CFG));
    EXPECT_TRUE(yfw_map_do_these_match(NS_VALMORA_TUNNEL_GRE_CFG, NS_VALMORA_TUNNEL_GRE_CFG_YANG));
    EXPECT_FALSE(yfw_map_do_these_match("urn:a.yang", "urn:b"));
    EXPECT_FALSE(yfw_map_do_these_match("urn:a.yang.yang", "urn:a"));
    // A tag is no namespace: its ".yang" is part of its name.
    EXPECT_FALSE(yfw_map_do_these_match("ttl.yang", "ttl"));
    EXPECT_FALSE(yfw_map_do_these_match("ttl", "ttl.yang"));
    EXPECT_TRUE(yfw_map_do_these_match("ttl.yang", "ttl.yang"));
}

TEST(RequestTests, DeleteAndAddFollowTheOperationAndItsInheritance)
{
    auto doc =
        build(N("interfaces", NS_OC_INTERFACES,
                {N("interface", {N("name", "t1"), N("tunnel", TUN, {N("config", {N("ttl", "1")})})})
                     .with_op(YFW_OP_DELETE),
                 N("interface", {N("name", "t2")})}));
    const vidl_yfw_datatree &deleted = doc->subtrees[0];
    const vidl_yfw_datatree &ttl = deleted.subtrees[1].subtrees[0].subtrees[0];
    const vidl_yfw_datatree &kept = doc->subtrees[1].subtrees[0];
    EXPECT_TRUE(yfw_map_is_request_delete(&deleted));
    EXPECT_FALSE(yfw_map_is_request_delete(&ttl)) << "only the node's own operation counts";

    yfwhost::Request edit(1);
    edit.add_input(doc.get());
    EXPECT_FALSE(yfw_map_is_request_add(edit.ctx(), &ttl)) << "inherits the delete";
    EXPECT_TRUE(yfw_map_is_request_add(edit.ctx(), &kept)) << "merge by default";
    yfwhost::Request read(YFW_MAP_REQ_GET);
    read.add_input(doc.get());
    EXPECT_FALSE(yfw_map_is_request_add(read.ctx(), &kept));

    auto no_bit = build(N("x", "", {}));
    no_bit->op = YFW_OP_DELETE; // without YFW_PRESENT_OP the field means nothing
    EXPECT_FALSE(yfw_map_is_request_delete(no_bit.get()));
}

TEST(RequestTests, NodeInfoAndErrorPathFromTheHierarchy)
{
    yfwhost::Request r(1);
    auto doc =
        build(N("interfaces", NS_OC_INTERFACES,
                {N("interface", {N("name", "tunnel-ip12"), N("tunnel", TUN, {N("config", {})})})}));
    vidl_yfw_datatree &itf = doc->subtrees[0];
    const char *name = "stale";
    EXPECT_EQ(yfw_map_get_node_info(r.ctx(), "/interfaces/interface", "name", &name), YFW_OK);
    EXPECT_EQ(name, nullptr) << "no instance in the hierarchy";

    yfw_map_add_to_node_hierarchy(r.ctx(), doc.get(), 1);
    yfw_map_add_to_node_hierarchy(r.ctx(), &itf, 2);
    yfw_map_add_to_node_hierarchy(r.ctx(), &itf.subtrees[1], 1);
    yfw_map_add_to_node_hierarchy(r.ctx(), &itf.subtrees[1].subtrees[0], 1);
    EXPECT_EQ(yfw_map_get_node_info(r.ctx(), "/oc-if:interfaces/oc-if:interface", "name", &name),
              YFW_OK);
    EXPECT_STREQ(name, "tunnel-ip12");
    yfw_oc_error_path(r.ctx());
    EXPECT_EQ(r.error_path(), "/interfaces/interface[name='tunnel-ip12']/tunnel/config");
}

// The registration relies on a copy that refuses what does not fit whole.
TEST(Memory, BoundedCopyRefusesWhatDoesNotFit)
{
    char field[4];
    EXPECT_EQ(yfw_strcpy_s("test", field, sizeof field, "abc"), 0);
    EXPECT_STREQ(field, "abc");
    EXPECT_NE(yfw_strcpy_s("test", field, sizeof field, "abcd"), 0);
    EXPECT_STREQ(field, "");
}

TEST(OutputList, AnEntryAlreadyListedIsNotAddedAgain)
{
    yfwhost::Request r(YFW_MAP_REQ_GET);
    auto n = build(N("entry", "", {}));
    yfw_add_to_output_list_ctx(r.ctx(), n.get(), r.out());
    yfw_add_to_output_list_ctx(r.ctx(), n.get(), r.out());
    EXPECT_EQ(r.state().output_count, 1u);
    yfw_remove_from_output_list_ctx(r.ctx(), n.get(), r.out());
    EXPECT_TRUE(r.output_list().empty());
}

// The host reads numeric addresses itself; it must answer as the system's
// resolver does with AI_NUMERICHOST, for either family asked: names are not
// looked up.
TEST(Platform, AddressTextAndNumericResolverAsTheSystemAnswers)
{
    EXPECT_STREQ(vlm_inet_ntoa(htonl(0xffffff00u)), "255.255.255.0");
    EXPECT_STREQ(vlm_inet_ntoa(0), "0.0.0.0");
    const char *const texts[] = {"192.0.2.1",  "2001:db8::1", "::ffff:192.0.2.1", "::",
                                 "10.1",       "0x7f.1",      "01.2.3.4",         "127.1",
                                 "0",          "4294967295",  "1.2.3.256",        "1.2.3.4.5",
                                 " 192.0.2.1", "192.0.2.1 ",  "fe80::1%1",        "2001:db8::1/64",
                                 "",           "tunnel-ip12", "::1.2.3.4",        "1::2::3",
                                 "localhost"};
    for (const char *text : texts) {
        for (int family : {AF_INET6, AF_INET}) {
            SCOPED_TRACE(std::string(text) + (family == AF_INET ? " as IPv4" : " as IPv6"));
            struct addrinfo hints {};
            hints.ai_family = family;
            struct addrinfo *ours = nullptr, *system = nullptr;
            int rc = getaddrinfo_vlm(text, nullptr, &hints, &ours);
            hints.ai_flags = AI_NUMERICHOST;
            int expected = getaddrinfo(text, nullptr, &hints, &system);
            EXPECT_EQ(rc == 0, expected == 0);
            if (rc == 0 && expected == 0) {
                EXPECT_EQ(ours->ai_family, system->ai_family);
                ASSERT_EQ(ours->ai_addrlen, system->ai_addrlen);
                EXPECT_EQ(std::memcmp(ours->ai_addr, system->ai_addr, ours->ai_addrlen), 0);
            }
            if (rc == 0)
                freeaddrinfo_vlm(ours);
            if (expected == 0)
                freeaddrinfo(system);
        }
    }
}

} // namespace
