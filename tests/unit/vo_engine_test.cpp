// The native walk engine against the reference host, on a small model of
// its own whose hooks record their calls and answer as the tree asks:
//
//   r (container)                      hook: records, count
//     e (list, keys k, j; "/r/e")      hook: SKIP_NODE with a child "skip"
//       x (leaf)                       handler: adds /o/x with the value
//       n (list, no keys; "/r/e/n")    hook: SKIP_NODE with a child "skip"
//         x (leaf)
//     c (container)
//       x (leaf)
#include "engine/vo_engine.h"
#include "testing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace testing_support;
using testing::ElementsAre;
using yfwhost::Request;

namespace {

constexpr const char *NS = "urn:test:native";

Request &host(yfw_map_ctx ctx)
{
    return *static_cast<Request *>(ctx->fw_private);
}
std::string tag_of(const vidl_yfw_datatree *n)
{
    return n->tag != nullptr ? n->tag : "(null)";
}

verrno cont_hook(yfw_map_ctx ctx, const vidl_yfw_datatree *in, unsigned count, vidl_yfw_datatree *)
{
    host(ctx).record("hook " + tag_of(in) + " " + std::to_string(count));
    return YFW_OK;
}

// Answers SKIP_NODE for an entry with a child "skip" and 0x77 with "fail";
// records which children carry the key mark when it runs.
verrno list_hook(yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *)
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

verrno leaf_handler(yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out)
{
    return yfw_map_datatree_add_path_flagged(ctx, out, "/o/x", "urn:o", in->value, nullptr, nullptr,
                                             0, 1);
}

verrno parse_augments(yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *)
{
    host(ctx).record("augments " + tag_of(in));
    return YFW_OK;
}

constexpr vo::model model{NS, false};
constexpr vo::model oper_model{NS, true};

verrno visit_x(yfw_map_ctx, const vidl_yfw_datatree *, vidl_yfw_datatree *);
verrno visit_n(yfw_map_ctx, const vidl_yfw_datatree *, vidl_yfw_datatree *);
verrno visit_e(yfw_map_ctx, const vidl_yfw_datatree *, vidl_yfw_datatree *);
verrno visit_c(yfw_map_ctx, const vidl_yfw_datatree *, vidl_yfw_datatree *);

const vo::node node_x{.name = "x", .mdl = &model, .kind = vo::form::leaf, .hook = leaf_handler};
const vo::branch n_branches[] = {{"x", vo::form::leaf, visit_x}};
const vo::node node_n{.name = "n",
                      .mdl = &model,
                      .kind = vo::form::list,
                      .hook = list_hook,
                      .list_path = "/r/e/n",
                      .branches = n_branches,
                      .branch_count = 1,
                      .parse_augments = parse_augments};
const char *const e_keys[] = {"k", "j"};
const vo::branch e_branches[] = {{"x", vo::form::leaf, visit_x}, {"n", vo::form::list, visit_n}};
const vo::node node_e{.name = "e",
                      .mdl = &model,
                      .kind = vo::form::list,
                      .hook = list_hook,
                      .list_path = "/r/e",
                      .keys = e_keys,
                      .key_count = 2,
                      .branches = e_branches,
                      .branch_count = 2,
                      .parse_augments = parse_augments};
const vo::branch c_branches[] = {{"x", vo::form::leaf, visit_x}};
const vo::node node_c{.name = "c",
                      .mdl = &model,
                      .kind = vo::form::container,
                      .cont_hook = cont_hook,
                      .branches = c_branches,
                      .branch_count = 1,
                      .parse_augments = parse_augments};
const vo::branch r_branches[] = {{"e", vo::form::list, visit_e},
                                 {"c", vo::form::container, visit_c}};
const vo::node node_r{.name = "r",
                      .mdl = &model,
                      .kind = vo::form::container,
                      .cont_hook = cont_hook,
                      .branches = r_branches,
                      .branch_count = 2,
                      .parse_augments = parse_augments};
// The same root in an operational model.
const vo::node node_oper_r{.name = "r",
                           .mdl = &oper_model,
                           .kind = vo::form::container,
                           .cont_hook = cont_hook,
                           .branches = r_branches,
                           .branch_count = 2,
                           .parse_augments = parse_augments};

verrno visit_x(yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out)
{
    return vo::visit(node_x, ctx, in, out);
}
verrno visit_n(yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out)
{
    return vo::visit(node_n, ctx, in, out);
}
verrno visit_e(yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out)
{
    return vo::visit(node_e, ctx, in, out);
}
verrno visit_c(yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out)
{
    return vo::visit(node_c, ctx, in, out);
}

struct EngineTest : ::testing::Test {
    Recorded r{YFW_MAP_REQ_GET};

