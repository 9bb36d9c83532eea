#include "netconf/screen.h"

#include "netconf/guard.h"
#include "netconf/notifications.h"
#include "netconf/requests.h"
#include "translate/input_error.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libyang/libyang.h>

#include <algorithm>
#include <climits>
#include <malloc.h>
#include <memory>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

namespace octunnel::serve {
namespace {

// The longest value quoted back in a message, in bytes.
constexpr std::size_t max_quoted = 64;

std::string_view str(const xmlChar *s)
{
    return s != nullptr ? std::string_view(reinterpret_cast<const char *>(s)) : std::string_view();
}

// The text of an attribute or an element, as libxml2 gives it.
std::string text(xmlChar *owned)
{
    std::string s(str(owned));
    xmlFree(owned);
    return s;
}

// A value of the request as a message quotes it: on one line, and cut
// (at a character) when it is long.
std::string quote(std::string_view value)
{
    std::size_t cut = std::min(value.size(), max_quoted);
    while (cut < value.size() && cut > 0 && (static_cast<unsigned char>(value[cut]) & 0xC0) == 0x80)
        --cut;
    std::string quoted = "\"";
    quoted += one_line(value.substr(0, cut));
    quoted += cut < value.size() ? "...\"" : "\"";
    return quoted;
}

RpcError refusal(const char *tag, std::string message, const char *type = "protocol")
{
    RpcError e;
    e.type = type;
    e.tag = tag;
    e.message = std::move(message);
    return e;
}

// One element of an error-path: its module, its name and, for a list
// entry, its keys and their values.
struct Step {
    const lys_module *module;
    std::string name;
    std::vector<std::pair<std::string, std::string>> keys;
};

// Sets `steps` as the error-path of `e`, with the namespaces of its
// prefixes: each module goes by its own prefix, or by one numbered after it
// should two modules of the path share it.
void set_path(RpcError &e, const std::vector<Step> &steps)
{
    std::vector<std::pair<const lys_module *, std::string>> prefixes;
    const auto prefix_of = [&](const lys_module *m) {
        for (const auto &[module, prefix] : prefixes)
            if (module == m)
                return prefix;
        std::string prefix = m->prefix;
        for (int n = 2; std::any_of(prefixes.begin(), prefixes.end(),
                                    [&](const auto &taken) { return taken.second == prefix; });
             ++n)
            prefix = m->prefix + std::to_string(n);
        prefixes.emplace_back(m, prefix);
        return prefix;
    };
    std::string path;
    for (const Step &s : steps) {
        const std::string prefix = prefix_of(s.module);
        path += "/" + prefix + ":" + s.name;
        for (const auto &[key, value] : s.keys) {
            // A value that holds both quotes cannot be written as a literal.
            const char q = value.find('\'') == std::string::npos ? '\'' : '"';
            if (value.find(q) == std::string::npos)
                path += "[" + prefix + ":" + key + "=" + q + value + q + "]";
        }
    }
    e.path = std::move(path);
    for (const auto &[module, prefix] : prefixes)
        e.path_namespaces.emplace_back(prefix, module->ns);
}

RpcError not_performed(std::string_view name, std::string_view ns)
{
    std::string said = element_name(name);
    if (ns != netconf_ns)
        said += " in namespace " + quote(ns);
    return refusal("operation-not-supported", said + " is not an operation this agent performs");
}

RpcError missing(const lysc_node *param, std::string_view parent, const std::vector<Step> &steps)
{
    RpcError e = refusal("missing-element", element_name(parent) + " has no " +
                                                element_name(param->name) + ", which it needs");
    e.bad_element = param->name;
    set_path(e, steps);
    return e;
}

// Whether `op` is an operation the agent performs.
bool performed(const lysc_node *op)
{
    return op != nullptr && performs(op->module->name, op->name);
}

// The first parameter that `data` (of schema node `schema`) needs and
// lacks, looked for down through the containers it holds.
std::optional<RpcError> lacking(const lysc_node *schema, const lyd_node *data,
                                std::vector<Step> &steps)
{
    for (const lysc_node *c = nullptr;
         (c = lys_getnext(c, schema, nullptr, LYS_GETNEXT_WITHCHOICE)) != nullptr;) {
        if ((c->flags & LYS_MAND_TRUE) == 0)
            continue;
        if (c->nodetype == LYS_CHOICE) {
            bool present = false;
            for (const lyd_node *d = lyd_child(data); d != nullptr && !present; d = d->next)
                for (const lysc_node *p = d->schema; p != nullptr && p != schema; p = p->parent)
                    present |= p == c;
            // A choice is no element: one of its own names it, running
            // where it is one (a datastore that every operation takes),
            // else the first.
            const lysc_node *first = lys_getnext(nullptr, c, nullptr, 0);
            for (const lysc_node *n = first; n != nullptr; n = lys_getnext(n, c, nullptr, 0))
                if (std::string_view(n->name) == "running")
                    first = n;
            if (!present && first != nullptr)
                return missing(first, schema->name, steps);
            continue;
        }
        lyd_node *found = nullptr;
        if (lyd_find_sibling_val(lyd_child(data), c, nullptr, 0, &found) != LY_SUCCESS)
            return missing(c, schema->name, steps);
        if (c->nodetype == LYS_CONTAINER) {
            steps.push_back({c->module, c->name, {}});
            if (auto e = lacking(c, found, steps))
                return e;
            steps.pop_back();
        }
    }
    return std::nullopt;
}

// A request libyang took: whether the agent performs it, with what it needs.
std::optional<RpcError> taken(const lyd_node *op)
{
    if (!performed(op->schema))
        return not_performed(LYD_NAME(op), op->schema != nullptr ? op->schema->module->ns : "");
    const lys_module *netconf = ly_ctx_get_module_implemented(LYD_CTX(op), "ietf-netconf");
    std::vector<Step> steps = {{netconf != nullptr ? netconf : op->schema->module, "rpc", {}},
                               {op->schema->module, op->schema->name, {}}};
    return lacking(op->schema, op, steps);
}

// ---------------------------------------------------------------- the walk

// A request libyang refused, walked against the schema as libyang reads
// it, to the first element or attribute at fault.
class Walk {
public:
    explicit Walk(ly_ctx *ctx) : ctx_(ctx) {}

