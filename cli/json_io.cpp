#include "json_io.h"

#include "yang_names.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <deque>
#include <optional>
#include <rapidjson/error/en.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>
#include <set>
#include <stdexcept>
#include <unordered_map>
#include <unordered_set>

namespace octunnel {
namespace {

// ------------------------------------------------------------------ reading
//
// RapidJSON reads the text piece by piece, without recursion, and hands each
// token to a Builder, which grows the tree as the tokens come: a member's
// namespace is its module's, a list or leaf-list gives one node per entry, a
// scalar becomes the node's text as written (numbers too), and the metadata
// "ietf-netconf:operation" the node's op.  What can only be judged once an
// object is whole (metadata about a sibling member) waits for its end.

// The input as RapidJSON reads it: one character at a time, counted by line.
class Stream {
public:
    using Ch = char;
    explicit Stream(Input &input) : input_(input) { refill(); }

    Ch Peek() const { return at_ < end_ ? *at_ : '\0'; }
    Ch Take()
    {
        if (at_ == end_)
            return '\0';
        Ch c = *at_++;
        ++offset_;
        if (c == '\n')
            ++line_;
        if (at_ == end_)
            refill();
        return c;
    }
    std::size_t Tell() const { return offset_; }
    // RapidJSON asks for these of every stream; reading never writes.
    Ch *PutBegin() { return nullptr; }
    void Put(Ch) {}
    void Flush() {}
    std::size_t PutEnd(Ch *) { return 0; }

    // The line of the next character.
    int line() const { return line_; }

private:
    void refill()
    {
        std::string_view piece = input_.next();
        at_ = piece.data();
        end_ = piece.data() + piece.size();
    }

    Input &input_;
    const char *at_ = nullptr;
    const char *end_ = nullptr;
    std::size_t offset_ = 0;
    int line_ = 1;
};

struct Name {
    bool qualified;
    std::string_view module;
    std::string_view local;
};
Name split(std::string_view member)
{
    std::size_t colon = member.find(':');
    if (colon == std::string_view::npos)
        return {false, "", member};
    return {true, member.substr(0, colon), member.substr(colon + 1)};
}

bool is_envelope(std::string_view member)
{
    Name n = split(member);
    return n.module == "ietf-netconf" &&
           (n.local == "data" || n.local == "config" || n.local == "filter");
}

enum class Type : uint8_t { object, array, scalar, null };

// Metadata as read: the annotations of one node (an object), or of each
// value of a leaf-list (an array), or something else, which is no metadata.
struct Annotations {
    Type type = Type::object;
    int line = 0;
    std::optional<uint32_t> op;
};
struct Metadata {
    Annotations whole;
    std::vector<Annotations> items; // of an array
};

class Builder {
public:
    explicit Builder(Stream &stream) : stream_(stream), builder_("", ""), stack_(max_json_depth + 2)
    {
    }

    Document finish()
    {
        Document doc{builder_.finish(), {}};
        for (std::size_t i = 0; i < yfwhost::tree_child_count(doc.tree.get()); ++i)
            doc.roots.push_back(&doc.tree->subtrees[i]);
        return doc;
    }

    std::optional<InputError> error;

    // ---- RapidJSON's handler
    bool Null() { return scalar(Type::null, {}, false); }
    bool Bool(bool b) { return scalar(Type::scalar, b ? "true" : "false", false); }
    bool RawNumber(const char *s, rapidjson::SizeType n, bool)
    {
        return scalar(Type::scalar, {s, n}, false);
    }
    bool String(const char *s, rapidjson::SizeType n, bool)
    {
        return scalar(Type::scalar, {s, n}, true);
    }
    bool Key(const char *s, rapidjson::SizeType n, bool) { return key({s, n}); }
    bool StartObject() { return start(Type::object); }
    bool EndObject(rapidjson::SizeType) { return end(); }
    bool StartArray() { return start(Type::array); }
    bool EndArray(rapidjson::SizeType) { return end(); }
    // Numbers come as text (kParseNumbersAsStringsFlag): these are not called.
    bool Int(int) { return false; }
    bool Uint(unsigned) { return false; }
    bool Int64(int64_t) { return false; }
    bool Uint64(uint64_t) { return false; }
    bool Double(double) { return false; }

private:
    enum class Member : uint8_t { container, list, leaf, leaf_list };
    struct Seen {
        const char *name; // interned
        Member kind;
        uint32_t first, count; // its nodes among the object's children
        int line;
    };
    struct Pending {
        const char *name; // the member it is about, without '@'
        Metadata meta;
        int line;
    };