    verrno walk(const vo::node &n, const N &tree)
    {
        tree_ = build(tree);
        return vo::visit(n, r.ctx(), tree_.get(), r.out());
    }
    std::vector<std::string> events(std::initializer_list<std::string> prefixes)
    {
        return only(r.events, prefixes);
    }
    vidl_yfw_datatree *tree() { return tree_.get(); }

private:
    yfwhost::Tree tree_;
};

TEST_F(EngineTest, ContainerJoinsHierarchyRunsHookThenChildrenInOrder)
{
    ASSERT_EQ(walk(node_r, N("r", NS, {N("c", {N("x", "1")}), N("c", {N("x", "2")})})), YFW_OK);
    EXPECT_THAT(plain(r.events),
                ElementsAre("TRC r Start", "hier+ r 1", "hook r 2", "TRC c Start", "hier+ c 1",
                            "hook c 1", "TRC x Start", "add /o/x", "TRC x End", "hier- c",
                            "TRC c End", "TRC c Start", "hier+ c 1", "hook c 1", "TRC x Start",
                            "add /o/x", "TRC x End", "hier- c", "TRC c End", "hier- r",
                            "TRC r End"));
}

TEST_F(EngineTest, ChildlessContainerStillRunsItsHookWithCountZero)
{
    ASSERT_EQ(walk(node_r, N("r", NS, {})), YFW_OK);
    EXPECT_THAT(events({"hook", "hier"}), ElementsAre("hier+ r 1", "hook r 0", "hier- r"));
}

TEST_F(EngineTest, ListEntryComesOnTheOutputListOnlyWhileItsChildrenAreVisited)
{
    ASSERT_EQ(walk(node_r, N("r", NS, {N("e", {N("k", "1"), N("x", "v")})})), YFW_OK);
    EXPECT_THAT(events({"hier", "list-node", "hook e", "out", "add"}),
                ElementsAre("hier+ r 1", "hier+ e 2", "list-node /r/e", "hook e keys k", "out+ e",
                            "add /o/x", "hier- e", "out- e", "hier- r"));
    EXPECT_EQ(r.req.output_list().size(), 0u);
    EXPECT_EQ(r.req.hierarchy_depth(), 0u);
}

TEST_F(EngineTest, ListEntryWithoutChildrenReportsNoKeysAndGoesOn)
{
    ASSERT_EQ(walk(node_e, N("e", NS, {})), YFW_OK);
    EXPECT_THAT(
        events({"ERR", "hook", "out"}),
        ElementsAre("ERR e No keys specified with a list node.", "hook e", "out+ e", "out- e"));
    // The hook's answer is the entry's, children or not.
    EXPECT_EQ(walk(node_e, N("e", NS, {N("fail")})), 0x77u);
}

TEST_F(EngineTest, EveryChildBearingAKeyTagIsMarkedBeforeTheHook)
{
    ASSERT_EQ(walk(node_e, N("e", NS, {N("j", "a"), N("x", "b"), N("k", "c"), N("k", "d")})),
              YFW_OK);
    EXPECT_THAT(events({"hook"}), ElementsAre("hook e keys j k k"));
    const vidl_yfw_datatree *c = tree()->subtrees;
    EXPECT_TRUE(c[0].is_key && c[2].is_key && c[3].is_key);
    EXPECT_FALSE(c[1].is_key || (c[1].present & YFW_PRESENT_IS_KEY));
}

TEST_F(EngineTest, FailedListNodeUpdateSkipsKeysHookAndChildrenButNotTheOutputList)
{
    r.req.on_update_current_list_node = [](const char *) { return verrno{0x55}; };
    ASSERT_EQ(walk(node_e, N("e", NS, {N("k", "1"), N("x", "v")})), 0x55u);
    EXPECT_THAT(events({"hook", "out", "add", "hier"}),
                ElementsAre("hier+ e 2", "out+ e", "hier- e", "out- e"));
    EXPECT_FALSE(tree()->subtrees[0].is_key);
}

TEST_F(EngineTest, OutputListAddThatDidNotTakeIsNotUndone)
{
    r.req.output_list_accepts = false;
    ASSERT_EQ(walk(node_e, N("e", NS, {N("k", "1")})), YFW_OK);
    EXPECT_THAT(events({"out"}), ElementsAre("out+ e refused"));
}

TEST_F(EngineTest, NullTagStopsTheLoopWhereItStands)
{
    N shape("r", NS,
            {N("c", {N("x", "1")}), N("c", {N("x", "2")}), N("c"), N("c", {N("x", "4")}),
             N("c", {N("x", "5")})});
    auto root = build(shape);
    root->subtrees[2].tag = nullptr;
    EXPECT_EQ(vo::visit(node_r, r.ctx(), root.get(), r.out()), YFW_ERR_NO_SUBTREES);
    EXPECT_THAT(events({"add", "ERR", "hier- r"}),
                ElementsAre("add /o/x", "add /o/x", "ERR r Tag name is not available!", "hier- r"));
}

struct SkipCase {
    const char *name;
    N tree;
    verrno result;
    std::vector<std::string> visited; // hooks and adds, in order
};

// A list entry that skips itself is no failure for the container around it;
// a list entry around it passes the skip on and ends.
TEST_F(EngineTest, SkipNodeIsAbsorbedByAContainerButNotByAList)
{
    const SkipCase cases[] = {
        {"entry in a container",
         N("r", NS, {N("e", {N("k", "1"), N("skip")}), N("e", {N("k", "2"), N("x", "v")})}),
         YFW_OK,
         {"hook r 2", "hook e keys k", "hook e keys k", "add /o/x"}},
        {"nested entry ends its outer entry",
         N("r", NS,
           {N("e", {N("k", "1"), N("n", {N("skip")}), N("x", "after")}),
            N("e", {N("k", "2"), N("x", "next")})}),
         YFW_OK,
         {"hook r 2", "hook e keys k", "hook n", "hook e keys k", "add /o/x"}},
        {"outer entry alone returns the skip",
         N("e", NS, {N("k", "1"), N("n", {N("skip")}), N("x", "after")}),
         YFW_SKIP_NODE,
         {"hook e keys k", "hook n"}},
    };
    for (const SkipCase &c : cases) {
        SCOPED_TRACE(c.name);
        r.events.clear();
        const vo::node &top = c.tree.tag == "r" ? node_r : node_e;
        EXPECT_EQ(walk(top, c.tree), c.result);
        EXPECT_EQ(events({"hook", "add"}), c.visited);
        EXPECT_EQ(r.req.hierarchy_depth(), 0u);
        EXPECT_EQ(r.req.output_list().size(), 0u);
    }
}

TEST_F(EngineTest, SkippedEntryLeavesTheHierarchyAndNeverReachesTheOutputList)
{
    ASSERT_EQ(walk(node_e, N("e", NS, {N("k", "1"), N("skip")})), YFW_SKIP_NODE);
    EXPECT_THAT(plain(r.events), ElementsAre("TRC e Start", "hier+ e 2", "list-node /r/e",
                                             "hook e keys k", "hier- e", "TRC e End"));
}

// The tag alone chooses a branch; the namespace decides only for a tag the
// model does not know.
TEST_F(EngineTest, ChildrenByTagThenByNamespace)
{
    ASSERT_EQ(walk(node_c, N("c", NS,
                             {N("x", "urn:other", "foreign ns, known tag"), N("mtu", NS, "1500"),
                              N("zz", "urn:other", {})})),
              YFW_OK);
    EXPECT_THAT(events({"add", "TRC c Unsupported", "augments"}),
                ElementsAre("add /o/x", "TRC c Unsupported tag. Ignoring.", "augments zz"));
}

TEST_F(EngineTest, OperationalModelTakesBranchesOnlyInAGet)
{
    N shape("r", NS, {N("c", {N("x", "1")}), N("c", "urn:other", {})});
    for (uint32_t kind : {0u, 1u, 8u}) {
        SCOPED_TRACE(kind);
        Recorded other(kind);
        auto t = build(shape);
        ASSERT_EQ(vo::visit(node_oper_r, other.ctx(), t.get(), other.out()), YFW_OK);
        EXPECT_THAT(only(other.events, {"hook", "add", "TRC r Unsupported", "augments"}),
                    ElementsAre("hook r 2", "TRC r Unsupported tag. Ignoring.", "augments c"));
    }
    ASSERT_EQ(walk(node_oper_r, shape), YFW_OK);
    EXPECT_THAT(events({"hook", "add", "augments"}),
                ElementsAre("hook r 2", "hook c 1", "add /o/x", "hook c 0"));
}

TEST_F(EngineTest, XpathErrorLeafIsFlaggedAndStillMapped)
{
    auto t = build(N("x", NS, "v"));
    t->error_kind = YFW_ERROR_KIND_XPATH;
    ASSERT_EQ(vo::visit(node_x, r.ctx(), t.get(), r.out()), YFW_OK);
    t->present |= YFW_PRESENT_ERROR_KIND;
    r.events.clear();
    EXPECT_EQ(r.req.state().walk_flags, 0u) << "no flag without the presence bit";
    ASSERT_EQ(vo::visit(node_x, r.ctx(), t.get(), r.out()), YFW_OK);
    EXPECT_THAT(events({"TRC x", "add"}),
                ElementsAre("TRC x Start", "TRC x got xpath error node ", "add /o/x", "TRC x End"));
    EXPECT_EQ(r.req.state().walk_flags, YFW_WALK_XPATH_ERROR);
}

TEST_F(EngineTest, BrokenAndAbsentSubtrees)
{
    auto t = build(N("c", NS, {N("x", "1")}));
    vidl_yfw_datatree *kept = t->subtrees;

    t->subtrees = nullptr; // a count without an array
    EXPECT_EQ(vo::visit(node_c, r.ctx(), t.get(), r.out()), YFW_ERR_NO_SUBTREES);
    EXPECT_THAT(plain(r.events),
                ElementsAre("TRC c Start", "ERR c Failed to get subtrees!", "TRC c End"));

    t->subtree_count = 0; // no array, no count: childless
    EXPECT_EQ(vo::visit(node_c, r.ctx(), t.get(), r.out()), YFW_OK);

    t->subtrees = kept;
    t->subtree_count = 1;
    t->present &= ~YFW_PRESENT_SUBTREES; // the bit decides, not the fields
    r.events.clear();
    EXPECT_EQ(vo::visit(node_c, r.ctx(), t.get(), r.out()), YFW_OK);
    EXPECT_THAT(events({"hook", "add"}), ElementsAre("hook c 0"));
    t->present |= YFW_PRESENT_SUBTREES;
}

TEST_F(EngineTest, NullArgumentsFailWithoutEndTrace)
{
    auto t = build(N("c", NS, {}));
    EXPECT_EQ(vo::visit(node_c, r.ctx(), nullptr, r.out()), YFW_ERR_INVALID_ARG);
    EXPECT_EQ(vo::visit(node_e, r.ctx(), t.get(), nullptr), YFW_ERR_INVALID_ARG);
    EXPECT_EQ(vo::visit(node_x, r.ctx(), nullptr, r.out()), YFW_ERR_INVALID_ARG);
    EXPECT_THAT(events({"TRC", "ERR", "error-path"}),
                ElementsAre("TRC c Start", "ERR c Invalid arguments passed!", "error-path /",
                            "TRC e Start", "ERR e Invalid arguments passed!", "error-path /",
                            "TRC x Start", "ERR x Invalid arguments passed!", "error-path /"));
}

// ---------------------------------------------------------------- augment entries

verrno visit_r(yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out)
{
    return vo::visit(node_r, ctx, in, out);
}
const vo::entry entry_r{.name = "entry",
                        .mdl = &model,
                        .accepts = "r",
                        .visit = visit_r,
                        .parse_augments = parse_augments};

TEST_F(EngineTest, AugmentEntryAcceptsItsTagAndSortsTheRestByNamespace)
{
    struct Case {
        const char *tag;
        const char *ns;
        verrno result;
        std::vector<std::string> seen;
    };
    const Case cases[] = {
        {"r", "urn:any", YFW_OK, {"TRC entry Processing tag 'r'", "hook r 0"}},
        {"q", NS, YFW_OK, {"TRC entry Processing tag 'q'", "TRC entry Unsupported tag. Ignoring."}},
        {"q", "urn:other", YFW_OK, {"TRC entry Processing tag 'q'", "augments q"}},
        // A missing tag is reported and stands on the namespace way...
        {nullptr,
         NS,
         YFW_ERR_NO_SUBTREES,
         {"ERR entry Tag name is not available!", "TRC entry Processing tag '(null)'",
          "TRC entry Unsupported tag. Ignoring."}},
        // ...while parse_augments replaces it.
        {nullptr,
         "urn:other",
         YFW_OK,
         {"ERR entry Tag name is not available!", "TRC entry Processing tag '(null)'",
          "augments (null)"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.tag != nullptr ? c.tag : "null tag");
        r.events.clear();
        auto t = build(N(c.tag != nullptr ? c.tag : "placeholder", c.ns, {}));
        if (c.tag == nullptr) {
            t->tag = nullptr;
        }
        EXPECT_EQ(vo::augment_entry(entry_r, r.ctx(), t.get(), r.out()), c.result);
        EXPECT_EQ(events({"TRC entry P", "TRC entry U", "ERR", "hook", "augments"}), c.seen);
    }
}

// ---------------------------------------------------------------- handler forms

TEST_F(EngineTest, ContainerHandlerAddsItsPathOnlyForAnEmptyNode)
{
    auto t = build(N("c", NS, {}));
    EXPECT_EQ(vo::cont_handler("h", r.ctx(), t.get(), 0, r.out(), "/a/b"), YFW_OK);
    EXPECT_EQ(vo::cont_handler("h", r.ctx(), t.get(), 3, r.out(), "/a/b"), YFW_OK);
    EXPECT_THAT(plain(r.events),
                ElementsAre("TRC h Start", "TRC h No subtrees", "add /a/b", "TRC h End",
                            "TRC h Start", "TRC h No mapping done for this node", "TRC h End"));
    const yfwhost::Emission &e = r.req.emissions().at(0);
    EXPECT_EQ(e.ns, NS_OC_IF_TUNNEL);
    EXPECT_FALSE(e.value || e.op_node);
    EXPECT_EQ(e.list_entry, 0u);
    EXPECT_EQ(e.path_flag, 1u);
}

TEST_F(EngineTest, ListHandlerPassesTheNodeOnlyWhenItIsDeleted)
{
    auto plain_node = build(N("e", NS, {}));
    auto deleted = build(N("e", NS, {}).with_op(YFW_OP_DELETE));
    auto removed = build(N("e", NS, {}).with_op(YFW_OP_REMOVE));
    for (auto *n : {plain_node.get(), deleted.get(), removed.get()})
        ASSERT_EQ(vo::list_handler("h", r.ctx(), n, r.out(), "/a/l"), YFW_OK);
    const auto &em = r.req.emissions();
    ASSERT_EQ(em.size(), 3u);
    EXPECT_FALSE(em[0].op_node);
    EXPECT_EQ(em[1].op, YFW_OP_DELETE);
    EXPECT_EQ(em[2].op, YFW_OP_REMOVE);
    for (const auto &e : em)
        EXPECT_TRUE(e.list_entry == 1 && e.path_flag == 1 && !e.value);
}

TEST_F(EngineTest, PlainLeafPassesTheValueWhateverItsPresenceBit)
{
    auto t = build(N("x", NS, "64"));
    t->present &= ~YFW_PRESENT_VALUE;
    ASSERT_EQ(vo::plain_leaf("h", r.ctx(), t.get(), r.out(), "/a/ttl"), YFW_OK);
    EXPECT_EQ(r.req.emissions().at(0).value, "64");
}

TEST_F(EngineTest, GuardedLeafAddsKeyAlwaysAndConfigStateUnderThePredicate)
{
    auto t = build(N("address", NS, "2001:db8::1"));
    ASSERT_EQ(vo::guarded_leaf("h", r.ctx(), t.get(), r.out(), "/k", "/c", "/s"), YFW_OK);
    r.req.header().read_view = 2;
    r.req.header().req_marks_g = 0x01;
    ASSERT_EQ(vo::guarded_leaf("h", r.ctx(), t.get(), r.out(), "/k", "/c", "/s"), YFW_OK);
    EXPECT_EQ(vo::guarded_leaf("h", r.ctx(), t.get(), r.out(), nullptr, "/c", nullptr), YFW_OK);
    EXPECT_THAT(events({"add"}), ElementsAre("add /k", "add /c", "add /s", "add /k"));
}

// A handler's result is its last add's: an earlier failure is overwritten.
TEST_F(EngineTest, GuardedLeafReturnsTheLastAddsResult)
{
    auto t = build(N("address", NS, "a"));
    r.req.on_add_path = [](const char *path) { return std::string(path) == "/c" ? 9u : 0u; };
    EXPECT_EQ(vo::guarded_leaf("h", r.ctx(), t.get(), r.out(), "/k", "/c", "/s"), YFW_OK);
    EXPECT_EQ(vo::guarded_leaf("h", r.ctx(), t.get(), r.out(), "/k", "/c", nullptr), 9u);
    EXPECT_THAT(events({"add"}), ElementsAre("add /k", "add /c", "add /s", "add /k", "add /c"));
}

// ---------------------------------------------------------------- trace channels

TEST_F(EngineTest, RingAloneDrawsIndexesAndKeepsEveryLine)
{
    Request quiet(YFW_MAP_REQ_GET); // no log, no ring
    auto t = build(N("c", NS, {N("x", "1")}));
    uint32_t before = ret_nc_yfw_trace_index_incr();
    quiet.set_debug_levels(~0u);
    ASSERT_EQ(vo::visit(node_c, quiet.ctx(), t.get(), quiet.out()), YFW_OK);
    EXPECT_EQ(ret_nc_yfw_trace_index_incr(), before + 1) << "an index was drawn without the ring";

    ASSERT_EQ(vo::visit(node_c, r.ctx(), t.get(), r.out()), YFW_OK); // debug levels off
    ASSERT_EQ(r.req.ring().size(), 4u);
    EXPECT_EQ(plain("ring " + r.req.ring()[0]), "TRC c Start");
}

TEST_F(EngineTest, LogSitesKeepTheirOwnFilterDecision)
{
    std::vector<std::string> log;
    r.req.log_to([&](std::string_view l) { log.emplace_back(l); });
    yfwhost::set_log_site_filter(
        [](const char *format) { return std::string_view(format).ends_with("End"); });
    auto t = build(N("c", NS, {}));
    ASSERT_EQ(vo::visit(node_c, r.ctx(), t.get(), r.out()), YFW_OK);
    yfwhost::set_log_site_filter(nullptr);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_TRUE(log[0].starts_with("TRC: YFW: ctx=0x") && log[0].ends_with(",End"));
    EXPECT_EQ(r.req.ring().size(), 2u) << "the ring is not filtered";

    log.clear();
    ASSERT_EQ(vo::visit(node_c, r.ctx(), t.get(), r.out()), YFW_OK);
    EXPECT_EQ(log.size(), 2u) << "a new filter makes every site decide again";
}

TEST_F(EngineTest, LongRingLineIsCutNotRefused)
{
    std::string tag(400, 't');
    auto t = build(N(tag, NS, {}));
    ASSERT_EQ(vo::augment_entry(entry_r, r.ctx(), t.get(), r.out()), YFW_OK);
    ASSERT_GE(r.req.ring().size(), 2u);
    EXPECT_EQ(r.req.ring()[1].size(), 249u);
    EXPECT_NE(r.req.ring()[1].find("Processing tag 'ttt"), std::string::npos);
}

} // namespace
