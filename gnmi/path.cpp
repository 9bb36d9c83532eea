#include "gnmi/path.h"

#include "agent/tree.h"
#include "translate/document.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <unordered_set>

#include <libyang/libyang.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace octunnel::gnmi_front {
namespace {

using grpc::StatusCode;

constexpr uint16_t data_nodes = LYS_CONTAINER | LYS_LIST | LYS_LEAF | LYS_LEAFLIST | LYS_ANYDATA;

void add_elems(std::string &out, const gnmi::Path &p)
{
    for (const gnmi::PathElem &e : p.elem()) {
        out += '/';
        out += e.name();
        // Keys in their name's order, as a map prints them.
        const std::map<std::string, std::string> keys(e.key().begin(), e.key().end());
        for (const auto &[k, v] : keys)
            out += "[" + k + "=" + v + "]";
    }
}

// The schema children of `parent` (of the OpenConfig modules when none: the
// top of the tree), past choices and cases.
template <typename F> void each_child(const ly_ctx *ctx, const lysc_node *parent, F &&f)
{
    if (parent != nullptr) {
        for (const lysc_node *c = nullptr; (c = lys_getnext(c, parent, nullptr, 0)) != nullptr;)
            if (c->nodetype & data_nodes)
                f(c);
        return;
    }
    uint32_t index = 0;
    while (const lys_module *m = ly_ctx_get_module_iter(ctx, &index)) {
        if (!m->implemented || m->compiled == nullptr ||
            std::string_view(m->name).substr(0, 11) != "openconfig-")
            continue;
        for (const lysc_node *c = nullptr;
             (c = lys_getnext(c, nullptr, m->compiled, 0)) != nullptr;)
            if (c->nodetype & data_nodes)
                f(c);
    }
}

// A name as a client may write it: NAME or MODULE:NAME.
std::pair<std::string_view, std::string_view> split_name(std::string_view name)
{
    const auto colon = name.find(':');
    if (colon == std::string_view::npos)
        return {{}, name};
    return {name.substr(0, colon), name.substr(colon + 1)};
}

bool matches(const lysc_node *s, std::string_view module, std::string_view name)
{
    return name == s->name && (module.empty() || module == s->module->name);
}

const lysc_node *key_leaf(const lysc_node *list, std::string_view name)
{
    if (list->nodetype != LYS_LIST)
        return nullptr;
    for (const lysc_node *c = lysc_node_child(list); c != nullptr && lysc_is_key(c); c = c->next)
        if (name == c->name)
            return c;
    return nullptr;
}

void descendants(const ly_ctx *ctx, const lysc_node *parent, std::vector<const lysc_node *> &out,
                 std::unordered_set<const lysc_node *> &seen)
{
    each_child(ctx, parent, [&](const lysc_node *c) {
        if (!seen.insert(c).second)
            return;
        out.push_back(c);
        if (c->nodetype & (LYS_CONTAINER | LYS_LIST))
            descendants(ctx, c, out, seen);
    });
}

// Whether XML can carry `text` as character data: UTF-8 (RFC 3629), and
// none of the characters XML 1.0 leaves out (the controls but tab, newline
// and carriage return; U+FFFE, U+FFFF).
bool xml_text(std::string_view text)
{
    Utf8Check check;
    std::size_t bad = 0;
    if (!check.pass(text, bad) || !check.complete())
        return false;
    for (const char c : text)
        if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r')
            return false;
    return text.find("\xEF\xBF\xBE") == std::string_view::npos &&
           text.find("\xEF\xBF\xBF") == std::string_view::npos;
}

// -------------------------------------------------------------- selection

bool keys_match(const lyd_node *node, const Step &step)
{
    for (const auto &[key, value] : step.keys) {
        if (value == "*")
            continue;
        bool found = false;
        for (const lyd_node *c = lyd_child(node); c != nullptr; c = c->next)
            if (c->schema == key) {
                found = value == lyd_get_value(c);
                break;
            }
        if (!found)
            return false;
    }
    return true;
}

// -------------------------------------------------------------- JSON

// Members are walked by index: clang takes the comparison of rapidjson's
// member iterators in C++20 for ambiguous.
using rapidjson::Value;
using Allocator = rapidjson::Document::AllocatorType;

std::string write_json(const Value &v)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    v.Accept(writer);
    return {buffer.GetString(), buffer.GetSize()};
}

