#include "json_io.h"

#include "input_error.h"
#include "yang_names.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <stdexcept>

namespace octunnel {
namespace {

using Json = nlohmann::ordered_json;

// ------------------------------------------------------------------ reading
//
// nlohmann's parser is driven through its SAX interface into a tree of our
// own, which keeps what its DOM drops: the line each value starts on, and
// members in document order even when a name repeats (an error we report
// ourselves, with its line).

struct Value {
    enum class Type { object, array, string, number, boolean, null };
    Type type = Type::null;
    std::string text; // a scalar as written
    int line = 0;     // for an object member, the line of its name
    std::vector<std::string> names;
    std::vector<Value> items; // an object's member values, or an array's elements
};

// An input iterator over the text that records, in a place the SAX handler
// reads, how far the parser has come.  When the handler is called the parser
// has just read the token it reports, and after a number the character that
// ended it, which is never on a later line than the number.
class MarkingIterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char *;
    using reference = const char &;

    MarkingIterator(const char *p, const char **mark) : p_(p), mark_(mark) {}
    reference operator*() const { return *p_; }
    MarkingIterator &operator++()
    {
        *mark_ = ++p_;
        return *this;
    }
    MarkingIterator operator++(int)
    {
        MarkingIterator before = *this;
        ++*this;
        return before;
    }
    bool operator==(const MarkingIterator &o) const { return p_ == o.p_; }

private:
    const char *p_;
    const char **mark_;
};

class Lines {
public:
    explicit Lines(std::string_view text) : text_(text) {}
    // The line of the character at `offset`.  Offsets asked for only grow,
    // but for the one of a parse error, so the count goes on from the last.
    int at(std::size_t offset)
    {
        offset = std::min(offset, text_.size());
        if (offset < counted_) {
            counted_ = 0;
            line_ = 1;
        }
        line_ +=
            static_cast<int>(std::count(text_.begin() + static_cast<std::ptrdiff_t>(counted_),
                                        text_.begin() + static_cast<std::ptrdiff_t>(offset), '\n'));
        counted_ = offset;
        return line_;
    }

private:
    std::string_view text_;
    std::size_t counted_ = 0;
    int line_ = 1;
};

class Sax {
public:
    Sax(std::string_view text, const char *const *mark) : text_(text), mark_(mark), lines_(text) {}

    bool null() { return scalar(Value::Type::null, ""); }
    bool boolean(bool b) { return scalar(Value::Type::boolean, b ? "true" : "false"); }
    // A number's text is taken from the document, as written ("-0", "1e2").
    bool number_integer(Json::number_integer_t)
    {
        return scalar(Value::Type::number, number_text());
    }
    bool number_unsigned(Json::number_unsigned_t)
    {
        return scalar(Value::Type::number, number_text());
    }
    bool number_float(Json::number_float_t, const std::string &)
    {
        return scalar(Value::Type::number, number_text());
    }
    bool string(std::string &s) { return scalar(Value::Type::string, std::move(s)); }
    bool binary(Json::binary_t &) { return false; } // JSON text has no binary values
    bool start_object(std::size_t) { return open(Value::Type::object); }
    bool key(std::string &name)
    {
        stack_.back()->names.push_back(std::move(name));
        key_line_ = line();
        return true;
    }
    bool end_object() { return close(); }
    bool start_array(std::size_t) { return open(Value::Type::array); }
    bool end_array() { return close(); }
    bool parse_error(std::size_t byte, const std::string &, const nlohmann::detail::exception &e)
    {
        // The message starts "[json.exception.parse_error.101] parse error at
        // line L, column C: "; we name the line our own way.
        std::string what = e.what();
        if (std::size_t at = what.find("parse error"); at != std::string::npos) {
            if (std::size_t colon = what.find(": ", at); colon != std::string::npos)
                what = what.substr(colon + 2);
        }
        throw InputError(lines_.at(byte > 0 ? byte - 1 : 0), "malformed JSON: " + what);
    }

    Value document;

private:
    // The number just read: the parser has also read the character that ended
    // it, unless the document ended there.
    std::string number_text() const
    {
        auto in_number = [](char c) {
            return (c >= '0' && c <= '9') || c == '-' || c == '+' || c == '.' || c == 'e' ||
                   c == 'E';
        };
        const char *end = *mark_;
        if (end > text_.data() && !in_number(end[-1]))
            --end;
        const char *begin = end;
        while (begin > text_.data() && in_number(begin[-1]))
            --begin;
        return std::string(begin, end);
    }

