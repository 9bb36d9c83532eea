// The root of the mapping module that owns /interfaces, as far as tunnel
// interfaces need it.  The registration stores its address as the
// OpenConfig-to-native root.
//
// It walks each `interface` entry the way that module does: the entry joins
// the node hierarchy (so that the tunnel module finds the interface's name),
// `tunnel` goes to the openconfig-if-tunnel augment entry, `ipv4`/`ipv6`
// under `subinterfaces/subinterface` and `routed-vlan` to the
// openconfig-if-ip entries.  What /interfaces answers by itself (`config`,
// `state`, `hold-time`) is outside the tunnel module and is passed over with
// a note.  An entry named by its key alone, in a read or a deletion, is
// walked by the schema: its children are parked on the instance stack and
// the entries are handed the entry itself.
#include "c_boundary.h"
#include "octunnel/yfw_framework.h"
#include "octunnel/yfw_namespaces.h"
#include "octunnel/yfw_walk.h"
#include "yfwhost/host.h"

#include <string>

namespace {

using yfwhost::Module;
using yfwhost::Request;

constexpr const char *TUNNEL_ENTRY = "ymap_ov_octunnel_openconfigiftunnel_augment_lvla_interface";

bool is(const vidl_yfw_datatree &n, std::string_view tag, const char *ns)
{
    return n.tag != nullptr && tag == n.tag && yfwhost::ns_match(ns, n.ns);
}

bool is_read(yfw_map_ctx ctx)
{
    uint32_t kind = ctx->map_state->request->kind;
    return kind == YFW_MAP_REQ_GET_CONFIG || kind == YFW_MAP_REQ_GET;
}

// "<tag>", for notes.  Built by appending: GCC 12 at -O3 takes "<" + string
// for an overlapping copy (-Wrestrict).
std::string element(const char *tag)
{
    std::string s(1, '<');
    s.append(tag != nullptr ? tag : "(null)");
    s.push_back('>');
    return s;
}

struct Walk {
    yfw_map_ctx ctx;
    Request &req;
    const Module *module;
    vidl_yfw_datatree *out;

    // An augment entry of the tunnel module by name; a module without it
    // does not translate that subtree yet.
    verrno enter(const char *entry, const vidl_yfw_datatree &node)
    {
        map_function fn = module != nullptr ? module->function(entry) : nullptr;
        if (fn == nullptr) {
            req.note(&node, element(node.tag) + " is not translated: the module has no " + entry);
            return YFW_OK;
        }
        return fn(ctx, &node, out);
    }

    verrno ip_families(const vidl_yfw_datatree &parent, const char *ipv4_entry,
                       const char *ipv6_entry)
    {
        verrno rc = YFW_OK;
        for (std::size_t i = 0; i < yfwhost::tree_child_count(&parent) && rc == YFW_OK; ++i) {
            const vidl_yfw_datatree &c = parent.subtrees[i];
            if (is(c, "index", NS_OC_INTERFACES))
                continue; // the subinterface's key
            if (is(c, "ipv4", NS_OC_IF_IP))
                rc = enter(ipv4_entry, c);
            else if (is(c, "ipv6", NS_OC_IF_IP))
                rc = enter(ipv6_entry, c);
            else
                outside(c);
        }
        return rc;
    }

    void outside(const vidl_yfw_datatree &n)
    {
        req.note(&n,
                 element(n.tag) + " belongs to /interfaces itself, not to tunnels; not translated");
    }

    verrno subinterfaces(const vidl_yfw_datatree &container)
    {
        yfw_map_add_to_node_hierarchy(ctx, &container, YFW_LEVEL_CONTAINER);
        verrno rc = YFW_OK;
        for (std::size_t i = 0; i < yfwhost::tree_child_count(&container) && rc == YFW_OK; ++i) {
            const vidl_yfw_datatree &sub = container.subtrees[i];
            if (!is(sub, "subinterface", NS_OC_INTERFACES)) {
                outside(sub);
                continue;
            }
            yfw_map_add_to_node_hierarchy(ctx, &sub, YFW_LEVEL_LIST);
            rc = ip_families(sub, "ymap_ov_octunnel_openconfigifip_augment_lvla_subinterface",
                             "ymap_ov_octunnel_openconfigifip_augment_lvlb_subinterface");
            yfw_map_remove_from_node_hierarchy(ctx, &sub);
        }
        yfw_map_remove_from_node_hierarchy(ctx, &container);
        return rc;
    }