void strip_modules(Value &v, Allocator &a)
{
    if (v.IsArray()) {
        for (Value &e : v.GetArray())
            strip_modules(e, a);
        return;
    }
    if (!v.IsObject())
        return;
    for (rapidjson::SizeType i = 0; i < v.MemberCount(); ++i) {
        auto &m = v.MemberBegin()[i];
        const std::string_view name(m.name.GetString(), m.name.GetStringLength());
        if (const auto colon = name.find(':'); colon != std::string_view::npos) {
            const std::string local(name.substr(colon + 1));
            m.name.SetString(local.c_str(), static_cast<rapidjson::SizeType>(local.size()), a);
        }
        strip_modules(m.value, a);
    }
}

// The gNMI path of the schema steps so far, for messages.
std::string schema_text(const lysc_node *s)
{
    std::vector<const char *> names;
    for (; s != nullptr; s = lysc_data_parent(s))
        names.push_back(s->name);
    std::string out;
    for (auto it = names.rbegin(); it != names.rend(); ++it)
        out.append("/").append(*it);
    return out.empty() ? "/" : out;
}

// `v`, the JSON of the children of the schema node `parent` (of the top when
// none), with each member named as RFC 7951 wants it under `parent`: its
// module where it differs from the parent's, whatever the client wrote.
void qualify(const ly_ctx *ctx, const lysc_node *parent, Value &v, Allocator &a)
{
    if (!v.IsObject())
        throw Refused(StatusCode::INVALID_ARGUMENT,
                      schema_text(parent) + ": the value is not a JSON object of its members");
    for (rapidjson::SizeType i = 0; i < v.MemberCount(); ++i) {
        auto &m = v.MemberBegin()[i];
        const std::string name(m.name.GetString(), m.name.GetStringLength());
        if (!name.empty() && name.front() == '@')
            throw Refused(StatusCode::INVALID_ARGUMENT, schema_text(parent) + ": metadata (" +
                                                            name + ") is not taken in a value");
        // Names, not a structured binding: lambdas capture them (clang 14).
        const auto parts = split_name(name);
        const std::string_view module = parts.first, local = parts.second;
        const lysc_node *child = nullptr;
        each_child(ctx, parent, [&](const lysc_node *c) {
            if (child == nullptr && matches(c, module, local))
                child = c;
        });
        if (child == nullptr)
            throw Refused(StatusCode::INVALID_ARGUMENT,
                          schema_text(parent) + ": the models have no " + name + " here");
        std::string written(local);
        if (parent == nullptr || parent->module != child->module)
            written = std::string(child->module->name) + ":" + written;
        m.name.SetString(written.c_str(), static_cast<rapidjson::SizeType>(written.size()), a);
        if (child->nodetype == LYS_CONTAINER) {
            qualify(ctx, child, m.value, a);
        } else if (child->nodetype == LYS_LIST) {
            if (!m.value.IsArray())
                throw Refused(StatusCode::INVALID_ARGUMENT,
                              schema_text(child) + ": a list's value is a JSON array of entries");
            for (Value &entry : m.value.GetArray())
                qualify(ctx, child, entry, a);
        }
    }
}

// How deep a value may nest: deeper than any node of the models, and
// shallow enough that nothing that walks it runs out of stack.
constexpr std::size_t max_value_depth = 64;

// Refuses a value nested too deep or with a name or string XML cannot
// carry; walked without recursion, however deep the client made it.
void check_value(const Value &value)
{
    std::vector<std::pair<const Value *, std::size_t>> stack{{&value, 1}};
    while (!stack.empty()) {
        const auto [v, depth] = stack.back();
        stack.pop_back();
        if (depth > max_value_depth)
            throw Refused(StatusCode::INVALID_ARGUMENT,
                          "the value nests deeper than " + std::to_string(max_value_depth) +
                              " levels, which no node of the models does");
        if (v->IsString() && !xml_text({v->GetString(), v->GetStringLength()}))
            throw Refused(StatusCode::INVALID_ARGUMENT,
                          "a string of the value is not UTF-8 text XML can hold");
        if (v->IsArray())
            for (const Value &e : v->GetArray())
                stack.emplace_back(&e, depth + 1);
        if (v->IsObject())
            for (rapidjson::SizeType i = 0; i < v->MemberCount(); ++i) {
                const auto &m = v->MemberBegin()[i];
                if (!xml_text({m.name.GetString(), m.name.GetStringLength()}))
                    throw Refused(StatusCode::INVALID_ARGUMENT,
                                  "a member name of the value is not UTF-8 text XML can hold");
                stack.emplace_back(&m.value, depth + 1);
            }
    }
}

