#include "translate/json_schema.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <libyang/libyang.h>
#include <optional>
#include <stdexcept>
#include <sys/stat.h>

namespace octunnel {
namespace {

// The modules whose trees an answer on /interfaces can hold.  Types modules
// come first: the others' defaults name their identities, which only an
// implemented module may hold.
constexpr const char *oc_modules[] = {
    "openconfig-vlan-types", "openconfig-if-types", "openconfig-interfaces",
    "openconfig-vlan",       "openconfig-if-ip",    "openconfig-if-tunnel",
};

// Where a node stands above every top-level node: a mark, never read.
const char root_mark = 0;

// Whether some value of `type` writes other than as a string: then each
// value is checked, as a value that does not fit its type is a string.
bool may_write_otherwise(const lysc_type *type)
{
    if (type == nullptr)
        return false;
    switch (type->basetype) {
    case LY_TYPE_UNION: {
        const auto *u = reinterpret_cast<const lysc_type_union *>(type);
        LY_ARRAY_COUNT_TYPE i;
        LY_ARRAY_FOR(u->types, i)
        {
            if (may_write_otherwise(u->types[i]))
                return true;
        }
        return false;
    }
    case LY_TYPE_LEAFREF:
        return may_write_otherwise(reinterpret_cast<const lysc_type_leafref *>(type)->realtype);
    default:
        return kind_of_basetype(type->basetype) != ValueKind::string;
    }
}

// The kind of a canonical value of a plain type, told without libyang where
// it is certain: a canonical decimal within the type's range is a number,
// "true" or "false" a boolean.  Nothing where libyang must judge (unions,
// other forms of a number).
std::optional<ValueKind> plain_kind(const lysc_type *type, std::string_view text)
{
    if (type->basetype == LY_TYPE_LEAFREF)
        type = reinterpret_cast<const lysc_type_leafref *>(type)->realtype;
    if (type == nullptr)
        return std::nullopt;
    switch (type->basetype) {
    case LY_TYPE_BOOL:
        return text == "true" || text == "false" ? ValueKind::boolean : ValueKind::string;
    case LY_TYPE_EMPTY:
        return text.empty() ? ValueKind::empty : ValueKind::string;
    case LY_TYPE_INT8:
    case LY_TYPE_INT16:
    case LY_TYPE_INT32:
    case LY_TYPE_UINT8:
    case LY_TYPE_UINT16:
    case LY_TYPE_UINT32:
        break;
    default:
        return std::nullopt;
    }
    const bool is_signed = type->basetype <= LY_TYPE_INT32 && type->basetype >= LY_TYPE_INT8;
    if (!is_signed && text.starts_with('-'))
        return std::nullopt;
    std::string_view digits = is_signed && text.starts_with('-') ? text.substr(1) : text;
    if (digits.empty() || (digits.size() > 1 && digits[0] == '0') ||
        (digits == "0" && digits != text))
        return std::nullopt; // not canonical
    int64_t v = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    int64_t lo = 0, hi = 0;
    switch (type->basetype) {
    case LY_TYPE_INT8:
        lo = INT8_MIN, hi = INT8_MAX;
        break;
    case LY_TYPE_INT16:
        lo = INT16_MIN, hi = INT16_MAX;
        break;
    case LY_TYPE_INT32:
        lo = INT32_MIN, hi = INT32_MAX;
        break;
    case LY_TYPE_UINT8:
        hi = UINT8_MAX;
        break;
    case LY_TYPE_UINT16:
        hi = UINT16_MAX;
        break;
    default:
        hi = UINT32_MAX;
        break;
    }
    if (v < lo || v > hi)
        return ValueKind::string;
    const lysc_range *range = reinterpret_cast<const lysc_type_num *>(type)->range;
    if (range == nullptr)
        return ValueKind::number;
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(range->parts, i)
    {
        const auto &part = range->parts[i];
        const bool inside = is_signed ? part.min_64 <= v && v <= part.max_64
                                      : static_cast<uint64_t>(v) >= part.min_u64 &&
                                            static_cast<uint64_t>(v) <= part.max_u64;
        if (inside)
            return ValueKind::number;
    }
    return ValueKind::string;
}

} // namespace

ValueKind kind_of_basetype(int basetype)
{
    switch (basetype) {
    case LY_TYPE_INT8:
    case LY_TYPE_INT16:
    case LY_TYPE_INT32:
    case LY_TYPE_UINT8:
    case LY_TYPE_UINT16:
    case LY_TYPE_UINT32:
        return ValueKind::number;
    case LY_TYPE_BOOL:
        return ValueKind::boolean;
    case LY_TYPE_EMPTY:
        return ValueKind::empty;
    default:
        return ValueKind::string;
    }
}

OpenConfigSchema::OpenConfigSchema(const std::string &dir)
{
    struct stat st {};
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        throw std::runtime_error("the OpenConfig YANG directory " + dir +
                                 " does not exist (set it with --yang-dir or OCTUNNEL_YANG_DIR)");
    // Messages are kept for the error below instead of going to stderr.
    ly_log_options(LY_LOSTORE_LAST);
    if (ly_ctx_new(dir.c_str(), LY_CTX_DISABLE_SEARCHDIR_CWD, &ctx_) != LY_SUCCESS)
        throw std::runtime_error("cannot use " + dir + " as a YANG directory");
    for (const char *name : oc_modules) {
        if (ly_ctx_load_module(ctx_, name, nullptr, nullptr) == nullptr) {
            std::string why = ly_errmsg(ctx_) != nullptr ? ly_errmsg(ctx_) : "not found";
            ly_ctx_destroy(ctx_);
            throw std::runtime_error("cannot load the YANG module " + std::string(name) + " from " +
                                     dir + ": " + why);
        }
    }
}

OpenConfigSchema::~OpenConfigSchema()
{
    ly_ctx_destroy(ctx_);
}

JsonSchema::Node OpenConfigSchema::root() const
{
    return &root_mark;
}

JsonSchema::Node OpenConfigSchema::child(Node parent, std::string_view module,
                                         std::string_view name) const
{
    if (parent == nullptr)
        return nullptr;
    auto known = std::find_if(modules_.begin(), modules_.end(),
                              [&](const auto &m) { return m.first == module; });
    if (known == modules_.end())
        known = modules_.emplace(modules_.end(), std::string(module),
                                 ly_ctx_get_module_implemented(ctx_, std::string(module).c_str()));
    const lys_module *mod = known->second;
    if (mod == nullptr)
        return nullptr;
    const auto *from = parent == &root_mark ? nullptr : static_cast<const lysc_node *>(parent);
    return lys_find_child(from, mod, name.data(), name.size(), 0, 0);
}

NodeKind OpenConfigSchema::kind(Node node) const
{
    if (node == nullptr || node == &root_mark)
        return NodeKind::unknown;
    switch (static_cast<const lysc_node *>(node)->nodetype) {
    case LYS_CONTAINER:
        return NodeKind::container;
    case LYS_LIST:
        return NodeKind::list;
    case LYS_LEAF:
        return NodeKind::leaf;
    case LYS_LEAFLIST:
        return NodeKind::leaf_list;
    default:
        return NodeKind::unknown;
    }
}

bool OpenConfigSchema::typed(Node node) const
{
    if (node == nullptr || node == &root_mark)
        return false;
    const auto *schema = static_cast<const lysc_node *>(node);
    return (schema->nodetype & LYD_NODE_TERM) != 0 &&
           may_write_otherwise(reinterpret_cast<const lysc_node_leaf *>(schema)->type);
}

ValueKind OpenConfigSchema::value_kind(Node node, std::string_view value) const
{
    if (!typed(node))
        return ValueKind::string;
    const auto *schema = static_cast<const lysc_node *>(node);
    if (std::optional<ValueKind> kind =
            plain_kind(reinterpret_cast<const lysc_node_leaf *>(schema)->type, value))
        return *kind;
    // libyang resolves a union to the member type the value matches and a
    // leafref to its target's type.  A leafref or instance-identifier cannot
    // be checked without the data tree, which is all that LY_EINCOMPLETE says.
    const lysc_type *type = nullptr;
    LY_ERR rc =
        lyd_value_validate(ctx_, schema, value.data(), value.size(), nullptr, &type, nullptr);
    if ((rc != LY_SUCCESS && rc != LY_EINCOMPLETE) || type == nullptr)
        return ValueKind::string;
    return kind_of_basetype(type->basetype);
}

} // namespace octunnel
