#include "json_schema.h"

#include <algorithm>
#include <libyang/libyang.h>
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

ValueKind kind_of(LY_DATA_TYPE type)
{
    switch (type) {
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
        return kind_of(type->basetype) != ValueKind::string;
    }
}

} // namespace

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

ValueKind OpenConfigSchema::value_kind(Node node, std::string_view value) const
{
    if (node == nullptr || node == &root_mark)
        return ValueKind::string;
    const auto *schema = static_cast<const lysc_node *>(node);
    if ((schema->nodetype & LYD_NODE_TERM) == 0)
        return ValueKind::string;
    auto [it, fresh] = checked_.try_emplace(node, false);
    if (fresh)
        it->second = may_write_otherwise(reinterpret_cast<const lysc_node_leaf *>(schema)->type);
    if (!it->second)
        return ValueKind::string;
    // libyang resolves a union to the member type the value matches and a
    // leafref to its target's type.  A leafref or instance-identifier cannot
    // be checked without the data tree, which is all that LY_EINCOMPLETE says.
    const lysc_type *type = nullptr;
    LY_ERR rc =
        lyd_value_validate(ctx_, schema, value.data(), value.size(), nullptr, &type, nullptr);
    if ((rc != LY_SUCCESS && rc != LY_EINCOMPLETE) || type == nullptr)
        return ValueKind::string;
    return kind_of(type->basetype);
}

} // namespace octunnel