// A scalar TypedValue as JSON.
Value scalar_json(const gnmi::TypedValue &tv, Allocator &a)
{
    switch (tv.value_case()) {
    case gnmi::TypedValue::kStringVal:
        return Value(tv.string_val().c_str(),
                     static_cast<rapidjson::SizeType>(tv.string_val().size()), a);
    case gnmi::TypedValue::kIntVal:
        return Value(static_cast<int64_t>(tv.int_val()));
    case gnmi::TypedValue::kUintVal:
        return Value(static_cast<uint64_t>(tv.uint_val()));
    case gnmi::TypedValue::kBoolVal:
        return Value(tv.bool_val());
    case gnmi::TypedValue::kDoubleVal:
        return Value(tv.double_val());
    default:
        throw Refused(StatusCode::UNIMPLEMENTED,
                      "values are taken as json_ietf_val, json_val or a scalar (string, int, uint, "
                      "bool, double)");
    }
}

// A libyang path (/module:name[key='value']/...) of the concrete steps
// [0, end).
std::string data_path(const std::vector<Step> &steps, std::size_t end)
{
    std::string out;
    for (std::size_t i = 0; i < end; ++i) {
        const lysc_node *s = steps[i].schema.front();
        out += "/";
        out += s->module->name;
        out += ":";
        out += s->name;
        for (const auto &[key, value] : steps[i].keys) {
            const char quote = value.find('\'') == std::string::npos ? '\'' : '"';
            if (quote == '"' && value.find('"') != std::string::npos)
                throw Refused(StatusCode::INVALID_ARGUMENT,
                              std::string("the key ") + key->name +
                                  " holds both kinds of quote, which no path can name");
            out.append("[").append(key->name).append("=");
            out.append(1, quote).append(value).append(1, quote).append("]");
        }
    }
    return out;
}

std::string ly_error(const ly_ctx *ctx)
{
    const ly_err_item *e = ly_err_last(ctx);
    std::string out = e != nullptr && e->msg != nullptr ? e->msg : "not taken by the models";
    if (e != nullptr && e->path != nullptr)
        out += std::string(" (") + e->path + ")";
    return out;
}

struct TreeFree {
    void operator()(lyd_node *n) const { lyd_free_all(n); }
};
using Tree = std::unique_ptr<lyd_node, TreeFree>;

} // namespace

std::string path_text(const gnmi::Path &prefix, const gnmi::Path &path)
{
    std::string out;
    add_elems(out, prefix);
    add_elems(out, path);
    return out.empty() ? "/" : out;
}

