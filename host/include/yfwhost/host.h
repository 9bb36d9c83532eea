// The reference host: our own provider of the framework and platform
// operations that the mapping module imports, and the loader that brings the
// module in the way the framework does.
//
// A Request stands for one framework call: it owns the context, the state,
// the request header and the output tree, and keeps the framework's side of
// the walk (node hierarchy, output list, instance stack, error path, trace
// sinks).  The operations themselves (yfw_*, _lstrace, ...) are exported C
// functions of this library, so a module loaded into a process that links it
// resolves its imports against them.
#pragma once

#include "octunnel/yfw_types.h"
#include "yfwhost/framework_rules.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace octunnel::models {
struct binding;
}

namespace yfwhost {

class Store;

// ---------------------------------------------------------------- trees
//
// Trees are plain vidl_yfw_datatree records.  Everything a tree holds (child
// arrays, values, one copy of each tag and namespace) lives in a store of
// its own and goes with its root, at once.  Children live in one contiguous
// array that grows as needed, so a pointer to a child is good until the next
// child is added to the same parent.  Each node knows its parent
// (fw_parent); a root has none.  No node argument below may be null, and
// none of these functions throws but for memory (std::bad_alloc).

// A new tree of one node, owned by the caller (tree_free).
vidl_yfw_datatree *tree_new(std::string_view tag, std::string_view ns);
// Frees a tree made by tree_new, or by a TreeBuilder, whole; null is none.
void tree_free(vidl_yfw_datatree *root);
struct TreeDeleter {
    void operator()(vidl_yfw_datatree *root) const { tree_free(root); }
};
using Tree = std::unique_ptr<vidl_yfw_datatree, TreeDeleter>;

// A new last child of `parent` (its subtrees, subtree_count and
// YFW_PRESENT_SUBTREES change; its child array may move).
vidl_yfw_datatree *tree_add_child(vidl_yfw_datatree *parent, std::string_view tag,
                                  std::string_view ns);
// value (a copy in the tree's store) with YFW_PRESENT_VALUE; op with
// YFW_PRESENT_OP.
void tree_set_value(vidl_yfw_datatree *node, std::string_view value);
void tree_set_op(vidl_yfw_datatree *node, uint32_t op);
// First child with this tag, or null; children with a null tag are passed.
const vidl_yfw_datatree *tree_child(const vidl_yfw_datatree *node, std::string_view tag);
// Children of a node as the walkers see them: none without the presence bit.
std::size_t tree_child_count(const vidl_yfw_datatree *node);

// Builds a tree whole, as a reader meets a document: nodes are opened and
// closed in document order, and the children of a node are laid out in one
// array of their exact number when it closes, so no node moves more than
// once.  The builder holds the root open; finish() closes it and hands the
// tree over.  References to open nodes are good until the next open().
class TreeBuilder {
public:
    TreeBuilder(std::string_view root_tag, std::string_view root_ns);
    ~TreeBuilder();
    TreeBuilder(const TreeBuilder &) = delete;
    TreeBuilder &operator=(const TreeBuilder &) = delete;

    // A new child of the innermost open node, open in its turn; the
    // strings are copied into the tree's store.
    vidl_yfw_datatree &open(std::string_view tag, std::string_view ns, uint32_t line);
    // The innermost open node (the root while nothing else is open).
    vidl_yfw_datatree &top();
    void set_value(vidl_yfw_datatree &node, std::string_view value);
    // Children of the innermost open node so far.
    std::span<vidl_yfw_datatree> children();
    // The tree's one copy of a string, as tags and namespaces are held.
    const char *intern(std::string_view s);
    // Closes the innermost open node.
    void close();
    // Open nodes below the root.
    std::size_t depth() const { return depth_; }
    Tree finish();

private:
    void lay_out(vidl_yfw_datatree &node, std::vector<vidl_yfw_datatree> &kids);

    Tree root_;
    class Store *store_;
    // levels_[d]: the children gathered so far of the node open at depth d.
    std::vector<std::vector<vidl_yfw_datatree>> levels_;
    std::size_t depth_ = 0;
};

// ---------------------------------------------------------------- answers
//
// The tree a request builds: the native request of an OpenConfig request,
// or the OpenConfig answer to native data.  The module sees only its root
// record (Request::out()) and adds paths to it; the host keeps the nodes
// here, less than half the size of a data tree node.  A node is named by its
// index and never moves; its children are a chain in the order they came,
// and a child among many, or a list entry by its key, is found through an
// index built the first time it is asked for.  An Id given to a function
// below is one of this answer's nodes, a Name one that name() gave; tags,
// namespaces, keys and values are not null, and are copied where kept.

class Answer {
public:
    using Id = uint32_t;
    static constexpr Id none = UINT32_MAX;
    static constexpr Id root = 0;

