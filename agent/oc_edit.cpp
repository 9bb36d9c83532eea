#include "agent/oc_edit.h"

#include "octunnel/yfw_types.h"
#include "translate/input_error.h"
#include "yfwhost/host.h"

#include <libyang/libyang.h>

#include <algorithm>
#include <cstring>

// Walks over configurations recurse as deep as the models nest (a dozen
// levels): the trees here are data of the models, never deeper than they
// are, so no document can drive the recursion further.

namespace octunnel::serve {
namespace {

std::string_view view(const char *s)
{
    return s != nullptr ? std::string_view(s) : std::string_view();
}

bool is_term(const lysc_node *s)
{
    return s != nullptr && (s->nodetype & LYD_NODE_TERM) != 0;
}

bool is_key(const lyd_node *n)
{
    return n->schema != nullptr && lysc_is_key(n->schema);
}

// /interfaces/interface of openconfig-interfaces.
bool is_interface(const lysc_node *s)
{
    return s != nullptr && s->nodetype == LYS_LIST && view(s->name) == "interface" &&
           view(s->module->name) == "openconfig-interfaces" && s->parent != nullptr &&
           s->parent->parent == nullptr;
}

bool only_keys(const lyd_node *entry)
{
    for (const lyd_node *c = lyd_child(entry); c != nullptr; c = c->next)
        if (!is_key(c))
            return false;
    return true;
}

// The schema path of a tunnel, below which its addresses are.
#define tunnel_addresses "/openconfig-interfaces:interfaces/interface/openconfig-if-tunnel:tunnel"

// A top-level node out of the siblings headed by `*first`, freed.
void free_node(lyd_node *n, lyd_node *&first)
{
    if (n == first)
        first = n->next;
    lyd_free_tree(n);
}

// The counterpart of `target` among `first` and its siblings: the same
// node, a list entry with the same keys, a leaf-list entry with the same
// value, a leaf whatever its value.
lyd_node *counterpart(const lyd_node *first, const lyd_node *target)
{
    lyd_node *match = nullptr;
    if (first == nullptr)
        return nullptr;
    // libyang's search by a target compares a leaf's value too.
    const LY_ERR rc = target->schema != nullptr && target->schema->nodetype == LYS_LEAF
                          ? lyd_find_sibling_val(first, target->schema, nullptr, 0, &match)
                          : lyd_find_sibling_first(first, target, &match);
    return rc == LY_SUCCESS ? match : nullptr;
}

// A container without a meaning of its own: it is there as soon as its
// parent is, to hold what it holds.
bool is_np_container(const lysc_node *s)
{
    return s != nullptr && s->nodetype == LYS_CONTAINER && (s->flags & LYS_PRESENCE) == 0;
}

std::string value_of(const lyd_node *n)
{
    return std::string(view(lyd_get_value(n)));
}

// ---------------------------------------------------------------- applying

class Applier {
public:
    Applier(const OpenConfigModels &models, DataTree &config)
        : models_(models), config_(config), top_(config.release())
    {
    }
    ~Applier() { config_.reset(top_); }
    Applier(const Applier &) = delete;
    Applier &operator=(const Applier &) = delete;

    std::optional<ModelError> run(const lyd_node *edit, EditOp default_operation)
    {
        // A default operation of replace stands for the whole configuration:
        // what the edit does not hold goes.
        if (default_operation == EditOp::replace)
            for (lyd_node *d = top_; d != nullptr;) {
                lyd_node *next = d->next;
                if (counterpart(edit, d) == nullptr)
                    free_node(d, top_);
                d = next;
            }
        std::vector<const lyd_node *> tops;
        for (const lyd_node *e = edit; e != nullptr; e = e->next)
            tops.push_back(e);
        for (auto it = tops.rbegin(); it != tops.rend(); ++it)
            work_.push_back({*it, nullptr, default_operation});
        // Depth first: the items waiting are siblings of the node at hand
        // or of its ancestors, so no change below it frees their parent.
        while (!work_.empty()) {
            const Item item = work_.back();
            work_.pop_back();
            if (auto e = one(item))
                return e;
        }
        return std::nullopt;
    }

private:
    struct Item {
        const lyd_node *edit;
        lyd_node *parent; // the data node the edit node applies below; null: the top
        EditOp inherited;
    };

