// What the JSON writer needs to know of the models behind a tree.  RFC 7951
// writes a list as an array even with one entry, a container as an object
// even when it is empty, and a leaf's value by the JSON type that its YANG
// type calls for; none of that can be told from the tree alone.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

struct ly_ctx;
struct lys_module;

namespace octunnel {

enum class NodeKind { unknown, container, list, leaf, leaf_list };
enum class ValueKind { string, number, boolean, empty };

// How a value of a libyang base type (LY_DATA_TYPE) is written: a number
// for the integers of up to 32 bits (RFC 7951 writes wider ones as
// strings), a boolean, an empty leaf, else a string.
ValueKind kind_of_basetype(int basetype);

class JsonSchema {
public:
    // A node of the models, as the schema knows it; null for one it does
    // not know (nor anything below it).
    using Node = const void *;

    virtual ~JsonSchema() = default;
    // What stands above every top-level node.
    virtual Node root() const = 0;
    // The child `name` of `parent`, from the module `module`.
    virtual Node child(Node parent, std::string_view module, std::string_view name) const = 0;
    virtual NodeKind kind(Node node) const = 0;
    // Whether the values of the leaf or leaf-list `node` may be written
    // other than as strings: if not, value_kind() need not be asked.
    virtual bool typed(Node node) const = 0;
    // How `value` of the leaf or leaf-list `node` is written.
    virtual ValueKind value_kind(Node node, std::string_view value) const = 0;
};

// The models as the module's model descriptions give them, compiled into
// the tool: their containers, lists, keys and described leaves, by path
// without module names.  It types native answers, whose YANG modules are
// not at hand, so every value is written as a string; the XML reader finds
// in it the leaves an element may hold once, and the agent the keys of list
// entries.
class ModelSchema final : public JsonSchema {
public:
    ModelSchema();
    ~ModelSchema() override;
    Node root() const override;
    Node child(Node parent, std::string_view module, std::string_view name) const override;
    NodeKind kind(Node node) const override;
    bool typed(Node) const override { return false; }
    ValueKind value_kind(Node, std::string_view) const override { return ValueKind::string; }
    // The keys of a list, in order; none for another node.
    std::span<const std::string_view> keys(Node node) const;
    // The namespace of the model that owns `node`.
    std::string_view ns(Node node) const;
    // Whether `node` is a `state` container of OpenConfig: read-only, with
    // all it holds.
    bool state(Node node) const;

private:
    struct Step;
    std::vector<Step> steps_;
};

// The OpenConfig models of /interfaces (openconfig-interfaces, -if-ip,
// -if-tunnel, -vlan and what they import), read with libyang from a
// directory of YANG files.
class OpenConfigSchema final : public JsonSchema {
public:
    // Throws std::runtime_error naming the directory and libyang's reason.
    explicit OpenConfigSchema(const std::string &dir);
    ~OpenConfigSchema() override;
    OpenConfigSchema(const OpenConfigSchema &) = delete;
    OpenConfigSchema &operator=(const OpenConfigSchema &) = delete;

    Node root() const override;
    Node child(Node parent, std::string_view module, std::string_view name) const override;
    NodeKind kind(Node node) const override;
    bool typed(Node node) const override;
    // A number for the 8- to 32-bit integer types, true/false for boolean,
    // [null] for empty, by the member type a union value matches and the
    // target type of a leafref; a string for everything else, and for a
    // value that does not fit its type.
    ValueKind value_kind(Node node, std::string_view value) const override;

private:
    ::ly_ctx *ctx_ = nullptr;
    mutable std::vector<std::pair<std::string, const ::lys_module *>> modules_;
};

} // namespace octunnel