    // What is open, innermost last.
    enum class Frame : uint8_t {
        document,    // the value that is the document
        object,      // an object whose members are nodes
        array,       // the array of a member: a list, a leaf-list or [null]
        annotations, // an object of annotations
        meta_array,  // an array of annotations, one for each value of a leaf-list
        ignored,     // a value that nothing reads
    };
    struct Open {
        Frame frame;
        // object: its node (null for the top level, whose members are roots)
        // and the namespace that its unqualified members inherit.
        bool is_node = false;
        bool top = false;
        bool document = false; // the document's object, which may be an envelope
        const char *ns = "";
        std::vector<Seen> seen;
        std::deque<Pending> pending;
        std::vector<const char *> names;       // every member name, metadata included
        std::unordered_set<const char *> many; // the same, once there are many
        uint32_t members = 0;
        const char *key = nullptr;
        int key_line = 0;
        // array: the member it is the value of
        const char *member = nullptr;
        const char *tag = nullptr;
        const char *member_ns = nullptr;
        int line = 0;
        Member kind = Member::list;
        uint32_t items = 0;
        uint32_t first = 0;
        bool null_item = false;
        // annotations and meta_array: where they are read into
        Annotations *into = nullptr;
        Metadata *meta = nullptr;
    };

    int line() const { return stream_.line(); }

    bool fail(int line, std::string what)
    {
        if (!error)
            error.emplace(line, std::move(what));
        return false;
    }

    // A frame on top of the stack; the room of the one that stood there
    // before is kept.  The stack never moves: it has room for the deepest
    // document allowed.
    Open &push(Frame f)
    {
        Open &o = stack_[depth_++];
        o.frame = f;
        o.is_node = o.top = o.document = false;
        o.ns = "";
        o.seen.clear();
        o.pending.clear();
        o.names.clear();
        o.many.clear();
        o.members = 0;
        o.key = nullptr;
        o.key_line = o.line = 0;
        o.member = o.tag = o.member_ns = nullptr;
        o.kind = Member::list;
        o.items = o.first = 0;
        o.null_item = false;
        o.into = nullptr;
        o.meta = nullptr;
        return o;
    }
    Open &top() { return stack_[depth_ - 1]; }

    const char *intern(std::string_view s) { return builder_.intern(s); }

    // The namespace of a module, once per module.
    const char *namespace_of(std::string_view module)
    {
        const char *name = intern(module);
        auto it = namespaces_.find(name);
        if (it != namespaces_.end())
            return it->second;
        std::optional<std::string> ns = namespace_of_module(module);
        const char *interned = ns ? intern(*ns) : nullptr;
        namespaces_.emplace(name, interned);
        return interned;
    }

    bool nul(std::string_view s) const { return s.find('\0') != std::string_view::npos; }

    // ---- members

    bool key(std::string_view name)
    {
        Open &o = top();
        const int at = line();
        if (o.frame == Frame::annotations)
            return annotation_name(o, name, at);
        if (o.frame == Frame::ignored)
            return true;
        if (nul(name))
            return fail(at, "member name '" + std::string(name.substr(0, name.find('\0'))) +
                                "...' holds a NUL character");
        const char *interned = intern(name);
        if (repeated(o, interned))
            return fail(at, "member '" + std::string(name) + "' appears twice");
        o.members++;
        o.key = interned;
        o.key_line = at;
        if (o.document) {
            // The document's object is an envelope only when it holds one
            // member, an envelope: then its value is the top level.
            if (o.members == 2 && envelope_ != nullptr)
                return fail(envelope_line_,
                            "'" + std::string(envelope_) + "' may only wrap the whole document");
            if (o.members == 1 && is_envelope(name)) {
                envelope_ = interned;
                envelope_line_ = at;
                return true;
            }
            o.top = true;
        }
        if (o.top && is_envelope(name))
            return fail(at, "'" + std::string(name) + "' may only wrap the whole document");
        return true;
    }