std::vector<Step> resolve(const ly_ctx *ctx, const gnmi::Path &prefix, const gnmi::Path &path)
{
    const std::string text = path_text(prefix, path);
    for (const gnmi::Path *p : {&prefix, &path}) {
// The deprecated field is read only to refuse it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        const bool elements = p->element_size() > 0;
#pragma GCC diagnostic pop
        if (elements)
            throw Refused(StatusCode::INVALID_ARGUMENT,
                          "a path of the deprecated 'element' field is not taken: give 'elem'");
        if (!p->origin().empty() && p->origin() != "openconfig")
            throw Refused(StatusCode::INVALID_ARGUMENT,
                          text + ": the origin '" + p->origin() +
                              "' is not served (none or 'openconfig')");
    }
    if (prefix.elem_size() + path.elem_size() > static_cast<int>(max_path_elems))
        throw Refused(StatusCode::INVALID_ARGUMENT,
                      "a path of more than " + std::to_string(max_path_elems) + " elements");
    std::vector<Step> steps;
    // The schema nodes the next step is a child of; null: the top.
    std::vector<const lysc_node *> parents{nullptr};
    std::string so_far;
    for (const gnmi::Path *p : {&prefix, &path})
        for (const gnmi::PathElem &e : p->elem()) {
            Step step;
            const std::string &name = e.name();
            so_far += "/" + name;
            if (e.key_size() > static_cast<int>(max_path_keys))
                throw Refused(StatusCode::INVALID_ARGUMENT, text + ": more than " +
                                                                std::to_string(max_path_keys) +
                                                                " keys on " + so_far);
            if (name.empty())
                throw Refused(StatusCode::INVALID_ARGUMENT, text + ": an element without a name");
            // A name or key goes into edits as XML text: it must be text
            // XML can carry (whatever a client's library let through).
            bool texts = xml_text(name);
            for (const auto &[key, value] : e.key())
                texts = texts && xml_text(key) && xml_text(value);
            if (!texts)
                throw Refused(StatusCode::INVALID_ARGUMENT,
                              "element " + std::to_string(steps.size() + 1) +
                                  " of the path holds what is not UTF-8 text XML can hold");
            std::unordered_set<const lysc_node *> seen;
            if (name == "...") {
                step.kind = Step::Kind::descend;
                for (const lysc_node *parent : parents) {
                    if (parent != nullptr && seen.insert(parent).second)
                        step.schema.push_back(parent);
                    descendants(ctx, parent, step.schema, seen);
                }
                // Zero levels too: the next step may stand at the top.
                if (std::find(parents.begin(), parents.end(), nullptr) != parents.end())
                    step.schema.insert(step.schema.begin(), nullptr);
            } else {
                const auto parts = name == "*" ? std::pair<std::string_view, std::string_view>{}
                                               : split_name(name);
                const std::string_view module = parts.first, local = parts.second;
                step.kind = name == "*" ? Step::Kind::any : Step::Kind::name;
                for (const lysc_node *parent : parents)
                    each_child(ctx, parent, [&](const lysc_node *c) {
                        if ((step.kind == Step::Kind::any || matches(c, module, local)) &&
                            seen.insert(c).second)
                            step.schema.push_back(c);
                    });
            }
            if (step.schema.empty())
                throw NotInModels(text + ": the models have no " + so_far);
            for (const auto &[key, value] : e.key()) {
                if (step.kind == Step::Kind::descend)
                    throw Refused(StatusCode::INVALID_ARGUMENT, text + ": '...' takes no keys");
                const lysc_node *leaf = nullptr;
                for (const lysc_node *s : step.schema)
                    if ((leaf = key_leaf(s, key)) != nullptr)
                        break;
                if (leaf == nullptr)
                    throw NotInModels(text + ": '" + key + "' is no key of " + so_far);
                step.keys.emplace_back(leaf, value);
                so_far += "[" + key + "=" + value + "]";
            }
            // Keys in the models' order, so that a path names a list entry
            // one way only.
            const auto position = [](const lysc_node *key) {
                std::size_t i = 0;
                for (const lysc_node *k = lysc_node_child(lysc_data_parent(key)); k != key;
                     k = k->next)
                    ++i;
                return i;
            };
            std::sort(step.keys.begin(), step.keys.end(), [&](const auto &a, const auto &b) {
                return position(a.first) < position(b.first);
            });
            parents = step.schema;
            steps.push_back(std::move(step));
        }
    return steps;
}

std::string read_filter(const ly_ctx *ctx, const std::vector<const std::vector<Step> *> &paths)
{
    std::string entries;
    for (const std::vector<Step> *steps : paths) {
        if (steps->size() < 2)
            return served_filter(ctx);
        const Step &top = (*steps)[0], &list = (*steps)[1];
        if (top.kind != Step::Kind::name || list.kind != Step::Kind::name ||
            top.schema.size() != 1 || list.schema.size() != 1 ||
            std::string_view(top.schema[0]->module->name) != "openconfig-interfaces" ||
            std::string_view(top.schema[0]->name) != "interfaces" ||
            list.schema[0]->nodetype != LYS_LIST || list.keys.size() != 1 ||
            list.keys[0].second == "*")
            return served_filter(ctx);
        entries += "<interface><name>";
        serve::escape_xml(entries, list.keys[0].second);
        entries += "</name></interface>";
    }
    if (entries.empty())
        return served_filter(ctx);
    return "<interfaces xmlns=\"http://openconfig.net/yang/interfaces\">" + entries +
           "</interfaces>";
}

std::string served_filter(const ly_ctx *ctx)
{
    std::string out;
    each_child(ctx, nullptr, [&](const lysc_node *c) {
        if (c->nodetype == LYS_CONTAINER)
            out += "<" + std::string(c->name) + " xmlns=\"" + c->module->ns + "\"/>";
    });
    return out;
}