    // The line of the last character read.
    int line() { return lines_.at(static_cast<std::size_t>(*mark_ - text_.data()) - 1); }

    Value &place(Value::Type type)
    {
        Value *v = &document;
        if (!stack_.empty()) {
            Value &parent = *stack_.back();
            parent.items.emplace_back();
            v = &parent.items.back();
        }
        v->type = type;
        v->line =
            !stack_.empty() && stack_.back()->type == Value::Type::object ? key_line_ : line();
        return *v;
    }
    bool scalar(Value::Type type, std::string text)
    {
        place(type).text = std::move(text);
        return true;
    }
    // A value stays where it is while it is open: only the innermost open
    // value grows.
    bool open(Value::Type type)
    {
        stack_.push_back(&place(type));
        return true;
    }
    bool close()
    {
        stack_.pop_back();
        return true;
    }

    std::string_view text_;
    const char *const *mark_;
    Lines lines_;
    std::vector<Value *> stack_;
    int key_line_ = 0;
};

Value parse(std::string_view text)
{
    const char *mark = text.data();
    Sax sax(text, &mark);
    MarkingIterator first(text.data(), &mark), last(text.data() + text.size(), &mark);
    Json::sax_parse(first, last, &sax);
    return std::move(sax.document);
}

struct Name {
    bool qualified;
    std::string module;
    std::string local;
};
Name split(std::string_view member)
{
    std::size_t colon = member.find(':');
    if (colon == std::string_view::npos)
        return {false, "", std::string(member)};
    return {true, std::string(member.substr(0, colon)), std::string(member.substr(colon + 1))};
}

bool is_wrapper(std::string_view member)
{
    Name n = split(member);
    return n.module == "ietf-netconf" &&
           (n.local == "data" || n.local == "config" || n.local == "filter");
}

class Builder {
public:
    std::vector<yfwhost::Tree> roots;

    void document(const Value &doc)
    {
        if (doc.type != Value::Type::object)
            throw InputError(doc.line, "the document is not a JSON object");
        const Value *top = &doc;
        if (doc.names.size() == 1 && is_wrapper(doc.names[0])) {
            top = &doc.items[0];
            if (top->type != Value::Type::object)
                throw InputError(top->line, "'" + doc.names[0] + "' does not hold an object");
        }
        if (top->names.empty())
            throw InputError(0, "the document holds no data node");
        for (std::size_t i = 0; i < top->names.size(); ++i)
            if (is_wrapper(top->names[i]))
                throw InputError(top->items[i].line,
                                 "'" + top->names[i] + "' may only wrap the whole document");
        members(nullptr, "", *top);
    }

private:
    // The members of `object` as children of `node` (null: as roots), whose
    // namespace `ns` unqualified names inherit.
    void members(vidl_yfw_datatree *node, const std::string &ns, const Value &object)
    {
        std::set<std::string_view> seen;
        std::map<std::string_view, const Value *> metadata;
        for (std::size_t i = 0; i < object.names.size(); ++i) {
            const std::string &name = object.names[i];
            const Value &value = object.items[i];
            if (!seen.insert(name).second)
                throw InputError(value.line, "member '" + name + "' appears twice");
            if (name == "@") {
                if (node == nullptr)
                    throw InputError(value.line, "metadata '@' outside any container");
                operation(node, value);
            } else if (name.starts_with('@')) {
                metadata[std::string_view(name).substr(1)] = &value;
            }
        }
        for (std::size_t i = 0; i < object.names.size(); ++i) {
            const std::string &name = object.names[i];
            if (name.starts_with('@'))
                continue;
            auto meta = metadata.find(name);
            member(node, ns, name, object.items[i],
                   meta != metadata.end() ? meta->second : nullptr);
            if (meta != metadata.end())
                metadata.erase(meta);
        }
        if (!metadata.empty()) {
            const auto &[name, value] = *metadata.begin();
            throw InputError(value->line, "metadata '@" + std::string(name) +
                                              "' is about a member this object does not have");
        }
    }

