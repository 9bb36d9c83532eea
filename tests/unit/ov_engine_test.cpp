// The OpenConfig-side walk engine against the reference host, on the
// tests' own model (models/engine_oc.ymap), whose hooks, leaf handlers and
// parse_augments record what they are handed:
//
//   top: flag; config: a, b (refused), tag (leaf-list);
//        state: a, counters: c; items: item (key id): config: x; state: x; ext: z
#include "engine/ov_engine.h"
#include "testing.h"
#include "ymap_octunnel_engine_oc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace testing_support;
using testing::ElementsAre;
using testing::IsEmpty;
using yfwhost::Request;

namespace {

constexpr const char *NS = "urn:test:oc";

std::string describe(const vidl_yfw_datatree *n)
{
    std::string s = n->tag != nullptr ? n->tag : "(null)";
    if (n->present & YFW_PRESENT_OP)
        s += " op" + std::to_string(n->op);
    return s;
}

std::string walk_state(yfw_map_ctx ctx)
{
    return " sw" + std::to_string(ctx->map_state->schema_walk) + " dw" +
           std::to_string(ctx->map_state->delete_walk);
}

// A hook of a node with this tag answers YFW_SKIP_NODE.
std::string declining_hook;

verrno record_hook(yfw_map_ctx ctx, const vidl_yfw_datatree *in, unsigned count)
{
    host(ctx).record("hook " + describe(in) + " " + std::to_string(count));
    return declining_hook == in->tag ? YFW_SKIP_NODE : YFW_OK;
}

verrno record_leaf(const char *label, yfw_map_ctx ctx, const vidl_yfw_datatree *in)
{
    host(ctx).record(std::string("leaf ") + label + " " + describe(in) + walk_state(ctx));
    return YFW_OK;
}

verrno record_augments(yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out)
{
    host(ctx).record("augments " + describe(in));
    return ov::default_parse_augments(__func__, ctx, in, out);
}

} // namespace

