// The framework's side of one request: context, state, the trees built by
// the module, and the walk's hierarchy, output list and instance stack.
#include "schema.h"
#include "store.h"
#include "tree.h"
#include "yfwhost/host.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace yfwhost {
namespace {

std::string_view text(const char *s)
{
    return s != nullptr ? std::string_view(s) : std::string_view("(null)");
}

// "/a1:interface-configurations/a1:interface-configuration" -> the steps
// without their prefixes, into `steps` (kept by the caller, so that its room
// is reused from one path to the next).
std::vector<std::string_view> &steps_of(std::string_view path, std::vector<std::string_view> &steps)
{
    steps.clear();
    while (!path.empty()) {
        std::size_t slash = path.find('/');
        std::string_view step = path.substr(0, slash);
        if (std::size_t colon = step.find(':'); colon != std::string_view::npos)
            step.remove_prefix(colon + 1);
        if (!step.empty())
            steps.push_back(step);
        if (slash == std::string_view::npos)
            break;
        path.remove_prefix(slash + 1);
    }
    return steps;
}

const char *child_value(const vidl_yfw_datatree *node, std::string_view tag)
{
    const vidl_yfw_datatree *child = tree_child(node, tag);
    if (child == nullptr || (child->present & YFW_PRESENT_VALUE) == 0)
        return nullptr;
    return child->value;
}

// The value at "child" or "child/grandchild" below `node`.
const char *value_at(const vidl_yfw_datatree *node, std::string_view key_path)
{
    std::size_t slash = key_path.find('/');
    if (slash == std::string_view::npos)
        return child_value(node, key_path);
    const vidl_yfw_datatree *child = tree_child(node, key_path.substr(0, slash));
    return child != nullptr ? child_value(child, key_path.substr(slash + 1)) : nullptr;
}

vidl_yfw_datatree *find_or_add(Store &store, vidl_yfw_datatree *parent, std::string_view tag,
                               const char *ns)
{
    std::size_t count = tree_child_count(parent);
    if (const char *interned = store.interned(tag); interned != nullptr && count != 0) {
        if (vidl_yfw_datatree *c =
                store.child(parent->subtrees, static_cast<uint32_t>(count), interned, ns))
            return c;
    }
    return add_child(store, parent, tag, ns);
}

// The operation of a node, in a request tree or in the answer.
struct InTree {
    vidl_yfw_datatree *n;
    bool has_op() const { return (n->present & YFW_PRESENT_OP) != 0; }
    uint32_t op() const { return n->op; }
    void set_op(uint32_t op) const { tree_set_op(n, op); }
};
struct InAnswer {
    Answer &a;
    Answer::Id id;
    bool has_op() const { return a.has_op(id); }
    uint32_t op() const { return a.op(id); }
    void set_op(uint32_t op) const { a.set_op(id, op); }
};

// Whether `node` stands in the child array of its parent now: a walker may
// have detached the array for a while.
bool attached(const vidl_yfw_datatree *node)
{
    const vidl_yfw_datatree *p = node->fw_parent;
    return (p->present & YFW_PRESENT_SUBTREES) != 0 && p->subtrees != nullptr &&
           node >= p->subtrees && node < p->subtrees + p->subtree_count;
}

} // namespace

// A key among the children that a walker parked on the instance stack, the
// newest record first.
const char *Request::parked_value(std::string_view key) const
{
    for (auto it = itree_.rbegin(); it != itree_.rend(); ++it)
        for (uint32_t i = 0; i < it->count && it->nodes != nullptr; ++i) {
            const vidl_yfw_datatree &n = it->nodes[i];
            if (n.tag != nullptr && key == n.tag && (n.present & YFW_PRESENT_VALUE) != 0)
                return n.value;
        }
    return nullptr;
}

Request::Request(uint32_t kind, std::string_view out_tag, std::string_view out_ns)
    : out_(tree_new(out_tag, out_ns)), answer_(out_tag, out_ns)
{
    header_.kind = kind;
    state_.request = &header_;
    ctx_.map_state = &state_;
    ctx_.err_log = &log_;
    ctx_.trc_log = &log_;
    ctx_.ltrace_handle = &ring_;
    ring_.owner = this;
    ctx_.fw_private = this;
}

