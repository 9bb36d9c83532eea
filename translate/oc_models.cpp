#include "translate/oc_models.h"

#include "octunnel/yfw_namespaces.h"
#include "translate/document.h"
#include "translate/input_error.h"
#include "yfwhost/host.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libyang/libyang.h>

#include <cstring>
#include <stdexcept>

namespace octunnel {
namespace {

// The modules whose data a request may hold, types modules first: the
// others' defaults name identities, which only an implemented module may
// hold; iana-if-type is implemented so that an interface's type may name
// its identities.
constexpr const char *served_modules[] = {
    "iana-if-type",    "openconfig-vlan-types", "openconfig-if-types",  "openconfig-interfaces",
    "openconfig-vlan", "openconfig-if-ip",      "openconfig-if-tunnel",
};

std::string_view view(const char *s)
{
    return s != nullptr ? std::string_view(s) : std::string_view();
}

bool has_value(const vidl_yfw_datatree &n)
{
    return (n.present & YFW_PRESENT_VALUE) != 0 && n.value != nullptr;
}

bool blank(std::string_view s)
{
    return s.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

// An XPath literal of `value`: quoted with ' unless it holds one.
void append_literal(std::string &out, std::string_view value)
{
    const char q = value.find('\'') == std::string_view::npos ? '\'' : '"';
    out.push_back(q);
    out.append(value);
    out.push_back(q);
}

// The prefixes of the modules along a path, each once.
class PathBuilder {
public:
    explicit PathBuilder(ModelError &e) : e_(e)
    {
        e_.path.clear();
        e_.path_namespaces.clear();
    }
    // A step of `module` (none: a name the models do not have).
    void step(const lys_module *module, std::string_view name)
    {
        e_.path.push_back('/');
        qualified(module, name);
    }
    void key(const lys_module *module, std::string_view name, std::string_view value)
    {
        e_.path.push_back('[');
        qualified(module, name);
        e_.path.push_back('=');
        append_literal(e_.path, value);
        e_.path.push_back(']');
    }
    // A path of no step stays empty: error-path names no node then.
    void finish() {}

private:
    void qualified(const lys_module *module, std::string_view name)
    {
        if (module != nullptr) {
            declare(module);
            e_.path.append(module->prefix).push_back(':');
        }
        e_.path.append(name);
    }
    void declare(const lys_module *m)
    {
        for (const auto &[prefix, ns] : e_.path_namespaces)
            if (prefix == m->prefix)
                return;
        e_.path_namespaces.emplace_back(m->prefix, m->ns);
    }
    ModelError &e_;
};

// A value as a message quotes it: on one line, and shortened when long.
std::string brief(std::string_view value)
{
    constexpr std::size_t longest = 64;
    if (value.size() <= longest)
        return quoted(one_line(value));
    return quoted(one_line(value.substr(0, longest))) + " (" + std::to_string(value.size()) +
           " bytes)";
}

std::string describe(const lysc_node *schema)
{
    switch (schema->nodetype) {
    case LYS_LIST:
        return "list";
    case LYS_LEAF:
        return "leaf";
    case LYS_LEAFLIST:
        return "leaf-list";
    default:
        return "container";
    }
}

} // namespace

void DataTreeDeleter::operator()(lyd_node *first) const
{
    lyd_free_siblings(first);
}

ly_ctx *load_served_models(const std::string &yang_dir)
{
    ly_ctx *ctx = nullptr;
    if (ly_ctx_new(yang_dir.c_str(), LY_CTX_DISABLE_SEARCHDIR_CWD, &ctx) != LY_SUCCESS)
        throw std::runtime_error("cannot set up libyang with the models of " + yang_dir);
    // Each feature enabled is a capability libnetconf2's hello advertises.
    const char *netconf_features[] = {
        "writable-running", "candidate", "confirmed-commit", "rollback-on-error", "validate",
        "startup",          nullptr};
    std::string missing;
    if (ly_ctx_load_module(ctx, "ietf-netconf", nullptr, netconf_features) == nullptr)
        missing = "ietf-netconf";
    else if (ly_ctx_load_module(ctx, "ietf-netconf-monitoring", nullptr, nullptr) == nullptr)
        missing = "ietf-netconf-monitoring";
    else if (ly_ctx_load_module(ctx, "ietf-netconf-acm", nullptr, nullptr) == nullptr)
        missing = "ietf-netconf-acm";
    // Event notifications: <create-subscription>, the streams, the events.
    for (const char *m : {"notifications", "nc-notifications", "ietf-netconf-notifications"})
        if (missing.empty() && ly_ctx_load_module(ctx, m, nullptr, nullptr) == nullptr)
            missing = m;
    for (const char *m : served_modules)
        if (missing.empty() && ly_ctx_load_module(ctx, m, nullptr, nullptr) == nullptr)
            missing = m;
    if (!missing.empty()) {
        ly_ctx_destroy(ctx);
        throw std::runtime_error("cannot load the model " + missing + " from " + yang_dir);
    }
    return ctx;
}

OpenConfigModels::OpenConfigModels(const std::string &yang_dir)
    : ctx_(load_served_models(yang_dir)),
      netconf_(ly_ctx_get_module_implemented(ctx_, "ietf-netconf"))
{
}

OpenConfigModels::~OpenConfigModels()
{
    ly_ctx_destroy(ctx_);
}

const lys_module *OpenConfigModels::module_of_ns(std::string_view ns) const
{
    if (ns.empty())
        return nullptr;
    uint32_t index = 0;
    while (const lys_module *m = ly_ctx_get_module_iter(ctx_, &index))
        if (m->implemented && ns == m->ns)
            return m;
    return nullptr;
}

// The child `name` of `parent` (a top-level node when null) in `module`, or
// in any module when `module` is null.
const lysc_node *OpenConfigModels::child_of(const lysc_node *parent, const lys_module *module,
                                            std::string_view name) const
{
    if (module != nullptr)
        return lys_find_child(parent, module, name.data(), name.size(), 0, 0);
    if (parent != nullptr) {
        const lysc_node *c = nullptr;
        while ((c = lys_getnext(c, parent, nullptr, 0)) != nullptr)
            if (name == c->name)
                return c;
        return nullptr;
    }
    uint32_t index = 0;
    while (const lys_module *m = ly_ctx_get_module_iter(ctx_, &index))
        if (m->implemented)
            if (const lysc_node *c = lys_find_child(nullptr, m, name.data(), name.size(), 0, 0))
                return c;
    return nullptr;
}

// ---------------------------------------------------------------- shape

std::optional<ModelError> OpenConfigModels::check(const Document &doc, Use use) const
{
    struct Frame {
        const vidl_yfw_datatree *node;
        const lysc_node *schema;
        std::size_t next;
    };
    std::vector<Frame> stack;
    // The modules of the document's namespaces: its strings are interned,
    // so one lookup each.
    std::vector<std::pair<const char *, const lys_module *>> modules;
    auto module_for = [&](const char *ns) {
        for (const auto &[text, m] : modules)
            if (text == ns)
                return m;
        const lys_module *m = module_of_ns(view(ns));
        modules.emplace_back(ns, m);
        return m;
    };

    // The error about the element on top of the stack (`at`, or its parent
    // when the element itself is not in the models).
    auto fail = [&](const char *tag, const vidl_yfw_datatree &at, std::string message,
                    bool at_parent) {
        ModelError e;
        e.tag = tag;
        e.message = std::move(message);
        e.line = at.fw_line;
        e.bad_element = view(at.tag);
        PathBuilder path(e);
        const std::size_t depth = stack.size() - (at_parent ? 1 : 0);
        for (std::size_t i = 0; i < depth; ++i) {
            const Frame &f = stack[i];
            path.step(f.schema->module, f.schema->name);
            if (f.schema->nodetype != LYS_LIST)
                continue;
            for (const lysc_node *k = lysc_node_child(f.schema); k != nullptr && lysc_is_key(k);
                 k = k->next)
                for (uint32_t c = 0; c < yfwhost::tree_child_count(f.node); ++c) {
                    const vidl_yfw_datatree &kid = f.node->subtrees[c];
                    if (view(kid.tag) == k->name && has_value(kid))
                        path.key(k->module, k->name, kid.value);
                }
        }
        path.finish();
        return e;
    };

    for (const vidl_yfw_datatree *root : doc.roots) {
        stack.clear();
        const vidl_yfw_datatree *n = root;
        const lysc_node *parent = nullptr;
        for (;;) {
            // `n` is the next element, below `parent`.
            const lys_module *module = module_for(n->ns);
            const bool anywhere = use == Use::filter && view(n->ns).empty();
            if (module == nullptr && !anywhere) {
                ModelError e =
                    fail("unknown-namespace", *n,
                         element_name(view(n->tag)) + " is in the namespace '" +
                             std::string(view(n->ns)) + "', which none of the models served has",
                         false);
                e.bad_namespace = view(n->ns);
                return e;
            }
            const lysc_node *schema = child_of(parent, module, view(n->tag));
            if (schema == nullptr) {
                stack.push_back({n, nullptr, 0});
                std::string where =
                    parent != nullptr ? "the " + describe(parent) + " " + element_name(parent->name)
                                      : std::string("the top level of the models");
                return fail("unknown-element", *n,
                            element_name(view(n->tag)) + " is not a node of " + where, true);
            }
            stack.push_back({n, schema, 0});
            const bool leaf = (schema->nodetype & LYD_NODE_TERM) != 0;
            if (leaf && yfwhost::tree_child_count(n) > 0)
                return fail("bad-element", *n,
                            element_name(schema->name) + " is a " + describe(schema) +
                                ": it holds a value, not elements",
                            false);
            if (!leaf && has_value(*n) && !blank(n->value))
                return fail("bad-element", *n,
                            element_name(schema->name) + " is a " + describe(schema) +
                                ": it holds elements, not a value",
                            false);
            if (use == Use::edit && (schema->flags & LYS_CONFIG_R) != 0)
                return fail("invalid-value", *n,
                            element_name(schema->name) +
                                " is state data, read-only: no edit sets it",
                            false);
            if (use == Use::edit && schema->nodetype == LYS_LIST)
                for (const lysc_node *k = lysc_node_child(schema); k != nullptr && lysc_is_key(k);
                     k = k->next) {
                    bool given = false;
                    for (uint32_t c = 0; c < yfwhost::tree_child_count(n) && !given; ++c)
                        given = view(n->subtrees[c].tag) == k->name;
                    if (!given) {
                        ModelError e = fail("missing-element", *n,
                                            "an entry of the list " + element_name(schema->name) +
                                                " names no " + element_name(k->name) +
                                                ", its key: an edit names every entry it touches",
                                            false);
                        e.bad_element = k->name;
                        return e;
                    }
                }
            // The next element: the first child, else the next sibling of
            // the nearest element that has one.
            while (!stack.empty()) {
                Frame &f = stack.back();
                if (f.next < yfwhost::tree_child_count(f.node)) {
                    n = &f.node->subtrees[f.next++];
                    parent = f.schema;
                    break;
                }
                stack.pop_back();
            }
            if (stack.empty())
                break;
        }
    }
    return std::nullopt;
}

// ---------------------------------------------------------------- data

EditOp OpenConfigModels::own_operation(const lyd_node *node) const
{
    std::string_view op;
    if (node->schema != nullptr) {
        const lyd_meta *meta = lyd_find_meta(node->meta, netconf_, "operation");
        if (meta == nullptr)
            return EditOp::none;
        op = view(lyd_get_meta_value(meta));
    } else {
        const auto *opaq = reinterpret_cast<const lyd_node_opaq *>(node);
        for (const lyd_attr *a = opaq->attr; a != nullptr; a = a->next) {
            const bool netconf = a->format == LY_VALUE_XML
                                     ? view(a->name.module_ns) == NS_NETCONF_BASE
                                     : view(a->name.module_name) == "ietf-netconf";
            if (netconf && view(a->name.name) == "operation")
                op = view(a->value);
        }
        if (op.empty())
            return EditOp::none;
    }
    if (op == "merge")
        return EditOp::merge;
    if (op == "replace")
        return EditOp::replace;
    if (op == "create")
        return EditOp::create;
    if (op == "delete")
        return EditOp::del;
    if (op == "remove")
        return EditOp::remove;
    return EditOp::none;
}

const lysc_node *OpenConfigModels::schema_of(const lyd_node *node) const
{
    if (node->schema != nullptr)
        return node->schema;
    const auto *opaq = reinterpret_cast<const lyd_node_opaq *>(node);
    const lyd_node *up = lyd_parent(node);
    const lysc_node *parent = up != nullptr ? schema_of(up) : nullptr;
    if (up != nullptr && parent == nullptr)
        return nullptr;
    const lys_module *module = nullptr;
    if (opaq->format == LY_VALUE_XML)
        module = module_of_ns(view(opaq->name.module_ns));
    else if (opaq->name.module_name != nullptr)
        module = ly_ctx_get_module_implemented(ctx_, opaq->name.module_name);
    else if (parent != nullptr)
        module = parent->module;
    return module != nullptr ? child_of(parent, module, view(opaq->name.name)) : nullptr;
}

DataTree OpenConfigModels::parse_edit(std::string_view text, bool json,
                                      std::optional<ModelError> &error) const
{
    error.reset();
    if (blank(text))
        return nullptr;
    // Opaque nodes keep a leaf whose value does not fit its type, so that
    // a deletion without a value passes and a wrong value is named.
    lyd_node *tree = nullptr;
    const std::string copy(text); // libyang reads a string that ends in NUL
    ly_err_clean(ctx_, nullptr);
    const LY_ERR rc = lyd_parse_data_mem(ctx_, copy.c_str(), json ? LYD_JSON : LYD_XML,
                                         LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0, &tree);
    DataTree data(tree);
    if (rc != LY_SUCCESS) {
        const ly_err_item *e = ly_err_last(ctx_);
        ModelError m;
        m.tag = "invalid-value";
        m.message =
            one_line(e != nullptr && e->msg != nullptr ? e->msg : "the models refuse the edit");
        error = std::move(m);
        return nullptr;
    }
    lyd_node *n = nullptr;
    for (lyd_node *top = data.get(); top != nullptr; top = top->next) {
        LYD_TREE_DFS_BEGIN(top, n)
        {
            if (n->schema == nullptr) {
                const lysc_node *schema = schema_of(n);
                const auto *opaq = reinterpret_cast<const lyd_node_opaq *>(n);
                const std::string_view value = view(opaq->value);
                ModelError m;
                if (schema != nullptr && schema->nodetype == LYS_LIST) {
                    // libyang keeps an entry opaque whose key does not fit.
                    for (const lyd_node *k = lyd_child(n); k != nullptr; k = k->next) {
                        const lysc_node *ks = schema_of(k);
                        if (ks == nullptr || !lysc_is_key(ks))
                            continue;
                        const char *text = reinterpret_cast<const lyd_node_opaq *>(k)->value;
                        if (auto why = invalid_value(ks, view(text))) {
                            m.tag = "invalid-value";
                            m.message = *why;
                            m.bad_element = ks->name;
                            locate(k, m);
                            error = std::move(m);
                            return nullptr;
                        }
                    }
                }
                if (schema == nullptr || (schema->nodetype & LYD_NODE_TERM) == 0) {
                    m.tag = schema == nullptr ? "unknown-element" : "missing-element";
                    m.message = element_name(view(opaq->name.name)) +
                                " does not fit the models where it stands";
                    m.bad_element = view(opaq->name.name);
                    locate(n, m);
                    error = std::move(m);
                    return nullptr;
                }
                EditOp op = EditOp::none;
                for (const lyd_node *at = n; at != nullptr && op == EditOp::none;
                     at = lyd_parent(at))
                    op = own_operation(at);
                const bool deletes = op == EditOp::del || op == EditOp::remove;
                if (!(deletes && value.empty())) {
                    m.tag = "invalid-value";
                    m.message = invalid_value(schema, value)
                                    .value_or("The value " + brief(value) + " does not fit " +
                                              element_name(schema->name) + ".");
                    m.bad_element = schema->name;
                    locate(n, m);
                    error = std::move(m);
                    return nullptr;
                }
            }
            LYD_TREE_DFS_END(top, n);
        }
    }
    return data;
}

std::optional<std::string> OpenConfigModels::invalid_value(const lysc_node *schema,
                                                           std::string_view value) const
{
    ly_err_clean(ctx_, nullptr);
    if (lyd_value_validate(ctx_, schema, value.data(), value.size(), nullptr, nullptr, nullptr) ==
        LY_SUCCESS)
        return std::nullopt;
    const ly_err_item *e = ly_err_last(ctx_);
    std::string why = e != nullptr && e->msg != nullptr ? one_line(e->msg) : "";
    // libyang quotes the value: a long one is said once, shortened.
    if (why.size() > 200)
        why.clear();
    return "The value " + brief(value) + " does not fit the " + describe(schema) + " " +
           element_name(schema->name) + (why.empty() ? "." : ": " + why);
}

// ---------------------------------------------------------------- paths

void OpenConfigModels::locate(const lyd_node *node, ModelError &error) const
{
    std::vector<const lyd_node *> chain;
    for (const lyd_node *at = node; at != nullptr; at = lyd_parent(at))
        chain.push_back(at);
    PathBuilder path(error);
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        const lyd_node *n = *it;
        const lysc_node *schema = schema_of(n);
        if (schema == nullptr) {
            path.step(nullptr, LYD_NAME(n));
            continue;
        }
        path.step(schema->module, schema->name);
        if (schema->nodetype != LYS_LIST || n->schema == nullptr)
            continue;
        for (const lyd_node *k = lyd_child(n);
             k != nullptr && k->schema != nullptr && lysc_is_key(k->schema); k = k->next)
            path.key(k->schema->module, k->schema->name, view(lyd_get_value(k)));
    }
    path.finish();
}

void OpenConfigModels::locate(std::string_view text, std::string_view last, ModelError &error) const
{
    PathBuilder path(error);
    const lysc_node *schema = nullptr;
    bool known = true;
    auto add_step = [&](std::string_view name) {
        const lysc_node *c = known ? child_of(schema, nullptr, name) : nullptr;
        known = c != nullptr;
        schema = c;
        path.step(c != nullptr ? c->module : nullptr, name);
    };
    std::size_t at = 0;
    while (at < text.size()) {
        if (text[at] != '/')
            break;
        ++at;
        const std::size_t end = text.find_first_of("/[", at);
        add_step(text.substr(at, end == std::string_view::npos ? text.size() - at : end - at));
        at = end == std::string_view::npos ? text.size() : end;
        // Predicates: [name='value'] or [name="value"].
        while (at < text.size() && text[at] == '[') {
            const std::size_t eq = text.find('=', at);
            if (eq == std::string_view::npos || eq + 1 >= text.size())
                return path.finish();
            const std::string_view key = text.substr(at + 1, eq - at - 1);
            const char quote = text[eq + 1];
            const std::size_t close = text.find(quote, eq + 2);
            if (close == std::string_view::npos)
                return path.finish();
            const lysc_node *k = known ? child_of(schema, nullptr, key) : nullptr;
            path.key(k != nullptr ? k->module : nullptr, key, text.substr(eq + 2, close - eq - 2));
            at = close + 1;
            if (at < text.size() && text[at] == ']')
                ++at;
        }
    }
    if (!last.empty())
        add_step(last);
    path.finish();
}

std::string as_sentence(std::string text)
{
    if (!text.empty() && text[0] >= 'a' && text[0] <= 'z')
        text[0] = static_cast<char>(text[0] - 'a' + 'A');
    if (!text.empty() && text.back() != '.')
        text.push_back('.');
    return text;
}

// ---------------------------------------------------------------- XML text

std::string standalone_elements(std::string_view text)
{
    xmlDocPtr doc =
        xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                      XML_PARSE_NONET | XML_PARSE_HUGE | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    if (doc == nullptr)
        throw std::runtime_error("the document is not XML that can be read whole");
    std::string out;
    xmlNodePtr root = xmlDocGetRootElement(doc);
    const bool envelope =
        root != nullptr && root->ns != nullptr &&
        view(reinterpret_cast<const char *>(root->ns->href)) == NS_NETCONF_BASE &&
        (xmlStrEqual(root->name, BAD_CAST "config") || xmlStrEqual(root->name, BAD_CAST "filter") ||
         xmlStrEqual(root->name, BAD_CAST "data"));
    xmlBufferPtr buffer = xmlBufferCreate();
    for (xmlNodePtr top = envelope ? root->children : root; top != nullptr;
         top = envelope ? top->next : nullptr) {
        if (top->type != XML_ELEMENT_NODE)
            continue;
        if (xmlNsPtr *scope = xmlGetNsList(doc, top); scope != nullptr) {
            for (xmlNsPtr *ns = scope; *ns != nullptr; ++ns)
                xmlNewNs(top, (*ns)->href, (*ns)->prefix); // none where `top` has it
            xmlFree(scope);
        }
        xmlBufferEmpty(buffer);
        xmlNodeDump(buffer, doc, top, 0, 0);
        out.append(reinterpret_cast<const char *>(xmlBufferContent(buffer)),
                   static_cast<std::size_t>(xmlBufferLength(buffer)));
        out.push_back('\n');
    }
    xmlBufferFree(buffer);
    xmlFreeDoc(doc);
    return out;
}

} // namespace octunnel
