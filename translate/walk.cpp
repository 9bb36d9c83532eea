#include "translate/walk.h"

#include "translate/document.h"
#include "translate/input_error.h"

#include "octunnel/model_tables.h"
#include "octunnel/yfw_namespaces.h"
#include "yfwhost/host.h"

#include <string>
#include <string_view>

namespace octunnel {
namespace {

// A native document's roots are the models' exported roots (the one the
// registration names goes to the registration's walker, as the framework
// does); a child of a root from a model that augments the root goes to
// that model's augment entry.
const models::root *find_route(const vidl_yfw_datatree &root)
{
    for (const models::root &r : models::native_roots)
        if (std::string_view(root.tag) == r.tag && yfwhost::ns_match(r.ns, root.ns))
            return &r;
    return nullptr;
}

const models::root &route(const vidl_yfw_datatree &root)
{
    if (const models::root *r = find_route(root); r != nullptr)
        return *r;
    std::string known;
    for (const models::root &r : models::native_roots)
        known += std::string(known.empty() ? "" : ", ") + r.tag;
    throw InputError(static_cast<int>(root.fw_line),
                     element_name(root.tag) + " in namespace '" + root.ns +
                         "' is not a native root this module translates (roots: " + known + ")");
}

} // namespace

void check_native_root(const vidl_yfw_datatree &root)
{
    route(root);
}

bool native_root_known(const vidl_yfw_datatree &root)
{
    return find_route(root) != nullptr;
}

void check_oc_root(const vidl_yfw_datatree &root)
{
    if (std::string_view(root.tag) != "interfaces" || !yfwhost::ns_match(NS_OC_INTERFACES, root.ns))
        throw InputError(static_cast<int>(root.fw_line),
                         element_name(root.tag) + " in namespace '" + root.ns +
                             "' is not the OpenConfig <interfaces> root (" NS_OC_INTERFACES ")");
}

verrno walk_to_oc(const yfwhost::Module &mod, yfwhost::Request &req,
                  std::span<vidl_yfw_datatree *const> roots)
{
    verrno rc = YFW_OK;
    for (std::size_t i = 0; i < roots.size() && rc == YFW_OK; ++i) {
        vidl_yfw_datatree *root = roots[i];
        const models::root &r = route(*root);
        map_function walker =
            r.registered ? mod.registration().native_to_oc_root : mod.function(r.name);
        if (walker == nullptr)
            throw ModuleError(std::string("the module does not export ") + r.name);
        rc = walker(req.ctx(), root, req.out());
        const std::string at = std::string("/") + r.tag;
        for (const models::entry &e : models::entries) {
            if (at != e.target)
                continue;
            map_function entry = mod.function(e.name);
            if (entry == nullptr)
                throw ModuleError(std::string("the module does not export ") + e.name);
            for (std::size_t c = 0; c < yfwhost::tree_child_count(root) && rc == YFW_OK; ++c)
                if (yfwhost::ns_match(e.ns, root->subtrees[c].ns))
                    rc = entry(req.ctx(), &root->subtrees[c], req.out());
        }
    }
    return rc;
}

verrno walk_to_native(const yfwhost::Module &mod, yfwhost::Request &req,
                      std::span<vidl_yfw_datatree *const> roots)
{
    for (const vidl_yfw_datatree *root : roots)
        check_oc_root(*root);
    map_function root_walker = mod.registration().oc_to_native_root;
    verrno rc = YFW_OK;
    for (std::size_t i = 0; i < roots.size() && rc == YFW_OK; ++i)
        rc = root_walker(req.ctx(), roots[i], req.out());
    return rc;
}

} // namespace octunnel