    std::optional<RpcError> rpc(xmlNode *root)
    {
        xmlNode *op = first_element(root);
        if (op == nullptr)
            return std::nullopt;
        const lys_module *m = module_of(op->ns);
        const lysc_node *s =
            m != nullptr ? lys_find_child(nullptr, m, name(op).data(), 0, LYS_RPC, 0) : nullptr;
        if (!performed(s))
            return not_performed(name(op), op->ns != nullptr ? str(op->ns->href) : "");
        std::vector<Step> steps = {{module_of(root->ns), "rpc", {}}, {m, s->name, {}}};
        if (steps.front().module == nullptr)
            steps.front().module = m;
        param(op, s, steps);
        return found_;
    }

private:
    static std::string_view name(const xmlNode *e) { return str(e->name); }

    static xmlNode *first_element(xmlNode *e)
    {
        for (xmlNode *c = e->children; c != nullptr; c = c->next)
            if (c->type == XML_ELEMENT_NODE)
                return c;
        return nullptr;
    }

    const lys_module *module_of(const xmlNs *ns) const
    {
        return ns != nullptr && ns->href != nullptr
                   ? ly_ctx_get_module_implemented_ns(ctx_,
                                                      reinterpret_cast<const char *>(ns->href))
                   : nullptr;
    }

    bool fail(RpcError e, const std::vector<Step> &steps)
    {
        set_path(e, steps);
        found_ = std::move(e);
        return false;
    }

