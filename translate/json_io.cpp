#include "translate/json_io.h"

#include "translate/yang_names.h"

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

    // What of `s` a document cannot carry, in words, or "" when all is well:
    // a NUL would cut names and values short in the trees, and XML allows
    // no other control character but tab, line feed and carriage return,
    // nor U+FFFE and U+FFFF.  JSON text takes what XML takes, so that both
    // syntaxes of one document mean the same.
    static std::string unfit(std::string_view s)
    {
        for (std::size_t i = 0; i < s.size(); ++i) {
            const auto c = static_cast<unsigned char>(s[i]);
            if (c == 0)
                return "a NUL character";
            if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') {
                char text[48];
                std::snprintf(text, sizeof text, "the control character U+%04X", c);
                return text;
            }
            if (c == 0xEF && i + 2 < s.size() && static_cast<unsigned char>(s[i + 1]) == 0xBF &&
                (static_cast<unsigned char>(s[i + 2]) & 0xFE) == 0xBE)
                return static_cast<unsigned char>(s[i + 2]) == 0xBE ? "the noncharacter U+FFFE"
                                                                    : "the noncharacter U+FFFF";
        }
        return {};
    }

    // ---- members

    bool key(std::string_view name)
    {
        Open &o = top();
        const int at = line();
        if (o.frame == Frame::annotations)
            return annotation_name(o, name, at);
        if (o.frame == Frame::ignored)
            return true;
        if (std::string bad = unfit(name); !bad.empty())
            return fail(at, "member name '" + one_line(name) + "' holds " + bad);
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
                            quoted(envelope_) + " may only wrap the whole document");
            if (o.members == 1 && is_envelope(name)) {
                envelope_ = interned;
                envelope_line_ = at;
                return true;
            }
            o.top = true;
        }
        if (o.top && is_envelope(name))
            return fail(at, quoted(name) + " may only wrap the whole document");
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
        if (std::string bad = unfit(text); !bad.empty())
            return fail(line(), "a value holds " + bad);
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
                return fail(at, quoted(member_name) + " does not hold an object");
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
            return fail(at, quoted(member_name) +
                                " is null: an empty leaf is [null], an empty container {}");
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
            return fail(a.line, quoted(a.member) +
                                    " is neither a list (entries are objects), a leaf-list "
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

} // namespace

// ------------------------------------------------------------------ writing

using yfwhost::Answer;

// Writes an answer as RFC 7951 JSON.  What it learns along the way is kept
// so that no node asks twice: each name of the answer (tag and namespace)
// belongs to a member class (tag and module), and each schema node keeps
// its children by class, so a node's member is found without a lookup.
class JsonWriter {
public:
    JsonWriter(const JsonSchema &schema, const Answer &answer, Output &out)
        : schema_(schema), answer_(answer), stream_{out}, json_(stream_)
    {
        json_.SetIndent(' ', 2);
    }

    // The answer is checked before a character of it is written: every
    // namespace in it must have a module name.
    void check()
    {
        for (Answer::Id id = 1; id < answer_.size(); ++id)
            class_of(id);
    }

    void document()
    {
        Schema &top = schemas_.emplace_back(Schema{schema_.root(), NodeKind::unknown, false, {}});
        json_.StartObject();
        children(Answer::root, nullptr, top, 0);
        json_.EndObject();
        stream_.out.put('\n');
    }

private:
    static constexpr uint32_t none = UINT32_MAX;

    // Nodes of one tag in one module: one member of their parent's object.
    struct Class {
        const char *tag;
        const std::string *module;
    };
    struct Schema {
        JsonSchema::Node node;
        NodeKind kind;
        bool typed;                     // its values may be other than strings
        std::vector<Schema *> by_class; // children, found on first use
    };
    struct Group {
        uint32_t cls;
        uint32_t first, last, count; // ordinals of the children, chained by `next`
    };
    // What a level of the answer needs while it is written, kept from one
    // node to the next.
    struct Scratch {
        std::vector<Answer::Id> ids;
        std::vector<uint32_t> next;
        std::vector<Group> groups;
        std::vector<std::pair<uint32_t, uint32_t>> group_of; // by class: (node stamp, group)
        uint32_t stamp = 0;
    };

