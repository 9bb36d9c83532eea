// Names that the two document syntaxes share: the NETCONF operations a node
// can carry, and the YANG module behind each namespace the tool meets (JSON
// qualifies members by module name where XML uses the namespace).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace octunnel {

// NETCONF operations, indexed by the node's op (YFW_OP_MERGE .. YFW_OP_REMOVE).
inline constexpr std::array<std::string_view, 5> operation_names = {"merge", "replace", "create",
                                                                    "delete", "remove"};
// The index of `name` in operation_names, or nothing.
std::optional<uint32_t> operation_of(std::string_view name);
// "unknown operation 'x' (merge, replace, create, delete, remove)"
std::string unknown_operation(std::string_view name);

// The namespace of a module: the four OpenConfig modules of /interfaces,
// every native Valmora-<model>, and ietf-netconf; nothing for another name.
std::optional<std::string> namespace_of_module(std::string_view module);
// The module of a namespace, the inverse of namespace_of_module; a trailing
// ".yang" on a native namespace is taken off, as the framework ignores it.
std::optional<std::string> module_of_namespace(std::string_view ns);
// The modules namespace_of_module knows, for messages.
std::string known_modules();

} // namespace octunnel
