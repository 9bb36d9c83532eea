// Random requests over the tunnel tree, walked through the module's entry:
// whatever the walk did or refused, the request tree and the walk state are
// put back, but for what the walkers may leave behind.
#include "octunnel/yfw_framework.h"
#include "testing.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

using namespace testing_support;

namespace {

// The tunnel tree as a request may name it (an `ip` child of a list is its key).
struct S {
    const char *tag;
    std::vector<S> kids = {};
    bool list = false;
};

const S address{"address",
                {{"ip"},
                 {"config", {{"ip"}, {"prefix-length"}}},
                 {"state", {{"ip"}, {"prefix-length"}, {"origin"}, {"status"}}}},
                true};
const S neighbor{"neighbor", {{"ip"}, {"config", {{"ip"}, {"link-layer-address"}}}}, true};
const S family_kids[] = {
    {"addresses", {address}},
    {"neighbors", {neighbor}},
    {"unnumbered", {{"config", {{"enabled"}}}, {"interface-ref", {{"config", {{"interface"}}}}}}},
    {"config", {{"enabled"}, {"mtu"}, {"dhcp-client"}}},
    {"state", {{"enabled"}, {"mtu"}, {"counters", {{"in-pkts"}}}}}};
const S tunnel{"tunnel",
               {{"config", {{"src"}, {"dst"}, {"ttl"}, {"gre-key"}}},
                {"state", {{"src"}, {"dst"}, {"ttl"}, {"gre-key"}}},
                {"ipv4", std::vector<S>(std::begin(family_kids), std::end(family_kids))},
                {"ipv6", std::vector<S>(std::begin(family_kids), std::end(family_kids))}}};

const char *const values[] = {"192.0.2.1", "2001:db8::1", "24",     "33", "-1",
                              "40",        "0",           "tunnel", "",   "64"};
const uint32_t ops[] = {YFW_OP_MERGE,  YFW_OP_REPLACE, YFW_OP_CREATE,
                        YFW_OP_DELETE, YFW_OP_REMOVE,  7};
const uint32_t kinds[] = {0, 10, 1, 8, 15, 2};

class Generator {
public:
    explicit Generator(uint32_t seed) : rng_(seed) {}

    bool chance(double p) { return std::bernoulli_distribution(p)(rng_); }
    template <typename T, std::size_t N> const T &pick(const T (&a)[N])
    {
        return a[std::uniform_int_distribution<std::size_t>(0, N - 1)(rng_)];
    }