// The model's hand-written names, as its rows declare them.
#define OC(name) ymap_ov_octunnel_engineoc_##name
#define SIG yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out
#define CONTAINER(walker)                                                                          \
    YFW_OVERRIDE verrno OC(cont_##walker)(yfw_map_ctx ctx, const vidl_yfw_datatree *in,            \
                                          unsigned count, vidl_yfw_datatree *)                     \
    {                                                                                              \
        return record_hook(ctx, in, count);                                                        \
    }                                                                                              \
    YFW_OVERRIDE verrno OC(walker##_parse_augments)(SIG)                                           \
    {                                                                                              \
        return record_augments(ctx, in, out);                                                      \
    }
#define LEAF(walker, label)                                                                        \
    YFW_OVERRIDE verrno OC(leaf_##walker)(yfw_map_ctx ctx, const vidl_yfw_datatree *in,            \
                                          vidl_yfw_datatree *)                                     \
    {                                                                                              \
        return record_leaf(label, ctx, in);                                                        \
    }
CONTAINER(lvla_top)
CONTAINER(lvla_config)
CONTAINER(lvla_state)
CONTAINER(lvla_counters)
CONTAINER(lvla_items)
CONTAINER(lvla_item_config)
CONTAINER(lvla_item_state)
CONTAINER(lvla_ext)
LEAF(lvla_flag, "flag")
LEAF(lvla_a, "a")
LEAF(lvla_tag, "tag")
LEAF(lvla_state_a, "state/a")
LEAF(lvla_c, "c")
LEAF(lvla_id, "id")
LEAF(lvla_x, "x")
LEAF(lvla_state_x, "state/x")
LEAF(lvla_z, "z")
YFW_OVERRIDE verrno OC(leaf_lvla_b)(SIG)
{
    host(ctx).record("leaf b " + describe(in));
    return ov::refuse_leaf(__func__, ctx, in, out);
}
YFW_OVERRIDE verrno OC(list_lvla_item)(yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                                       vidl_yfw_datatree *)
{
    host(ctx).record("lhook " + describe(in) + " dw" + std::to_string(ctx->map_state->delete_walk));
    return declining_hook == "item" ? YFW_SKIP_NODE : YFW_OK;
}
CONTAINER(lvla_item)

namespace {

// The calls of the hooks, the leaf handlers and parse_augments.
constexpr const char *CALLS = "hook; lhook; leaf ; augments";

// A walk, and what it left behind.
struct Walk {
    std::unique_ptr<Recorded> r;
    yfwhost::Tree tree;

    // The request's root goes to `fn`, else to the walker of its tag, or
    // (any other tag) to the augment entry.
    verrno run(uint32_t kind, const N &shape, map_function fn = nullptr,
               void (*prepare)(vidl_yfw_datatree *) = nullptr)
    {
        r = std::make_unique<Recorded>(kind);
        tree = build(shape);
        r->req.add_input(tree.get());
        if (prepare != nullptr)
            prepare(tree.get());
        if (fn == nullptr)
            fn = shape.tag == "top"     ? OC(lvla_top)
                 : shape.tag == "items" ? OC(lvla_items)
                                        : OC(augment_lvla_root);
        return fn(r->ctx(), tree.get(), r->out());
    }
    std::vector<std::string> events(const std::vector<std::string> &prefixes) const
    {
        return only(r->events, prefixes, "ymap_ov_octunnel_engineoc_");
    }
    const yfw_map_state &st() const { return r->req.state(); }
    const vidl_yfw_datatree &at(const std::vector<int> &path) const
    {
        const vidl_yfw_datatree *n = tree.get();
        for (int i : path)
            n = &n->subtrees[i];
        return *n;
    }
};

N top_(std::vector<N> children)
{
    return N("top", NS, children);
}
N items_(N item)
{
    return N("items", NS, {item});
}

// The per-walk state back at rest, and the hierarchy and instance stack as
// they were.  The seen bits stay as a container without a schema walk
// leaves them: `staying` says which may.
void expect_at_rest(const Request &req, uint32_t staying = YFW_FILTER_SELECT_SEEN)
{
    const yfw_map_state &s = const_cast<Request &>(req).state();
    EXPECT_EQ(s.schema_walk, 0u);
    EXPECT_EQ(s.delete_walk, 0u);
    EXPECT_EQ(s.replace_pass, 0u);
    EXPECT_EQ(s.walk_flags & (YFW_WALK_REPLACE_CLEAR | YFW_WALK_REPLACE_WRITE), 0u);
    EXPECT_EQ(s.filter_bits & ~YFW_FILTER_MATCH_EVER & ~staying, 0u);
    EXPECT_EQ(req.hierarchy_depth(), 0u);
    EXPECT_EQ(req.itree_depth(), 0u);
}

struct Case {
    const char *name;
    uint32_t kind;
    N request;
    verrno rc;
    const char *seen;              // events with these prefixes...
    const char *expected;          // ...in this order
    map_function walker = nullptr; // other than the root's own
    uint32_t staying = YFW_FILTER_SELECT_SEEN;
    void (*prepare)(vidl_yfw_datatree *) = nullptr; // breaks the tree
};

void check(const Case &c, const char *declining = "")
{
    SCOPED_TRACE(c.name);
    declining_hook = declining;
    Walk w;
    EXPECT_EQ(w.run(c.kind, c.request, c.walker, c.prepare), c.rc);
    EXPECT_EQ(w.events(split(c.seen)), split(c.expected));
    expect_at_rest(w.r->req, c.staying);
    declining_hook.clear();
}

// ---------------------------------------------------------------- reads

constexpr uint32_t SEEN = YFW_FILTER_MATCH_SEEN | YFW_FILTER_SELECT_SEEN;

// In a read a leaf with a value is a content match, one without a
// selection; content matches alone select their whole container, which is
// then walked by its schema with `in` the container.  A leaf-list is
// neither.  The siblings' order decides: a child container clears the low
// bits on entry, so a match before a container is forgotten and a match
// after one expands the parent, which visits that container again.  A
// container without children is walked by its schema, its `state` only in
// a GET, in table order, each handler handed the container.
TEST(Reads, SelectionAndContentMatch)
{
    const Case cases[] = {
        {"a match alone selects the whole container", YFW_MAP_REQ_GET_CONFIG,
         top_({N("config", {N("a", "1")})}), YFW_OK, CALLS,
         "hook top 1; hook config 1; leaf a a sw0 dw0; leaf a config sw1 dw0; leaf b config; leaf "
         "tag config sw1 dw0; augments config"},
        {"a leaf-list is no selection beside a match", YFW_MAP_REQ_GET,
         top_({N("config", {N("a", "1"), N("tag")})}), YFW_OK, "leaf ",
         "leaf a a sw0 dw0; leaf tag tag sw0 dw0; leaf a config sw1 dw0; leaf b config; leaf tag "
         "config sw1 dw0"},
        {"a refused leaf ends the walk", YFW_MAP_REQ_GET,
         top_({N("config", {N("a", "1"), N("b")})}), YFW_ERR_UNSUPPORTED_TAG, "leaf ",
         "leaf a a sw0 dw0; leaf b b", nullptr, SEEN},
        {"a match beside a selection selects no more", YFW_MAP_REQ_GET,
         top_({N("config", {N("a", "1"), N("a")})}), YFW_OK, "leaf a config", "", nullptr, SEEN},
        {"a match before a container is forgotten", YFW_MAP_REQ_GET,
         top_({N("flag", "on"), N("config", {})}), YFW_OK, "leaf flag; hook config",
         "leaf flag flag sw0 dw0; hook config 0"},
        {"a match after a container expands the parent", YFW_MAP_REQ_GET,
         top_({N("config", {}), N("flag", "on")}), YFW_OK,
         "leaf flag; hook config; hook top; TRC lvla_config Start",
         "hook top 2; TRC lvla_config Start; hook config 0; leaf flag flag sw0 dw0; leaf flag top "
         "sw1 dw0; TRC lvla_config Start; hook top 0; hook top 2; hook top 2"},
        {"a childless container in a GET: its schema, state last", YFW_MAP_REQ_GET, top_({}),
         YFW_OK, CALLS,
         "hook top 0; leaf flag top sw1 dw0; hook top 0; leaf a top sw1 dw0; leaf b top; leaf tag "
         "top sw1 dw0; augments top; hook top 0; lhook top dw0; leaf id top sw1 dw0; hook top 0; "
         "leaf x top sw1 dw0; augments top; hook top 0; leaf z top sw1 dw0; augments top; hook top "
         "0; leaf state/x top sw1 dw0; augments top; augments top; augments top; hook top 0; leaf "
         "state/a top sw1 dw0; hook top 0; leaf c top sw1 dw0; augments top; augments top; "
         "augments top"},
        {"an instance by its key: the rest by the schema, children parked", YFW_MAP_REQ_GET,
         items_(N("item", {N("id", "1")})), YFW_OK, "leaf ; itree",
         "leaf id id sw0 dw0; itree+ 1; leaf x item sw1 dw0; leaf state/x item sw1 dw0; leaf z "
         "item sw1 dw0; itree-"},
        {"a key without value asks for the key only", YFW_MAP_REQ_GET, items_(N("item", {N("id")})),
         YFW_OK, "leaf ", "leaf id id sw0 dw0"},
        {"an unknown and a foreign tag in a read: an ERR, parse_augments", YFW_MAP_REQ_GET_CONFIG,
         top_({N("mtu", NS, "1500"), N("vlan", "urn:other", "5")}), YFW_OK, "ERR; augments",
         "ERR lvla_top Unsupported tag is specified in the request.; augments vlan"},
        {"the augment entry walks a childless accepted node twice", YFW_MAP_REQ_GET_CONFIG,
         N("top", NS, {}), YFW_OK, "TRC lvla_top Start; TRC augment_lvla_root P",
         "TRC augment_lvla_root Processing tag 'top'; TRC lvla_top Start; TRC lvla_top Start",
         OC(augment_lvla_root)},
    };
    for (const Case &c : cases)
        check(c);
}

// ---------------------------------------------------------------- writes

// A childless container in a write runs its hook alone.  A deleted
// container or list without children is walked by its schema as a removal
// (op 4), and gets its delete (op 3) back; one with children is refused.
// An instance deleted by its key alone is announced to the hook under
// delete_walk 2, then expanded under delete_walk 1 and keeps op 4.  A
// replace is a removal by the schema (pass one, children detached), then a
// merge of what the request gives (pass two, op 0); a list in pass one
// visits its key alone.
TEST(Writes, DeletionsAndReplaces)
{
    const Case cases[] = {
        {"a childless container, not deleted", 1, top_({N("config", {})}), YFW_OK, CALLS,
         "hook top 1; hook config 0"},
        {"a deleted container", 1, top_({N("config", {}).with_op(YFW_OP_DELETE)}), YFW_OK, CALLS,
         "hook top 1; hook config op3 0; leaf a config op4 sw1 dw0; leaf b config op4; leaf tag "
         "config op4 sw1 dw0; augments config op3"},
        {"a deleted container with children", 1,
         top_({N("config", {N("a", "1")}).with_op(YFW_OP_DELETE)}), YFW_ERR_INVALID_ARG,
         "hook; TRC lvla_config ",
         "hook top 1; TRC lvla_config Start; TRC lvla_config Delete request with subtree present; "
         "TRC lvla_config End"},
        {"an instance deleted by its key", 1,
         items_(N("item", {N("id", "7")}).with_op(YFW_OP_DELETE)), YFW_OK,
         "hook; lhook; leaf ; augments; itree",
         "hook items 1; lhook item op3 dw2; leaf id id sw0 dw0; itree+ 1; hook item op4 0; leaf x "
         "item op4 sw1 dw1; augments item op4; hook item op4 0; leaf z item op4 sw1 dw1; augments "
         "item op4; augments item op4; itree-"},
        // Outside the keyed kinds, where a list without children is an error.
        {"a deleted list without children", 2, items_(N("item", {}).with_op(YFW_OP_DELETE)), YFW_OK,
         CALLS,
         "hook items 1; lhook item op3 dw0; leaf id item op4 sw1 dw1; hook item op4 0; leaf x item "
         "op4 sw1 dw1; augments item op4; hook item op4 0; leaf z item op4 sw1 dw1; augments item "
         "op4; augments item op3"},
        {"a replaced container", 1, top_({N("config", {N("a", "1")}).with_op(YFW_OP_REPLACE)}),
         YFW_OK, CALLS,
         "hook top 1; hook config op4 0; leaf a config op4 sw1 dw0; leaf b config op4; leaf tag "
         "config op4 sw1 dw0; augments config op4; hook config op0 1; leaf a a sw0 dw0"},
        {"a replaced list entry", 1,
         items_(N("item", {N("id", "3"), N("config", {N("x", "9")})}).with_op(YFW_OP_REPLACE)),
         YFW_OK, CALLS,
         "hook items 1; lhook item op4 dw2; leaf id id sw0 dw0; hook item op4 0; leaf x item op4 "
         "sw1 dw1; augments item op4; hook item op4 0; leaf z item op4 sw1 dw1; augments item op4; "
         "augments item op4; lhook item op0 dw0; leaf id id sw0 dw0; hook config 1; leaf x x sw0 "
         "dw0"},
        {"a foreign child being deleted passes", 1,
         top_({N("vlan", "urn:other", {}).with_op(YFW_OP_DELETE)}), YFW_OK, "augments",
         "augments vlan op3"},
        // Broken trees fail and tidy up: a child without a tag ends the walk
        // where it stands; a count without an array is refused at once.
        {"a child without a tag", 1,
         top_({N("config", {N("a", "1")}), N("x"), N("config", {N("a", "2")})}),
         YFW_ERR_NO_SUBTREES, "leaf ; ERR",
         "leaf a a sw0 dw0; ERR lvla_top Tag name is not available!", nullptr,
         YFW_FILTER_SELECT_SEEN, [](vidl_yfw_datatree *t) { t->subtrees[1].tag = nullptr; }},
        {"a container's count without an array", 1, top_({N("config", {})}), YFW_ERR_NO_SUBTREES,
         "ERR; hook", "ERR lvla_top Failed to get subtrees!", nullptr, YFW_FILTER_SELECT_SEEN,
         [](vidl_yfw_datatree *t) { t->subtrees = nullptr; }},
        {"a list's count without an array", 1, N("item", NS, {N("id", "1")}), YFW_ERR_NO_SUBTREES,
         "ERR; lhook", "ERR lvla_item Failed to get subtrees!", OC(lvla_item),
         YFW_FILTER_SELECT_SEEN, [](vidl_yfw_datatree *t) { t->subtrees = nullptr; }},
    };
    for (const Case &c : cases)
        check(c);
}

// A hook that declines its node: a container leaves at once, with no End
// (in pass one of a replace it ends the pass); a list gives up the pass.
TEST(Writes, HooksThatDecline)
{
    check({"a container", 1, top_({N("config", {N("a", "1")})}), YFW_OK,
           "hook; leaf ; TRC lvla_config E", "hook top 1; hook config 1"},
          "config");
    check({"a replaced container", 1, top_({N("config", {N("a", "1")}).with_op(YFW_OP_REPLACE)}),
           YFW_OK, CALLS, "hook top 1; hook config op4 0; hook config op0 1"},
          "config");
    check({"a list", 1, items_(N("item", {N("id", "1"), N("config", {N("x", "2")})})), YFW_OK,
           CALLS, "hook items 1; lhook item dw0"},
          "item");
}

// What the walk leaves on the request: the kind of each node it met, a
// content match remembered, and op REMOVE on an instance deleted by its key
// (that all else is put back is the restoration test's).
struct Mark {
    const char *name;
    uint32_t kind;
    N request;
    std::vector<int> node;
    uint32_t vidl_yfw_datatree::*field;
    uint32_t value;
};
#define MARK(name, kind, request, node, field, value)                                              \
    Mark                                                                                           \
    {                                                                                              \
        name, kind, request, node, &vidl_yfw_datatree::field, value                                \
    }

TEST(Writes, WhatStaysOnTheRequest)
{
    const std::vector<int> below = {0, 0}, second = {0, 1};
    for (const Mark &m : {
             MARK("a content match", 0, top_({N("config", {N("a", "1")})}), below, node_kind,
                  YFW_NODE_MATCH_LEAF),
             MARK("a leaf-list", 10, top_({N("config", {N("a", "1"), N("tag")})}), second,
                  node_kind, YFW_NODE_LEAF_LIST),
             MARK("a refused leaf", 10, top_({N("config", {N("a", "1"), N("b")})}), second,
                  node_kind, YFW_NODE_LEAF),
             MARK("a key", 10, items_(N("item", {N("id", "1")})), below, node_kind, YFW_NODE_LEAF),
             MARK("a container", 10, top_({}), {}, node_kind, YFW_NODE_CONTAINER),
             MARK("an instance deleted by key", 1,
                  items_(N("item", {N("id", "7")}).with_op(YFW_OP_DELETE)), {0}, op, YFW_OP_REMOVE),
         }) {
        SCOPED_TRACE(m.name);
        Walk w;
        w.run(m.kind, m.request);
        EXPECT_EQ(w.at(m.node).*m.field, m.value);
        EXPECT_TRUE(m.value != YFW_NODE_MATCH_LEAF || (w.st().filter_bits & YFW_FILTER_MATCH_EVER));
    }
}

// ---------------------------------------------------------------- keys and tags

// The key rules of each request kind: they fail before the hook.  An
// unknown tag of the model's namespace passes a read and fails a write
// naming the tag; `state` is unknown outside a GET; a foreign child goes to
// parse_augments, which fails an adding request.
TEST(Keys, AndTagsByRequestKind)
{
    struct Outcome {
        const char *name;
        uint32_t kind;
        N request;
        verrno rc;
        const char *error_tag;
    };
    const Outcome cases[] = {
        {"keyed write, one valued key", 1, items_(N("item", {N("id", "1")})), YFW_OK, nullptr},
        {"keyed write, no child", 8, items_(N("item", {})), YFW_ERR_NO_SUBTREES, nullptr},
        {"keyed write, key without value", 15, items_(N("item", {N("id")})), YFW_ERR_LIST_KEY,
         "id"},
        {"keyed write, two keys", 1, items_(N("item", {N("id", "1"), N("id", "2")})),
         YFW_ERR_LIST_KEY, "id"},
        {"kind 8 wants exactly one key", 8, items_(N("item", {N("id", "1"), N("id")})),
         YFW_ERR_LIST_KEY, "id"},
        {"keyed write, no key beside a child", 1, items_(N("item", {N("config", {})})),
         YFW_ERR_LIST_KEY, "id"},
        {"other write, key without value", 2, items_(N("item", {N("id")})), YFW_OK, nullptr},
        {"other write, no child", 2, items_(N("item", {})), YFW_OK, nullptr},
        {"read, two keys", 0, items_(N("item", {N("id", "1"), N("id", "2")})), YFW_ERR_LIST_KEY,
         "id"},
        {"key deleted", 2, items_(N("item", {N("id", "1").with_op(YFW_OP_DELETE)})),
         YFW_ERR_KEY_DELETE, nullptr},
        {"unknown tag in a write", 1, items_(N("item", {N("id", "1"), N("zz", {})})),
         YFW_ERR_UNSUPPORTED_TAG, "zz"},
        {"state in a write", 1, items_(N("item", {N("id", "1"), N("state", {})})),
         YFW_ERR_UNSUPPORTED_TAG, "state"},
        {"unknown tag in a read", 10, items_(N("item", {N("id", "1"), N("zz", {})})), YFW_OK,
         nullptr},
        {"unknown and foreign tags in a read", 0,
         top_({N("mtu", NS, "1500"), N("vlan", "urn:other", "5")}), YFW_OK, nullptr},
        {"a foreign tag in a write", 1, top_({N("vlan", "urn:other", "5"), N("mtu", NS, "1500")}),
         YFW_ERR_AUGMENT_NOT_SUPPORTED, "vlan"},
        {"an unknown tag in a write", 1, top_({N("mtu", NS, "1500")}), YFW_ERR_UNSUPPORTED_TAG,
         "mtu"},
        {"state in a write", 1, top_({N("state", {})}), YFW_ERR_UNSUPPORTED_TAG, "state"},
        {"another tag at the augment entry", 1, N("other", NS, {}), YFW_ERR_UNSUPPORTED_TAG,
         "other"},
    };
    for (const Outcome &c : cases) {
        SCOPED_TRACE(c.name);
        Walk w;
        EXPECT_EQ(w.run(c.kind, c.request), c.rc);
        EXPECT_STREQ(w.st().error_tag, c.error_tag);
        if (c.rc == YFW_ERR_LIST_KEY || c.rc == YFW_ERR_NO_SUBTREES) {
            EXPECT_THAT(w.events({"lhook"}), IsEmpty()) << "no hook after a failed key test";
        }
    }
}

TEST(Keys, FailedLeafrefCheckLeavesTheListInTheHierarchy)
{
    Walk w;
    ASSERT_EQ(w.run(1, items_(N("item", {N("id", "1"), N("config", {N("id", "2")})}))),
              yfwhost::YFW_ERR_LEAFREF_MISMATCH);
    EXPECT_THAT(w.events({"leafref", "ERR", "hier-"}),
                ElementsAre("leafref /top/items/item", "ERR lvla_item leafref value check fail",
                            "hier- items NOT-TOP"));
    EXPECT_EQ(w.r->req.hierarchy_depth(), 1u);
}

TEST(Keys, KeylessReadAddsTheKeyToTheRequest)
{
    Walk w;
    ASSERT_EQ(w.run(YFW_MAP_REQ_GET, items_(N("item", {N("config", {N("x", "v")})}))), YFW_OK);
    const vidl_yfw_datatree &item = w.at({0});
    ASSERT_EQ(item.subtree_count, 2u);
    EXPECT_STREQ(item.subtrees[1].tag, "id");
    EXPECT_TRUE(item.subtrees[1].is_key && (item.subtrees[1].present & YFW_PRESENT_IS_KEY));
    const yfwhost::Emission &e = w.r->req.emissions().back();
    EXPECT_FALSE(e.to_out);
    EXPECT_EQ(e.path, "id");
    EXPECT_EQ(e.ns, NS);
    EXPECT_EQ(e.path_flag, 0u);
}

// A refusal replaces the error tag an earlier one left.
TEST(Tags, TheNewestTagStands)
{
    Walk w;
    ASSERT_EQ(w.run(YFW_MAP_REQ_GET, top_({})), YFW_OK);
    ASSERT_STREQ(w.st().error_tag, "top");
    ASSERT_EQ(OC(lvla_top)(w.r->ctx(), build(top_({N("config", {N("b")})})).get(), w.r->out()),
              YFW_ERR_UNSUPPORTED_TAG);
    EXPECT_STREQ(w.st().error_tag, "b");
}

} // namespace
