// What the JSON writer needs to know of the models behind a tree.  RFC 7951
// writes a list as an array even with one entry, a container as an object
// even when it is empty, and a leaf's value by the JSON type that its YANG
// type calls for; none of that can be told from the tree alone.
#pragma once

#include <string>
#include <string_view>

struct ly_ctx;

namespace octunnel {

enum class NodeKind { unknown, container, list, leaf, leaf_list };
enum class ValueKind { string, number, boolean, empty };

class JsonSchema {
public:
    virtual ~JsonSchema() = default;
    // `path` is a data path in JSON form: each step qualified by its module
    // where the module changes, "/openconfig-interfaces:interfaces/interface".
    virtual NodeKind kind(const std::string &path) const = 0;
    // How `value` of the leaf or leaf-list at `path` is written.
    virtual ValueKind value_kind(const std::string &path, std::string_view value) const = 0;
};

// The native models as the module's model descriptions give them (their
// containers, lists and mapped leaves, compiled into the tool).  Their YANG
// modules are not at hand, so every value is written as a string.
class NativeSchema final : public JsonSchema {
public:
    NodeKind kind(const std::string &path) const override;
    ValueKind value_kind(const std::string &, std::string_view) const override
    {
        return ValueKind::string;
    }
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

    NodeKind kind(const std::string &path) const override;
    // A number for the 8- to 32-bit integer types, true/false for boolean,
    // [null] for empty, by the member type a union value matches and the
    // target type of a leafref; a string for everything else, and for a
    // value that does not fit its type.
    ValueKind value_kind(const std::string &path, std::string_view value) const override;

private:
    ::ly_ctx *ctx_ = nullptr;
};

} // namespace octunnel
