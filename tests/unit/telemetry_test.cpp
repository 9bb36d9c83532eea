// Telemetry's leaves and differences on a model of the test's own that has
// every kind of value and node the OpenConfig models may hold: the JSON of
// each type, and what a change between two trees tells under a path.
#include "gnmi/telemetry.h"

#include "agent/changes.h"

#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include <set>
#include <string>

namespace {

using namespace octunnel::gnmi_front;

// Named as the OpenConfig models are, whose top nodes paths are resolved in.
const char *const model = R"(module openconfig-t {
  yang-version 1.1; namespace "urn:t"; prefix t;
  identity base; identity one { base base; }
  container top {
    leaf i8 { type int8; } leaf u64 { type uint64; }
    leaf d { type decimal64 { fraction-digits 2; } }
    leaf b { type boolean; } leaf e { type empty; } leaf s { type string; }
    leaf u { type union { type int32; type string; } }
    leaf id { type identityref { base base; } }
    leaf-list ll { type uint16; }
    list item { key name; leaf name { type string; } leaf v { type int32; }
                container c { leaf w { type string; } } }
  }
})";

class Telemetry : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(ly_ctx_new(nullptr, 0, &ctx_), LY_SUCCESS);
        ASSERT_EQ(lys_parse_mem(ctx_, model, LYS_IN_YANG, nullptr), LY_SUCCESS);
    }
    void TearDown() override
    {
        for (lyd_node *t : trees_)
            lyd_free_all(t);
        ly_ctx_destroy(ctx_);
    }

    lyd_node *tree(const std::string &top)
    {
        lyd_node *t = nullptr;
        const std::string json = "{\"openconfig-t:top\":" + top + "}";
        EXPECT_EQ(lyd_parse_data_mem(ctx_, json.c_str(), LYD_JSON, LYD_PARSE_ONLY, 0, &t),
                  LY_SUCCESS)
            << json;
        trees_.push_back(t);
        return t;
    }

    std::vector<const lyd_node *> roots(lyd_node *t, const std::string &at)
    {
        gnmi::Path p;
        for (std::size_t from = 1; from < at.size();) {
            const std::size_t to = std::min(at.find('/', from), at.size());
            p.add_elem()->set_name(at.substr(from, to - from));
            from = to + 1;
        }
        return outermost(select(t, resolve(ctx_, gnmi::Path(), p)));
    }

    // What a batch tells, as "path=value" and "-path".
    static std::set<std::string> told(Batch &batch)
    {
        const auto text = [](const gnmi::Path &p) {
            std::string out;
            for (const gnmi::PathElem &e : p.elem()) {
                out.append("/").append(e.name());
                for (const auto &[k, v] : e.key())
                    out.append("[").append(k).append("=").append(v).append("]");
            }
            return out;
        };
        std::set<std::string> out;
        for (const gnmi::SubscribeResponse &r : batch.take()) {
            for (const gnmi::Update &u : r.update().update())
                out.insert(text(u.path()).append("=").append(u.val().json_ietf_val()));
            for (const gnmi::Path &d : r.update().delete_())
                out.insert(std::string("-").append(text(d)));
        }
        return out;
    }

    ly_ctx *ctx_ = nullptr;
    std::vector<lyd_node *> trees_;
};

TEST_F(Telemetry, EachTypeHasItsJsonValue)
{
    lyd_node *t = tree(R"({"i8":-5,"u64":"18446744073709551615","d":"1.5","b":true,"e":[null],
                          "s":"a \"q\"","u":7,"id":"openconfig-t:one","ll":[3,1]})");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"i8", "-5"},     {"u64", "\"18446744073709551615\""},
        {"d", "\"1.5\""}, {"b", "true"},
        {"e", "[null]"},  {"s", "\"a \\\"q\\\"\""},
        {"u", "7"},       {"id", "\"openconfig-t:one\""},
        {"ll", "[3,1]"},
    };
    for (const auto &[name, json] : cases) {
        const lyd_node *n = lyd_child(t);
        while (n != nullptr && name != LYD_NAME(n))
            n = n->next;
        ASSERT_NE(n, nullptr) << name;
        EXPECT_EQ(leaf_json(n), json) << name;
    }
    // A union's member decides: a string that is no number stays a string.
    lyd_node *s = tree(R"({"u":"x"})");
    EXPECT_EQ(leaf_json(lyd_child(s)), "\"x\"");
}