    std::optional<ModelError> one(const Item &item)
    {
        const lyd_node *e = item.edit;
        const lysc_node *schema = models_.schema_of(e);
        const EditOp own = models_.own_operation(e);
        const EditOp op = own != EditOp::none ? own : item.inherited;
        if (item.parent != nullptr && schema != nullptr && lysc_is_key(schema)) {
            // A key names its entry, and goes or stays with it.
            if (own == EditOp::del || own == EditOp::remove)
                return fail("bad-attribute", e,
                            "a list key is deleted or removed with its entry, not alone");
            return std::nullopt;
        }
        lyd_node *d = find(e, schema, item.parent);
        switch (op) {
        case EditOp::del:
            if (d == nullptr)
                return fail("data-missing", e,
                            "the edit deletes " + element_name(view(schema->name)) +
                                ", which the configuration does not hold");
            drop(d, item.parent);
            return std::nullopt;
        case EditOp::remove:
            if (d != nullptr)
                drop(d, item.parent);
            return std::nullopt;
        case EditOp::create:
            if (d != nullptr)
                return fail("data-exists", e,
                            "the edit creates " + element_name(view(schema->name)) +
                                ", which the configuration holds already");
            descend(e, make(e, item.parent), op);
            return std::nullopt;
        case EditOp::replace:
            if (d != nullptr)
                drop(d, item.parent);
            descend(e, make(e, item.parent), op);
            return std::nullopt;
        case EditOp::merge:
            if (d == nullptr)
                descend(e, make(e, item.parent), op);
            else if (is_term(schema))
                lyd_change_term(d, lyd_get_value(e));
            else
                descend(e, d, op);
            return std::nullopt;
        case EditOp::none:
            if (d == nullptr && is_np_container(schema))
                d = make(e, item.parent); // settled away again if it stays empty
            if (d != nullptr) {
                if (!is_term(schema))
                    descend(e, d, op);
                return std::nullopt;
            }
            if (removes_only(e) > 0)
                return std::nullopt;
            return fail("data-missing", e,
                        "the configuration holds no " + element_name(view(schema->name)) +
                            " to edit below, and the default operation is none");
        }
        return std::nullopt;
    }

    lyd_node *find(const lyd_node *e, const lysc_node *schema, lyd_node *parent) const
    {
        lyd_node *first = parent != nullptr ? lyd_child(parent) : top_;
        if (first == nullptr)
            return nullptr;
        if (e->schema != nullptr)
            return counterpart(first, e);
        // A leaf deleted without a value, which libyang keeps opaque.
        lyd_node *match = nullptr;
        if (schema == nullptr ||
            lyd_find_sibling_val(first, schema, nullptr, 0, &match) != LY_SUCCESS)
            return nullptr;
        return match;
    }

    // A copy of `e` without its children (but a list entry's keys) and its
    // operation, in place below `parent`.
    lyd_node *make(const lyd_node *e, lyd_node *parent)
    {
        lyd_node *made = nullptr;
        if (lyd_dup_single(e, reinterpret_cast<lyd_node_inner *>(parent), LYD_DUP_NO_META, &made) !=
            LY_SUCCESS)
            throw std::bad_alloc();
        if (parent == nullptr && lyd_insert_sibling(top_, made, &top_) != LY_SUCCESS)
            throw std::bad_alloc();
        return made;
    }

    void drop(lyd_node *d, lyd_node *parent)
    {
        if (parent == nullptr)
            free_node(d, top_);
        else
            lyd_free_tree(d);
    }

    void descend(const lyd_node *e, lyd_node *d, EditOp op)
    {
        std::size_t at = work_.size();
        for (const lyd_node *c = lyd_child(e); c != nullptr; c = c->next)
            work_.push_back({c, d, op});
        std::reverse(work_.begin() + static_cast<std::ptrdiff_t>(at), work_.end());
    }