    // An entry with no child but its key, read or deleted as a whole: the
    // tunnel entry walks it by its schema, the way the module's own list
    // walkers do (see octunnel/yfw_walk.h).
    void by_schema(vidl_yfw_datatree &entry)
    {
        yfw::schema_walk_guard guard(ctx->map_state);
        yfw::removal_view removal(&entry);
        yfw::parked_children parked(ctx, &entry);
        if (module != nullptr && module->function(TUNNEL_ENTRY) != nullptr)
            module->function(TUNNEL_ENTRY)(ctx, &entry, out);
    }

    verrno interface(vidl_yfw_datatree &entry)
    {
        yfw_map_add_to_node_hierarchy(ctx, &entry, YFW_LEVEL_LIST);
        verrno rc = yfw_map_update_current_list_node(ctx, "/interfaces/interface");
        if (yfwhost::tree_child(&entry, "name") == nullptr)
            req.note(&entry, "<interface> without a name: its native entries have no name either");
        bool key_only = true;
        for (std::size_t i = 0; i < yfwhost::tree_child_count(&entry); ++i)
            key_only = key_only && is(entry.subtrees[i], "name", NS_OC_INTERFACES);
        const bool deleted = yfw_map_is_request_delete(&entry) != 0;
        if (rc == YFW_OK && key_only && (is_read(ctx) || deleted)) {
            by_schema(entry);
        } else {
            for (std::size_t i = 0; i < yfwhost::tree_child_count(&entry) && rc == YFW_OK; ++i) {
                const vidl_yfw_datatree &c = entry.subtrees[i];
                if (is(c, "name", NS_OC_INTERFACES))
                    continue;
                if (is(c, "tunnel", NS_OC_IF_TUNNEL))
                    rc = enter(TUNNEL_ENTRY, c);
                else if (is(c, "subinterfaces", NS_OC_INTERFACES))
                    rc = subinterfaces(c);
                else if (is(c, "routed-vlan", NS_OC_VLAN))
                    rc = ip_families(c, "ymap_ov_octunnel_openconfigifip_augment_lvla_routed_vlan",
                                     "ymap_ov_octunnel_openconfigifip_augment_lvlb_routed_vlan");
                else
                    outside(c);
            }
        }
        yfw_map_remove_from_node_hierarchy(ctx, &entry);
        return rc;
    }
};

} // namespace

extern "C" verrno ymap_ov_ocif_openconfiginterfaces_lvla_interfaces(
    yfw_map_ctx ctx, const struct vidl_yfw_datatree *in, struct vidl_yfw_datatree *out)
{
    if (ctx == nullptr || in == nullptr || out == nullptr)
        return YFW_ERR_INVALID_ARG;
    return yfwhost::c_boundary(yfwhost::YFW_ERR_HOST_FAILURE, [&] {
        Walk w{ctx, *static_cast<Request *>(ctx->fw_private), Module::current(), out};
        auto *root = const_cast<vidl_yfw_datatree *>(in);
        yfw_map_add_to_node_hierarchy(ctx, root, YFW_LEVEL_CONTAINER);
        verrno rc = YFW_OK;
        for (std::size_t i = 0; i < yfwhost::tree_child_count(root) && rc == YFW_OK; ++i) {
            vidl_yfw_datatree &c = root->subtrees[i];
            if (is(c, "interface", NS_OC_INTERFACES))
                rc = w.interface(c);
            else
                w.outside(c);
        }
        yfw_map_remove_from_node_hierarchy(ctx, root);
        return rc;
    });
}