    void fill(vidl_yfw_datatree *node, const S &s)
    {
        if (chance(0.15))
            yfwhost::tree_set_op(node, pick(ops));
        if (s.kids.empty()) {
            if (chance(0.75))
                yfwhost::tree_set_value(node, pick(values));
            return;
        }
        std::size_t n = std::uniform_int_distribution<std::size_t>(0, s.kids.size())(rng_);
        for (std::size_t i = 0; i < n; ++i) {
            const S &k =
                s.kids[std::uniform_int_distribution<std::size_t>(0, s.kids.size() - 1)(rng_)];
            if (s.list && i == 0 && chance(0.8)) { // usually the key first
                fill(yfwhost::tree_add_child(node, "ip", node->ns), s.kids[0]);
                continue;
            }
            fill(yfwhost::tree_add_child(node, k.tag, node->ns), k);
        }
        if (chance(0.05))
            yfwhost::tree_add_child(node, "bogus", node->ns);
        if (chance(0.05))
            yfwhost::tree_add_child(node, "foreign", "urn:example:other");
        if (chance(0.02) && yfwhost::tree_child_count(node) > 0) {
            vidl_yfw_datatree &victim = node->subtrees[yfwhost::tree_child_count(node) - 1];
            victim.tag = nullptr;
        }
    }

private:
    std::mt19937 rng_;
};

// The fields of a node the walkers must put back, and those they may
// change for good.
struct Snapshot {
    const char *tag, *value, *ns;
    uint32_t op, present, error_kind, subtree_count;
    const vidl_yfw_datatree *subtrees;
    std::vector<Snapshot> kids;
};

Snapshot snap(const vidl_yfw_datatree &n)
{
    Snapshot s{n.tag,        n.value,         n.ns,       n.op, n.present,
               n.error_kind, n.subtree_count, n.subtrees, {}};
    for (uint32_t i = 0; i < n.subtree_count && n.subtrees != nullptr; ++i)
        s.kids.push_back(snap(n.subtrees[i]));
    return s;
}

bool has_replace_below(const Snapshot &s)
{
    for (const Snapshot &k : s.kids)
        if (((k.present & YFW_PRESENT_OP) && k.op == YFW_OP_REPLACE) || has_replace_below(k))
            return true;
    return false;
}

void compare(const Snapshot &before, const vidl_yfw_datatree &after, bool read,
             const std::string &where)
{
    SCOPED_TRACE(where);
    EXPECT_EQ(before.tag, after.tag);
    EXPECT_EQ(before.value, after.value);
    EXPECT_EQ(before.ns, after.ns);
    EXPECT_EQ(before.error_kind, after.error_kind);
    EXPECT_EQ(before.present & ~YFW_PRESENT_IS_KEY, after.present & ~YFW_PRESENT_IS_KEY);
    const bool is_list = before.tag != nullptr && (!std::strcmp(before.tag, "address") ||
                                                   !std::strcmp(before.tag, "neighbor"));
    if (before.op != after.op) {
        // An instance deleted by its key keeps the removal; a replace with a
        // replace below it ends at merge.
        const bool keyed_delete = is_list &&
                                  (before.op == YFW_OP_DELETE || before.op == YFW_OP_REMOVE) &&
                                  after.op == YFW_OP_REMOVE;
        const bool nested_replace =
            before.op == YFW_OP_REPLACE && after.op == YFW_OP_MERGE && has_replace_below(before);
        EXPECT_TRUE(keyed_delete || nested_replace) << "op " << before.op << " -> " << after.op;
    }
    uint32_t count = after.subtree_count;
    if (count == before.subtree_count + 1 && read && is_list) {
        // A keyless read gets the key added to the request node.
        const vidl_yfw_datatree &key = after.subtrees[count - 1];
        EXPECT_STREQ(key.tag, "ip");
        EXPECT_TRUE(key.is_key && (key.present & YFW_PRESENT_IS_KEY));
        count = before.subtree_count;
    } else {
        EXPECT_EQ(before.subtrees, after.subtrees);
        ASSERT_EQ(before.subtree_count, after.subtree_count);
    }
    for (uint32_t i = 0; i < count && after.subtrees != nullptr; ++i)
        compare(before.kids[i], after.subtrees[i], read,
                where + "/" + (before.kids[i].tag ? before.kids[i].tag : "(null)"));
}

TEST(Restoration, RandomRequestsLeaveTreeAndWalkStateAsTheRulesSay)
{
    yfwhost::Module module(OCTUNNEL_MODULE_PATH);
    map_function entry =
        module.function("ymap_ov_octunnel_openconfigiftunnel_augment_lvla_interface");
    ASSERT_NE(entry, nullptr);
    Generator gen(20261123);
    int failures = 0;
    for (int round = 0; round < 6000 && failures == 0; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        uint32_t kind = gen.pick(kinds);
        yfwhost::set_router_type(gen.chance(0.2) ? 13 : 0);
        yfwhost::Request req(kind);
        auto itf = build(N("interface", NS_OC_INTERFACES, {N("name", "tunnel-ip4")}));
        vidl_yfw_datatree *t = yfwhost::tree_add_child(itf.get(), "tunnel", NS_OC_IF_TUNNEL);
        gen.fill(t, tunnel);
        t = &itf->subtrees[1];
        req.add_input(itf.get());
        yfw_map_add_to_node_hierarchy(req.ctx(), itf.get(), YFW_LEVEL_LIST);
        Snapshot before = snap(*t);

        verrno rc = entry(req.ctx(), t, req.out());

        const bool read = kind == 0 || kind == 10;
        compare(before, *t, read, "tunnel");
        const yfw_map_state &st = req.state();
        EXPECT_EQ(st.schema_walk, 0u);
        EXPECT_EQ(st.delete_walk, 0u);
        EXPECT_EQ(st.replace_pass, 0u);
        EXPECT_EQ(st.walk_flags & (YFW_WALK_REPLACE_CLEAR | YFW_WALK_REPLACE_WRITE), 0u);
        EXPECT_EQ(req.itree_depth(), 0u);
        if (rc != yfwhost::YFW_ERR_LEAFREF_MISMATCH) {
            EXPECT_EQ(req.hierarchy_depth(), 1u) << "only the interface is left";
        }
        failures += ::testing::Test::HasFailure() ? 1 : 0;
    }
    yfwhost::set_router_type(0);
}

} // namespace
