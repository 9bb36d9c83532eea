// The root of the mapping module that owns /interfaces, as far as tunnel
// interfaces need it: a stand-in for the framework's other module, whose
// behaviour is its own.  The registration stores its address as the
// OpenConfig-to-native root.
//
// It walks each `interface` entry the way that module does: the entry joins
// the node hierarchy (so that the tunnel module finds the interface's name),
// and each child that a model of the tunnel module augments goes to that
// model's augment entry, as the models' tables list them: `tunnel` under
// the interface, `ipv4`/`ipv6` under `subinterfaces/subinterface` and
// `routed-vlan`.  What /interfaces answers by itself (`config`, `state`,
// `hold-time`) is outside the tunnel module and is passed over with a note.
// An entry named by its key alone, in a read or a deletion, is walked by the
// schema, by the walk protocol of octunnel/yfw_walk.h: its children are
// parked on the instance stack and the entries are handed the entry itself.
#include "c_boundary.h"
#include "octunnel/model_tables.h"
#include "octunnel/yfw_framework.h"
#include "octunnel/yfw_namespaces.h"
#include "octunnel/yfw_walk.h"
#include "yfwhost/host.h"

#include <string>

namespace {

namespace models = octunnel::models;
using yfwhost::Module;
using yfwhost::Request;

constexpr const models::list &INTERFACE = models::openconfiginterfaces::lvla_interfaces_interface;
constexpr const models::list &SUBINTERFACE =
    models::openconfiginterfaces::lvla_interfaces_subinterfaces_subinterface;
constexpr const models::entry &TUNNEL = models::openconfigiftunnel::augment_lvla_interface;
// The containers of the /interfaces module's own tree that hold the lists
// and nodes that the tunnel module's models augment.
constexpr const char *SUBINTERFACES = "subinterfaces";
constexpr const char *ROUTED_VLAN = "routed-vlan";
constexpr const char *ROUTED_VLAN_PATH = models::openconfigifip::augment_lvla_routed_vlan.target;

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

    // An augment entry of the tunnel module; a module without it does not
    // translate that subtree yet.
    verrno enter(const models::entry &entry, const vidl_yfw_datatree &node)
    {
        map_function fn = module != nullptr ? module->function(entry.name) : nullptr;
        if (fn == nullptr) {
            req.note(&node,
                     element(node.tag) + " is not translated: the module has no " + entry.name);
            return YFW_OK;
        }
        return fn(ctx, &node, out);
    }

    // The entry that takes `child` of the node at `target`, or null.
    static const models::entry *augmenting(const char *target, const vidl_yfw_datatree &child)
    {
        for (const models::entry &e : models::entries)
            if (std::string_view(target) == e.target && is(child, e.accepts, e.ns))
                return &e;
        return nullptr;
    }

    // The children of a subinterface or of routed-vlan (the node at
    // `target`): ipv4 and ipv6 go to their entries.
    verrno ip_families(const vidl_yfw_datatree &parent, const char *target)
    {
        verrno rc = YFW_OK;
        for (std::size_t i = 0; i < yfwhost::tree_child_count(&parent) && rc == YFW_OK; ++i) {
            const vidl_yfw_datatree &c = parent.subtrees[i];
            if (is(c, SUBINTERFACE.keys[0], SUBINTERFACE.ns))
                continue; // the subinterface's key
            if (const models::entry *e = augmenting(target, c))
                rc = enter(*e, c);
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
            if (!is(sub, SUBINTERFACE.tag, SUBINTERFACE.ns)) {
                outside(sub);
                continue;
            }
            yfw_map_add_to_node_hierarchy(ctx, &sub, YFW_LEVEL_LIST);
            rc = ip_families(sub, SUBINTERFACE.path);
            yfw_map_remove_from_node_hierarchy(ctx, &sub);
        }
        yfw_map_remove_from_node_hierarchy(ctx, &container);
        return rc;
    }

    // An entry with no child but its key, read or deleted as a whole: the
    // tunnel entry walks it by its schema.
    void by_schema(vidl_yfw_datatree &entry)
    {
        yfw::schema_walk_guard guard(ctx->map_state);
        yfw::removal_view removal(&entry);
        yfw::parked_children parked(ctx, &entry);
        if (module != nullptr && module->function(TUNNEL.name) != nullptr)
            module->function(TUNNEL.name)(ctx, &entry, out);
    }

    verrno interface(vidl_yfw_datatree &entry)
    {
        const char *key = INTERFACE.keys[0];
        yfw_map_add_to_node_hierarchy(ctx, &entry, YFW_LEVEL_LIST);
        verrno rc = yfw_map_update_current_list_node(ctx, INTERFACE.path);
        if (yfwhost::tree_child(&entry, key) == nullptr)
            req.note(&entry, "<interface> without a name: its native entries have no name either");
        bool key_only = true;
        for (std::size_t i = 0; i < yfwhost::tree_child_count(&entry); ++i)
            key_only = key_only && is(entry.subtrees[i], key, INTERFACE.ns);
        const bool deleted = yfw_map_is_request_delete(&entry) != 0;
        if (rc == YFW_OK && key_only && (is_read(ctx) || deleted)) {
            by_schema(entry);
        } else {
            for (std::size_t i = 0; i < yfwhost::tree_child_count(&entry) && rc == YFW_OK; ++i) {
                const vidl_yfw_datatree &c = entry.subtrees[i];
                if (is(c, key, INTERFACE.ns))
                    continue;
                if (const models::entry *e = augmenting(INTERFACE.path, c))
                    rc = enter(*e, c);
                else if (is(c, SUBINTERFACES, INTERFACE.ns))
                    rc = subinterfaces(c);
                else if (is(c, ROUTED_VLAN, NS_OC_VLAN))
                    rc = ip_families(c, ROUTED_VLAN_PATH);
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
            if (is(c, INTERFACE.tag, INTERFACE.ns))
                rc = w.interface(c);
            else
                w.outside(c);
        }
        yfw_map_remove_from_node_hierarchy(ctx, root);
        return rc;
    });
}