    // Whether an object already holds a member of this name, metadata
    // included; the name counts as held from now on.
    static bool repeated(Open &o, const char *name)
    {
        constexpr std::size_t few = 16;
        if (o.names.size() < few) {
            if (std::find(o.names.begin(), o.names.end(), name) != o.names.end())
                return true;
            o.names.push_back(name);
            return false;
        }
        if (o.many.empty())
            o.many.insert(o.names.begin(), o.names.end());
        return !o.many.insert(name).second;
    }

    bool start(Type type)
    {
        if (++nesting_ > max_json_depth)
            return fail(line(), "the document nests deeper than " + std::to_string(max_json_depth) +
                                    " levels");
        if (depth_ == 0) {
            if (type != Type::object)
                return fail(line(), "the document is not a JSON object");
            Open &o = push(Frame::object);
            o.document = true;
            return true;
        }
        return value(type, {});
    }

    bool scalar(Type type, std::string_view text, bool is_string)
    {
        if (depth_ == 0)
            return fail(line(), "the document is not a JSON object");
        if (nul(text))
            return fail(line(), "a value holds a NUL character");
        string_ = is_string;
        return value(type, text);
    }

    // A value (opened, for an object or array) in the place the innermost
    // open frame gives it.
    bool value(Type type, std::string_view text)
    {
        Open &o = top();
        switch (o.frame) {
        case Frame::document:
            break;
        case Frame::object:
            return member(o, type, text);
        case Frame::array:
            return array_item(o, type, text);
        case Frame::annotations:
            return annotation_value(o, type, text);
        case Frame::meta_array: {
            o.meta->items.push_back({type, line(), std::nullopt});
            if (type == Type::object) {
                Open &a = push(Frame::annotations);
                a.into = &stack_[depth_ - 2].meta->items.back();
            } else if (type == Type::array) {
                push(Frame::ignored);
            }
            return true;
        }
        case Frame::ignored:
            if (type == Type::object || type == Type::array)
                push(Frame::ignored);
            return true;
        }
        return true;
    }

    bool member(Open &o, Type type, std::string_view text)
    {
        const char *name = o.key;
        const int at = o.key_line;
        std::string_view member_name(name);
        if (o.document && name == envelope_) {
            if (type != Type::object)
                return fail(at, "'" + std::string(member_name) + "' does not hold an object");
            Open &inner = push(Frame::object);
            inner.top = true;
            return true;
        }
        if (member_name == "@") {
            if (!o.is_node)
                return fail(at, "metadata '@' outside any container");
            Metadata &meta = own_meta_.emplace_back();
            meta.whole = {type, at, std::nullopt};
            return metadata_value(type, &meta, /*own=*/true);
        }
        if (member_name.starts_with('@')) {
            Pending &p = o.pending.emplace_back();
            p.name = intern(member_name.substr(1));
            p.line = at;
            p.meta.whole = {type, at, std::nullopt};
            return metadata_value(type, &o.pending.back().meta, false);
        }
        Name n = split(member_name);
        const char *ns = o.ns;
        if (n.qualified) {
            ns = namespace_of(n.module);
            if (ns == nullptr)
                return fail(at, "unknown module '" + std::string(n.module) + "' in '" +
                                    std::string(member_name) + "' (modules: " + known_modules() +
                                    ")");
        } else if (!o.is_node) {
            return fail(at, "top-level member '" + std::string(member_name) +
                                "' does not name its module (module:" + std::string(member_name) +
                                ")");
        }
        if (n.local.empty())
            return fail(at, "member '" + std::string(member_name) + "' names no node");
        const auto first = static_cast<uint32_t>(builder_.children().size());
        switch (type) {
        case Type::object: {
            builder_.open(n.local, ns, static_cast<uint32_t>(at));
            o.seen.push_back({name, Member::container, first, 1, at});
            Open &child = push(Frame::object);
            child.is_node = true;
            child.ns = builder_.top().ns;
            return true;
        }
        case Type::null:
            return fail(at, "'" + std::string(member_name) +
                                "' is null: an empty leaf is [null], an empty container {}");
        case Type::array: {
            o.seen.push_back({name, Member::list, first, 0, at});
            Open &a = push(Frame::array);
            a.member = name;
            a.tag = intern(n.local);
            a.member_ns = ns;
            a.line = at;
            a.first = first;
            return true;
        }
        case Type::scalar:
            break;
        }
        vidl_yfw_datatree &leaf = builder_.open(n.local, ns, static_cast<uint32_t>(at));
        builder_.set_value(leaf, text);
        builder_.close();
        o.seen.push_back({name, Member::leaf, first, 1, at});
        return true;
    }