namespace {

// Whether `node` holds state once its configuration is taken out.
bool prune_config(lyd_node *node)
{
    if (node->schema == nullptr)
        return false;
    if (node->schema->nodetype & (LYS_LEAF | LYS_LEAFLIST | LYS_ANYDATA))
        return !(node->schema->flags & LYS_CONFIG_W);
    bool state = false;
    for (lyd_node *c = lyd_child(node), *next = nullptr; c != nullptr; c = next) {
        next = c->next;
        if (c->schema != nullptr && lysc_is_key(c->schema))
            continue;
        if (prune_config(c))
            state = true;
        else
            lyd_free_tree(c);
    }
    return state;
}

} // namespace

lyd_node *keep_state(lyd_node *tree)
{
    lyd_node *first = nullptr;
    for (lyd_node *n = tree != nullptr ? lyd_first_sibling(tree) : nullptr, *next = nullptr;
         n != nullptr; n = next) {
        next = n->next;
        if (prune_config(n)) {
            if (first == nullptr)
                first = n;
        } else {
            lyd_free_tree(n);
        }
    }
    return first;
}

bool concrete(const std::vector<Step> &steps)
{
    for (const Step &s : steps) {
        if (s.kind != Step::Kind::name || s.schema.size() != 1)
            return false;
        std::size_t keys = 0;
        for (const lysc_node *k = lysc_node_child(s.schema.front());
             s.schema.front()->nodetype == LYS_LIST && k != nullptr && lysc_is_key(k); k = k->next)
            ++keys;
        if (keys != s.keys.size())
            return false;
        for (const auto &kv : s.keys)
            if (kv.second == "*")
                return false;
    }
    return true;
}

std::vector<lyd_node *> select(lyd_node *tree, const std::vector<Step> &steps)
{
    if (steps.empty()) {
        // The root: everything there is.
        std::vector<lyd_node *> all;
        for (lyd_node *n = tree != nullptr ? lyd_first_sibling(tree) : nullptr; n != nullptr;
             n = n->next)
            all.push_back(n);
        return all;
    }
    // The nodes the next step looks under; null: the top of the tree.
    std::vector<lyd_node *> at{nullptr};
    const auto children = [tree](lyd_node *n) {
        return n == nullptr ? (tree != nullptr ? lyd_first_sibling(tree) : nullptr) : lyd_child(n);
    };
    for (const Step &step : steps) {
        std::vector<lyd_node *> next;
        std::unordered_set<lyd_node *> seen;
        if (step.kind == Step::Kind::descend) {
            // Every node at and below: each once, however the nodes nest.
            std::vector<lyd_node *> stack(at.rbegin(), at.rend());
            while (!stack.empty()) {
                lyd_node *n = stack.back();
                stack.pop_back();
                if (n != nullptr && !seen.insert(n).second)
                    continue;
                next.push_back(n);
                std::vector<lyd_node *> kids;
                for (lyd_node *c = children(n); c != nullptr; c = c->next)
                    if (c->schema != nullptr && (c->schema->nodetype & (LYS_CONTAINER | LYS_LIST)))
                        kids.push_back(c);
                stack.insert(stack.end(), kids.rbegin(), kids.rend());
            }
        } else {
            // After a wildcard a step may stand for many schema nodes: each
            // data node is looked up once, whatever their number.
            const std::unordered_set<const lysc_node *> schema(step.schema.begin(),
                                                               step.schema.end());
            for (lyd_node *n : at)
                for (lyd_node *c = children(n); c != nullptr; c = c->next)
                    if (c->schema != nullptr && schema.count(c->schema) != 0 &&
                        keys_match(c, step) && seen.insert(c).second)
                        next.push_back(c);
        }
        at = std::move(next);
    }
    std::erase(at, nullptr);
    return at;
}

gnmi::Path path_of(const lyd_node *node)
{
    std::vector<const lyd_node *> chain;
    for (const lyd_node *n = node; n != nullptr; n = lyd_parent(n))
        chain.push_back(n);
    gnmi::Path path;
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        gnmi::PathElem *e = path.add_elem();
        e->set_name(LYD_NAME(*it));
        if ((*it)->schema != nullptr && (*it)->schema->nodetype == LYS_LIST)
            for (const lyd_node *k = lyd_child(*it);
                 k != nullptr && k->schema != nullptr && lysc_is_key(k->schema); k = k->next)
                (*e->mutable_key())[LYD_NAME(k)] = lyd_get_value(k);
    }
    return path;
}

