#include "translate/yang_names.h"

#include "octunnel/yfw_namespaces.h"

#include <algorithm>
#include <cstdint>

namespace octunnel {
namespace {

struct Module {
    std::string_view name;
    std::string_view ns;
};
constexpr Module fixed_modules[] = {
    {"openconfig-interfaces", NS_OC_INTERFACES}, {"openconfig-if-ip", NS_OC_IF_IP},
    {"openconfig-if-tunnel", NS_OC_IF_TUNNEL},   {"openconfig-vlan", NS_OC_VLAN},
    {"ietf-netconf", NS_NETCONF_BASE},
};

// Every native model lives under one namespace base, named after the model.
constexpr std::string_view native_base = "http://valmora.com/ns/yang/";
constexpr std::string_view native_prefix = "Valmora-";

bool is_native_module(std::string_view name)
{
    if (!name.starts_with(native_prefix) || name.size() == native_prefix.size())
        return false;
    return std::all_of(name.begin(), name.end(),
                       [](char c) {
                           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                                  (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.';
                       }) &&
           !name.ends_with(".yang");
}

} // namespace

std::optional<uint32_t> operation_of(std::string_view name)
{
    auto it = std::find(operation_names.begin(), operation_names.end(), name);
    if (it == operation_names.end())
        return std::nullopt;
    return static_cast<uint32_t>(it - operation_names.begin());
}

std::string unknown_operation(std::string_view name)
{
    return "unknown operation '" + std::string(name) + "' (merge, replace, create, delete, remove)";
}

std::optional<std::string> namespace_of_module(std::string_view module)
{
    for (const Module &m : fixed_modules)
        if (m.name == module)
            return std::string(m.ns);
    if (is_native_module(module))
        return std::string(native_base) + std::string(module);
    return std::nullopt;
}

std::optional<std::string> module_of_namespace(std::string_view ns)
{
    for (const Module &m : fixed_modules)
        if (m.ns == ns)
            return std::string(m.name);
    if (!ns.starts_with(native_base))
        return std::nullopt;
    std::string_view module = ns.substr(native_base.size());
    if (module.ends_with(".yang"))
        module.remove_suffix(5);
    if (!is_native_module(module))
        return std::nullopt;
    return std::string(module);
}

std::string known_modules()
{
    std::string all;
    for (const Module &m : fixed_modules)
        all.append(m.name).append(", ");
    return all + "Valmora-<model>";
}

} // namespace octunnel