    Answer(std::string_view tag, std::string_view ns);
    ~Answer();
    Answer(const Answer &) = delete;
    Answer &operator=(const Answer &) = delete;

    const char *tag(Id id) const { return node(id).name->tag; }
    const char *ns(Id id) const { return node(id).name->ns; }
    // Null for a node without a value.
    const char *value(Id id) const { return node(id).value; }
    bool has_op(Id id) const { return (flags_[id] & has_op_flag) != 0; }
    uint32_t op(Id id) const { return node(id).op; }
    Id first_child(Id id) const { return node(id).first; }
    Id next_sibling(Id id) const { return node(id).next; }
    std::size_t size() const { return flags_.size(); }

    // ---- building, for the host's add-path

    // A tag and namespace as nodes of this tree bear them (each held once):
    // what adds and lookups are given.
    struct Name {
        const char *tag;
        const char *ns;
        uint32_t index; // names are numbered from 0 as they come
    };
    const Name *name(std::string_view tag, std::string_view ns);
    const Name &name_of(Id id) const { return *node(id).name; }
    // A new last child of `parent`.
    Id add(Id parent, const Name *name);
    // The first child of `parent` with the tag of `name` and a namespace the
    // framework matches with its namespace, or a new one.
    Id find_or_add(Id parent, const Name *name);
    void set_value(Id id, std::string_view value);
    void set_op(Id id, uint32_t op);
    // Entries of a list among the children of `parent`: those with the tag
    // of `entry`, by the value of their first child tagged `key` (the tag of
    // a Name).  first_entry() is the first entry with that key value,
    // last_entry() the last entry of the list; none when there is none.
    Id first_entry(Id parent, const Name *entry, const char *key, std::string_view value);
    Id last_entry(Id parent, const Name *entry, const char *key);
    // The key of an entry among the children of `parent` changed.
    void forget_list(Id parent, const char *tag);

    // Children and index entries looked at so far.
    std::size_t steps() const { return steps_; }

private:
    struct Node {
        const Name *name;
        const char *value;
        Id first, next, last; // first child, next sibling, last child
        uint32_t op;
    };
    static constexpr uint8_t has_op_flag = 1;
    static constexpr uint8_t indexed_flag = 2;      // children by tag
    static constexpr uint8_t list_indexed_flag = 4; // list entries by key
    // Nodes live in blocks that never move: a first small one, then blocks
    // of a huge page each.
    static constexpr Id first_block = 1u << 12;
    static constexpr unsigned block_bits = 16;

    const Node &node(Id id) const
    {
        if (id < first_block)
            return blocks_[0][id];
        id -= first_block;
        return blocks_[1 + (id >> block_bits)][id & ((1u << block_bits) - 1)];
    }
    Node &node(Id id) { return const_cast<Node &>(std::as_const(*this).node(id)); }
    Id child(Id parent, const Name *name);
    struct ListIndex;
    ListIndex &list(Id parent, const char *tag, const char *key);
    const char *key_of(Id entry, const char *key) const;

    std::unique_ptr<Store> strings_;
    std::vector<Node *> blocks_;
    std::vector<uint8_t> flags_;
    struct Names;
    std::unique_ptr<Names> names_;
    struct Indexes;
    std::unique_ptr<Indexes> indexes_;
    std::size_t steps_ = 0;
};

// ---------------------------------------------------------------- requests

struct Emission {
    bool to_out; // false: added to a request node (a list key)
    std::string path;
    std::string ns;
    std::optional<std::string> value;
    bool op_node;
    std::optional<uint32_t> op;
    uint32_t list_entry;
    uint32_t path_flag;
};

class Request {
public:
    // `out_tag`/`out_ns` name the root record of the output tree.
    explicit Request(uint32_t kind, std::string_view out_tag = "data",
                     std::string_view out_ns = "urn:ietf:params:xml:ns:netconf:base:1.0");
    ~Request();
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;

    yfw_map_ctx ctx() { return &ctx_; }
    yfw_map_request &header() { return header_; }
    yfw_map_state &state() { return state_; }
    // The root record of the tree the module adds to; what it adds is kept
    // in answer().
    vidl_yfw_datatree *out() { return out_.get(); }
    const Answer &answer() const { return answer_; }

