// The JSON type of an OpenConfig value, as the writer tells it, against
// libyang's own judgement of the value: the writer takes canonical numbers
// and booleans without asking libyang, and must agree with it on every one.
#include "translate/json_schema.h"

#include <gtest/gtest.h>
#include <libyang/libyang.h>

namespace {

using octunnel::JsonSchema;
using octunnel::OpenConfigSchema;
using octunnel::ValueKind;

const OpenConfigSchema &schema()
{
    static OpenConfigSchema s(OCTUNNEL_YANG_DIR);
    return s;
}

// The node at a path of (module, name) steps.
JsonSchema::Node at(std::initializer_list<std::pair<const char *, const char *>> steps)
{
    JsonSchema::Node n = schema().root();
    for (auto [module, name] : steps)
        n = schema().child(n, module, name);
    return n;
}

// What libyang says of `value` at `node`, in the writer's terms.
ValueKind libyang_kind(JsonSchema::Node node, std::string_view value)
{
    const auto *leaf = static_cast<const lysc_node *>(node);
    const lysc_type *type = nullptr;
    LY_ERR rc = lyd_value_validate(leaf->module->ctx, leaf, value.data(), value.size(), nullptr,
                                   &type, nullptr);
    if ((rc != LY_SUCCESS && rc != LY_EINCOMPLETE) || type == nullptr)
        return ValueKind::string;
    return octunnel::kind_of_basetype(type->basetype);
}

TEST(JsonTyping, NumbersAndBooleansAsLibyangJudgesThem)
{
    const char *oc = "openconfig-interfaces", *tunnel = "openconfig-if-tunnel";
    auto tunnel_leaf = [&](const char *name) {
        return at({{oc, "interfaces"},
                   {oc, "interface"},
                   {tunnel, "tunnel"},
                   {tunnel, "config"},
                   {tunnel, name}});
    };
    struct Leaf {
        const char *what;
        JsonSchema::Node node;
    } leaves[] = {
        {"ttl (uint8)", tunnel_leaf("ttl")},
        {"gre-key (uint32)", tunnel_leaf("gre-key")},
        {"src (a union of addresses)", tunnel_leaf("src")},
        {"prefix-length (uint8, 0..32)", at({{oc, "interfaces"},
                                             {oc, "interface"},
                                             {tunnel, "tunnel"},
                                             {tunnel, "ipv4"},
                                             {tunnel, "addresses"},
                                             {tunnel, "address"},
                                             {tunnel, "config"},
                                             {tunnel, "prefix-length"}})},
        {"enabled (boolean)",
         at({{oc, "interfaces"}, {oc, "interface"}, {oc, "config"}, {oc, "enabled"}})},
        {"mtu (uint16)", at({{oc, "interfaces"}, {oc, "interface"}, {oc, "config"}, {oc, "mtu"}})},
    };
    const char *const values[] = {"0",    "1",     "32",   "33",       "64",         "255",
                                  "256",  "65535", "-0",   "-1",       "007",        "+5",
                                  "1e2",  "",      " 1",   "1 ",       "4294967295", "4294967296",
                                  "true", "false", "True", "192.0.2.1"};
    for (const Leaf &leaf : leaves) {
        ASSERT_NE(leaf.node, nullptr) << leaf.what;
        for (const char *value : values)
            EXPECT_EQ(schema().value_kind(leaf.node, value), libyang_kind(leaf.node, value))
                << leaf.what << " = '" << value << "'";
    }
}

} // namespace