Request::~Request()
{
    std::free(state_.error_tag);
    std::free(state_.error_text);
}

void Request::log_to(std::function<void(std::string_view)> sink)
{
    log_.write = std::move(sink);
    ctx_.dbg.levels = log_.write ? ~0u : 0u;
}

void Request::enable_ring(std::size_t capacity)
{
    ring_.capacity = capacity;
    ctx_.ltrace_on = capacity != 0;
}

std::size_t Request::lookups() const
{
    return lookups_ + answer_.steps();
}

void Request::hierarchy_add(const vidl_yfw_datatree *node, int level)
{
    hierarchy_.push_back({node, level});
    if (recording())
        record("hier+ " + std::string(text(node->tag)) + " " + std::to_string(level));
}

// The node to remove is the top but after a walker's early return (a
// failed leafref check leaves its list node in place); it is taken out
// wherever it stands, and the event says it was not the top.
void Request::hierarchy_remove(const vidl_yfw_datatree *node)
{
    auto it = std::find_if(hierarchy_.rbegin(), hierarchy_.rend(),
                           [node](const Level &l) { return l.node == node; });
    if (it == hierarchy_.rend()) {
        if (recording())
            record("hier- " + std::string(text(node != nullptr ? node->tag : nullptr)) +
                   " NOT-LISTED");
        return;
    }
    const bool top = it == hierarchy_.rbegin();
    hierarchy_.erase(std::next(it).base());
    if (recording())
        record("hier- " + std::string(text(node->tag)) + (top ? "" : " NOT-TOP"));
}

verrno Request::update_current_list_node(const char *list_path)
{
    current_list_path_ = list_path != nullptr ? list_path : "";
    if (recording())
        record("list-node " + current_list_path_);
    return on_update_current_list_node ? on_update_current_list_node(list_path) : YFW_OK;
}

// The innermost list entry of the hierarchy whose steps line up with
// `list_path`.  The hierarchy may begin below the root (an augment entry is
// walked on its own), so the two are compared from their ends.
verrno Request::get_node_info(const char *list_path, const char *key, const char **value) const
{
    if (list_path == nullptr || key == nullptr || value == nullptr)
        return YFW_ERR_INVALID_ARG;
    *value = nullptr;
    const std::vector<std::string_view> &want = steps_of(list_path, info_steps_);
    if (want.empty())
        return YFW_ERR_INVALID_ARG;
    for (std::size_t end = hierarchy_.size(); end-- > 0;) {
        ++lookups_;
        if (hierarchy_[end].level != YFW_LEVEL_LIST)
            continue;
        bool match = true;
        for (std::size_t k = 0; k < want.size() && k <= end && match; ++k) {
            const char *tag = hierarchy_[end - k].node->tag;
            match = tag != nullptr && want[want.size() - 1 - k] == tag;
        }
        if (match) {
            const vidl_yfw_datatree *entry = hierarchy_[end].node;
            *value = child_value(entry, key);
            // Children detached for a schema walk wait on the instance stack.
            if (*value == nullptr && tree_child_count(entry) == 0)
                *value = parked_value(key);
            return YFW_OK;
        }
    }
    return YFW_OK;
}

// The node, or its nearest ancestor in the request trees, that carries an
// operation: the node's effective NETCONF operation.  Null: merge.  The
// ancestors count only while the node hangs, through arrays that are in
// place, from a tree handed in with add_input; otherwise the node stands
// alone.
const vidl_yfw_datatree *Request::op_holder(const vidl_yfw_datatree *node) const
{
    if (node == nullptr)
        return nullptr;
    const vidl_yfw_datatree *holder = nullptr;
    for (const vidl_yfw_datatree *n = node;; n = n->fw_parent) {
        ++lookups_;
        if (holder == nullptr && (n->present & YFW_PRESENT_OP) != 0)
            holder = n;
        if ((n->fw_parent == nullptr || inner_inputs_) && inputs_.contains(n))
            return holder;
        if (n->fw_parent == nullptr || !attached(n))
            break;
    }
    return (node->present & YFW_PRESENT_OP) != 0 ? node : nullptr;
}