std::string json_value(const lyd_node *node, Json json)
{
    char *printed = nullptr;
    if (lyd_print_mem(&printed, node, LYD_JSON, LYD_PRINT_SHRINK) != LY_SUCCESS ||
        printed == nullptr)
        throw std::bad_alloc();
    rapidjson::Document doc;
    doc.Parse<rapidjson::kParseIterativeFlag>(printed);
    std::free(printed);
    if (doc.HasParseError() || !doc.IsObject() || doc.MemberCount() != 1)
        throw std::runtime_error("libyang printed JSON that is not one member");
    Value &value = doc.MemberBegin()->value;
    Value *v = &value;
    // A list entry or leaf-list value printed alone is an array of one.
    if (v->IsArray() && v->Size() == 1 && node->schema != nullptr &&
        (node->schema->nodetype & (LYS_LIST | LYS_LEAFLIST)))
        v = &(*v)[0];
    Allocator &a = doc.GetAllocator();
    if (json == Json::plain) {
        strip_modules(*v, a);
    } else if (v->IsObject() && node->schema != nullptr) {
        // The top-level members of a value stand alone: each is named with
        // its module (RFC 7951, 4).
        for (rapidjson::SizeType i = 0; i < v->MemberCount(); ++i) {
            auto &m = v->MemberBegin()[i];
            const std::string_view name(m.name.GetString(), m.name.GetStringLength());
            if (name.find(':') != std::string_view::npos)
                continue;
            const std::string full =
                std::string(node->schema->module->name) + ":" + std::string(name);
            m.name.SetString(full.c_str(), static_cast<rapidjson::SizeType>(full.size()), a);
        }
    }
    return write_json(*v);
}