    // A list (one node per entry), a leaf-list (one node per value), or
    // [null], a leaf of type empty.
    bool array_item(Open &a, Type type, std::string_view text)
    {
        const int at = line();
        auto neither = [&] {
            return fail(a.line, "'" + std::string(a.member) +
                                    "' is neither a list (entries are objects), a leaf-list "
                                    "(values are scalars) nor [null]");
        };
        if (a.null_item || (type == Type::null && a.items != 0) || type == Type::array)
            return neither();
        const Member kind = type == Type::object ? Member::list : Member::leaf_list;
        if (a.items != 0 && kind != a.kind)
            return neither();
        a.kind = kind;
        a.items++;
        if (type == Type::null) {
            a.null_item = true;
            return true;
        }
        if (type == Type::object) {
            builder_.open(a.tag, a.member_ns, static_cast<uint32_t>(at));
            Open &entry = push(Frame::object);
            entry.is_node = true;
            entry.ns = builder_.top().ns;
            return true;
        }
        vidl_yfw_datatree &leaf = builder_.open(a.tag, a.member_ns, static_cast<uint32_t>(at));
        builder_.set_value(leaf, text);
        builder_.close();
        return true;
    }

    // ---- metadata

    bool metadata_value(Type type, Metadata *meta, bool own)
    {
        if (type == Type::object) {
            Open &a = push(Frame::annotations);
            a.into = &meta->whole;
            a.meta = meta;
            a.is_node = own;
        } else if (type == Type::array) {
            Open &m = push(Frame::meta_array);
            m.meta = meta;
        } else if (own) {
            return fail(meta->whole.line, "metadata is an object of annotations");
        }
        return true;
    }

    bool annotation_name(Open &a, std::string_view name, int at)
    {
        Name n = split(name);
        if (!n.qualified)
            return fail(at, "annotation '" + std::string(name) + "' does not name its module");
        if (namespace_of(n.module) == nullptr)
            return fail(at, "unknown module '" + std::string(n.module) + "' in '" +
                                std::string(name) + "' (modules: " + known_modules() + ")");
        a.key = n.module == "ietf-netconf" && n.local == "operation" ? operation_key_ : nullptr;
        a.key_line = at;
        return true;
    }

    bool annotation_value(Open &a, Type type, std::string_view text)
    {
        if (a.key == operation_key_) {
            std::optional<uint32_t> op = type == Type::scalar ? operation_of(text) : std::nullopt;
            // Only a string names an operation: a number or boolean is no name.
            if (!op || !string_)
                return fail(a.key_line, unknown_operation(text));
            a.into->op = op;
        }
        if (type == Type::object || type == Type::array)
            push(Frame::ignored);
        return true;
    }