TEST_F(Telemetry, ChangesTellWhatChangedUnderThePathAndNothingElse)
{
    struct Case {
        const char *name, *before, *after, *path;
        std::set<std::string> told;
    };
    const std::vector<Case> cases = {
        {"a leaf among few takes another value",
         R"({"i8":1,"b":true})",
         R"({"i8":2,"b":true})",
         "/top",
         {"/top/i8=2"}},
        {"nothing changed", R"({"i8":1})", R"({"i8":1})", "/top", {}},
        {"a leaf goes", R"({"i8":1,"s":"x"})", R"({"s":"x"})", "/top", {"-/top/i8"}},
        {"an entry comes, with its key",
         R"({"item":[{"name":"a","v":1}]})",
         R"({"item":[{"name":"a","v":1},{"name":"b","v":2,"c":{"w":"z"}}]})",
         "/top/item",
         {"/top/item[name=b]/name=\"b\"", "/top/item[name=b]/v=2", "/top/item[name=b]/c/w=\"z\""}},
        {"an entry goes, as one delete",
         R"({"item":[{"name":"a","v":1},{"name":"b","v":2}]})",
         R"({"item":[{"name":"a","v":1}]})",
         "/top",
         {"-/top/item[name=b]"}},
        {"an entry's leaf changes",
         R"({"item":[{"name":"a","v":1},{"name":"b","v":2}]})",
         R"({"item":[{"name":"a","v":1},{"name":"b","v":3}]})",
         "/top/item/v",
         {"/top/item[name=b]/v=3"}},
        {"what the path does not name",
         R"({"i8":1,"item":[{"name":"a","v":1}]})",
         R"({"i8":9,"item":[{"name":"a","v":1}]})",
         "/top/item",
         {}},
        {"a node below the path goes with its entry",
         R"({"item":[{"name":"a","c":{"w":"z"}},{"name":"b"}]})",
         R"({"item":[{"name":"b"}]})",
         "/top/item/c",
         {"-/top/item[name=a]/c"}},
        {"a leaf-list gains a value: the list whole",
         R"({"ll":[1,2]})",
         R"({"ll":[1,2,3]})",
         "/top",
         {"/top/ll=[1,2,3]"}},
        {"a leaf-list loses a value",
         R"({"ll":[1,2],"i8":1})",
         R"({"ll":[2],"i8":1})",
         "/top",
         {"/top/ll=[2]"}},
        {"a leaf-list loses all", R"({"ll":[1,2],"i8":1})", R"({"i8":1})", "/top", {"-/top/ll"}},
        {"everything comes", "{}", R"({"i8":1,"ll":[4]})", "/top", {"/top/i8=1", "/top/ll=[4]"}},
    };
    for (const Case &c : cases) {
        lyd_node *before = tree(c.before), *after = tree(c.after);
        Batch batch(0, "", Json::ietf);
        changes(before, roots(before, c.path), after, roots(after, c.path), batch);
        EXPECT_EQ(told(batch), c.told) << c.name;
        // Deletes alone, for a round that tells every value anyway.
        Batch deletes(0, "", Json::ietf);
        changes(before, roots(before, c.path), after, roots(after, c.path), deletes, false);
        std::set<std::string> expected;
        for (const std::string &t : c.told)
            if (t[0] == '-')
                expected.insert(t);
        EXPECT_EQ(told(deletes), expected) << c.name;
    }
}

// The configuration-change notices of the agent pair nodes the same way: a
// leaf among few siblings that takes another value is a replace, not a
// delete and a create.
TEST_F(Telemetry, ConfigurationChangesPairALeafWithItsNewValue)
{
    const auto edits =
        octunnel::serve::edits_between(tree(R"({"i8":1,"b":true})"), tree(R"({"i8":2,"b":true})"));
    ASSERT_EQ(edits.size(), 1u);
    EXPECT_EQ(edits[0].path, "/openconfig-t:top/i8");
    EXPECT_EQ(edits[0].operation, "replace");
}

TEST_F(Telemetry, ManyUpdatesAreSplitIntoNotificationsOfBoundedSize)
{
    std::string items = "[";
    for (int i = 0; i < 20000; ++i)
        items.append(i ? "," : "")
            .append("{\"name\":\"entry-")
            .append(std::to_string(i))
            .append("\",\"c\":{\"w\":\"")
            .append(40, 'w')
            .append("\"}}");
    lyd_node *t = tree("{\"item\":" + items + "]}");
    Batch batch(42, "router-1", Json::ietf);
    all_leaves(roots(t, "/top"), batch);
    EXPECT_EQ(batch.size(), 40000u);
    const std::vector<gnmi::SubscribeResponse> out = batch.take();
    ASSERT_GT(out.size(), 1u);
    std::size_t updates = 0;
    for (const gnmi::SubscribeResponse &r : out) {
        EXPECT_LT(r.ByteSizeLong(), Batch::max_bytes + 4096);
        EXPECT_EQ(r.update().timestamp(), 42);
        EXPECT_EQ(r.update().prefix().target(), "router-1");
        updates += static_cast<std::size_t>(r.update().update_size());
    }
    EXPECT_EQ(updates, 40000u);
}

} // namespace