    // An element of the operation, its parameters and what they hold.
    bool param(xmlNode *e, const lysc_node *s, std::vector<Step> &steps)
    {
        for (xmlAttr *a = e->properties; a != nullptr; a = a->next)
            if (!attribute(e, a, s, false, steps))
                return false;
        if ((s->nodetype & LYS_ANYDATA) != 0) {
            // Data of the models served: a <config> or a <filter>.
            std::vector<Step> within;
            for (xmlNode *c = e->children; c != nullptr; c = c->next)
                if (c->type == XML_ELEMENT_NODE && !data(c, nullptr, within))
                    return false;
            return true;
        }
        if ((s->nodetype & LYD_NODE_TERM) != 0) {
            if (first_element(e) != nullptr)
                return fail(bad_element(e, element_name(name(e)) +
                                               " holds an element, where it takes a value"),
                            steps);
            const std::string value = text(xmlNodeGetContent(e));
            if (!value_fits(e, s, value))
                return fail(bad_element(e, quote(value) + " is not a value " +
                                               element_name(name(e)) + " takes"),
                            steps);
            return true;
        }
        for (xmlNode *c = e->children; c != nullptr; c = c->next) {
            if (c->type == XML_TEXT_NODE || c->type == XML_CDATA_SECTION_NODE) {
                if (str(c->content).find_first_not_of(" \t\r\n") != std::string_view::npos)
                    return fail(bad_element(e, element_name(name(e)) +
                                                   " holds text, where it takes elements alone"),
                                steps);
                continue;
            }
            if (c->type != XML_ELEMENT_NODE)
                continue;
            const lys_module *m = module_of(c->ns);
            if (m == nullptr) {
                if (c->ns == nullptr || c->ns->href == nullptr) {
                    RpcError u = refusal("unknown-element",
                                         element_name(name(c)) + " has no namespace, so " +
                                             element_name(name(e)) + " cannot take it");
                    u.bad_element = name(c);
                    return fail(u, steps);
                }
                RpcError u =
                    refusal("unknown-namespace", element_name(name(c)) + " is in namespace " +
                                                     quote(str(c->ns->href)) +
                                                     ", which no YANG module the agent serves has");
                u.bad_element = name(c);
                u.bad_namespace = str(c->ns->href);
                return fail(u, steps);
            }
            const lysc_node *sc = lys_find_child(s, m, name(c).data(), 0, 0, 0);
            if (name(c) == "filter" && std::string_view(s->name) == "create-subscription") {
                // Clients write it in either namespace (RFC 5277's own, or
                // NETCONF's, as its examples may be read): neither is taken.
                RpcError u =
                    refusal("operation-not-supported", events_filter_refusal, "application");
                u.bad_element = name(c);
                return fail(u, steps);
            }
            if (sc == nullptr) {
                if (datastore(s, m, name(c)))
                    return fail(refusal("operation-not-supported",
                                        "the datastores served are running, candidate "
                                        "and startup, not " +
                                            element_name(name(c)),
                                        "application"),
                                steps);
                RpcError u =
                    refusal("unknown-element", element_name(name(c)) + " is not an element of " +
                                                   element_name(name(e)));
                u.bad_element = name(c);
                steps.push_back({m, std::string(name(c)), {}});
                return fail(u, steps);
            }
            steps.push_back({m, sc->name, {}});
            if (!param(c, sc, steps))
                return false;
            steps.pop_back();
        }
        return true;
    }

    // An element of the data a parameter holds.  libyang reads an element
    // no model describes, and all below it, as opaque: nothing of it is
    // checked, here as there.
    bool data(xmlNode *e, const lysc_node *parent, std::vector<Step> &steps)
    {
        const lys_module *m = module_of(e->ns);
        const lysc_node *s =
            m != nullptr
                ? lys_find_child(parent, m, name(e).data(), 0,
                                 LYS_CONTAINER | LYS_LIST | LYD_NODE_TERM | LYD_NODE_ANY, 0)
                : nullptr;
        if (s == nullptr)
            return true;
        Step step{m, s->name, {}};
        if (s->nodetype == LYS_LIST)
            for (const lysc_node *k = nullptr;
                 (k = lys_getnext(k, s, nullptr, 0)) != nullptr && (k->flags & LYS_KEY) != 0;)
                for (xmlNode *c = e->children; c != nullptr; c = c->next)
                    if (c->type == XML_ELEMENT_NODE && name(c) == k->name &&
                        module_of(c->ns) == k->module) {
                        step.keys.emplace_back(k->name, text(xmlNodeGetContent(c)));
                        break;
                    }
        steps.push_back(std::move(step));
        for (xmlAttr *a = e->properties; a != nullptr; a = a->next)
            if (!attribute(e, a, s, true, steps))
                return false;
        if ((s->nodetype & (LYS_CONTAINER | LYS_LIST)) != 0)
            for (xmlNode *c = e->children; c != nullptr; c = c->next)
                if (c->type == XML_ELEMENT_NODE && !data(c, s, steps))
                    return false;
        steps.pop_back();
        return true;
    }