    // Applies the metadata of a node, or of each value of a leaf-list.
    bool apply(const Annotations &a, vidl_yfw_datatree &node)
    {
        if (a.type != Type::object)
            return fail(a.line, "metadata is an object of annotations");
        if (a.op)
            yfwhost::tree_set_op(&node, *a.op);
        return true;
    }

    // The end of an object: metadata about its members meets them.
    bool end_object(Open &o)
    {
        if ((o.top || o.document) && o.members == 0)
            return fail(0, "the document holds no data node");
        std::span<vidl_yfw_datatree> nodes = builder_.children();
        for (const Seen &s : o.seen) {
            auto p = std::find_if(o.pending.begin(), o.pending.end(),
                                  [&](const Pending &x) { return x.name == s.name; });
            if (p == o.pending.end())
                continue;
            std::string name(s.name);
            switch (s.kind) {
            case Member::container:
                return fail(p->line,
                            "metadata of the container '" + name + "' goes inside it, as '@'");
            case Member::list:
                return fail(p->line, "metadata of an entry of the list '" + name +
                                         "' goes inside the entry, as '@'");
            case Member::leaf:
                if (!apply(p->meta.whole, nodes[s.first]))
                    return false;
                break;
            case Member::leaf_list:
                if (p->meta.whole.type != Type::array)
                    return fail(p->line, "metadata of the leaf-list '" + name +
                                             "' is an array, one entry for each value");
                for (uint32_t k = 0; k < s.count && k < p->meta.items.size(); ++k)
                    if (p->meta.items[k].type != Type::null &&
                        !apply(p->meta.items[k], nodes[s.first + k]))
                        return false;
                break;
            }
            o.pending.erase(p);
        }
        if (!o.pending.empty()) {
            auto first = std::min_element(
                o.pending.begin(), o.pending.end(), [](const Pending &x, const Pending &y) {
                    return std::string_view(x.name) < std::string_view(y.name);
                });
            return fail(first->line, "metadata '@" + std::string(first->name) +
                                         "' is about a member this object does not have");
        }
        if (o.is_node)
            builder_.close();
        return true;
    }

    bool end()
    {
        --nesting_;
        Open &o = top();
        switch (o.frame) {
        case Frame::object:
            if (!end_object(o))
                return false;
            break;
        case Frame::array: {
            Open &parent = stack_[depth_ - 2];
            Seen &s = parent.seen.back();
            s.kind = o.kind;
            s.count = o.items;
            if (o.null_item) {
                builder_.open(o.tag, o.member_ns, static_cast<uint32_t>(o.line));
                builder_.close();
                s.kind = Member::leaf;
                s.count = 1;
            }
            break;
        }
        case Frame::annotations:
            if (o.is_node) {
                // The node's own metadata ("@"), inside its object.
                Metadata &meta = own_meta_.back();
                if (!apply(meta.whole, builder_.top()))
                    return false;
                own_meta_.pop_back();
            }
            break;
        case Frame::meta_array:
        case Frame::ignored:
        case Frame::document:
            break;
        }
        --depth_;
        return true;
    }

    Stream &stream_;
    yfwhost::TreeBuilder builder_;
    std::vector<Open> stack_;
    std::size_t depth_ = 0;
    std::size_t nesting_ = 0;
    std::deque<Metadata> own_meta_;
    std::unordered_map<const char *, const char *> namespaces_;
    const char *const operation_key_ = "ietf-netconf:operation"; // a mark, compared by address
    bool string_ = false; // the scalar in hand was a JSON string
    const char *envelope_ = nullptr;
    int envelope_line_ = 0;
};

// ------------------------------------------------------------------ writing

class Writer {
public:
    Writer(const JsonSchema &schema, Output &out) : schema_(schema), stream_{out}, json_(stream_)
    {
        json_.SetIndent(' ', 2);
    }

