// The agent's own trees: the running configuration, operational documents,
// filters, edits and answers, as nodes that can be added, replaced and
// removed in place.  A node knows its place in the models, so a list entry
// is found by its keys and a leaf-list entry by its value, through an index
// of its parent's children built the first time a large parent is asked.
//
// Nothing here recurses: documents are hostile, and a walk over a tree keeps
// its own stack.
#pragma once

#include "translate/document.h"
#include "translate/json_schema.h"
#include "yfwhost/host.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace octunnel::serve {

class Tree;

// The models as the agent knows them: the tool's table of every model,
// native and OpenConfig, by path without module names.
const ModelSchema &models();

class Node {
public:
    const char *tag() const { return tag_; }
    // The namespace, without the ".yang" that the framework ignores.
    const char *ns() const { return ns_; }
    bool has_value() const { return has_value_; }
    const std::string &value() const { return value_; }
    // The NETCONF operation an edit gives the node (YFW_OP_*), or -1.
    int op() const { return op_; }
    uint32_t line() const { return line_; }
    Node *parent() const { return parent_; }
    // Its place in the models, or null outside them.
    JsonSchema::Node place() const { return place_; }
    NodeKind kind() const;

    // Children in order; a removed child leaves an empty slot until the
    // parent is compacted.
    const std::vector<std::unique_ptr<Node>> &slots() const { return kids_; }
    std::size_t child_count() const { return live_; }
    std::size_t slot() const { return slot_; }

    void set_value(std::string_view v)
    {
        value_.assign(v);
        has_value_ = true;
    }
    void clear_value()
    {
        value_.clear();
        has_value_ = false;
    }
    void set_op(int op) { op_ = op; }
    void set_line(uint32_t line) { line_ = line; }

    // What tells the node apart from its siblings: its name, and for a
    // list entry its keys' values, for a leaf-list entry its value.  Two
    // nodes of any trees with the same identity are the same data.
    std::string identity() const;
    // The child with `identity`, or null.
    Node *find(std::string_view identity) const;
    // The first child with this tag (any namespace), or null.
    Node *child(std::string_view tag) const;

    // A new last child, named in this node's tree.
    Node &add(std::string_view tag, std::string_view ns);
    // Puts `node` (of this node's tree, made by Tree::make) into `slot`,
    // which must be empty, or at the end when `slot` is past it.  The node
    // must carry its keys already.
    Node &put(std::unique_ptr<Node> node, std::size_t slot);
    // Takes the child in `slot` out, leaving the slot empty.
    std::unique_ptr<Node> take(std::size_t slot);
    // Drops the empty slots.
    void compact();

    // Marks of a filter, good for one pass (see filter.cpp).
    mutable uint64_t mark_pass = 0;
    mutable uint8_t mark = 0;

private:
    friend class Tree;
    Node(Tree &tree, const char *tag, const char *ns, JsonSchema::Node place)
        : tree_(&tree), tag_(tag), ns_(ns), place_(place)
    {
    }
    void index_add(Node &kid);
    void index_remove(Node &kid);

    Tree *tree_;
    const char *tag_;
    const char *ns_;
    JsonSchema::Node place_;
    std::string value_;
    bool has_value_ = false;
    int op_ = -1;
    uint32_t line_ = 0;
    Node *parent_ = nullptr;
    std::size_t slot_ = 0;
    std::size_t live_ = 0;
    std::vector<std::unique_ptr<Node>> kids_;
    std::unique_ptr<std::unordered_map<std::string, Node *>> index_;
};

// A tree: an unnamed root that holds the top-level nodes, and the names
// they bear.
class Tree {
public:
    Tree();
    ~Tree();
    Tree(const Tree &) = delete;
    Tree &operator=(const Tree &) = delete;

    Node &root() { return *root_; }
    const Node &root() const { return *root_; }
    // A node of this tree not yet placed: its place in the models is found
    // below `parent`'s.
    std::unique_ptr<Node> make(const Node &parent, std::string_view tag, std::string_view ns);
    // A copy of `from` (of any tree) and all it holds, not yet placed, its
    // operations left behind.
    std::unique_ptr<Node> copy(const Node &parent, const Node &from);

private:
    const char *intern(std::string_view s);
    std::unordered_set<std::string> names_;
    std::unique_ptr<Node> root_;
};

// The namespace as the agent keeps it: without a trailing ".yang".
std::string_view canonical_ns(std::string_view ns);

// ---------------------------------------------------------------- conversions

// The top-level nodes of a document that the readers built, with their
// values and operations, under `into`'s root.
void adopt(Tree &into, const Document &doc);
// The nodes a request of the module built, with their operations.
void adopt(Tree &into, const yfwhost::Answer &answer);
// A document of the readers from `text` (XML): throws InputError.
Document read_xml(std::string_view text, std::size_t limit);

// Where the nodes of a tree go when written out.
class Sink {
public:
    virtual ~Sink() = default;
    virtual void open(const Node &n) = 0;
    virtual void close(const Node &n) = 0;
};

// What a write leaves out: nodes of an OpenConfig `state` container.
enum class Prune { nothing, state };

struct Selection;

// Writes the top-level nodes of `tree` to `sink` in order; given a filter's
// selection, only what it selected (filter.h).
void write(const Node &holder, Sink &sink, Prune prune = Prune::nothing,
           const Selection *selection = nullptr);

// The host's tree of what a sink is given, as the module's walkers take it.
class HostSink final : public Sink {
public:
    HostSink() : builder_("", "") {}
    void open(const Node &n) override;
    void close(const Node &) override { builder_.close(); }
    Document finish();

private:
    yfwhost::TreeBuilder builder_;
};

// A prefix and the namespace it stands for.
using PrefixNs = std::pair<std::string, std::string>;

// XML text, two spaces a level, a namespace declared where it changes.
class XmlSink final : public Sink {
public:
    // Elements nested `depth` levels in, inside an element of namespace
    // `outer_ns`.  A value that starts with one of `value_prefixes` and a
    // colon names an identity of that prefix's module: the prefix is
    // declared on the value's element.
    explicit XmlSink(std::string &out, int depth = 0, std::string_view outer_ns = {},
                     std::span<const PrefixNs> value_prefixes = {})
        : out_(out), depth_(depth), outer_(outer_ns), value_prefixes_(value_prefixes)
    {
    }
    void open(const Node &n) override;
    void close(const Node &n) override;
    // An element by its parts: `op` as Node::op(); a value of
    // `value_size` bytes at `value_text`, or none (null).
    void open(std::string_view tag, std::string_view ns, int op);
    void close(std::string_view tag, const char *value_text, std::size_t value_size);
    // Writes each node's operation as an nc:operation attribute, as an
    // edit is written.
    void with_operations() { operations_ = true; }

private:
    void indent(int depth);
    bool operations_ = false;
    std::string &out_;
    int depth_;
    std::string outer_;
    std::span<const PrefixNs> value_prefixes_;
    std::vector<std::string_view> ns_; // of the open elements
    std::vector<bool> has_kids_;       // whether each has had a child yet
};

// The nodes a request of the module built, written straight to `sink`
// without a tree of their own: what a configuration read back needs of
// them, as its text.
void write(const yfwhost::Answer &answer, XmlSink &sink, Prune prune);

// Appends `s` to `out` escaped for XML text (or an attribute).
void escape_xml(std::string &out, std::string_view s, bool attribute = false);
// Appends the element `tag` holding the text `value` to `out`.
void append_leaf(std::string &out, std::string_view tag, std::string_view value);

} // namespace octunnel::serve
