// The native walk engine against the reference host, on the tests' own
// models (models/engine_vo.ymap and its operational twin), whose hooks
// record their calls and answer as the tree asks:
//
//   r (container)
//     e (list, keys k, j)   its hook answers SKIP_NODE to a child "skip",
//       x (leaf)            0x77 to a child "fail"; x adds /o/x
//       n (list, no keys)   the same
//         x (leaf)
//     c (container)
//       x (leaf)
#include "engine/vo_engine.h"
#include "testing.h"
#include "ymap_octunnel_engine_vo.h"
#include "ymap_octunnel_engine_vo_oper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace testing_support;
using testing::ElementsAre;
using yfwhost::Request;

namespace {

constexpr const char *NS = "urn:test:native";

std::string tag_of(const vidl_yfw_datatree *n)
{
    return n->tag != nullptr ? n->tag : "(null)";
}

verrno record_hook(yfw_map_ctx ctx, const vidl_yfw_datatree *in, unsigned count)
{
    host(ctx).record("hook " + tag_of(in) + " " + std::to_string(count));
    return YFW_OK;
}

// Records which children carry the key mark when it runs.
verrno record_list_hook(yfw_map_ctx ctx, const vidl_yfw_datatree *in)
{
    std::string keys;
    for (std::size_t i = 0; i < yfwhost::tree_child_count(in); ++i)
        if (in->subtrees[i].is_key && (in->subtrees[i].present & YFW_PRESENT_IS_KEY))
            keys += " " + tag_of(&in->subtrees[i]);
    host(ctx).record("hook " + tag_of(in) + (keys.empty() ? "" : " keys" + keys));
    if (yfwhost::tree_child(in, "skip") != nullptr)
        return YFW_SKIP_NODE;
    if (yfwhost::tree_child(in, "fail") != nullptr)
        return 0x77;
    return YFW_OK;
}

verrno record_augments(yfw_map_ctx ctx, const vidl_yfw_datatree *in)
{
    host(ctx).record("augments " + tag_of(in));
    return YFW_OK;
}

} // namespace

// The models' hand-written names, as their rows declare them.
#define CONTAINER(name)                                                                            \
    YFW_OVERRIDE verrno name(yfw_map_ctx ctx, const vidl_yfw_datatree *in, unsigned count,         \
                             vidl_yfw_datatree *)                                                  \
    {                                                                                              \
        return record_hook(ctx, in, count);                                                        \
    }
#define LIST(name)                                                                                 \
    YFW_OVERRIDE verrno name(yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *)    \
    {                                                                                              \
        return record_list_hook(ctx, in);                                                          \
    }
#define AUGMENTS(name)                                                                             \
    YFW_OVERRIDE verrno name(yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *)    \
    {                                                                                              \
        return record_augments(ctx, in);                                                           \
    }
#define VO(name) ymap_vo_octunnel_enginevo_##name
#define OPER(name) ymap_vo_octunnel_enginevooper_##name
CONTAINER(VO(cont_lvla_r))
CONTAINER(VO(cont_lvla_r_c))
LIST(VO(list_lvla_r_e))
LIST(VO(list_lvla_r_e_n))
AUGMENTS(VO(lvla_r_parse_augments))
AUGMENTS(VO(lvla_r_c_parse_augments))
AUGMENTS(VO(lvla_r_e_parse_augments))
AUGMENTS(VO(lvla_r_e_n_parse_augments))
CONTAINER(OPER(cont_lvla_r))
CONTAINER(OPER(cont_lvla_r_c))
AUGMENTS(OPER(lvla_r_parse_augments))
AUGMENTS(OPER(lvla_r_c_parse_augments))