    // The answer is checked before a character of it is written: every
    // namespace in it must have a module name.
    void check(const vidl_yfw_datatree &root)
    {
        std::vector<const vidl_yfw_datatree *> todo{&root};
        while (!todo.empty()) {
            const vidl_yfw_datatree *n = todo.back();
            todo.pop_back();
            for (std::size_t i = 0; i < yfwhost::tree_child_count(n); ++i) {
                module_of(n->subtrees[i].ns);
                todo.push_back(&n->subtrees[i]);
            }
        }
    }

    void document(const vidl_yfw_datatree &root)
    {
        json_.StartObject();
        children(root, "", schema_.root());
        json_.EndObject();
        stream_.out.put('\n');
    }

private:
    // The module of a namespace, once per namespace; one string per module,
    // so that two nodes are of one module when their strings are one.
    const std::string &module_of(const char *ns)
    {
        auto it = modules_.find(ns);
        if (it != modules_.end())
            return *it->second;
        std::optional<std::string> module = module_of_namespace(ns != nullptr ? ns : "");
        if (!module)
            throw std::runtime_error("no YANG module is known for the namespace '" +
                                     std::string(ns != nullptr ? ns : "") + "'");
        const std::string &name = *module_names_.insert(std::move(*module)).first;
        modules_.emplace(ns, &name);
        return name;
    }

    // The children of `node` as members of the object being written.  Nodes
    // of one name become one member wherever they stand, as JSON has no
    // repeated names; members come in the order their first node does.
    void children(const vidl_yfw_datatree &node, const std::string &module, JsonSchema::Node at)
    {
        const auto count = static_cast<uint32_t>(yfwhost::tree_child_count(&node));
        // Each child's group: the first child of its name.
        std::vector<uint32_t> group(count);
        std::unordered_map<std::pair<const char *, const std::string *>, uint32_t, PairHash> first;
        for (uint32_t i = 0; i < count; ++i) {
            const vidl_yfw_datatree &c = node.subtrees[i];
            auto key = std::make_pair(static_cast<const char *>(c.tag), &module_of(c.ns));
            group[i] =
                count <= 8 ? small_group(node, i, key) : first.try_emplace(key, i).first->second;
        }
        std::vector<const vidl_yfw_datatree *> members;
        for (uint32_t i = 0; i < count; ++i) {
            if (group[i] != i)
                continue;
            members.clear();
            for (uint32_t j = i; j < count; ++j)
                if (group[j] == i)
                    members.push_back(&node.subtrees[j]);
            write_member(members, module, at);
        }
    }

    struct PairHash {
        std::size_t operator()(const std::pair<const char *, const std::string *> &p) const
        {
            return std::hash<const void *>()(p.first) * 31 + std::hash<const void *>()(p.second);
        }
    };

    // The group of child i among a few: the first child with its name.
    uint32_t small_group(const vidl_yfw_datatree &node, uint32_t i,
                         std::pair<const char *, const std::string *> key)
    {
        for (uint32_t j = 0; j < i; ++j) {
            const vidl_yfw_datatree &c = node.subtrees[j];
            if (c.tag == key.first && &module_of(c.ns) == key.second)
                return j;
        }
        return i;
    }

    void write_member(const std::vector<const vidl_yfw_datatree *> &group,
                      const std::string &module, JsonSchema::Node at)
    {
        const vidl_yfw_datatree &first = *group.front();
        const std::string &child_module = module_of(first.ns);
        std::string_view tag = first.tag != nullptr ? first.tag : "";
        name_.clear();
        if (child_module != module)
            name_.append(child_module).append(":");
        name_.append(tag);
        JsonSchema::Node child = schema_.child(at, child_module, tag);
        NodeKind kind = schema_.kind(child);
        const bool many = kind == NodeKind::list || kind == NodeKind::leaf_list || group.size() > 1;

        json_.Key(name_.data(), static_cast<rapidjson::SizeType>(name_.size()));
        if (many)
            json_.StartArray();
        bool any_meta = false;
        for (const vidl_yfw_datatree *n : group)
            any_meta = value(*n, kind, child_module, child) || any_meta;
        if (many)
            json_.EndArray();
        if (!any_meta)
            return;
        // The operations of leaves beside them, as "@name".
        name_.assign("@").append(child_module != module ? child_module + ":" : "").append(tag);
        json_.Key(name_.data(), static_cast<rapidjson::SizeType>(name_.size()));
        if (many)
            json_.StartArray();
        for (const vidl_yfw_datatree *n : group) {
            if (is_object(*n, kind) || (n->present & YFW_PRESENT_OP) == 0)
                json_.Null();
            else
                operation(*n);
        }
        if (many)
            json_.EndArray();
    }