void Request::add_input(const vidl_yfw_datatree *root)
{
    inputs_.insert(root);
    inner_inputs_ = inner_inputs_ || root->fw_parent != nullptr;
}

bool Request::is_request_add(const vidl_yfw_datatree *node) const
{
    return node != nullptr && rules::is_request_add(header_.kind, [&] { return op_holder(node); });
}

void Request::emit(vidl_yfw_datatree *tree, const char *path, const char *ns, const char *value,
                   const vidl_yfw_datatree *op_node, uint32_t list_entry, uint32_t path_flag)
{
    Emission e{tree == out_.get(),
               path != nullptr ? path : "",
               ns != nullptr ? ns : "",
               value != nullptr ? std::optional<std::string>(value) : std::nullopt,
               op_node != nullptr,
               op_node != nullptr && (op_node->present & YFW_PRESENT_OP) != 0
                   ? std::optional<uint32_t>(op_node->op)
                   : std::nullopt,
               list_entry,
               path_flag};
    if (on_emission)
        on_emission(e);
    if (keep_emissions_)
        emissions_.push_back(std::move(e));
}

// Adds `path` below `tree`, creating what is missing and merging with what
// is there.  The last node takes on the effective operation of `op_node`
// (see rules::settle_operation).  A path added to the output tree goes to the answer
// (see add_to_answer).  Below a request node (a list key that a walker adds)
// the path is relative and taken as it stands.
verrno Request::add_path(vidl_yfw_datatree *tree, const char *path, const char *ns,
                         const char *value, const vidl_yfw_datatree *op_node,
                         vidl_yfw_datatree **out_node, uint32_t list_entry, uint32_t path_flag)
{
    if (keep_emissions_ || on_emission)
        emit(tree, path, ns, value, op_node, list_entry, path_flag);
    if (recording())
        record("add " + std::string(path != nullptr ? path : ""));
    if (on_add_path) {
        if (verrno rc = on_add_path(path); rc != YFW_OK)
            return rc;
    }
    if (tree == nullptr || path == nullptr)
        return YFW_ERR_INVALID_ARG;
    if (tree == out_.get()) {
        // The answer's nodes are the host's own: none is handed out.
        if (out_node != nullptr)
            *out_node = nullptr;
        return add_to_answer(path, ns, value, op_node, list_entry);
    }
    const std::vector<std::string_view> &steps = steps_of(path, path_steps_);
    if (steps.empty())
        return YFW_ERR_INVALID_ARG;

    Store &store = store_of(tree);
    const char *given_ns = ns != nullptr ? ns : "";
    const vidl_yfw_datatree *holder = op_holder(op_node);
    const bool writing =
        op_node != nullptr && (holder == nullptr || !rules::is_removal(holder->op));
    vidl_yfw_datatree *node = tree;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        ++lookups_;
        const bool last = i + 1 == steps.size();
        node = last && list_entry != 0 ? add_child(store, node, steps[i], given_ns)
                                       : find_or_add(store, node, steps[i], given_ns);
        if (!last && writing)
            rules::rewrite_removed(InTree{node});
    }
    if (value != nullptr) {
        node->value = store.copy(value);
        node->present |= YFW_PRESENT_VALUE;
    }
    rules::settle_operation(InTree{node}, op_node, holder);
    if (out_node != nullptr)
        *out_node = node;
    return YFW_OK;
}

// A path of the answer as its steps go: the name each step's node bears
// (its namespace that of the model that owns it, else the path's own), and
// for a list the names of its keys.
struct Request::Compiled {
    const char *path_at; // the caller's pointers it was last asked for by
    const char *ns_at;
    std::string path;
    std::string ns;
    struct Step {
        const Answer::Name *name;
        const schema::ListBinding *list = nullptr;
        const Answer::Name *key = nullptr;   // of a list
        const Answer::Name *fixed = nullptr; // of a list with a key of one value
        bool names_key = false;              // the path ends with this list's key
    };
    std::vector<Step> steps;
};

