#include "json_schema.h"

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

const lysc_node *find(const ly_ctx *ctx, const std::string &path)
{
    return lys_find_path(ctx, nullptr, path.c_str(), 0);
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

NodeKind OpenConfigSchema::kind(const std::string &path) const
{
    const lysc_node *node = find(ctx_, path);
    if (node == nullptr)
        return NodeKind::unknown;
    switch (node->nodetype) {
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

ValueKind OpenConfigSchema::value_kind(const std::string &path, std::string_view value) const
{
    const lysc_node *node = find(ctx_, path);
    if (node == nullptr || (node->nodetype & LYD_NODE_TERM) == 0)
        return ValueKind::string;
    // libyang resolves a union to the member type the value matches and a
    // leafref to its target's type.  A leafref or instance-identifier cannot
    // be checked without the data tree, which is all that LY_EINCOMPLETE says.
    const lysc_type *type = nullptr;
    LY_ERR rc = lyd_value_validate(ctx_, node, value.data(), value.size(), nullptr, &type, nullptr);
    if ((rc != LY_SUCCESS && rc != LY_EINCOMPLETE) || type == nullptr)
        return ValueKind::string;
    switch (type->basetype) {
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

} // namespace octunnel
