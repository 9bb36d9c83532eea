// The unmapped OpenConfig trees: openconfig-if-ip under subinterface and
// routed-vlan, reached through their augment entries, and the module's own
// /interfaces tree.  Nothing of them writes to the native tree; what they
// answer depends only on the shape of the request.
#include "testing.h"

#include <gtest/gtest.h>

#include <set>

using namespace testing_support;

namespace {

struct Result {
    verrno rc;
    std::string error_tag;
    std::size_t adds;
    std::set<std::string> traced; // every function that traced Start
};

Result walk(const char *fn, const N &shape, uint32_t kind)
{
    static const yfwhost::Module module(OCTUNNEL_MODULE_PATH);
    Recorded r(kind);
    auto tree = build(shape);
    r.req.add_input(tree.get());
    map_function f = module.function(fn);
    EXPECT_NE(f, nullptr) << fn;
    Result res{f(r.ctx(), tree.get(), r.out()), "", r.req.emissions().size(), {}};
    res.error_tag = r.req.state().error_tag != nullptr ? r.req.state().error_tag : "";
    for (const std::string &e : plain(r.events))
        if (e.starts_with("TRC ") && e.ends_with(" Start"))
            res.traced.insert(e.substr(4, e.size() - 10));
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

// A request and its answer: the code, the error tag ("" for none) and the
// number of paths added (to the request: only the key of a keyless read).
struct Row {
    const char *name;
    uint32_t kind;
    verrno rc;
    const char *error_tag;
    std::size_t adds;
    N tree;
};
// The children of the row's request; a root tag of its own where given.
#define ROW(name, kind, rc, tag, adds, ...)                                                        \
    {                                                                                              \
        name, kind, rc, tag, adds, N("", {__VA_ARGS__})                                            \
    }

void expect(const char *fn, const N &tree, const Row &row)
{
    SCOPED_TRACE(std::string(fn) + ": " + row.name);
    Result r = walk(fn, tree, row.kind);
    EXPECT_EQ(r.rc, row.rc);
    EXPECT_EQ(r.error_tag, row.error_tag);
    EXPECT_EQ(r.adds, row.adds);
}

// ---------------------------------------------------------------- openconfig-if-ip

constexpr const char *IP = NS_OC_IF_IP;
const struct Place {
    const char *entry;
    const char *family;
    std::size_t leaves; // leaf functions of the family's tree
} places[] = {
    {"ymap_ov_octunnel_openconfigifip_augment_lvla_subinterface", "ipv4", 58},
    {"ymap_ov_octunnel_openconfigifip_augment_lvlb_subinterface", "ipv6", 69},
    {"ymap_ov_octunnel_openconfigifip_augment_lvla_routed_vlan", "ipv4", 58},
    {"ymap_ov_octunnel_openconfigifip_augment_lvlb_routed_vlan", "ipv6", 69},
};

N address(std::vector<N> children)
{
    return N("addresses", {N("address", children)});
}

// The answers of the model, in both places and both families, where they
// depend on its tables (the engine's own rules are the engine tests'): the
// rows name the family's children.  Another tag of the model at the entry
// is passed over in a read only.
TEST(OpenconfigIfIp, AnswersByTheShapeOfTheRequest)
{
    const N vrrp = N("vrrp", {N("vrrp-group", {N("config", {N("virtual-address", "192.0.2.9")})})});
    const Row rows[] = {
        ROW("a named leaf, write", 1, YFW_ERR_UNSUPPORTED_TAG, "enabled", 0,
            N("config", {N("enabled", "true")})),
        ROW("a named leaf, read", 10, YFW_ERR_UNSUPPORTED_TAG, "mtu", 0, N("config", {N("mtu")})),
        ROW("a leaf-list, write without keys", 2, YFW_ERR_UNSUPPORTED_TAG, "virtual-address", 0,
            address({vrrp})),
        ROW("an instance by its key, keyed write", 1, YFW_ERR_UNSUPPORTED_TAG, "ip", 0,
            address({N("ip", "192.0.2.1")})),
        ROW("no key beside a child, keyed write", 15, YFW_ERR_LIST_KEY, "ip", 0,
            address({N("config", {})})),
        ROW("a container without child, read", 0, YFW_OK, "neighbors", 0, N("neighbors", {})),
        ROW("a list without key, read", 10, YFW_OK, "config", 1, address({N("config", {})})),
        ROW("a container without child, deleted", 1, YFW_OK, "unnumbered", 0,
            N("unnumbered", {}).with_op(YFW_OP_DELETE)),
        ROW("a foreign child, adding", 1, YFW_ERR_AUGMENT_NOT_SUPPORTED, "x", 0,
            N("config", {N("x", "urn:example:other", "1")})),
        ROW("an unknown tag, write", 1, YFW_ERR_UNSUPPORTED_TAG, "speed", 0,
            N("config", {N("speed", "1")})),
        ROW("state in a write", 1, YFW_ERR_UNSUPPORTED_TAG, "state", 0, N("state", {})),
        // Pass one of the replace removes by the schema and passes; pass two
        // names the leaf.
        ROW("replace naming a leaf", 1, YFW_ERR_UNSUPPORTED_TAG, "enabled", 0,
            N("config", {N("enabled", "true")}).with_op(YFW_OP_REPLACE)),
        Row{"another tag, read", 0, YFW_OK, "", 0, N("mpls", {N("x", "1")})},
        Row{"another tag, write", 1, YFW_ERR_UNSUPPORTED_TAG, "mpls", 0, N("mpls", {N("x", "1")})},
    };
    for (const Place &p : places)
        for (const Row &row : rows) {
            const std::string root = row.tree.tag.empty() ? p.family : row.tree.tag;
            expect(p.entry, N(root, IP, row.tree.children), row);
        }
}

// A read of the whole family reaches every leaf function (each refusal
// records the node it was handed), and through the entry the walker runs
// twice; nothing is asked of the native side, and state only in a GET.
TEST(OpenconfigIfIp, WholeFamilyReadReachesEveryLeafAndAddsNothing)
{
    for (const Place &p : places) {
        Result get = walk(p.entry, N(p.family, IP, {}), YFW_MAP_REQ_GET);
        EXPECT_EQ(get.rc, YFW_OK);
        EXPECT_EQ(get.adds, 0u);
        EXPECT_EQ(count_with(get.traced, "_leaf_lvl"), p.leaves) << p.entry;
        EXPECT_EQ(get.error_tag, p.family);
        Result get_config = walk(p.entry, N(p.family, IP, {}), YFW_MAP_REQ_GET_CONFIG);
        EXPECT_EQ(get_config.rc, YFW_OK);
        EXPECT_EQ(count_with(get_config.traced, "_state") +
                      count_with(get_config.traced, "_counters"),
                  0u)
            << p.entry;
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
    EXPECT_EQ(count_with(walk(ROOT, N("interfaces", IF, {}), 0).traced, "_state"), 0u);
}

// Rows name the children of interface; a read without its key adds it.
TEST(OpenconfigInterfaces, RequestsNamingItsNodes)
{
    const Row rows[] = {
        ROW("a leaf, the key first", 1, YFW_ERR_UNSUPPORTED_TAG, "name", 0, N("name", "eth0"),
            N("config", {N("name", "eth0"), N("mtu", "1500")})),
        ROW("a leaf after the key", 2, YFW_ERR_UNSUPPORTED_TAG, "mtu", 0,
            N("config", {N("mtu", "1500")}), N("name", "eth0")),
        ROW("an unknown tag, write", 2, YFW_ERR_UNSUPPORTED_TAG, "foo", 0,
            N("config", {N("foo", "1")})),
        ROW("tunnel through this tree, write", 1, YFW_ERR_AUGMENT_NOT_SUPPORTED, "tunnel", 0,
            N("tunnel", NS_OC_IF_TUNNEL, {N("config", {N("ttl", "5")})}), N("name", "t1")),
        ROW("hold-time state at kind 0", 0, YFW_OK, "", 1, N("hold-time", {N("state", {})})),
        ROW("subinterface by its key", 10, YFW_ERR_UNSUPPORTED_TAG, "index", 0,
            N("subinterfaces", {N("subinterface", {N("index", "0")})})),
    };
    for (const Row &row : rows)
        expect(ROOT, N("interfaces", IF, {N("interface", row.tree.children)}), row);
}

} // namespace
