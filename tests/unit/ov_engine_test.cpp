// The OpenConfig-side walk engine against the reference host, on a model of
// the tests' own.  Hooks and leaf handlers record what they are handed:
//
//   top (container)
//     flag (leaf)
//     config (container): a, b (b is refused), tag (leaf-list)
//     state (state form): a, counters (state form): c
//     items (container)
//       item (list, key id): id (key), config: x; state (state form): x; ext: z
#include "engine/ov_engine.h"
#include "testing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace testing_support;
using testing::ElementsAre;
using testing::IsEmpty;
using yfwhost::Request;

namespace {

constexpr const char *NS = "urn:test:oc";

Request &host(yfw_map_ctx ctx)
{
    return *static_cast<Request *>(ctx->fw_private);
}
std::string describe(const vidl_yfw_datatree *n)
{
    std::string s = n->tag != nullptr ? n->tag : "(null)";
    if (n->present & YFW_PRESENT_OP)
        s += " op" + std::to_string(n->op);
    return s;
}

// A hook named here answers YFW_SKIP_NODE.
std::string declining_hook;

verrno cont_hook(yfw_map_ctx ctx, const vidl_yfw_datatree *in, unsigned count, vidl_yfw_datatree *)
{
    host(ctx).record("hook " + describe(in) + " " + std::to_string(count));
    return declining_hook == in->tag ? YFW_SKIP_NODE : YFW_OK;
}

verrno list_hook(yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *)
{
    host(ctx).record("lhook " + describe(in) + " dw" + std::to_string(ctx->map_state->delete_walk));
    return declining_hook == "item" ? YFW_SKIP_NODE : YFW_OK;
}

// Leaf handlers record the leaf's walker and the node they were handed.
template <const char *Leaf>
verrno leaf_handler(yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *)
{
    host(ctx).record(std::string("leaf ") + Leaf + " " + describe(in) + " sw" +
                     std::to_string(ctx->map_state->schema_walk) + " dw" +
                     std::to_string(ctx->map_state->delete_walk));
    return YFW_OK;
}

verrno refused(yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out)
{
    host(ctx).record("leaf b " + describe(in));
    return ov::refuse_leaf("b", ctx, in, out);
}

verrno parse_augments(yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out)
{
    host(ctx).record("augments " + describe(in));
    return ov::default_parse_augments("augments", ctx, in, out);
}

constexpr ov::model model{NS};

#define WALKER(name, record)                                                                       \
    verrno name(yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out)              \
    {                                                                                              \
        return ov::walk(record, ctx, in, out);                                                     \
    }

constexpr char FLAG[] = "flag", A[] = "a", TAG[] = "tag", SA[] = "state/a", C[] = "c", ID[] = "id",
               X[] = "x", SX[] = "state/x", Z[] = "z";
const ov::leaf leaf_flag{"flag", ov::leaf_form::ordinary, leaf_handler<FLAG>};
const ov::leaf leaf_a{"a", ov::leaf_form::ordinary, leaf_handler<A>};
const ov::leaf leaf_b{"b", ov::leaf_form::ordinary, refused};
const ov::leaf leaf_tag{"tag", ov::leaf_form::leaf_list, leaf_handler<TAG>};
const ov::leaf leaf_state_a{"state_a", ov::leaf_form::ordinary, leaf_handler<SA>};
const ov::leaf leaf_c{"c", ov::leaf_form::ordinary, leaf_handler<C>};
const ov::leaf leaf_id{"id", ov::leaf_form::key, leaf_handler<ID>};
const ov::leaf leaf_x{"x", ov::leaf_form::ordinary, leaf_handler<X>};
const ov::leaf leaf_state_x{"state_x", ov::leaf_form::ordinary, leaf_handler<SX>};
const ov::leaf leaf_z{"z", ov::leaf_form::ordinary, leaf_handler<Z>};
WALKER(walk_flag, leaf_flag)
WALKER(walk_a, leaf_a)
WALKER(walk_b, leaf_b)
WALKER(walk_tag, leaf_tag)
WALKER(walk_state_a, leaf_state_a)
WALKER(walk_c, leaf_c)
WALKER(walk_id, leaf_id)
WALKER(walk_x, leaf_x)
WALKER(walk_state_x, leaf_state_x)
WALKER(walk_z, leaf_z)

const ov::child config_children[] = {
    {"a", walk_a, false}, {"b", walk_b, false}, {"tag", walk_tag, false}};
const ov::container config{"config", &model, false, cont_hook, config_children, 3, parse_augments};
WALKER(walk_config, config)

const ov::child counters_children[] = {{"c", walk_c, true}};
const ov::container counters{"counters",        &model, true,          cont_hook,
                             counters_children, 1,      parse_augments};
WALKER(walk_counters, counters)
const ov::child state_children[] = {{"a", walk_state_a, true}, {"counters", walk_counters, true}};
const ov::container state{"state", &model, true, cont_hook, state_children, 2, parse_augments};
WALKER(walk_state, state)

const ov::child item_config_children[] = {{"x", walk_x, false}};
const ov::container item_config{"item_config",        &model, false,         cont_hook,
                                item_config_children, 1,      parse_augments};
WALKER(walk_item_config, item_config)
const ov::child item_state_children[] = {{"x", walk_state_x, true}};
const ov::container item_state{"item_state",        &model, true,          cont_hook,
                               item_state_children, 1,      parse_augments};
WALKER(walk_item_state, item_state)
const ov::child ext_children[] = {{"z", walk_z, false}};
const ov::container ext{"ext", &model, false, cont_hook, ext_children, 1, parse_augments};
WALKER(walk_ext, ext)

const ov::child item_children[] = {{"config", walk_item_config, false},
                                   {"state", walk_item_state, true},
                                   {"ext", walk_ext, false}};
const ov::list item{
    "item",    &model,        "id", walk_id, item_children, 3, "/top/items/item", "/top/items/item",
    list_hook, parse_augments};
WALKER(walk_item, item)
const ov::child items_children[] = {{"item", walk_item, false}};
const ov::container items{"items", &model, false, cont_hook, items_children, 1, parse_augments};
WALKER(walk_items, items)

const ov::child top_children[] = {{"flag", walk_flag, false},
                                  {"config", walk_config, false},
                                  {"state", walk_state, true},
                                  {"items", walk_items, false}};
const ov::container top{"top", &model, false, cont_hook, top_children, 4, parse_augments};
WALKER(walk_top, top)

const ov::entry entry{"entry", &model, "top", walk_top, parse_augments};

// ---------------------------------------------------------------- fixture

struct Walk : ::testing::Test {
    std::unique_ptr<Recorded> r;
    yfwhost::Tree tree;