const Request::Compiled &Request::compile(const char *path, const char *ns)
{
    const char *given_ns = ns != nullptr ? ns : "";
    // The same constants come again and again: a few are kept at hand, by
    // address, and their text checked before use.
    const std::size_t slot =
        (reinterpret_cast<std::uintptr_t>(path) >> 4 ^ reinterpret_cast<std::uintptr_t>(ns) >> 4) %
        recent_paths_.size();
    if (Compiled *r = recent_paths_[slot]; r != nullptr && r->path_at == path && r->ns_at == ns &&
                                           std::strcmp(r->path.c_str(), path) == 0 &&
                                           std::strcmp(r->ns.c_str(), given_ns) == 0)
        return *r;
    std::unique_ptr<Compiled> &c = compiled_[PathKey{path, ns}];
    if (c != nullptr && std::strcmp(c->path.c_str(), path) == 0 &&
        std::strcmp(c->ns.c_str(), given_ns) == 0) {
        recent_paths_[slot] = c.get();
        return *c;
    }
    if (compiled_.size() > 4096) { // paths of the caller's making: start over
        recent_paths_.fill(nullptr);
        compiled_.clear();
        return compile(path, ns);
    }
    for (Compiled *&r : recent_paths_) // the one replaced below may be at hand
        if (r == c.get())
            r = nullptr;
    c = std::make_unique<Compiled>();
    c->path_at = path;
    c->ns_at = ns;
    c->path = path;
    c->ns = given_ns;
    const std::vector<std::string_view> &steps = steps_of(path, path_steps_);
    // Where the path stands in the models' schema: each step's node belongs
    // to the model that owns it, one the tables do not hold to the path's.
    const schema::Node *at = nullptr;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        at = i == 0 || at != nullptr ? schema::child(at, steps[i]) : nullptr;
        const char *step_ns = schema::owner(at);
        if (step_ns == nullptr)
            step_ns = given_ns;
        Compiled::Step step{answer_.name(steps[i], step_ns)};
        if (const schema::ListBinding *list = schema::list(at)) {
            step.list = list;
            step.key = answer_.name(list->key, list->key_ns);
            if (list->fixed_key != nullptr)
                step.fixed = answer_.name(list->fixed_key, list->key_ns);
            step.names_key = i + 2 == steps.size() && steps[i + 1] == list->key;
        }
        c->steps.push_back(step);
    }
    recent_paths_[slot] = c.get();
    return *c;
}

// A path of the output tree.  A list in the path resolves to the instance
// the walk stands in (see list_entry_for).
verrno Request::add_to_answer(const char *path, const char *ns, const char *value,
                              const vidl_yfw_datatree *op_node, uint32_t list_entry)
{
    const Compiled &c = compile(path, ns);
    if (c.steps.empty())
        return YFW_ERR_INVALID_ARG;
    const vidl_yfw_datatree *holder = op_holder(op_node);
    const bool writing =
        op_node != nullptr && (holder == nullptr || !rules::is_removal(holder->op));
    Answer::Id node = Answer::root;
    Answer::Id parent = Answer::none, grandparent = Answer::none;
    for (std::size_t i = 0; i < c.steps.size(); ++i) {
        ++lookups_;
        const Compiled::Step &step = c.steps[i];
        const bool last = i + 1 == c.steps.size();
        grandparent = parent;
        parent = node;
        if (step.list != nullptr)
            node = list_entry_for(node, &step, step.names_key ? value : nullptr);
        else if (last && list_entry != 0)
            node = answer_.add(node, step.name); // an unbound list: a new entry
        else
            node = answer_.find_or_add(node, step.name);
        if (!last && writing)
            rules::rewrite_removed(InAnswer{answer_, node});
    }
    if (value != nullptr) {
        // A new value of an entry's key: the list's index is told.
        const Compiled::Step *list = c.steps.size() > 1 ? &c.steps[c.steps.size() - 2] : nullptr;
        const char *old = answer_.value(node);
        if (list != nullptr && list->list != nullptr && list->names_key &&
            grandparent != Answer::none && (old == nullptr || std::strcmp(old, value) != 0))
            answer_.forget_list(grandparent, answer_.tag(parent));
        answer_.set_value(node, value);
    }
    rules::settle_operation(InAnswer{answer_, node}, op_node, holder);
    return YFW_OK;
}