    void member(vidl_yfw_datatree *parent, const std::string &parent_ns, const std::string &name,
                const Value &value, const Value *meta)
    {
        Name n = split(name);
        std::string ns = parent_ns;
        if (n.qualified) {
            std::optional<std::string> module_ns = namespace_of_module(n.module);
            if (!module_ns)
                throw InputError(value.line, "unknown module '" + n.module + "' in '" + name +
                                                 "' (modules: " + known_modules() + ")");
            ns = *module_ns;
        } else if (parent == nullptr) {
            throw InputError(value.line, "top-level member '" + name +
                                             "' does not name its module (module:" + name + ")");
        }
        if (n.local.empty())
            throw InputError(value.line, "member '" + name + "' names no node");

        switch (value.type) {
        case Value::Type::object:
            if (meta != nullptr)
                throw InputError(meta->line,
                                 "metadata of the container '" + name + "' goes inside it, as '@'");
            members(add(parent, n.local, ns, value.line), ns, value);
            return;
        case Value::Type::null:
            throw InputError(value.line, "'" + name +
                                             "' is null: an empty leaf is [null], an empty "
                                             "container {}");
        case Value::Type::array:
            array(parent, ns, name, n.local, value, meta);
            return;
        default: {
            vidl_yfw_datatree *leaf = add(parent, n.local, ns, value.line);
            yfwhost::tree_set_value(leaf, value.text);
            if (meta != nullptr)
                operation(leaf, *meta);
        }
        }
    }

    // A list (one node per entry), a leaf-list (one node per value), or
    // [null], a leaf of type empty.
    void array(vidl_yfw_datatree *parent, const std::string &ns, const std::string &name,
               const std::string &tag, const Value &value, const Value *meta)
    {
        const auto &items = value.items;
        if (items.size() == 1 && items[0].type == Value::Type::null) {
            vidl_yfw_datatree *leaf = add(parent, tag, ns, value.line);
            if (meta != nullptr)
                operation(leaf, *meta);
            return;
        }
        auto is = [&](auto test) { return std::all_of(items.begin(), items.end(), test); };
        if (is([](const Value &v) { return v.type == Value::Type::object; })) {
            if (meta != nullptr)
                throw InputError(meta->line, "metadata of an entry of the list '" + name +
                                                 "' goes inside the entry, as '@'");
            for (const Value &entry : items)
                members(add(parent, tag, ns, entry.line), ns, entry);
            return;
        }
        if (!is([](const Value &v) {
                return v.type == Value::Type::string || v.type == Value::Type::number ||
                       v.type == Value::Type::boolean;
            }))
            throw InputError(value.line,
                             "'" + name +
                                 "' is neither a list (entries are objects), a leaf-list (values "
                                 "are scalars) nor [null]");
        if (meta != nullptr && meta->type != Value::Type::array)
            throw InputError(meta->line, "metadata of the leaf-list '" + name +
                                             "' is an array, one entry for each value");
        for (std::size_t k = 0; k < items.size(); ++k) {
            vidl_yfw_datatree *leaf = add(parent, tag, ns, items[k].line);
            yfwhost::tree_set_value(leaf, items[k].text);
            if (meta != nullptr && k < meta->items.size() &&
                meta->items[k].type != Value::Type::null)
                operation(leaf, meta->items[k]);
        }
    }

    vidl_yfw_datatree *add(vidl_yfw_datatree *parent, std::string_view tag, const std::string &ns,
                           int line)
    {
        vidl_yfw_datatree *node;
        if (parent == nullptr) {
            roots.emplace_back(yfwhost::tree_new(tag, ns));
            node = roots.back().get();
        } else {
            node = yfwhost::tree_add_child(parent, tag, ns);
        }
        node->fw_line = static_cast<uint32_t>(line);
        return node;
    }

    // Metadata of a node: ietf-netconf:operation sets its operation, as
    // nc:operation does in XML; other annotations are not the module's.
    void operation(vidl_yfw_datatree *node, const Value &meta)
    {
        if (meta.type != Value::Type::object)
            throw InputError(meta.line, "metadata is an object of annotations");
        for (std::size_t i = 0; i < meta.names.size(); ++i) {
            Name n = split(meta.names[i]);
            const Value &value = meta.items[i];
            if (!n.qualified)
                throw InputError(value.line,
                                 "annotation '" + meta.names[i] + "' does not name its module");
            if (!namespace_of_module(n.module))
                throw InputError(value.line, "unknown module '" + n.module + "' in '" +
                                                 meta.names[i] + "' (modules: " + known_modules() +
                                                 ")");
            if (n.module != "ietf-netconf" || n.local != "operation")
                continue;
            std::optional<uint32_t> op = operation_of(value.text);
            if (value.type != Value::Type::string || !op)
                throw InputError(value.line, unknown_operation(value.text));
            yfwhost::tree_set_op(node, *op);
        }
    }
};

// ------------------------------------------------------------------ writing

Json operation_json(const vidl_yfw_datatree &n)
{
    Json meta = Json::object();
    meta["ietf-netconf:operation"] =
        n.op < operation_names.size() ? std::string(operation_names[n.op]) : std::to_string(n.op);
    return meta;
}

bool has_operation(const vidl_yfw_datatree &n)
{
    return (n.present & YFW_PRESENT_OP) != 0;
}

std::string module_name(const char *ns)
{
    std::optional<std::string> module = module_of_namespace(ns != nullptr ? ns : "");
    if (!module)
        throw std::runtime_error("no YANG module is known for the namespace '" +
                                 std::string(ns != nullptr ? ns : "") + "'");
    return *module;
}

class Writer {
public:
    explicit Writer(const JsonSchema &schema) : schema_(schema) {}