    // Request trees the module walks; their operations are inherited by
    // yfw_map_is_request_add.  `root` is not null, is only read and must
    // outlive the request's walks.
    void add_input(const vidl_yfw_datatree *root);

    // Levelled log: every TRC and ERR record, formatted, to `sink`.
    void log_to(std::function<void(std::string_view)> sink);
    // Which debug levels yfw_debug_should_log answers for (bit n: level n).
    void set_debug_levels(uint32_t levels) { ctx_.dbg.levels = levels; }
    // Ring trace: on, keeping the newest `capacity` lines.
    void enable_ring(std::size_t capacity = 65536);
    const std::deque<std::string> &ring() const { return ring_.lines; }
    std::size_t ring_dropped() const { return ring_.dropped; }

    // Emissions, one per add-path call, in call order: kept for emissions()
    // once keep_emissions() is called, and handed to `on_emission` as they
    // come while it is set.  Nothing is built while neither listens.
    void keep_emissions() { keep_emissions_ = true; }
    const std::vector<Emission> &emissions() const { return emissions_; }
    std::function<void(const Emission &)> on_emission;
    // The hierarchy as the last yfw_oc_error_path call recorded it; empty if
    // none was made.
    const std::string &error_path() const { return error_path_; }
    const std::string &current_list_path() const { return current_list_path_; }

    std::size_t hierarchy_depth() const { return hierarchy_.size(); }
    const std::vector<const vidl_yfw_datatree *> &output_list() const { return output_list_; }
    std::size_t itree_depth() const { return itree_.size(); }

    // Notes of the framework's own about the request (parts it does not hand
    // to the module), with the source line of the node they are about.
    std::function<void(uint32_t line, std::string_view text)> notes;
    void note(const vidl_yfw_datatree *node, std::string_view text)
    {
        if (notes)
            notes(node != nullptr ? node->fw_line : 0, text);
    }

    // Observation and faults, for tests of the module.  `events`, when set,
    // receives one line per hierarchy, output-list, stack, list-node and
    // add-path operation, in call order.
    std::vector<std::string> *events = nullptr;
    std::function<verrno(const char *list_path)> on_update_current_list_node;
    std::function<verrno(const char *path)> on_add_path;
    bool output_list_accepts = true;

    // ---- the framework's side of the operations (called from the C shims,
    // which catch what they throw; see c_boundary.h).  Node arguments are
    // those the module hands over: not null unless said, and only read, but
    // for the request node that add_path adds a key below.
    void hierarchy_add(const vidl_yfw_datatree *node, int level);
    void hierarchy_remove(const vidl_yfw_datatree *node);
    // `list_path` may be null (kept as empty).
    verrno update_current_list_node(const char *list_path);
    // Null `list_path`, `key` or `value`: YFW_ERR_INVALID_ARG.  *value is
    // null unless an instance of the list stands in the hierarchy.
    verrno get_node_info(const char *list_path, const char *key, const char **value) const;
    // False for a null `node`.
    bool is_request_add(const vidl_yfw_datatree *node) const;
    // Adds `path` below `tree` (the answer's root: a path from the root; a
    // request node: a relative one, whose node is stored in *out_node when
    // `out_node` is not null).  Null `tree` or `path`: YFW_ERR_INVALID_ARG.
    // `ns`, `value` and `op_node` may be null; what is kept is copied.
    verrno add_path(vidl_yfw_datatree *tree, const char *path, const char *ns, const char *value,
                    const vidl_yfw_datatree *op_node, vidl_yfw_datatree **out_node,
                    uint32_t list_entry, uint32_t path_flag);
    void output_list_add(const vidl_yfw_datatree *node);
    void output_list_remove(const vidl_yfw_datatree *node);
    std::vector<itree_record> &itree() { return itree_; }
    void record_error_path();
    // Whether anyone takes events: the text of one is made only then.
    bool recording() const { return events != nullptr; }
    void record(std::string event)
    {
        if (events != nullptr)
            events->push_back(std::move(event));
    }
    // Work the host did to place added paths and find operations: nodes and
    // index entries looked at.  A test holds it to a bound per added path.
    std::size_t lookups() const;