    // The member class of a node, through its name, once per name.
    uint32_t class_of(Answer::Id id)
    {
        const Answer::Name &name = answer_.name_of(id);
        if (name.index < class_of_name_.size() && class_of_name_[name.index] != none)
            return class_of_name_[name.index];
        auto it = modules_.find(name.ns);
        if (it == modules_.end()) {
            std::optional<std::string> module = module_of_namespace(name.ns);
            if (!module)
                throw std::runtime_error("no YANG module is known for the namespace '" +
                                         std::string(name.ns) + "'");
            it = modules_.emplace(name.ns, &*module_names_.insert(std::move(*module)).first).first;
        }
        auto [c, fresh] = classes_by_key_.try_emplace({name.tag, it->second},
                                                      static_cast<uint32_t>(classes_.size()));
        if (fresh)
            classes_.push_back(Class{name.tag, it->second});
        if (class_of_name_.size() <= name.index)
            class_of_name_.resize(name.index + 1, none);
        class_of_name_[name.index] = c->second;
        return c->second;
    }

    Schema &child_schema(Schema &parent, uint32_t cls)
    {
        if (parent.by_class.size() <= cls)
            parent.by_class.resize(cls + 1, nullptr);
        if (parent.by_class[cls] == nullptr) {
            JsonSchema::Node n =
                schema_.child(parent.node, *classes_[cls].module, classes_[cls].tag);
            parent.by_class[cls] = &schemas_.emplace_back(
                Schema{n, schema_.kind(n), n != nullptr && schema_.typed(n), {}});
        }
        return *parent.by_class[cls];
    }

    // The children of `node` as members of the object being written.  Nodes
    // of one name become one member wherever they stand, as JSON has no
    // repeated names; members come in the order their first node does.
    void children(Answer::Id node, const std::string *module, Schema &at, std::size_t depth)
    {
        if (scratch_.size() <= depth)
            scratch_.resize(depth + 1);
        Scratch &s = scratch_[depth];
        s.ids.clear();
        s.next.clear();
        s.groups.clear();
        ++s.stamp;
        for (Answer::Id c = answer_.first_child(node); c != Answer::none;
             c = answer_.next_sibling(c)) {
            const uint32_t cls = class_of(c);
            const auto ordinal = static_cast<uint32_t>(s.ids.size());
            s.ids.push_back(c);
            s.next.push_back(none);
            if (s.group_of.size() <= cls)
                s.group_of.resize(cls + 1, {0, 0});
            auto &[stamp, g] = s.group_of[cls];
            if (stamp != s.stamp) {
                stamp = s.stamp;
                g = static_cast<uint32_t>(s.groups.size());
                s.groups.push_back(Group{cls, ordinal, ordinal, 1});
            } else {
                s.next[s.groups[g].last] = ordinal;
                s.groups[g].last = ordinal;
                s.groups[g].count++;
            }
        }
        // Writing a member reaches deeper levels, whose scratch is their own.
        for (std::size_t g = 0; g < s.groups.size(); ++g)
            write_member(s, s.groups[g], module, at, depth);
    }

