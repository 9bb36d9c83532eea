// The unmapped OpenConfig trees: openconfig-if-ip under subinterface and
// routed-vlan, reached through their augment entries, and the module's own
// /interfaces tree.  Nothing of them writes to the native tree; what they
// answer depends only on the shape of the request.
#include "testing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

using namespace testing_support;
using testing::IsEmpty;

namespace {

const yfwhost::Module &module()
{
    static yfwhost::Module m(OCTUNNEL_MODULE_PATH);
    return m;
}

struct Result {
    verrno rc;
    std::string error_tag;
    std::size_t adds;
    std::set<std::string> traced; // every function that traced Start
    std::vector<std::string> events;
};

Result walk(const char *fn, const N &shape, uint32_t kind)
{
    Recorded r(kind);
    auto tree = build(shape);
    r.req.add_input(tree.get());
    map_function f = module().function(fn);
    EXPECT_NE(f, nullptr) << fn;
    Result res{f(r.ctx(), tree.get(), r.out()), "", 0, {}, {}};
    res.error_tag = r.req.state().error_tag != nullptr ? r.req.state().error_tag : "";
    res.adds = r.req.emissions().size();
    for (const std::string &e : plain(r.events)) {
        if (e.starts_with("TRC ") && e.ends_with(" Start"))
            res.traced.insert(e.substr(4, e.size() - 10));
        res.events.push_back(e);
    }
    EXPECT_EQ(r.req.hierarchy_depth(), 0u);
    EXPECT_EQ(r.req.state().schema_walk, 0u);
    EXPECT_EQ(r.req.state().delete_walk, 0u);
    return res;
}

std::size_t count_with(const std::set<std::string> &names, const std::string &part)
{
    std::size_t n = 0;
    for (const std::string &s : names)
        n += s.find(part) != std::string::npos;
    return n;
}

// ---------------------------------------------------------------- openconfig-if-ip

struct Place {
    const char *entry;
    const char *family;
    std::size_t leaves; // leaf functions of the family's tree
};
constexpr const char *IP = NS_OC_IF_IP;
const Place places[] = {
    {"ymap_ov_octunnel_openconfigifip_augment_lvla_subinterface", "ipv4", 58},
    {"ymap_ov_octunnel_openconfigifip_augment_lvlb_subinterface", "ipv6", 69},
    {"ymap_ov_octunnel_openconfigifip_augment_lvla_routed_vlan", "ipv4", 58},
    {"ymap_ov_octunnel_openconfigifip_augment_lvlb_routed_vlan", "ipv6", 69},
};

N address(std::vector<N> children)
{
    return N("addresses", {N("address", children)});
}

struct Row {
    const char *name;
    uint32_t kind;
    std::vector<N> family_children;
    verrno rc;
    const char *error_tag; // "" for none
};

// The whole answer table of the model, in both places and both families.
TEST(OpenconfigIfIp, AnswersByTheShapeOfTheRequest)
{
    const Row rows[] = {
        {"a named leaf, write",
         1,
         {N("config", {N("enabled", "true")})},
         YFW_ERR_UNSUPPORTED_TAG,
         "enabled"},
        {"a named leaf, read", 10, {N("config", {N("mtu")})}, YFW_ERR_UNSUPPORTED_TAG, "mtu"},
        {"a leaf-list, write without keys",
         2,
         {address(
             {N("vrrp", {N("vrrp-group", {N("config", {N("virtual-address", "192.0.2.9")})})})})},
         YFW_ERR_UNSUPPORTED_TAG,
         "virtual-address"},
        {"an instance by its key, read",
         0,
         {address({N("ip", "192.0.2.1")})},
         YFW_ERR_UNSUPPORTED_TAG,
         "ip"},
        {"an instance by its key, keyed write",
         1,
         {address({N("ip", "192.0.2.1")})},
         YFW_ERR_UNSUPPORTED_TAG,
         "ip"},
        {"a key without value, keyed write", 1, {address({N("ip")})}, YFW_ERR_LIST_KEY, "ip"},
        {"no key beside a child, keyed write",
         15,
         {address({N("config", {})})},
         YFW_ERR_LIST_KEY,
         "ip"},
        {"a list without child, keyed write", 8, {address({})}, YFW_ERR_NO_SUBTREES, ""},
        {"a container without child, read", 0, {N("neighbors", {})}, YFW_OK, "neighbors"},
        {"a list without key, read", 10, {address({N("config", {})})}, YFW_OK, "config"},
        {"a container without child, deleted",
         1,
         {N("unnumbered", {}).with_op(YFW_OP_DELETE)},
         YFW_OK,
         "unnumbered"},
        {"a container without child, write", 1, {N("neighbors", {})}, YFW_OK, ""},
        {"a foreign child, adding",
         1,
         {N("config", {N("x", "urn:example:other", "1")})},
         YFW_ERR_AUGMENT_NOT_SUPPORTED,
         "x"},
        {"a foreign child, read", 0, {N("config", {N("x", "urn:example:other", "1")})}, YFW_OK, ""},
        {"an unknown tag, read", 0, {N("config", {N("speed", "1")})}, YFW_OK, ""},
        {"an unknown tag, write",
         1,
         {N("config", {N("speed", "1")})},
         YFW_ERR_UNSUPPORTED_TAG,
         "speed"},
        {"state in a write", 1, {N("state", {})}, YFW_ERR_UNSUPPORTED_TAG, "state"},
        {"state at kind 0", 0, {N("state", {})}, YFW_OK, ""},
        // Pass one of the replace removes by the schema and passes; pass two
        // names the leaf.
        {"replace naming a leaf",
         1,
         {N("config", {N("enabled", "true")}).with_op(YFW_OP_REPLACE)},
         YFW_ERR_UNSUPPORTED_TAG,
         "enabled"},
    };
    for (const Place &p : places) {
        for (const Row &row : rows) {
            SCOPED_TRACE(std::string(p.entry) + ": " + row.name);
            std::vector<N> kids = row.family_children;
            Result r = walk(p.entry, N(p.family, IP, kids), row.kind);
            EXPECT_EQ(r.rc, row.rc);
            EXPECT_EQ(r.error_tag, row.error_tag);
            EXPECT_EQ(r.adds, row.name == std::string("a list without key, read") ? 1u : 0u)
                << "only the key of a keyless read is added, to the request";
        }
    }
}

// A read of the whole family reaches every leaf function, and through the
// entry the walker runs twice; nothing is asked of the native side.
TEST(OpenconfigIfIp, WholeFamilyReadReachesEveryLeafAndAddsNothing)
{
    for (const Place &p : places) {
        SCOPED_TRACE(p.entry);
        Result get = walk(p.entry, N(p.family, IP, {}), YFW_MAP_REQ_GET);
        EXPECT_EQ(get.rc, YFW_OK);
        EXPECT_EQ(get.adds, 0u);
        EXPECT_EQ(count_with(get.traced, "_leaf_lvl"), p.leaves);
        EXPECT_EQ(get.error_tag, p.family) << "each refusal recorded the node it was handed";

        Result get_config = walk(p.entry, N(p.family, IP, {}), YFW_MAP_REQ_GET_CONFIG);
        EXPECT_EQ(get_config.rc, YFW_OK);
        EXPECT_EQ(count_with(get_config.traced, "_state"), 0u) << "no state walker at kind 0";
        EXPECT_EQ(count_with(get_config.traced, "_counters"), 0u);
    }
}

TEST(OpenconfigIfIp, EntryPassesOverAnotherTagOfItsModelInAReadOnly)
{
    for (const Place &p : places) {
        SCOPED_TRACE(p.entry);
        EXPECT_EQ(walk(p.entry, N("mpls", IP, {N("x", "1")}), 0).rc, YFW_OK);
        Result w = walk(p.entry, N("mpls", IP, {N("x", "1")}), 1);
        EXPECT_EQ(w.rc, YFW_ERR_UNSUPPORTED_TAG);
        EXPECT_EQ(w.error_tag, "mpls");
    }
}

// ---------------------------------------------------------------- openconfig-interfaces

constexpr const char *ROOT = "ymap_ov_octunnel_openconfiginterfaces_lvla_interfaces";
constexpr const char *IF = NS_OC_INTERFACES;

TEST(OpenconfigInterfaces, WholeTreeReadWalksEverySchemaLeaf)
{
    Result get = walk(ROOT, N("interfaces", IF, {}), YFW_MAP_REQ_GET);
    EXPECT_EQ(get.rc, YFW_OK);
    EXPECT_EQ(get.error_tag, "interfaces");
    EXPECT_EQ(get.adds, 0u);
    // Every walker of the tree: 11 containers, 2 lists and 71 leaves.
    std::size_t walkers = 0;
    for (const std::string &f : get.traced)
        walkers += f.starts_with("ymap_ov_octunnel_openconfiginterfaces_lvl") &&
                   !f.ends_with("_parse_augments");
    EXPECT_EQ(walkers, 84u);

    Result get_config = walk(ROOT, N("interfaces", IF, {}), YFW_MAP_REQ_GET_CONFIG);
    EXPECT_EQ(get_config.rc, YFW_OK);
    EXPECT_EQ(count_with(get_config.traced, "_state"), 0u);
}

TEST(OpenconfigInterfaces, RequestsNamingItsNodes)
{
    auto itf = [](std::vector<N> children) {
        return N("interfaces", IF, {N("interface", children)});
    };
    struct Case {
        const char *name;
        uint32_t kind;
        N tree;
        verrno rc;
        const char *error_tag;
    };
    const Case cases[] = {
        {"a leaf, the key first", 1,
         itf({N("name", "eth0"), N("config", {N("name", "eth0"), N("mtu", "1500")})}),
         YFW_ERR_UNSUPPORTED_TAG, "name"},
        {"a leaf after the key", 2, itf({N("config", {N("mtu", "1500")}), N("name", "eth0")}),
         YFW_ERR_UNSUPPORTED_TAG, "mtu"},
        {"an unknown tag, read", 0, itf({N("config", {N("foo", "1")})}), YFW_OK, ""},
        {"an unknown tag, write", 2, itf({N("config", {N("foo", "1")})}), YFW_ERR_UNSUPPORTED_TAG,
         "foo"},
        {"tunnel through this tree, write", 1,
         itf({N("tunnel", NS_OC_IF_TUNNEL, {N("config", {N("ttl", "5")})}), N("name", "t1")}),
         YFW_ERR_AUGMENT_NOT_SUPPORTED, "tunnel"},
        {"tunnel through this tree, read", 10,
         itf({N("tunnel", NS_OC_IF_TUNNEL, {N("config", {N("ttl")})})}), YFW_OK, ""},
        {"hold-time state at kind 0", 0, itf({N("hold-time", {N("state", {})})}), YFW_OK, ""},
        {"subinterface by its key", 10,
         itf({N("subinterfaces", {N("subinterface", {N("index", "0")})})}), YFW_ERR_UNSUPPORTED_TAG,
         "index"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Result r = walk(ROOT, c.tree, c.kind);
        EXPECT_EQ(r.rc, c.rc);
        EXPECT_EQ(r.error_tag, c.error_tag);
        EXPECT_THAT(r.events, testing::Not(testing::Contains(testing::StartsWith("add /"))));
    }
}

} // namespace