    struct Level {
        const vidl_yfw_datatree *node;
        int level;
    };
    struct LogSink {
        std::function<void(std::string_view)> write;
    };
    struct Ring {
        Request *owner = nullptr; // ring lines are events too
        std::deque<std::string> lines;
        std::size_t capacity = 0;
        std::size_t dropped = 0;
    };

private:
    const char *parked_value(std::string_view key) const;
    const vidl_yfw_datatree *op_holder(const vidl_yfw_datatree *node) const;
    void emit(vidl_yfw_datatree *tree, const char *path, const char *ns, const char *value,
              const vidl_yfw_datatree *op_node, uint32_t list_entry, uint32_t path_flag);
    struct Compiled;
    const Compiled &compile(const char *path, const char *ns);
    verrno add_to_answer(const char *path, const char *ns, const char *value,
                         const vidl_yfw_datatree *op_node, uint32_t list_entry);
    bool anchored_key(const octunnel::models::binding &binding);
    Answer::Id list_entry_for(Answer::Id parent, const void *step, const char *named_key);

    yfw_map_ctx_s ctx_{};
    yfw_map_state state_{};
    yfw_map_request header_{};
    Tree out_;
    Answer answer_;
    // Added paths as the answer takes them, step by step, for each path and
    // namespace the module passes (its constants: a few hundred).
    struct PathKey {
        const char *path;
        const char *ns;
        bool operator==(const PathKey &) const = default;
    };
    struct PathKeyHash {
        std::size_t operator()(const PathKey &k) const
        {
            return std::hash<const void *>()(k.path) * 31 + std::hash<const void *>()(k.ns);
        }
    };
    std::unordered_map<PathKey, std::unique_ptr<Compiled>, PathKeyHash> compiled_;
    std::array<Compiled *, 64> recent_paths_{};
    LogSink log_;
    Ring ring_;
    std::unordered_set<const vidl_yfw_datatree *> inputs_;
    bool inner_inputs_ = false; // an input that is not the root of its tree
    std::vector<Level> hierarchy_;
    std::vector<const vidl_yfw_datatree *> output_list_;
    std::vector<itree_record> itree_;
    std::vector<Emission> emissions_;
    bool keep_emissions_ = false;
    mutable std::size_t lookups_ = 0;
    // Room reused from one call to the next.
    std::vector<std::string_view> path_steps_;
    mutable std::vector<std::string_view> info_steps_;
    std::string key_;
    std::string error_path_;
    std::string current_list_path_;
};

// ---------------------------------------------------------------- process-wide

// Settings of the whole process, for the platform operations and the log;
// set them before walks start, not during one.
//
// What platform_get_router_type answers (default 0).
void set_router_type(int type);
// By default the resolver takes numeric addresses only, so that a
// translation never waits on the network; true lets it ask the system's.
void set_resolve_names(bool on);
// Decides, once per log call site, whether that site's records are kept.
// Installing a filter makes every site decide again.  Null keeps all.
void set_log_site_filter(std::function<bool(const char *format)> keep);
// Makes the next `n` successful yfw_strcpy_s calls succeed and the one after
// fail; negative (the default) never fails.  For tests of the registration.
void fail_strcpy_after(int n);

// Name of a return code ("YFW_ERR_LIST_KEY"), or null for one without a name.
const char *error_name(verrno code);
// The host's own code for a list key that disagrees with config/<key>.
constexpr verrno YFW_ERR_LEAFREF_MISMATCH = 0xaaf2fa00u;
// The host's own code for an operation it could not carry out (it ran out
// of memory): what an operation that returns a code answers then.
constexpr verrno YFW_ERR_HOST_FAILURE = 0xaaf2fc00u;

// ---------------------------------------------------------------- loading

// The mapping module, loaded as the framework loads it: dlopen, then the
// registration function looked up by its fixed name and called once.
class Module {
public:
    // Throws std::runtime_error naming the path and the loader's reason.
    // The registration record is filled once, here.
    explicit Module(const std::string &path);
    ~Module();
    Module(const Module &) = delete;
    Module &operator=(const Module &) = delete;

    const yfw_map_reg_mod_t &registration() const { return reg_; }
    // The module loaded last, for the framework's own modules that step into
    // it by name; null when none is loaded.
    static const Module *current();
    // An exported function by name (not null), or null when there is none.
    void *symbol(const char *name) const;
    map_function function(const char *name) const
    {
        return reinterpret_cast<map_function>(symbol(name));
    }

private:
    void *handle_ = nullptr;
    yfw_map_reg_mod_t reg_{};
};

} // namespace yfwhost