    // What a level missing under the default operation none may hold: only
    // removes (of what is not there) and the containers and entries that
    // lead to them.  The number of removes in `e`, or -1 for anything else:
    // a leaf, an entry named for nothing below it, another operation.  The
    // recursion goes as deep as the models.
    int removes_only(const lyd_node *e) const
    {
        const EditOp op = models_.own_operation(e);
        if (op == EditOp::remove)
            return 1;
        const lysc_node *schema = models_.schema_of(e);
        if (op != EditOp::none || is_term(schema))
            return -1;
        int n = 0;
        for (const lyd_node *c = lyd_child(e); c != nullptr; c = c->next) {
            if (is_key(c))
                continue;
            const int k = removes_only(c);
            if (k < 0)
                return -1;
            n += k;
        }
        return schema != nullptr && schema->nodetype == LYS_LIST && n == 0 ? -1 : n;
    }

    ModelError fail(const char *tag, const lyd_node *e, std::string message) const
    {
        ModelError err;
        err.tag = tag;
        err.message = std::move(message);
        const lysc_node *schema = models_.schema_of(e);
        err.bad_element = schema != nullptr ? schema->name : LYD_NAME(e);
        models_.locate(e, err);
        return err;
    }

    const OpenConfigModels &models_;
    DataTree &config_;
    lyd_node *top_;
    std::vector<Item> work_;
};

// ---------------------------------------------------------------- comparing

// Told of what differs between two configurations walked side by side; a
// false answer stops the walk.
class Differences {
public:
    virtual ~Differences() = default;
    virtual void enter(const lyd_node *) {}
    virtual void leave() {}
    virtual bool only_from(const lyd_node *n) = 0;
    virtual bool only_to(const lyd_node *n) = 0;
    virtual bool changed(const lyd_node *from, const lyd_node *to) = 0;
};

bool compare(const lyd_node *from, const lyd_node *to, Differences &d)
{
    for (const lyd_node *a = from; a != nullptr; a = a->next) {
        if (is_key(a))
            continue; // keys name their entry: the same entry has the same keys
        const lyd_node *b = counterpart(to, a);
        if (b == nullptr) {
            if (!d.only_from(a))
                return false;
            continue;
        }
        if (is_term(a->schema)) {
            if (value_of(a) != value_of(b) && !d.changed(a, b))
                return false;
            continue;
        }
        d.enter(b);
        const bool go_on = compare(lyd_child(a), lyd_child(b), d);
        d.leave();
        if (!go_on)
            return false;
    }
    for (const lyd_node *b = to; b != nullptr; b = b->next)
        if (!is_key(b) && counterpart(from, b) == nullptr && !d.only_to(b))
            return false;
    return true;
}

// The differences as requests for the module: a tree of removals, and one
// of additions, each holding the path down to what it changes.
class Requests final : public Differences {
public:
    void enter(const lyd_node *n) override { path_.push_back(n); }
    void leave() override
    {
        for (Out *o : {&removals_, &additions_})
            if (o->open == path_.size()) {
                o->builder.close();
                --o->open;
            }
        path_.pop_back();
    }
    bool only_from(const lyd_node *n) override
    {
        // /interfaces and its entries belong to the module that owns
        // /interfaces, which maps nothing of its own: what goes of them goes
        // through what they hold, the tunnel.
        if (is_interface(n->schema) ||
            (n->schema->parent == nullptr && is_interface(lysc_node_child(n->schema)))) {
            enter(n);
            for (const lyd_node *c = lyd_child(n); c != nullptr; c = c->next)
                if (!is_key(c))
                    only_from(c);
            leave();
            return true;
        }
        reach(removals_);
        vidl_yfw_datatree &node = open(removals_, n);
        yfwhost::tree_set_op(&node, YFW_OP_REMOVE);
        if (n->schema->nodetype == LYS_LIST)
            keys(removals_, n);
        removals_.builder.close();
        return true;
    }
    bool only_to(const lyd_node *n) override
    {
        reach(additions_);
        whole(additions_, n);
        return true;
    }
    bool changed(const lyd_node *from, const lyd_node *to) override
    {
        return only_from(from) && only_to(to);
    }

    Change finish() { return {done(removals_), done(additions_)}; }

private:
    struct Out {
        yfwhost::TreeBuilder builder{"", ""};
        std::size_t open = 0; // levels of path_ open in it
    };