    // The children of `node` as members of `object`.  Nodes of one name
    // become one member wherever they stand, as JSON has no repeated names.
    void children(Json &object, const vidl_yfw_datatree &node, const std::string &module,
                  const std::string &path)
    {
        std::size_t count = yfwhost::tree_child_count(&node);
        std::vector<bool> done(count);
        for (std::size_t i = 0; i < count; ++i) {
            if (done[i])
                continue;
            const vidl_yfw_datatree &first = node.subtrees[i];
            std::vector<const vidl_yfw_datatree *> group;
            for (std::size_t j = i; j < count; ++j) {
                const vidl_yfw_datatree &c = node.subtrees[j];
                if (!done[j] && same_name(c, first)) {
                    group.push_back(&c);
                    done[j] = true;
                }
            }
            std::string child_module = module_name(first.ns);
            std::string member = first.tag != nullptr ? first.tag : "";
            if (child_module != module)
                member = child_module + ":" + member;
            std::string child_path = path + "/" + member;
            NodeKind kind = schema_.kind(child_path);
            bool many = kind == NodeKind::list || kind == NodeKind::leaf_list || group.size() > 1;

            Json values = Json::array(), meta = Json::array();
            bool any_meta = false;
            for (const vidl_yfw_datatree *n : group) {
                Json v = value(*n, kind, child_module, child_path);
                bool leaf = !v.is_object();
                any_meta = any_meta || (leaf && has_operation(*n));
                meta.push_back(leaf && has_operation(*n) ? operation_json(*n) : Json(nullptr));
                values.push_back(std::move(v));
            }
            object[member] = many ? values : values[0];
            if (any_meta)
                object["@" + member] = many ? meta : meta[0];
        }
    }

private:
    static bool same_name(const vidl_yfw_datatree &a, const vidl_yfw_datatree &b)
    {
        return std::string_view(a.tag != nullptr ? a.tag : "") ==
                   std::string_view(b.tag != nullptr ? b.tag : "") &&
               yfwhost::ns_match(a.ns, b.ns);
    }

    // A container or list entry as an object, its operation inside as "@";
    // anything else as a leaf value, whose operation the caller writes.
    Json value(const vidl_yfw_datatree &n, NodeKind kind, const std::string &module,
               const std::string &path)
    {
        if (yfwhost::tree_child_count(&n) > 0 || kind == NodeKind::container ||
            kind == NodeKind::list) {
            Json object = Json::object();
            if (has_operation(n))
                object["@"] = operation_json(n);
            children(object, n, module, path);
            return object;
        }
        if ((n.present & YFW_PRESENT_VALUE) == 0 || n.value == nullptr)
            return Json::array({nullptr});
        std::string_view text = n.value;
        switch (schema_.value_kind(path, text)) {
        case ValueKind::number: {
            // YANG allows a leading "+" that JSON does not.
            std::string_view digits = text.starts_with('+') ? text.substr(1) : text;
            int64_t number = 0;
            auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
            if (ec == std::errc() && end == digits.data() + digits.size())
                return number;
            return std::string(text);
        }
        case ValueKind::boolean:
            return text == "true";
        case ValueKind::empty:
            return Json::array({nullptr});
        case ValueKind::string:
            break;
        }
        return std::string(text);
    }

    const JsonSchema &schema_;
};

} // namespace

std::vector<yfwhost::Tree> read_json_document(std::string_view text)
{
    Builder builder;
    builder.document(parse(text));
    return std::move(builder.roots);
}

std::string write_json_document(const vidl_yfw_datatree *root, const JsonSchema &schema)
{
    Json document = Json::object();
    Writer(schema).children(document, *root, "", "");
    std::string text = document.dump(2, ' ', false, Json::error_handler_t::replace);
    // An empty leaf on one line, [null], as RFC 7951 shows it.  A line break
    // inside a string is escaped, so every one here is the printer's.
    static const std::regex empty_leaf(R"(\[\n *null\n *\])");
    return std::regex_replace(text, empty_leaf, "[null]") + "\n";
}

} // namespace octunnel