    // An attribute of element `e` (schema node `s`): metadata of a YANG
    // annotation, with a value its type takes.  Within data an attribute of
    // no module served is left as it is; a parameter of the operation takes
    // none, except the unprefixed type and select of a <filter>.
    bool attribute(xmlNode *e, xmlAttr *a, const lysc_node *s, bool in_data,
                   const std::vector<Step> &steps)
    {
        const std::string_view attr = str(a->name);
        const lys_module *m = nullptr;
        if (a->ns == nullptr) {
            if (in_data)
                return true;
            if (filter(s) && (attr == "type" || attr == "select"))
                m = s->module;
        } else {
            m = module_of(a->ns);
            if (m == nullptr && in_data)
                return true;
        }
        if (m == nullptr || !annotation(m, attr)) {
            std::string said = element_name(name(e)) + " takes no attribute " + std::string(attr);
            if (a->ns != nullptr)
                said += " of namespace " + quote(str(a->ns->href));
            RpcError u = refusal("unknown-attribute", std::move(said));
            u.bad_attribute = attr;
            u.bad_element = name(e);
            return fail(u, steps);
        }
        const std::string value = text(xmlNodeListGetString(e->doc, a->children, 1));
        lyd_meta *meta = nullptr;
        const LY_ERR rc =
            lyd_new_meta(ctx_, nullptr, m, std::string(attr).c_str(), value.c_str(), 0, &meta);
        lyd_free_meta_single(meta);
        if (rc == LY_SUCCESS)
            return true;
        if (rc == LY_EMEM)
            throw std::bad_alloc();
        RpcError b =
            refusal("bad-attribute", element_name(name(e)) + " has " + std::string(attr) + "=" +
                                         quote(value) + ", a value that attribute does not take");
        b.bad_attribute = attr;
        b.bad_element = name(e);
        return fail(b, steps);
    }

    static RpcError bad_element(const xmlNode *e, std::string message)
    {
        RpcError b = refusal("bad-element", std::move(message));
        b.bad_element = name(e);
        return b;
    }

    // Whether `value`, the text of element `e`, is one leaf `s` takes.
    // libyang checks values as JSON has them: an identity's prefix, bound
    // in the document to a namespace, becomes the name of its module.
    // Other values that may name prefixes are left as they are.
    bool value_fits(xmlNode *e, const lysc_node *s, const std::string &value) const
    {
        const lysc_type *type = s->nodetype == LYS_LEAF
                                    ? reinterpret_cast<const lysc_node_leaf *>(s)->type
                                    : reinterpret_cast<const lysc_node_leaflist *>(s)->type;
        std::string json = value;
        switch (type->basetype) {
        case LY_TYPE_IDENT: {
            const std::size_t colon = value.find(':');
            const std::string prefix = colon == std::string::npos ? "" : value.substr(0, colon);
            const xmlNs *ns = xmlSearchNs(
                e->doc, e,
                prefix.empty() ? nullptr : reinterpret_cast<const xmlChar *>(prefix.c_str()));
            const lys_module *m =
                ns != nullptr && ns->href != nullptr
                    ? ly_ctx_get_module_latest_ns(ctx_, reinterpret_cast<const char *>(ns->href))
                    : nullptr;
            if (m == nullptr)
                return false;
            json = std::string(m->name) + ":" +
                   (colon == std::string::npos ? value : value.substr(colon + 1));
            break;
        }
        case LY_TYPE_INST:
        case LY_TYPE_UNION:
        case LY_TYPE_LEAFREF:
            return true;
        default:
            break;
        }
        const LY_ERR rc =
            lyd_value_validate(nullptr, s, json.c_str(), json.size(), nullptr, nullptr, nullptr);
        return rc == LY_SUCCESS || rc == LY_EINCOMPLETE;
    }