    static vidl_yfw_datatree &open(Out &o, const lyd_node *n)
    {
        return o.builder.open(n->schema->name, n->schema->module->ns, 0);
    }
    static void keys(Out &o, const lyd_node *entry)
    {
        for (const lyd_node *k = lyd_child(entry); k != nullptr && is_key(k); k = k->next) {
            vidl_yfw_datatree &key = open(o, k);
            o.builder.set_value(key, view(lyd_get_value(k)));
            o.builder.close();
        }
    }
    // Opens the levels of the path not yet open in `o`.
    void reach(Out &o)
    {
        for (; o.open < path_.size(); ++o.open) {
            open(o, path_[o.open]);
            if (path_[o.open]->schema->nodetype == LYS_LIST)
                keys(o, path_[o.open]);
        }
    }
    static void whole(Out &o, const lyd_node *n)
    {
        vidl_yfw_datatree &node = open(o, n);
        if (is_term(n->schema))
            o.builder.set_value(node, view(lyd_get_value(n)));
        else
            for (const lyd_node *c = lyd_child(n); c != nullptr; c = c->next)
                whole(o, c);
        o.builder.close();
    }
    static Document done(Out &o)
    {
        Document doc{o.builder.finish(), {}};
        vidl_yfw_datatree *holder = doc.tree.get();
        for (std::size_t i = 0; i < yfwhost::tree_child_count(holder); ++i)
            doc.roots.push_back(&holder->subtrees[i]);
        return doc;
    }

    std::vector<const lyd_node *> path_;
    Out removals_, additions_;
};

class FirstDifference final : public Differences {
public:
    explicit FirstDifference(const OpenConfigModels &models) : models_(models) {}

    bool only_from(const lyd_node *n) override
    {
        n = first_leaf(n);
        found(n, element_name(n->schema->name) +
                     " would not read back after this edit: through the tunnel mapping, the "
                     "router's configuration does not hold it so; nothing was changed.");
        return false;
    }
    bool only_to(const lyd_node *n) override
    {
        n = first_leaf(n);
        found(n, element_name(n->schema->name) +
                     " would come into the configuration although the edit does not ask for "
                     "it; nothing was changed.");
        return false;
    }
    bool changed(const lyd_node *from, const lyd_node *to) override
    {
        found(to, element_name(from->schema->name) + " would read back as " +
                      quoted(one_line(value_of(to))) + ", not as the edit's " +
                      quoted(one_line(value_of(from))) + "; nothing was changed.");
        return false;
    }