// The key that the innermost node of the hierarchy anchoring the list gives
// it, into key_.
bool Request::anchored_key(const octunnel::models::binding &binding)
{
    for (auto it = hierarchy_.rbegin(); it != hierarchy_.rend(); ++it) {
        const vidl_yfw_datatree *n = it->node;
        for (const schema::Naming &a : std::span(binding.namings, binding.naming_count)) {
            ++lookups_;
            if (n->tag == nullptr || n->tag[0] != a.tag[0] || std::strcmp(n->tag, a.tag) != 0 ||
                !ns_match(a.ns, n->ns))
                continue;
            const char *v = value_at(n, a.key_path);
            if (v == nullptr && tree_child_count(n) == 0)
                v = parked_value(a.key_path); // an entry walked by its schema
            if (v == nullptr)
                break;
            key_.assign(a.prefix).append(v);
            return true;
        }
    }
    return false;
}

// The instance of a bound list under `parent` that the walk stands in.  The
// innermost node of the hierarchy that anchors the list gives the key; with
// no anchor, a key named by the added path itself does.  Entries are merged
// by key, so native data from several sources about one interface lands in
// one entry.  Without any key the last entry is used, or a first one made.
Answer::Id Request::list_entry_for(Answer::Id parent, const void *at, const char *named_key)
{
    const auto &step = *static_cast<const Compiled::Step *>(at);
    bool keyed = anchored_key(*step.list);
    if (!keyed && named_key != nullptr) {
        key_.assign(named_key);
        keyed = true;
    }
    Answer::Id entry = keyed ? answer_.first_entry(parent, step.name, step.key->tag, key_)
                             : answer_.last_entry(parent, step.name, step.key->tag);
    if (entry != Answer::none)
        return entry;
    entry = answer_.add(parent, step.name);
    if (step.fixed != nullptr)
        answer_.set_value(answer_.add(entry, step.fixed), step.list->fixed_value);
    if (keyed)
        answer_.set_value(answer_.add(entry, step.key), key_);
    return entry;
}

void Request::output_list_add(const vidl_yfw_datatree *node)
{
    bool listed = std::find(output_list_.begin(), output_list_.end(), node) != output_list_.end();
    if (!output_list_accepts || listed) {
        if (recording())
            record("out+ " + std::string(text(node->tag)) + " refused");
        return;
    }
    output_list_.push_back(node);
    state_.output_count++;
    if (recording())
        record("out+ " + std::string(text(node->tag)));
}

void Request::output_list_remove(const vidl_yfw_datatree *node)
{
    auto it = std::find(output_list_.begin(), output_list_.end(), node);
    if (it == output_list_.end()) {
        if (recording())
            record("out- " + std::string(text(node != nullptr ? node->tag : nullptr)) +
                   " NOT-LISTED");
        return;
    }
    output_list_.erase(it);
    if (recording())
        record("out- " + std::string(text(node->tag)));
}

// The hierarchy as a readable path: list entries carry their keys, those the
// walk marked or, before it has, those the schema names.
void Request::record_error_path()
{
    std::string p;
    for (const Level &l : hierarchy_) {
        p.append("/").append(text(l.node->tag));
        if (l.level != YFW_LEVEL_LIST)
            continue;
        std::string keys;
        for (std::size_t i = 0; i < tree_child_count(l.node); ++i) {
            const vidl_yfw_datatree &c = l.node->subtrees[i];
            if (c.is_key && (c.present & YFW_PRESENT_IS_KEY) && (c.present & YFW_PRESENT_VALUE))
                keys.append("[").append(text(c.tag)).append("='").append(c.value).append("']");
        }
        if (keys.empty() && l.node->tag != nullptr) {
            for (const char *k : schema::key_names(l.node->tag, l.node->ns))
                if (const char *v = child_value(l.node, k); v != nullptr)
                    keys.append("[").append(k).append("='").append(v).append("']");
        }
        p += keys;
    }
    error_path_ = p.empty() ? "/" : p;
    record("error-path " + error_path_);
}

} // namespace yfwhost