    void write_member(Scratch &s, const Group &group, const std::string *module, Schema &at,
                      std::size_t depth)
    {
        const Class &cls = classes_[group.cls];
        const bool qualified = cls.module != module;
        name_.clear();
        if (qualified)
            name_.append(*cls.module).append(":");
        name_.append(cls.tag);
        Schema &child = child_schema(at, group.cls);
        const bool many =
            child.kind == NodeKind::list || child.kind == NodeKind::leaf_list || group.count > 1;

        json_.Key(name_.data(), static_cast<rapidjson::SizeType>(name_.size()));
        if (many)
            json_.StartArray();
        bool any_meta = false;
        for (uint32_t i = group.first; i != none; i = s.next[i])
            any_meta = value(s.ids[i], child, cls.module, depth) || any_meta;
        if (many)
            json_.EndArray();
        if (!any_meta)
            return;
        // The operations of leaves beside them, as "@name".
        name_.assign("@");
        if (qualified)
            name_.append(*cls.module).append(":");
        name_.append(cls.tag);
        json_.Key(name_.data(), static_cast<rapidjson::SizeType>(name_.size()));
        if (many)
            json_.StartArray();
        for (uint32_t i = group.first; i != none; i = s.next[i]) {
            Answer::Id n = s.ids[i];
            if (is_object(n, child.kind) || !answer_.has_op(n))
                json_.Null();
            else
                operation(n);
        }
        if (many)
            json_.EndArray();
    }

    bool is_object(Answer::Id n, NodeKind kind) const
    {
        return answer_.first_child(n) != Answer::none || kind == NodeKind::container ||
               kind == NodeKind::list;
    }

    void operation(Answer::Id n)
    {
        json_.StartObject();
        json_.Key("ietf-netconf:operation");
        uint32_t op = answer_.op(n);
        if (op < operation_names.size())
            json_.String(operation_names[op].data(),
                         static_cast<rapidjson::SizeType>(operation_names[op].size()));
        else
            json_.String(std::to_string(op).c_str());
        json_.EndObject();
    }

    // A container or list entry as an object, its operation inside as "@";
    // anything else as a leaf value.  True for a leaf whose operation its
    // caller writes beside it.
    bool value(Answer::Id n, Schema &at, const std::string *module, std::size_t depth)
    {
        if (is_object(n, at.kind)) {
            json_.StartObject();
            if (answer_.has_op(n)) {
                json_.Key("@");
                operation(n);
            }
            children(n, module, at, depth + 1);
            json_.EndObject();
            return false;
        }
        const bool meta = answer_.has_op(n);
        const char *v = answer_.value(n);
        if (v == nullptr) {
            json_.RawValue("[null]", 6, rapidjson::kArrayType);
            return meta;
        }
        std::string_view text = v;
        switch (at.typed ? schema_.value_kind(at.node, text) : ValueKind::string) {
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

    struct PairHash {
        std::size_t operator()(const std::pair<const void *, const void *> &p) const
        {
            return std::hash<const void *>()(p.first) * 31 + std::hash<const void *>()(p.second);
        }
    };

    const JsonSchema &schema_;
    const Answer &answer_;
    OutputStream stream_;
    rapidjson::PrettyWriter<OutputStream> json_;
    std::unordered_map<const char *, const std::string *> modules_; // by namespace
    std::set<std::string> module_names_;
    std::vector<Class> classes_;
    std::unordered_map<std::pair<const void *, const void *>, uint32_t, PairHash> classes_by_key_;
    std::vector<uint32_t> class_of_name_;
    std::deque<Schema> schemas_;  // grows without moving what it holds
    std::deque<Scratch> scratch_; // likewise
    std::string name_;
};

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
        std::string what = result.Code() == rapidjson::kParseErrorNumberTooBig
                               ? "a number beyond what JSON can carry (1.8e308)"
                               : rapidjson::GetParseError_En(result.Code());
        if (!what.empty() && what.back() == '.')
            what.pop_back();
        if (!what.empty())
            what[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(what[0])));
        throw InputError(stream.line(), "malformed JSON: " + what);
    }
    return builder.finish();
}

JsonAnswer::JsonAnswer(const yfwhost::Answer &answer, const JsonSchema &schema, Output &out)
    : writer_(std::make_unique<JsonWriter>(schema, answer, out))
{
    writer_->check();
}

JsonAnswer::~JsonAnswer() = default;

void JsonAnswer::write()
{
    writer_->document();
}

} // namespace octunnel