    static bool is_object(const vidl_yfw_datatree &n, NodeKind kind)
    {
        return yfwhost::tree_child_count(&n) > 0 || kind == NodeKind::container ||
               kind == NodeKind::list;
    }

    void operation(const vidl_yfw_datatree &n)
    {
        json_.StartObject();
        json_.Key("ietf-netconf:operation");
        if (n.op < operation_names.size())
            json_.String(operation_names[n.op].data(),
                         static_cast<rapidjson::SizeType>(operation_names[n.op].size()));
        else
            json_.String(std::to_string(n.op).c_str());
        json_.EndObject();
    }

    // A container or list entry as an object, its operation inside as "@";
    // anything else as a leaf value.  True for a leaf whose operation its
    // caller writes beside it.
    bool value(const vidl_yfw_datatree &n, NodeKind kind, const std::string &module,
               JsonSchema::Node at)
    {
        if (is_object(n, kind)) {
            json_.StartObject();
            if ((n.present & YFW_PRESENT_OP) != 0) {
                json_.Key("@");
                operation(n);
            }
            children(n, module, at);
            json_.EndObject();
            return false;
        }
        const bool meta = (n.present & YFW_PRESENT_OP) != 0;
        if ((n.present & YFW_PRESENT_VALUE) == 0 || n.value == nullptr) {
            json_.RawValue("[null]", 6, rapidjson::kArrayType);
            return meta;
        }
        std::string_view text = n.value;
        switch (schema_.value_kind(at, text)) {
        case ValueKind::number: {
            // YANG allows a leading "+" that JSON does not.
            std::string_view digits = text.starts_with('+') ? text.substr(1) : text;
            int64_t number = 0;
            auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
            if (ec == std::errc() && end == digits.data() + digits.size()) {
                json_.Int64(number);
                return meta;
            }
            break;
        }
        case ValueKind::boolean:
            json_.Bool(text == "true");
            return meta;
        case ValueKind::empty:
            json_.RawValue("[null]", 6, rapidjson::kArrayType);
            return meta;
        case ValueKind::string:
            break;
        }
        json_.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
        return meta;
    }

    const JsonSchema &schema_;
    OutputStream stream_;
    rapidjson::PrettyWriter<OutputStream> json_;
    std::unordered_map<const char *, const std::string *> modules_;
    std::set<std::string> module_names_;
    std::string name_;
};

} // namespace

Document read_json_document(Input &input)
{
    Stream stream(input);
    Builder builder(stream);
    rapidjson::Reader reader;
    constexpr unsigned flags = rapidjson::kParseIterativeFlag |
                               rapidjson::kParseValidateEncodingFlag |
                               rapidjson::kParseNumbersAsStringsFlag;
    rapidjson::ParseResult result = reader.Parse<flags>(stream, builder);
    if (builder.error)
        throw *builder.error;
    if (result.IsError()) {
        std::string what = rapidjson::GetParseError_En(result.Code());
        if (!what.empty() && what.back() == '.')
            what.pop_back();
        if (!what.empty())
            what[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(what[0])));
        throw InputError(stream.line(), "malformed JSON: " + what);
    }
    return builder.finish();
}

void write_json_document(const vidl_yfw_datatree *root, const JsonSchema &schema, Output &out)
{
    Writer writer(schema, out);
    writer.check(*root);
    writer.document(*root);
}

} // namespace octunnel