    verrno run(uint32_t kind, const N &shape, map_function fn = walk_top)
    {
        r = std::make_unique<Recorded>(kind);
        tree = build(shape);
        r->req.add_input(tree.get());
        return fn(r->ctx(), tree.get(), r->out());
    }
    // What the walk handed to hooks and handlers, in order.
    std::vector<std::string> calls() const
    {
        return only(r->events, {"hook", "lhook", "leaf ", "augments"});
    }
    std::vector<std::string> events(std::initializer_list<std::string> prefixes) const
    {
        return only(r->events, prefixes);
    }
    const yfw_map_state &st() const { return r->req.state(); }
    const vidl_yfw_datatree &at(std::initializer_list<int> path) const
    {
        const vidl_yfw_datatree *n = tree.get();
        for (int i : path)
            n = &n->subtrees[i];
        return *n;
    }
    void TearDown() override { declining_hook.clear(); }
};

N top_(std::vector<N> children)
{
    return N("top", NS, children);
}

// Every walk ends with the per-walk state back at rest and the hierarchy and
// instance stack as they were.
void expect_at_rest(const Request &req)
{
    const yfw_map_state &s = const_cast<Request &>(req).state();
    EXPECT_EQ(s.schema_walk, 0u);
    EXPECT_EQ(s.delete_walk, 0u);
    EXPECT_EQ(s.replace_pass, 0u);
    EXPECT_EQ(s.walk_flags & (YFW_WALK_REPLACE_CLEAR | YFW_WALK_REPLACE_WRITE), 0u);
    EXPECT_EQ(s.filter_bits & ~YFW_FILTER_MATCH_EVER & ~YFW_FILTER_SELECT_SEEN, 0u);
    EXPECT_EQ(req.hierarchy_depth(), 0u);
    EXPECT_EQ(req.itree_depth(), 0u);
}

// ---------------------------------------------------------------- selection and content match

TEST_F(Walk, ContentMatchAloneSelectsTheWholeContainer)
{
    ASSERT_EQ(run(YFW_MAP_REQ_GET_CONFIG, top_({N("config", {N("a", "1")})})), YFW_OK);
    EXPECT_THAT(calls(), ElementsAre("hook top 1", "hook config 1", "leaf a a sw0 dw0",
                                     "leaf a config sw1 dw0", "leaf b config",
                                     "leaf tag config sw1 dw0", "augments config"));
    EXPECT_EQ(at({0, 0}).node_kind, YFW_NODE_MATCH_LEAF);
    EXPECT_EQ(st().filter_bits & YFW_FILTER_MATCH_EVER, YFW_FILTER_MATCH_EVER);
    expect_at_rest(r->req);
}

TEST_F(Walk, SelectionBesideAMatchAsksForJustTheNamedLeaves)
{
    ASSERT_EQ(run(YFW_MAP_REQ_GET, top_({N("config", {N("a", "1"), N("tag")})})), YFW_OK);
    // tag is a leaf-list: no selection bit, so the match stands alone.
    EXPECT_THAT(events({"leaf "}),
                ElementsAre("leaf a a sw0 dw0", "leaf tag tag sw0 dw0", "leaf a config sw1 dw0",
                            "leaf b config", "leaf tag config sw1 dw0"));
    EXPECT_EQ(at({0, 1}).node_kind, YFW_NODE_LEAF_LIST);

    ASSERT_EQ(run(YFW_MAP_REQ_GET, top_({N("config", {N("a", "1"), N("b")})})),
              YFW_ERR_UNSUPPORTED_TAG);
    EXPECT_THAT(events({"leaf "}), ElementsAre("leaf a a sw0 dw0", "leaf b b"));
    EXPECT_EQ(at({0, 1}).node_kind, YFW_NODE_LEAF) << "a refused leaf is still marked";
}

TEST_F(Walk, TwoMatchesWalkTheSchemaOneMatchAndASelectionDoNot)
{
    ASSERT_EQ(run(YFW_MAP_REQ_GET, top_({N("config", {N("a", "1"), N("a", "2")})})), YFW_OK);
    EXPECT_EQ(events({"leaf a config"}).size(), 1u);
    ASSERT_EQ(run(YFW_MAP_REQ_GET, top_({N("config", {N("a", "1"), N("a")})})), YFW_OK);
    EXPECT_THAT(events({"leaf a config"}), IsEmpty());
}

// Child containers clear the low bits on entry, so the order of siblings
// decides: a match before a container is forgotten, a match after one
// expands the parent, which visits that container again.  The walk-all bit
// is cleared when the first nested container ends its schema walk, so the
// later containers of `top` take top's own children for theirs.
TEST_F(Walk, OrderOfSiblingsDecidesWhetherAMatchExpandsItsParent)
{
    ASSERT_EQ(run(YFW_MAP_REQ_GET, top_({N("flag", "on"), N("config", {})})), YFW_OK);
    EXPECT_THAT(events({"leaf flag", "hook config"}),
                ElementsAre("leaf flag flag sw0 dw0", "hook config 0"));

    ASSERT_EQ(run(YFW_MAP_REQ_GET, top_({N("config", {}), N("flag", "on")})), YFW_OK);
    EXPECT_THAT(events({"leaf flag", "hook config", "hook top"}),
                ElementsAre("hook top 2", "hook config 0", "leaf flag flag sw0 dw0",
                            "leaf flag top sw1 dw0", "hook top 0", "hook top 2", "hook top 2"));
    EXPECT_EQ(events({"TRC config Start"}).size(), 2u) << "config is visited again";
}

// ---------------------------------------------------------------- schema walks

TEST_F(Walk, SchemaWalkGoesByTableOrderWithStateLastAndOnlyInAGet)
{
    ASSERT_EQ(run(YFW_MAP_REQ_GET, top_({})), YFW_OK);
    EXPECT_THAT(calls(),
                ElementsAre("hook top 0", "leaf flag top sw1 dw0", "hook top 0",
                            "leaf a top sw1 dw0", "leaf b top", "leaf tag top sw1 dw0",
                            "augments top", "hook top 0", "lhook top dw0", "leaf id top sw1 dw0",
                            "hook top 0", "leaf x top sw1 dw0", "augments top", "hook top 0",
                            "leaf z top sw1 dw0", "augments top", "hook top 0",
                            "leaf state/x top sw1 dw0", "augments top", "augments top",
                            "augments top", "hook top 0", "leaf state/a top sw1 dw0", "hook top 0",
                            "leaf c top sw1 dw0", "augments top", "augments top", "augments top"));
    EXPECT_STREQ(st().error_tag, "top") << "the refused leaf recorded the node it was handed";
    EXPECT_EQ(at({}).node_kind, YFW_NODE_CONTAINER);
    expect_at_rest(r->req);

    ASSERT_EQ(run(YFW_MAP_REQ_GET_CONFIG, top_({})), YFW_OK);
    EXPECT_THAT(events({"leaf state", "leaf c"}), IsEmpty()) << "kind 0 visits no state container";
    EXPECT_EQ(events({"leaf "}).size(), 7u);
}

TEST_F(Walk, ChildlessWriteRunsTheHookAlone)
{
    ASSERT_EQ(run(1, top_({N("config", {})})), YFW_OK);
    EXPECT_THAT(calls(), ElementsAre("hook top 1", "hook config 0"));
}

// ---------------------------------------------------------------- deletions

TEST_F(Walk, DeletedContainerIsWalkedAsARemovalAndGetsItsOperationBack)
{
    N shape = top_({N("config", {}).with_op(YFW_OP_DELETE)});
    ASSERT_EQ(run(1, shape), YFW_OK);
    EXPECT_THAT(calls(), ElementsAre("hook top 1", "hook config op3 0", "leaf a config op4 sw1 dw0",
                                     "leaf b config op4", "leaf tag config op4 sw1 dw0",
                                     "augments config op3"));
    EXPECT_EQ(at({0}).op, YFW_OP_DELETE);
    expect_at_rest(r->req);
}

TEST_F(Walk, DeletedContainerWithChildrenIsRefused)
{
    ASSERT_EQ(run(1, top_({N("config", {N("a", "1")}).with_op(YFW_OP_DELETE)})),
              YFW_ERR_INVALID_ARG);
    EXPECT_THAT(calls(), ElementsAre("hook top 1"));
    EXPECT_EQ(st().error_tag, nullptr);
    EXPECT_THAT(events({"TRC config"}),
                ElementsAre("TRC config Start", "TRC config Delete request with subtree present",
                            "TRC config End"));
}

TEST_F(Walk, InstanceDeletedByItsKeyExpandsUnderDeleteWalkAndKeepsRemove)
{
    N shape("items", NS, {N("item", {N("id", "7")}).with_op(YFW_OP_DELETE)});
    ASSERT_EQ(run(1, shape, walk_items), YFW_OK);
    EXPECT_THAT(calls(),
                ElementsAre("hook items 1", "lhook item op3 dw2", "leaf id id sw0 dw0",
                            "hook item op4 0", "leaf x item op4 sw1 dw1", "augments item op4",
                            "hook item op4 0", "leaf z item op4 sw1 dw1", "augments item op4",
                            "augments item op4"));
    EXPECT_EQ(at({0}).op, YFW_OP_REMOVE);
    EXPECT_THAT(events({"itree"}), ElementsAre("itree+ 1", "itree-"));
    expect_at_rest(r->req);
}

// Outside the keyed kinds, where a list without children is an error.
TEST_F(Walk, DeletedListWithoutChildrenSeesRemoveAndGetsDeleteBack)
{
    N shape("items", NS, {N("item", {}).with_op(YFW_OP_DELETE)});
    ASSERT_EQ(run(2, shape, walk_items), YFW_OK);
    EXPECT_THAT(calls(),
                ElementsAre("hook items 1", "lhook item op3 dw0", "leaf id item op4 sw1 dw1",
                            "hook item op4 0", "leaf x item op4 sw1 dw1", "augments item op4",
                            "hook item op4 0", "leaf z item op4 sw1 dw1", "augments item op4",
                            "augments item op3"));
    EXPECT_EQ(at({0}).op, YFW_OP_DELETE);
    expect_at_rest(r->req);
}

// ---------------------------------------------------------------- replace

TEST_F(Walk, ReplaceOfAContainerRemovesByTheSchemaThenMerges)
{
    N shape = top_({N("config", {N("a", "1")}).with_op(YFW_OP_REPLACE)});
    ASSERT_EQ(run(1, shape), YFW_OK);
    EXPECT_THAT(calls(),
                ElementsAre("hook top 1", "hook config op4 0", "leaf a config op4 sw1 dw0",
                            "leaf b config op4", "leaf tag config op4 sw1 dw0",
                            "augments config op4", "hook config op0 1", "leaf a a sw0 dw0"));
    const vidl_yfw_datatree &c = at({0});
    EXPECT_EQ(c.op, YFW_OP_REPLACE);
    EXPECT_EQ(c.subtree_count, 1u);
    EXPECT_NE(c.present & YFW_PRESENT_SUBTREES, 0u);
    expect_at_rest(r->req);
}

TEST_F(Walk, ReplaceOfAListEntryDeletesByKeyThenWalksKeyAndConfig)
{
    N shape("items", NS,
            {N("item", {N("id", "3"), N("config", {N("x", "9")})}).with_op(YFW_OP_REPLACE)});
    ASSERT_EQ(run(1, shape, walk_items), YFW_OK);
    EXPECT_THAT(calls(),
                ElementsAre("hook items 1", "lhook item op4 dw2", "leaf id id sw0 dw0",
                            "hook item op4 0", "leaf x item op4 sw1 dw1", "augments item op4",
                            "hook item op4 0", "leaf z item op4 sw1 dw1", "augments item op4",
                            "augments item op4", "lhook item op0 dw0", "leaf id id sw0 dw0",
                            "hook config 1", "leaf x x sw0 dw0"));
    EXPECT_EQ(at({0}).op, YFW_OP_REPLACE);
    expect_at_rest(r->req);
}

// ---------------------------------------------------------------- keys

struct KeyCase {
    const char *name;
    uint32_t kind;
    N item;
    verrno result;
    const char *error_tag;
};

TEST_F(Walk, KeyTestsByRequestKind)
{
    const KeyCase cases[] = {
        {"keyed write, one valued key", 1, N("item", {N("id", "1")}), YFW_OK, nullptr},
        {"keyed write, no child", 8, N("item", {}), YFW_ERR_NO_SUBTREES, nullptr},
        {"keyed write, key without value", 15, N("item", {N("id")}), YFW_ERR_LIST_KEY, "id"},
        {"keyed write, two keys", 1, N("item", {N("id", "1"), N("id", "2")}), YFW_ERR_LIST_KEY,
         "id"},
        {"kind 8 wants exactly one key", 8, N("item", {N("id", "1"), N("id")}), YFW_ERR_LIST_KEY,
         "id"},
        {"keyed write, no key beside a child", 1, N("item", {N("config", {})}), YFW_ERR_LIST_KEY,
         "id"},
        {"other write, key without value", 2, N("item", {N("id")}), YFW_OK, nullptr},
        {"other write, no child", 2, N("item", {}), YFW_OK, nullptr},
        {"read, two keys", 0, N("item", {N("id", "1"), N("id", "2")}), YFW_ERR_LIST_KEY, "id"},
        {"key deleted", 2, N("item", {N("id", "1").with_op(YFW_OP_DELETE)}), YFW_ERR_KEY_DELETE,
         nullptr},
        {"unknown tag in a write", 1, N("item", {N("id", "1"), N("zz", {})}),
         YFW_ERR_UNSUPPORTED_TAG, "zz"},
        {"state in a write", 1, N("item", {N("id", "1"), N("state", {})}), YFW_ERR_UNSUPPORTED_TAG,
         "state"},
        {"unknown tag in a read", 10, N("item", {N("id", "1"), N("zz", {})}), YFW_OK, nullptr},
    };
    for (const KeyCase &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(run(c.kind, N("items", NS, {c.item}), walk_items), c.result);
        EXPECT_STREQ(st().error_tag, c.error_tag);
        if (c.result == YFW_ERR_LIST_KEY || c.result == YFW_ERR_NO_SUBTREES) {
            EXPECT_THAT(events({"lhook"}), IsEmpty()) << "no hook after a failed key test";
        }
    }
}

TEST_F(Walk, KeyedWriteChecksTheLeafrefAndAFailureLeavesTheNodeInTheHierarchy)
{
    N shape("items", NS, {N("item", {N("id", "1"), N("config", {N("id", "2")})})});
    ASSERT_EQ(run(1, shape, walk_items), yfwhost::YFW_ERR_LEAFREF_MISMATCH);
    EXPECT_THAT(events({"leafref", "ERR"}),
                ElementsAre("leafref /top/items/item", "ERR item leafref value check fail"));
    EXPECT_EQ(r->req.hierarchy_depth(), 1u) << "items left; item stays";
    EXPECT_THAT(events({"hier-"}), ElementsAre("hier- items NOT-TOP"));
}

TEST_F(Walk, KeylessReadAddsTheKeyToTheRequest)
{
    ASSERT_EQ(
        run(YFW_MAP_REQ_GET, N("items", NS, {N("item", {N("config", {N("x", "v")})})}), walk_items),
        YFW_OK);
    const vidl_yfw_datatree &item_node = at({0});
    ASSERT_EQ(item_node.subtree_count, 2u);
    EXPECT_STREQ(item_node.subtrees[1].tag, "id");
    EXPECT_TRUE(item_node.subtrees[1].is_key &&
                (item_node.subtrees[1].present & YFW_PRESENT_IS_KEY));
    const yfwhost::Emission &e = r->req.emissions().back();
    EXPECT_FALSE(e.to_out);
    EXPECT_EQ(e.path, "id");
    EXPECT_EQ(e.ns, NS);
    EXPECT_EQ(e.path_flag, 0u);
}

TEST_F(Walk, ReadOfAnInstanceByItsKeyWalksTheRestByTheSchema)
{
    ASSERT_EQ(run(YFW_MAP_REQ_GET, N("items", NS, {N("item", {N("id", "1")})}), walk_items),
              YFW_OK);
    EXPECT_THAT(events({"leaf ", "itree"}),
                ElementsAre("leaf id id sw0 dw0", "itree+ 1", "leaf x item sw1 dw0",
                            "leaf state/x item sw1 dw0", "leaf z item sw1 dw0", "itree-"));
    EXPECT_EQ(at({0}).subtree_count, 1u);
    EXPECT_EQ(at({0, 0}).node_kind, YFW_NODE_LEAF);

    ASSERT_EQ(run(YFW_MAP_REQ_GET, N("items", NS, {N("item", {N("id")})}), walk_items), YFW_OK);
    EXPECT_THAT(events({"leaf "}), ElementsAre("leaf id id sw0 dw0"))
        << "a key without value asks for the key only";
}

// ---------------------------------------------------------------- unknown tags, foreign children

TEST_F(Walk, UnknownTagsByNamespaceAndKind)
{
    N shape = top_({N("mtu", NS, "1500"), N("vlan", "urn:other", "5")});
    ASSERT_EQ(run(YFW_MAP_REQ_GET_CONFIG, shape), YFW_OK);
    EXPECT_THAT(
        events({"ERR", "augments"}),
        ElementsAre("ERR top Unsupported tag is specified in the request.", "augments vlan"));
    EXPECT_EQ(st().error_tag, nullptr);

    ASSERT_EQ(run(1, top_({N("vlan", "urn:other", "5"), N("mtu", NS, "1500")})),
              YFW_ERR_AUGMENT_NOT_SUPPORTED);
    EXPECT_STREQ(st().error_tag, "vlan");

    ASSERT_EQ(run(1, top_({N("mtu", NS, "1500")})), YFW_ERR_UNSUPPORTED_TAG);
    EXPECT_STREQ(st().error_tag, "mtu");
    ASSERT_EQ(run(1, top_({N("state", {})})), YFW_ERR_UNSUPPORTED_TAG)
        << "state is unknown outside a GET";
    EXPECT_STREQ(st().error_tag, "state");
    ASSERT_EQ(run(1, top_({N("vlan", "urn:other", {}).with_op(YFW_OP_DELETE)})), YFW_OK)
        << "a foreign child being deleted passes";
}

TEST_F(Walk, SecondFailureReplacesTheFirstTag)
{
    ASSERT_EQ(run(YFW_MAP_REQ_GET, top_({})), YFW_OK);
    EXPECT_STREQ(st().error_tag, "top");
    ASSERT_EQ(walk_top(r->ctx(), build(top_({N("config", {N("b")})})).get(), r->out()),
              YFW_ERR_UNSUPPORTED_TAG);
    EXPECT_STREQ(st().error_tag, "b");
}

// ---------------------------------------------------------------- hooks that decline

TEST_F(Walk, DecliningContainerHookLeavesAtOnceOrEndsPassOne)
{
    declining_hook = "config";
    ASSERT_EQ(run(1, top_({N("config", {N("a", "1")})})), YFW_OK);
    EXPECT_THAT(calls(), ElementsAre("hook top 1", "hook config 1"));
    EXPECT_THAT(events({"TRC config End"}), IsEmpty()) << "no End on a skip";
    expect_at_rest(r->req);

    ASSERT_EQ(run(1, top_({N("config", {N("a", "1")}).with_op(YFW_OP_REPLACE)})), YFW_OK);
    EXPECT_THAT(calls(), ElementsAre("hook top 1", "hook config op4 0", "hook config op0 1"))
        << "pass one ends at the skip; pass two's skip leaves";
    EXPECT_EQ(at({0}).op, YFW_OP_REPLACE);
    expect_at_rest(r->req);
}

TEST_F(Walk, DecliningListHookGivesUpThePass)
{
    declining_hook = "item";
    ASSERT_EQ(
        run(1, N("items", NS, {N("item", {N("id", "1"), N("config", {N("x", "2")})})}), walk_items),
        YFW_OK);
    EXPECT_THAT(calls(), ElementsAre("hook items 1", "lhook item dw0"));
    expect_at_rest(r->req);
}

// ---------------------------------------------------------------- broken trees and entries

TEST_F(Walk, BrokenTreesFailAndTidyUp)
{
    auto t = build(top_({N("config", {N("a", "1")}), N("x"), N("config", {N("a", "2")})}));
    t->subtrees[1].tag = nullptr;
    r = std::make_unique<Recorded>(1);
    EXPECT_EQ(walk_top(r->ctx(), t.get(), r->out()), YFW_ERR_NO_SUBTREES);
    EXPECT_THAT(events({"leaf ", "ERR"}),
                ElementsAre("leaf a a sw0 dw0", "ERR top Tag name is not available!"));
    expect_at_rest(r->req);

    vidl_yfw_datatree *kept = t->subtrees;
    t->subtrees = nullptr;
    EXPECT_EQ(walk_top(r->ctx(), t.get(), r->out()), YFW_ERR_NO_SUBTREES);
    EXPECT_EQ(walk_item(r->ctx(), t.get(), r->out()), YFW_ERR_NO_SUBTREES);
    t->subtrees = kept;
}

TEST_F(Walk, AugmentEntryWalksAChildlessAcceptedNodeTwiceInARead)
{
    ASSERT_EQ(run(YFW_MAP_REQ_GET_CONFIG, top_({}),
                  [](yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out) {
                      return ov::augment_entry(entry, ctx, in, out);
                  }),
              YFW_OK);
    EXPECT_EQ(events({"TRC top Start"}).size(), 2u);
    EXPECT_THAT(events({"TRC entry P"}), ElementsAre("TRC entry Processing tag 'top'"));

    ASSERT_EQ(run(1, N("other", NS, {}),
                  [](yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out) {
                      return ov::augment_entry(entry, ctx, in, out);
                  }),
              YFW_ERR_UNSUPPORTED_TAG);
    EXPECT_STREQ(st().error_tag, "other");
}

} // namespace