    std::optional<ModelError> error;

private:
    // The first leaf `n` holds besides keys, or `n` when it holds none: the
    // node a client set.
    static const lyd_node *first_leaf(const lyd_node *n)
    {
        for (;;) {
            const lyd_node *c = lyd_child(n);
            while (c != nullptr && is_key(c))
                c = c->next;
            if (c == nullptr)
                return n;
            n = c;
        }
    }
    void found(const lyd_node *n, std::string message)
    {
        ModelError e;
        e.tag = "operation-not-supported";
        e.message = std::move(message);
        e.bad_element = n->schema->name;
        models_.locate(n, e);
        error = std::move(e);
    }
    const OpenConfigModels &models_;
};

// Every node of the configuration, parents before what they hold.
std::vector<lyd_node *> preorder(lyd_node *first)
{
    std::vector<lyd_node *> all;
    for (lyd_node *top = first; top != nullptr; top = top->next) {
        lyd_node *n = nullptr;
        LYD_TREE_DFS_BEGIN(top, n)
        {
            all.push_back(n);
            LYD_TREE_DFS_END(top, n);
        }
    }
    return all;
}

} // namespace

// ---------------------------------------------------------------- interface

std::optional<std::vector<std::string>>
interfaces_touched(const OpenConfigModels &models, const lyd_node *edit, EditOp default_operation)
{
    if (default_operation == EditOp::replace)
        return std::nullopt;
    std::vector<std::string> names;
    for (const lyd_node *top = edit; top != nullptr; top = top->next) {
        const EditOp own = models.own_operation(top);
        const EditOp op = own != EditOp::none ? own : default_operation;
        if (op != EditOp::merge && op != EditOp::none)
            return std::nullopt;
        for (const lyd_node *c = lyd_child(top); c != nullptr; c = c->next) {
            if (!is_interface(models.schema_of(c)))
                return std::nullopt;
            const lyd_node *key = lyd_child(c);
            if (key == nullptr || !is_key(key))
                return std::nullopt;
            names.push_back(value_of(key));
        }
    }
    return names;
}

std::optional<ModelError> apply_edit(const OpenConfigModels &models, DataTree &config,
                                     const lyd_node *edit, EditOp default_operation)
{
    Applier applier(models, config);
    return applier.run(edit, default_operation);
}

void settle(DataTree &config)
{
    lyd_node *first = config.release();
    std::vector<lyd_node *> all = preorder(first);
    // What a node holds is settled before the node itself.
    for (auto it = all.rbegin(); it != all.rend(); ++it) {
        lyd_node *n = *it;
        const lysc_node *s = n->schema;
        if (s == nullptr)
            continue;
        const bool empty = is_np_container(s) && lyd_child(n) == nullptr;
        if (empty || (is_interface(s) && only_keys(n)))
            free_node(n, first);
    }
    config.reset(first);
}

std::optional<ModelError> hold_by_design(const OpenConfigModels &models, DataTree &config)
{
    lyd_node *first = config.get();
    if (first == nullptr)
        return std::nullopt;
    const ly_ctx *ctx = LYD_CTX(first);
    const lysc_node *lists[] = {
        lys_find_path(ctx, nullptr, tunnel_addresses "/ipv4/addresses/address", 0),
        lys_find_path(ctx, nullptr, tunnel_addresses "/ipv6/addresses/address", 0),
    };
    for (lyd_node *entry : preorder(first)) {
        if (entry->schema == nullptr || (entry->schema != lists[0] && entry->schema != lists[1]))
            continue;
        const lyd_node *key = lyd_child(entry);
        lyd_node *holder = nullptr, *ip = nullptr;
        for (lyd_node *c = lyd_child(entry); c != nullptr; c = c->next)
            if (view(c->schema->name) == "config")
                holder = c;
        if (holder == nullptr &&
            lyd_new_inner(entry, entry->schema->module, "config", 0, &holder) != LY_SUCCESS)
            throw std::bad_alloc();
        for (lyd_node *c = lyd_child(holder); c != nullptr; c = c->next)
            if (view(c->schema->name) == "ip")
                ip = c;
        if (ip == nullptr) {
            if (lyd_new_term(holder, entry->schema->module, "ip", lyd_get_value(key), 0, nullptr) !=
                LY_SUCCESS)
                throw std::bad_alloc();
        } else if (value_of(ip) != value_of(key)) {
            ModelError e;
            e.tag = "invalid-value";
            e.message = "The address's config/ip " + quoted(one_line(value_of(ip))) +
                        " is not its key " + quoted(one_line(value_of(key))) +
                        ": the key refers to it, and both name one address.";
            e.bad_element = "ip";
            models.locate(ip, e);
            return e;
        }
    }
    return std::nullopt;
}

void leave_out_by_design(DataTree &config)
{
    lyd_node *first = config.release();
    const lysc_node *ipv4_prefix_length =
        first == nullptr
            ? nullptr
            : lys_find_path(LYD_CTX(first), nullptr,
                            tunnel_addresses "/ipv4/addresses/address/config/prefix-length", 0);
    std::vector<lyd_node *> gone;
    for (lyd_node *n : preorder(first))
        if (n->schema != nullptr && n->schema == ipv4_prefix_length)
            gone.push_back(n);
    for (lyd_node *n : gone)
        lyd_free_tree(n);
    config.reset(first);
    settle(config);
}

Change difference(const lyd_node *from, const lyd_node *to)
{
    Requests requests;
    compare(from, to, requests);
    return requests.finish();
}

std::optional<ModelError> first_difference(const OpenConfigModels &models, const lyd_node *intended,
                                           const lyd_node *read_back)
{
    FirstDifference first(models);
    compare(intended, read_back, first);
    return std::move(first.error);
}

} // namespace octunnel::serve