std::string edit_text(const ly_ctx *ctx, const std::vector<Step> &steps,
                      const gnmi::TypedValue *value, const char *operation)
{
    if (!concrete(steps))
        throw Refused(StatusCode::INVALID_ARGUMENT,
                      "a path to set names one node: no wildcard, every key of every list");
    const lys_module *netconf = ly_ctx_get_module_implemented(ctx, "ietf-netconf");

    Tree tree;
    lyd_node *parent = nullptr;
    if (steps.size() > 1) {
        lyd_node *first = nullptr;
        if (lyd_new_path2(nullptr, ctx, data_path(steps, steps.size() - 1).c_str(), nullptr, 0,
                          LYD_ANYDATA_STRING, 0, &first, &parent) != LY_SUCCESS)
            throw Refused(StatusCode::INVALID_ARGUMENT, ly_error(ctx));
        tree.reset(first);
    }
    const auto mark = [&](lyd_node *node) {
        if (node->schema == nullptr) {
            if (lyd_new_attr(node, "ietf-netconf", "ietf-netconf:operation", operation, nullptr) !=
                LY_SUCCESS)
                throw std::bad_alloc();
        } else if (lyd_new_meta(ctx, node, netconf, "operation", operation, 0, nullptr) !=
                   LY_SUCCESS) {
            throw Refused(StatusCode::INTERNAL, ly_error(ctx));
        }
    };

    lyd_node *target = nullptr;
    if (value == nullptr) {
        if (steps.empty()) {
            // Everything: each top-level container of the models.
            each_child(ctx, nullptr, [&](const lysc_node *c) {
                lyd_node *n = nullptr;
                const std::string p = "/" + std::string(c->module->name) + ":" + c->name;
                if (c->nodetype == LYS_CONTAINER &&
                    lyd_new_path(tree.get(), ctx, p.c_str(), nullptr, 0, &n) == LY_SUCCESS) {
                    if (!tree)
                        tree.reset(n);
                    mark(n);
                }
            });
        } else {
            // A leaf goes without its value: one libyang keeps opaque.
            const lysc_node *s = steps.back().schema.front();
            lyd_node *first = nullptr;
            if (lyd_new_path2(parent != nullptr ? parent : tree.get(), ctx,
                              data_path(steps, steps.size()).c_str(), nullptr, 0,
                              LYD_ANYDATA_STRING,
                              (s->nodetype & (LYS_LEAF | LYS_LEAFLIST)) ? LYD_NEW_PATH_OPAQ : 0,
                              &first, &target) != LY_SUCCESS)
                throw Refused(StatusCode::INVALID_ARGUMENT, ly_error(ctx));
            // The first node made is not told of a container alone.
            if (!tree) {
                lyd_node *top = target;
                while (lyd_parent(top) != nullptr)
                    top = lyd_parent(top);
                tree.reset(top);
            }
            mark(target);
        }
    } else {
        rapidjson::Document doc;
        Allocator &a = doc.GetAllocator();
        Value v;
        if (value->value_case() == gnmi::TypedValue::kJsonIetfVal ||
            value->value_case() == gnmi::TypedValue::kJsonVal) {
            const std::string &text = value->value_case() == gnmi::TypedValue::kJsonIetfVal
                                          ? value->json_ietf_val()
                                          : value->json_val();
            rapidjson::Document parsed(&a);
            parsed.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
            if (parsed.HasParseError())
                throw Refused(StatusCode::INVALID_ARGUMENT,
                              "the value is not JSON (at byte " +
                                  std::to_string(parsed.GetErrorOffset()) + ")");
            v.CopyFrom(parsed, a);
        } else {
            v = scalar_json(*value, a);
        }
        check_value(v);
        // The value as the member of its node under its parent, with the
        // keys the path gives a list entry.
        doc.SetObject();
        if (steps.empty()) {
            qualify(ctx, nullptr, v, a);
            static_cast<Value &>(doc).Swap(v);
        } else {
            const Step &last = steps.back();
            const lysc_node *s = last.schema.front();
            const std::string name = std::string(s->module->name) + ":" + s->name;
            if (s->nodetype & (LYS_CONTAINER | LYS_LIST))
                qualify(ctx, s, v, a);
            if (s->nodetype == LYS_LIST) {
                for (const auto &[key, kv] : last.keys) {
                    if (!v.HasMember(key->name)) {
                        v.AddMember(Value(key->name, a), Value(kv.c_str(), a), a);
                        continue;
                    }
                    const Value &given = v[key->name];
                    if (!(given.IsString() && kv == given.GetString()) &&
                        !(!given.IsString() && kv == write_json(given))) {
                        throw Refused(StatusCode::INVALID_ARGUMENT,
                                      std::string("the value's ") + key->name +
                                          " is not the path's, " + kv);
                    }
                }
                Value entries(rapidjson::kArrayType);
                entries.PushBack(v, a);
                v = entries;
            } else if (s->nodetype == LYS_LEAFLIST && !v.IsArray()) {
                Value values(rapidjson::kArrayType);
                values.PushBack(v, a);
                v = values;
            }
            doc.AddMember(Value(name.c_str(), a), v, a);
        }
        const std::string json = write_json(doc);
        ly_in *in = nullptr;
        if (ly_in_new_memory(json.c_str(), &in) != LY_SUCCESS)
            throw std::bad_alloc();
        lyd_node *parsed = nullptr;
        const LY_ERR rc =
            lyd_parse_data(ctx, parent, in, LYD_JSON, LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0,
                           parent != nullptr ? nullptr : &parsed);
        ly_in_free(in, 0);
        if (parent == nullptr)
            tree.reset(parsed);
        if (rc != LY_SUCCESS)
            throw Refused(StatusCode::INVALID_ARGUMENT, ly_error(ctx));
        if (steps.empty()) {
            for (lyd_node *n = tree.get(); n != nullptr; n = n->next)
                mark(n);
        } else {
            if (lyd_find_path(tree.get(), data_path(steps, steps.size()).c_str(), 0, &target) !=
                    LY_SUCCESS ||
                target == nullptr)
                throw Refused(StatusCode::INVALID_ARGUMENT, "the value sets nothing");
            mark(target);
        }
    }
    if (!tree)
        return {};
    // An empty container (one deleted, say) is no default one here: every
    // node made is printed.
    char *text = nullptr;
    if (lyd_print_mem(&text, lyd_first_sibling(tree.get()), LYD_XML,
                      LYD_PRINT_WITHSIBLINGS | LYD_PRINT_SHRINK | LYD_PRINT_WD_ALL |
                          LYD_PRINT_KEEPEMPTYCONT) != LY_SUCCESS)
        throw std::bad_alloc();
    std::string out = text != nullptr ? text : "";
    std::free(text);
    return out;
}

} // namespace octunnel::gnmi_front