    // Whether <source> or <target> names a datastore NETCONF has that
    // the agent does not serve.
    static bool datastore(const lysc_node *s, const lys_module *m, std::string_view element)
    {
        const std::string_view ietf = "ietf-netconf";
        return m->name == ietf && s->module->name == ietf &&
               (std::string_view(s->name) == "source" || std::string_view(s->name) == "target") &&
               (element == "candidate" || element == "startup" || element == "url");
    }

    static bool filter(const lysc_node *s)
    {
        return (s->nodetype & LYS_ANYDATA) != 0 && std::string_view(s->name) == "filter" &&
               std::string_view(s->module->name) == "ietf-netconf";
    }

    // Whether module `m` defines the annotation `name`.
    static bool annotation(const lys_module *m, std::string_view name)
    {
        if (m->compiled == nullptr)
            return false;
        LY_ARRAY_COUNT_TYPE u;
        LY_ARRAY_FOR(m->compiled->exts, u)
        {
            const lysc_ext_instance &ext = m->compiled->exts[u];
            if (std::string_view(ext.def->name) == "annotation" &&
                std::string_view(ext.def->module->name) == "ietf-yang-metadata" &&
                ext.argument != nullptr && ext.argument == name)
                return true;
        }
        return false;
    }

    ly_ctx *ctx_;
    std::optional<RpcError> found_;
};

struct FreeTree {
    void operator()(lyd_node *n) const { lyd_free_all(n); }
};
struct FreeDoc {
    void operator()(xmlDoc *d) const { xmlFreeDoc(d); }
};

// A message this large leaves libyang's tree of it, many times its size,
// freed in the allocator of the session's thread, where the agent's work
// on the request (on another thread) cannot use it again: it is handed
// back to the system once the screen is done.
constexpr std::size_t large_message = std::size_t{1} << 20;

std::optional<RpcError> screened(ly_ctx *ctx, const std::string &message)
{
    ly_in *in = nullptr;
    if (ly_in_new_memory(message.c_str(), &in) != LY_SUCCESS)
        throw std::bad_alloc();
    lyd_node *envelope = nullptr, *op = nullptr;
    const LY_ERR rc = lyd_parse_op(ctx, nullptr, in, LYD_XML, LYD_TYPE_RPC_NETCONF, &envelope, &op);
    ly_in_free(in, 0);
    const std::unique_ptr<lyd_node, FreeTree> own_envelope(envelope), own_op(op);
    if (rc == LY_SUCCESS && op != nullptr) {
        ly_err_clean(ctx, nullptr);
        return taken(op);
    }
    // libyang's own words, for what the walk cannot place.
    const ly_err_item *last = ly_err_last(ctx);
    std::string said = last != nullptr && last->msg != nullptr ? one_line(last->msg) : "";
    std::optional<RpcError> e;
    if (message.size() <= INT_MAX) {
        const std::unique_ptr<xmlDoc, FreeDoc> doc(xmlReadMemory(
            message.data(), static_cast<int>(message.size()), nullptr, nullptr,
            XML_PARSE_NONET | XML_PARSE_NOENT | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
        if (xmlNode *root = doc != nullptr ? xmlDocGetRootElement(doc.get()) : nullptr)
            e = Walk(ctx).rpc(root);
    }
    ly_err_clean(ctx, nullptr);
    if (e)
        return e;
    return refusal("operation-failed",
                   said.empty() ? "the request does not fit the YANG models served"
                                : "the request does not fit the YANG models served: " + said,
                   "application");
}

} // namespace

std::optional<RpcError> screen_rpc(ly_ctx *ctx, const std::string &message)
{
    std::optional<RpcError> e = screened(ctx, message);
    if (message.size() >= large_message)
        malloc_trim(0);
    return e;
}

} // namespace octunnel::serve