namespace {

// A walk of `tree` through `walker`, and the events it recorded, with the
// models' prefix taken off the functions' names.
struct Walk {
    Recorded r;
    yfwhost::Tree tree;
    explicit Walk(uint32_t kind = YFW_MAP_REQ_GET) : r(kind) {}
    verrno run(map_function walker, const N &shape,
               void (*prepare)(Request &, vidl_yfw_datatree *) = nullptr)
    {
        tree = build(shape);
        if (prepare != nullptr)
            prepare(r.req, tree.get());
        return walker(r.ctx(), tree.get(), r.out());
    }
    std::vector<std::string> events(const std::vector<std::string> &prefixes) const
    {
        return only(r.events, prefixes, "ymap_vo_octunnel_enginevo(oper)?_");
    }
};

struct Case {
    const char *name;
    map_function walker;
    N tree;
    verrno rc;
    const char *seen;     // events with these prefixes ("": all)...
    const char *expected; // ...in this order
    uint32_t kind = YFW_MAP_REQ_GET;
    void (*prepare)(Request &, vidl_yfw_datatree *) = nullptr;
    uint32_t walk_flags = 0;
};

void check(const Case &c)
{
    SCOPED_TRACE(c.name);
    Walk w(c.kind);
    EXPECT_EQ(w.run(c.walker, c.tree, c.prepare), c.rc);
    EXPECT_EQ(w.events(*c.seen != '\0' ? split(c.seen) : std::vector<std::string>{""}),
              split(c.expected));
    EXPECT_EQ(w.r.req.hierarchy_depth(), 0u);
    EXPECT_EQ(w.r.req.output_list().size(), 0u);
    EXPECT_EQ(w.r.req.state().walk_flags, c.walk_flags);
}

verrno entry(yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out)
{
    return VO(augment_lvla_root)(ctx, in, out);
}

// ---------------------------------------------------------------- visits

// A container joins the hierarchy, runs its hook with its child count
// (also 0), then its children in order.  A list entry marks every child
// bearing a key tag before its hook, runs the hook (whose answer is the
// entry's, children or not), and stands on the output list exactly while
// its children are visited; one without children is reported and goes on.
// A failed list-node update skips the keys, the hook and the children but
// not the output list; an add to the output list that did not take is not
// undone.  A null tag stops the loop where it stands.  A leaf flagged with
// an xpath error (by the presence bit too) marks the walk and still maps.
TEST(Visits, ContainersAndListEntries)
{
    const Case cases[] = {
        {"a container and its children", VO(lvla_r),
         N("r", NS, {N("c", {N("x", "1")}), N("c", {N("x", "2")})}), YFW_OK,
         "TRC lvla_r ; TRC lvla_r_c ; hier; hook; add",
         "TRC lvla_r Start; hier+ r 1; hook r 2; TRC lvla_r_c Start; hier+ c 1; hook c 1; add "
         "/o/x; hier- c; TRC lvla_r_c End; TRC lvla_r_c Start; hier+ c 1; hook c 1; add /o/x; "
         "hier- c; TRC lvla_r_c End; hier- r; TRC lvla_r End"},
        {"a childless container", VO(lvla_r), N("r", NS, {}), YFW_OK, "hook; hier",
         "hier+ r 1; hook r 0; hier- r"},
        {"a list entry", VO(lvla_r), N("r", NS, {N("e", {N("k", "1"), N("x", "v")})}), YFW_OK,
         "hier; list-node; hook e; out; add",
         "hier+ r 1; hier+ e 2; list-node /r/e; hook e keys k; out+ e; add /o/x; hier- e; out- e; "
         "hier- r"},
        {"a list entry without children", VO(lvla_r_e), N("e", NS, {}), YFW_OK, "ERR; hook; out",
         "ERR lvla_r_e No keys specified with a list node.; hook e; out+ e; out- e"},
        {"a list entry whose hook fails", VO(lvla_r_e), N("e", NS, {N("fail")}), 0x77, "add", ""},
        {"every child with a key tag", VO(lvla_r_e),
         N("e", NS, {N("j", "a"), N("x", "b"), N("k", "c"), N("k", "d")}), YFW_OK, "hook",
         "hook e keys j k k"},
        {"a failed list-node update", VO(lvla_r_e), N("e", NS, {N("k", "1"), N("x", "v")}), 0x55,
         "hook; out; add; hier", "hier+ e 2; out+ e; hier- e; out- e", YFW_MAP_REQ_GET,
         [](Request &req, vidl_yfw_datatree *) {
             req.on_update_current_list_node = [](const char *) { return verrno{0x55}; };
         }},
        {"an output list that does not take the entry", VO(lvla_r_e), N("e", NS, {N("k", "1")}),
         YFW_OK, "out", "out+ e refused", YFW_MAP_REQ_GET,
         [](Request &req, vidl_yfw_datatree *) { req.output_list_accepts = false; }},
        {"a null tag", VO(lvla_r),
         N("r", NS,
           {N("c", {N("x", "1")}), N("c", {N("x", "2")}), N("c"), N("c", {N("x", "4")}),
            N("c", {N("x", "5")})}),
         YFW_ERR_NO_SUBTREES, "add; ERR; hier- r",
         "add /o/x; add /o/x; ERR lvla_r Tag name is not available!; hier- r", YFW_MAP_REQ_GET,
         [](Request &, vidl_yfw_datatree *t) { t->subtrees[2].tag = nullptr; }},
        {"a leaf with an xpath error", VO(lvla_r_c_x), N("x", NS, "v"), YFW_OK,
         "TRC lvla_r_c_x; add",
         "TRC lvla_r_c_x Start; TRC lvla_r_c_x got xpath error node ; add /o/x; TRC lvla_r_c_x End",
         YFW_MAP_REQ_GET,
         [](Request &, vidl_yfw_datatree *t) {
             t->error_kind = YFW_ERROR_KIND_XPATH;
             t->present |= YFW_PRESENT_ERROR_KIND;
         },
         YFW_WALK_XPATH_ERROR},
        {"an xpath error without its presence bit", VO(lvla_r_c_x), N("x", NS, "v"), YFW_OK, "add",
         "add /o/x", YFW_MAP_REQ_GET,
         [](Request &, vidl_yfw_datatree *t) { t->error_kind = YFW_ERROR_KIND_XPATH; }},
    };
    for (const Case &c : cases)
        check(c);

    Walk failed;
    failed.r.req.on_update_current_list_node = [](const char *) { return verrno{0x55}; };
    ASSERT_EQ(failed.run(VO(lvla_r_e), N("e", NS, {N("k", "1")})), 0x55u);
    EXPECT_FALSE(failed.tree->subtrees[0].is_key);
}

// The tag alone chooses a branch, the namespace decides only for a tag the
// model does not know.  An operational model takes its branches in a GET
// only.  A list entry that skips itself is no failure for the container
// around it; a list entry around it passes the skip on and ends.
TEST(Visits, BranchesAndSkips)
{
    N oper("r", NS, {N("c", {N("x", "1")}), N("c", "urn:other", {})});
    const char *oper_seen = "hook; add; TRC lvla_r Unsupported; augments";
    const char *not_get = "hook r 2; TRC lvla_r Unsupported tag. Ignoring.; augments c";
    const Case cases[] = {
        {"by tag, then by namespace", VO(lvla_r_c),
         N("c", NS,
           {N("x", "urn:other", "foreign ns, known tag"), N("mtu", NS, "1500"),
            N("zz", "urn:other", {})}),
         YFW_OK, "add; TRC lvla_r_c Unsupported; augments",
         "add /o/x; TRC lvla_r_c Unsupported tag. Ignoring.; augments zz"},
        {"operational, kind 0", OPER(lvla_r), oper, YFW_OK, oper_seen, not_get, 0},
        {"operational, kind 1", OPER(lvla_r), oper, YFW_OK, oper_seen, not_get, 1},
        {"operational, a GET", OPER(lvla_r), oper, YFW_OK, oper_seen,
         "hook r 2; hook c 1; add /o/x; hook c 0"},
        {"an entry that skips, in a container", VO(lvla_r),
         N("r", NS, {N("e", {N("k", "1"), N("skip")}), N("e", {N("k", "2"), N("x", "v")})}), YFW_OK,
         "hook; add", "hook r 2; hook e keys k; hook e keys k; add /o/x"},
        {"a nested entry that skips ends its outer entry", VO(lvla_r),
         N("r", NS,
           {N("e", {N("k", "1"), N("n", {N("skip")}), N("x", "after")}),
            N("e", {N("k", "2"), N("x", "next")})}),
         YFW_OK, "hook; add", "hook r 2; hook e keys k; hook n; hook e keys k; add /o/x"},
        {"an outer entry alone returns the skip", VO(lvla_r_e),
         N("e", NS, {N("k", "1"), N("n", {N("skip")}), N("x", "after")}), YFW_SKIP_NODE,
         "hook; add", "hook e keys k; hook n"},
        {"a skipped entry leaves the hierarchy, never on the output list", VO(lvla_r_e),
         N("e", NS, {N("k", "1"), N("skip")}), YFW_SKIP_NODE, "",
         "TRC lvla_r_e Start; hier+ e 2; list-node /r/e; hook e keys k; hier- e; TRC lvla_r_e End"},
    };
    for (const Case &c : cases)
        check(c);
}

// An augment entry takes its tag; any other tag is sorted by namespace.  A
// missing tag is reported and stands on the namespace way, while
// parse_augments replaces it.
TEST(Visits, AugmentEntry)
{
    auto no_tag = [](Request &, vidl_yfw_datatree *t) { t->tag = nullptr; };
    const char *seen = "TRC augment_lvla_root P; TRC augment_lvla_root U; ERR; hook; "
                       "TRC lvla_root_parse_augments S";
    const Case cases[] = {
        {"its tag", entry, N("r", "urn:any", {}), YFW_OK, seen,
         "TRC augment_lvla_root Processing tag 'r'; hook r 0"},
        {"its model's namespace", entry, N("q", NS, {}), YFW_OK, seen,
         "TRC augment_lvla_root Processing tag 'q'; TRC augment_lvla_root Unsupported tag. "
         "Ignoring."},
        {"another namespace", entry, N("q", "urn:other", {}), YFW_OK, seen,
         "TRC augment_lvla_root Processing tag 'q'; TRC lvla_root_parse_augments Start"},
        {"no tag, its model's namespace", entry, N("q", NS, {}), YFW_ERR_NO_SUBTREES, seen,
         "ERR augment_lvla_root Tag name is not available!; TRC augment_lvla_root Processing tag "
         "'(null)'; TRC augment_lvla_root Unsupported tag. Ignoring.",
         YFW_MAP_REQ_GET, no_tag},
        {"no tag, another namespace", entry, N("q", "urn:other", {}), YFW_OK, seen,
         "ERR augment_lvla_root Tag name is not available!; TRC augment_lvla_root Processing tag "
         "'(null)'; TRC lvla_root_parse_augments Start",
         YFW_MAP_REQ_GET, no_tag},
    };
    for (const Case &c : cases)
        check(c);
}

// A count without an array is a broken node; without the presence bit a
// node is childless whatever the fields hold.  Null arguments fail with
// the error path and no End.
TEST(Visits, BrokenAbsentAndNullArguments)
{
    Walk w;
    auto t = build(N("c", NS, {N("x", "1")}));
    vidl_yfw_datatree *kept = t->subtrees;
    t->subtrees = nullptr;
    EXPECT_EQ(VO(lvla_r_c)(w.r.ctx(), t.get(), w.r.out()), YFW_ERR_NO_SUBTREES);
    EXPECT_THAT(w.events({""}),
                ElementsAre("TRC lvla_r_c Start", "ERR lvla_r_c Failed to get subtrees!",
                            "TRC lvla_r_c End"));
    t->subtree_count = 0;
    EXPECT_EQ(VO(lvla_r_c)(w.r.ctx(), t.get(), w.r.out()), YFW_OK);
    t->subtrees = kept;
    t->subtree_count = 1;
    t->present &= ~YFW_PRESENT_SUBTREES;
    w.r.events.clear();
    EXPECT_EQ(VO(lvla_r_c)(w.r.ctx(), t.get(), w.r.out()), YFW_OK);
    EXPECT_THAT(w.events({"hook", "add"}), ElementsAre("hook c 0"));
    t->present |= YFW_PRESENT_SUBTREES;

    w.r.events.clear();
    EXPECT_EQ(VO(lvla_r_c)(w.r.ctx(), nullptr, w.r.out()), YFW_ERR_INVALID_ARG);
    EXPECT_EQ(VO(lvla_r_e)(w.r.ctx(), t.get(), nullptr), YFW_ERR_INVALID_ARG);
    EXPECT_EQ(VO(lvla_r_c_x)(w.r.ctx(), nullptr, w.r.out()), YFW_ERR_INVALID_ARG);
    EXPECT_THAT(w.events({""}),
                ElementsAre("TRC lvla_r_c Start", "ERR lvla_r_c Invalid arguments passed!",
                            "error-path /", "TRC lvla_r_e Start",
                            "ERR lvla_r_e Invalid arguments passed!", "error-path /",
                            "TRC lvla_r_c_x Start", "ERR lvla_r_c_x Invalid arguments passed!",
                            "error-path /"));
}

// ---------------------------------------------------------------- handler forms

// What each form adds to the OpenConfig answer: a container only when it is
// empty; a list entry with its node as op_node only under deletion; a leaf
// its value whatever its presence bit; a guarded leaf its key always and
// its config and state under the predicate, with the last add's result.
TEST(HandlerForms, WhatEachAdds)
{
    Walk w;
    auto c = build(N("c", NS, {}));
    EXPECT_EQ(vo::cont_handler("h", w.r.ctx(), c.get(), 0, w.r.out(), "/a/b"), YFW_OK);
    EXPECT_EQ(vo::cont_handler("h", w.r.ctx(), c.get(), 3, w.r.out(), "/a/b"), YFW_OK);
    EXPECT_THAT(w.events({""}),
                ElementsAre("TRC h Start", "TRC h No subtrees", "add /a/b", "TRC h End",
                            "TRC h Start", "TRC h No mapping done for this node", "TRC h End"));
    const yfwhost::Emission &e = w.r.req.emissions().at(0);
    EXPECT_EQ(e.ns, NS_OC_IF_TUNNEL);
    EXPECT_TRUE(!e.value && !e.op_node && e.list_entry == 0 && e.path_flag == 1);

    for (uint32_t op : {YFW_OP_MERGE, YFW_OP_DELETE, YFW_OP_REMOVE}) {
        SCOPED_TRACE(op);
        Walk l;
        auto n = build(N("e", NS, {}).with_op(op));
        ASSERT_EQ(vo::list_handler("h", l.r.ctx(), n.get(), l.r.out(), "/a/l"), YFW_OK);
        const yfwhost::Emission &a = l.r.req.emissions().at(0);
        EXPECT_EQ(a.op_node, op != YFW_OP_MERGE);
        EXPECT_EQ(a.op, op != YFW_OP_MERGE ? std::optional<uint32_t>(op) : std::nullopt);
        EXPECT_TRUE(a.list_entry == 1 && a.path_flag == 1 && !a.value);
    }

    Walk p;
    auto x = build(N("x", NS, "64"));
    x->present &= ~YFW_PRESENT_VALUE;
    ASSERT_EQ(vo::plain_leaf("h", p.r.ctx(), x.get(), p.r.out(), "/a/ttl"), YFW_OK);
    EXPECT_EQ(p.r.req.emissions().at(0).value, "64");

    Walk g;
    auto a = build(N("address", NS, "2001:db8::1"));
    g.r.req.on_add_path = [](const char *path) { return std::string(path) == "/c" ? 9u : 0u; };
    EXPECT_EQ(vo::guarded_leaf("h", g.r.ctx(), a.get(), g.r.out(), "/k", "/c", "/s"), YFW_OK);
    EXPECT_EQ(vo::guarded_leaf("h", g.r.ctx(), a.get(), g.r.out(), "/k", "/c", nullptr), 9u);
    g.r.req.on_add_path = nullptr;
    g.r.req.header().read_view = 2;
    g.r.req.header().req_marks_g = 0x01;
    EXPECT_EQ(vo::guarded_leaf("h", g.r.ctx(), a.get(), g.r.out(), "/k", "/c", "/s"), YFW_OK);
    EXPECT_EQ(vo::guarded_leaf("h", g.r.ctx(), a.get(), g.r.out(), nullptr, "/c", nullptr), YFW_OK);
    EXPECT_THAT(g.events({"add"}),
                ElementsAre("add /k", "add /c", "add /s", "add /k", "add /c", "add /k"));
}

// ---------------------------------------------------------------- trace channels

TEST(Traces, RingAloneDrawsIndexesAndKeepsEveryLine)
{
    Request quiet(YFW_MAP_REQ_GET); // no log, no ring
    auto t = build(N("c", NS, {N("x", "1")}));
    uint32_t before = ret_nc_yfw_trace_index_incr();
    quiet.set_debug_levels(~0u);
    ASSERT_EQ(VO(lvla_r_c)(quiet.ctx(), t.get(), quiet.out()), YFW_OK);
    EXPECT_EQ(ret_nc_yfw_trace_index_incr(), before + 1) << "an index was drawn without the ring";

    Walk w; // debug levels off
    ASSERT_EQ(VO(lvla_r_c)(w.r.ctx(), t.get(), w.r.out()), YFW_OK);
    ASSERT_EQ(w.r.req.ring().size(), 6u);
    EXPECT_EQ(plain("ring " + w.r.req.ring()[0]), "TRC ymap_vo_octunnel_enginevo_lvla_r_c Start");
}

TEST(Traces, LogSitesKeepTheirOwnFilterDecision)
{
    Walk w;
    std::vector<std::string> log;
    w.r.req.log_to([&](std::string_view l) { log.emplace_back(l); });
    yfwhost::set_log_site_filter(
        [](const char *format) { return std::string_view(format).ends_with("End"); });
    auto t = build(N("c", NS, {}));
    ASSERT_EQ(VO(lvla_r_c)(w.r.ctx(), t.get(), w.r.out()), YFW_OK);
    yfwhost::set_log_site_filter(nullptr);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_TRUE(log[0].starts_with("TRC: YFW: ctx=0x") && log[0].ends_with(",End"));
    EXPECT_EQ(w.r.req.ring().size(), 2u) << "the ring is not filtered";

    log.clear();
    ASSERT_EQ(VO(lvla_r_c)(w.r.ctx(), t.get(), w.r.out()), YFW_OK);
    EXPECT_EQ(log.size(), 2u) << "a new filter makes every site decide again";
}

TEST(Traces, LongRingLineIsCutNotRefused)
{
    Walk w;
    ASSERT_EQ(w.run(entry, N(std::string(400, 't'), NS, {})), YFW_OK);
    ASSERT_GE(w.r.req.ring().size(), 2u);
    EXPECT_EQ(w.r.req.ring()[1].size(), 249u);
    EXPECT_NE(w.r.req.ring()[1].find("Processing tag 'ttt"), std::string::npos);
}

} // namespace
