#include "agent/nacm.h"

#include "agent/tree.h"

#include <libyang/libyang.h>
#include <libyang/plugins_types.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace octunnel::serve::nacm {
namespace {

std::string_view name_of(const lyd_node *node)
{
    return LYD_NAME(node);
}

std::string value_of(const lyd_node *node)
{
    const char *v = lyd_get_value(node);
    return v != nullptr ? v : "";
}

// The line libyang names in its message about a document, or 0.
uint32_t line_in(const ly_err_item *err)
{
    for (const char *text : {err->path, err->msg}) {
        if (text == nullptr)
            continue;
        const std::string_view s = text;
        const auto at = s.find("line number ");
        if (at != std::string_view::npos)
            return static_cast<uint32_t>(
                std::strtoul(std::string(s.substr(at + 12)).c_str(), nullptr, 10));
    }
    return 0;
}

// A value of the type node-instance-identifier as RFC 7951 writes it: the
// module's name for a prefix, where the module changes.
std::string json_path(const lyd_node *leaf)
{
    const auto *term = reinterpret_cast<const lyd_node_term *>(leaf);
    ly_bool dynamic = 0;
    const void *printed = term->value.realtype->plugin->print(
        LYD_CTX(leaf), &term->value, LY_VALUE_JSON, nullptr, &dynamic, nullptr);
    std::string s = printed != nullptr ? static_cast<const char *>(printed) : "";
    if (dynamic)
        std::free(const_cast<void *>(printed));
    return s;
}

// The steps of a path in the form json_path() gives, resolved against the
// models; what they do not resolve is refused with `why` set.
std::vector<PathStep> compile_path(const ly_ctx *ctx, std::string_view text, std::string &why)
{
    std::vector<PathStep> steps;
    if (text == "/")
        return steps;
    const lys_module *module = nullptr;
    const lysc_node *parent = nullptr;
    std::size_t i = 0;
    // A name, with the module's name before a colon when it has one.
    auto qualified = [&](std::string_view &mod, std::string_view &name) {
        const std::size_t start = i;
        while (i < text.size() && text[i] != '/' && text[i] != '[' && text[i] != '=' &&
               text[i] != ']' && text[i] != ' ')
            ++i;
        std::string_view word = text.substr(start, i - start);
        const auto colon = word.find(':');
        mod = colon == std::string_view::npos ? std::string_view{} : word.substr(0, colon);
        name = colon == std::string_view::npos ? word : word.substr(colon + 1);
    };
    while (i < text.size()) {
        if (text[i] != '/') {
            why = "a step does not start with '/'";
            return {};
        }
        ++i;
        std::string_view mod, name;
        qualified(mod, name);
        if (!mod.empty())
            module = ly_ctx_get_module_implemented(ctx, std::string(mod).c_str());
        if (module == nullptr || name.empty()) {
            why = "no module of the models served is named '" + std::string(mod) + "'";
            return {};
        }
        const lysc_node *schema =
            lys_find_child(parent, module, name.data(), name.size(), 0, LYS_FIND_NO_MATCH_ERROR);
        if (schema == nullptr) {
            why = "'" + std::string(name) + "' is no node of the models here";
            return {};
        }
        PathStep step{schema, {}};
        while (i < text.size() && text[i] == '[') {
            ++i;
            while (i < text.size() && text[i] == ' ')
                ++i;
            std::string_view kmod, kname;
            qualified(kmod, kname);
            while (i < text.size() && text[i] == ' ')
                ++i;
            if (i >= text.size() || text[i] != '=') {
                why = "a predicate is not a key = 'value'";
                return {};
            }
            ++i;
            while (i < text.size() && text[i] == ' ')
                ++i;
            if (i >= text.size() || (text[i] != '\'' && text[i] != '"')) {
                why = "a predicate's value is not quoted";
                return {};
            }
            const char quote = text[i++];
            const std::size_t end = text.find(quote, i);
            if (end == std::string_view::npos) {
                why = "a predicate's value is not closed";
                return {};
            }
            std::string value(text.substr(i, end - i));
            i = end + 1;
            while (i < text.size() && text[i] == ' ')
                ++i;
            if (i >= text.size() || text[i] != ']') {
                why = "a predicate is not closed";
                return {};
            }
            ++i;
            // A leaf-list entry is named by its own value ("."), a list
            // entry by its keys.
            const lysc_node *key = schema;
            if (kname != ".") {
                key = lys_find_child(schema, module, kname.data(), kname.size(), LYS_LEAF, 0);
                if (key == nullptr || !lysc_is_key(key)) {
                    why = "'" + std::string(kname) + "' is no key of '" + std::string(name) + "'";
                    return {};
                }
            }
            step.keys.emplace_back(key, std::move(value));
        }
        steps.push_back(std::move(step));
        parent = schema;
    }
    return steps;
}

uint8_t access_bits(std::string_view text)
{
    if (text == "*")
        return Access::all;
    uint8_t bits = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        const std::size_t end = std::min(text.find(' ', i), text.size());
        const std::string_view word = text.substr(i, end - i);
        if (word == "create")
            bits |= Access::create;
        else if (word == "read")
            bits |= Access::read;
        else if (word == "update")
            bits |= Access::update;
        else if (word == "delete")
            bits |= Access::del;
        else if (word == "exec")
            bits |= Access::exec;
        i = end + 1;
    }
    return bits;
}

Rule rule_of(const lyd_node *entry, const std::string &file, const std::string &list)
{
    Rule r;
    for (const lyd_node *c = lyd_child(entry); c != nullptr; c = c->next) {
        const std::string_view n = name_of(c);
        if (n == "name")
            r.name = value_of(c);
        else if (n == "module-name")
            r.module = value_of(c);
        else if (n == "rpc-name") {
            r.type = Rule::Type::operation;
            r.rpc = value_of(c);
        } else if (n == "notification-name") {
            r.type = Rule::Type::notification;
            r.rpc = value_of(c);
        } else if (n == "path") {
            r.type = Rule::Type::data;
            r.path_text = json_path(c);
            std::string why;
            r.path = compile_path(LYD_CTX(c), r.path_text, why);
            if (!why.empty())
                throw RulesError(file, 0,
                                 "rule-list '" + list + "', rule '" + r.name + "': the path " +
                                     r.path_text + " names no node the agent serves: " + why);
        } else if (n == "access-operations")
            r.access = access_bits(value_of(c));
        else if (n == "action")
            r.permit = value_of(c) == "permit";
    }
    return r;
}

Rules rules_of(const lyd_node *nacm, const std::string &file)
{
    Rules rules;
    for (const lyd_node *c = lyd_child(nacm); c != nullptr; c = c->next) {
        const std::string_view n = name_of(c);
        if (n == "enable-nacm")
            rules.enabled = value_of(c) == "true";
        else if (n == "read-default")
            rules.read_permit = value_of(c) == "permit";
        else if (n == "write-default")
            rules.write_permit = value_of(c) == "permit";
        else if (n == "exec-default")
            rules.exec_permit = value_of(c) == "permit";
        else if (n == "enable-external-groups")
            rules.external_groups = value_of(c) == "true";
        else if (n == "groups") {
            for (const lyd_node *g = lyd_child(c); g != nullptr; g = g->next) {
                Group group;
                for (const lyd_node *f = lyd_child(g); f != nullptr; f = f->next)
                    if (name_of(f) == "name")
                        group.name = value_of(f);
                    else if (name_of(f) == "user-name")
                        group.users.push_back(value_of(f));
                rules.groups.push_back(std::move(group));
            }
        } else if (n == "rule-list") {
            RuleList list;
            for (const lyd_node *f = lyd_child(c); f != nullptr; f = f->next)
                if (name_of(f) == "name")
                    list.name = value_of(f);
                else if (name_of(f) == "group")
                    list.groups.push_back(value_of(f));
                else if (name_of(f) == "rule")
                    list.rules.push_back(rule_of(f, file, list.name));
            rules.lists.push_back(std::move(list));
        }
    }
    return rules;
}

bool has_extension(const lysc_node *schema, bool write)
{
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(schema->exts, i)
    {
        const lysc_ext *def = schema->exts[i].def;
        if (def == nullptr || def->module == nullptr ||
            std::string_view(def->module->name) != "ietf-netconf-acm")
            continue;
        const std::string_view name = def->name;
        if (name == "default-deny-all" || (write && name == "default-deny-write"))
            return true;
    }
    return false;
}

// Whether the rule's path names the node of `path` or one of its
// ancestors.
bool path_matches(const Rule &rule, std::span<const DataStep> path)
{
    if (rule.path.size() > path.size())
        return false;
    for (std::size_t i = 0; i < rule.path.size(); ++i) {
        const PathStep &want = rule.path[i];
        const DataStep &have = path[i];
        if (want.schema != have.schema)
            return false;
        for (const auto &want_key : want.keys) {
            const auto it = std::find_if(have.keys.begin(), have.keys.end(),
                                         [&](const auto &k) { return k.first == want_key.first; });
            if (it == have.keys.end() || it->second != want_key.second)
                return false;
        }
    }
    return true;
}

DataStep step_of(const lyd_node *node)
{
    DataStep step;
    step.schema = node->schema;
    step.module = node->schema != nullptr ? node->schema->module->name : "";
    if (node->schema == nullptr)
        return step;
    if (node->schema->nodetype == LYS_LIST) {
        for (const lyd_node *c = lyd_child(node);
             c != nullptr && c->schema != nullptr && lysc_is_key(c->schema); c = c->next)
            step.keys.emplace_back(c->schema, lyd_get_value(c));
    } else if (node->schema->nodetype == LYS_LEAFLIST) {
        step.keys.emplace_back(node->schema, lyd_get_value(node));
    }
    return step;
}

// Whether a node is checked for itself, apart from what holds it: a
// container without a meaning of its own is there whenever its parent is,
// and a key comes and goes with its entry.
bool checked(const lyd_node *node)
{
    if (node->schema == nullptr || (node->flags & LYD_DEFAULT) != 0)
        return false;
    if (lysc_is_np_cont(node->schema))
        return false;
    return !lysc_is_key(node->schema);
}

// The first node of the subtree of `top` that may not be given `access`.
std::optional<Denial> denied_in(const Subject &subject, const lyd_node *top, Access access)
{
    std::vector<const lyd_node *> todo{top};
    while (!todo.empty()) {
        const lyd_node *node = todo.back();
        todo.pop_back();
        if (checked(node) && !subject.may(access, node))
            return Denial{node, access};
        for (const lyd_node *c = lyd_child(node); c != nullptr; c = c->next)
            todo.push_back(c);
    }
    return std::nullopt;
}

// The node of `siblings` that is `node` of another tree: a list or
// leaf-list entry by its keys or value, any other node by its schema alone,
// so that a leaf whose value changed is found.
const lyd_node *counterpart(const lyd_node *siblings, const lyd_node *node)
{
    lyd_node *match = nullptr;
    if (siblings == nullptr)
        return nullptr;
    if (node->schema != nullptr && (node->schema->nodetype & (LYS_LIST | LYS_LEAFLIST)) == 0)
        return lyd_find_sibling_val(siblings, node->schema, nullptr, 0, &match) == LY_SUCCESS
                   ? match
                   : nullptr;
    return lyd_find_sibling_first(siblings, node, &match) == LY_SUCCESS ? match : nullptr;
}

} // namespace

RulesError::RulesError(const std::string &file, uint32_t line, const std::string &why)
    : std::runtime_error(file + (line > 0 ? ":" + std::to_string(line) : std::string()) + ": " +
                         why)
{
}

std::shared_ptr<const Rules> parse_rules(ly_ctx *ctx, std::string_view text,
                                         const std::string &file)
{
    const std::string copy(text);
    lyd_node *tree = nullptr;
    if (lyd_parse_data_mem(ctx, copy.c_str(), LYD_XML, LYD_PARSE_STRICT | LYD_PARSE_NO_STATE,
                           LYD_VALIDATE_NO_STATE | LYD_VALIDATE_PRESENT, &tree) != LY_SUCCESS) {
        lyd_free_all(tree);
        const ly_err_item *err = ly_err_last(ctx);
        std::string why = err != nullptr && err->msg != nullptr ? err->msg : "not a document";
        throw RulesError(file, err != nullptr ? line_in(err) : 0,
                         "not the access control data of ietf-netconf-acm: " + why);
    }
    std::unique_ptr<lyd_node, decltype(&lyd_free_all)> hold(tree, lyd_free_all);
    const lyd_node *nacm = nullptr;
    for (const lyd_node *top = tree; top != nullptr; top = top->next) {
        if (top->schema == nullptr ||
            std::string_view(top->schema->module->name) != "ietf-netconf-acm") {
            throw RulesError(file, 0,
                             "<" + std::string(name_of(top)) +
                                 "> is not access control data: the file holds <nacm> of "
                                 "ietf-netconf-acm alone");
        }
        nacm = top;
    }
    if (nacm == nullptr)
        throw RulesError(file, 0, "no <nacm> of ietf-netconf-acm (" + std::string(ns) + ")");
    return std::make_shared<const Rules>(rules_of(nacm, file));
}

std::shared_ptr<const Rules> load_rules(ly_ctx *ctx, const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw RulesError(path, 0, "cannot be read");
    std::ostringstream all;
    all << in.rdbuf();
    return parse_rules(ctx, all.str(), path);
}

bool default_deny(const lysc_node *schema, bool write)
{
    for (; schema != nullptr; schema = schema->parent)
        if (has_extension(schema, write))
            return true;
    return false;
}

Subject::Subject(std::shared_ptr<const Rules> rules, std::string_view user, bool recovery)
    : rules_(std::move(rules))
{
    unrestricted_ = rules_ == nullptr || !rules_->enabled || recovery;
    if (unrestricted_)
        return;
    // The user's groups (RFC 8341, section 3.4.4, step 3): those that name
    // the user.  The transports give no groups of their own.
    std::vector<std::string_view> groups;
    for (const Group &g : rules_->groups)
        if (std::find(g.users.begin(), g.users.end(), user) != g.users.end())
            groups.push_back(g.name);
    // A user of no group is held to the defaults alone.
    if (groups.empty())
        return;
    for (const RuleList &list : rules_->lists) {
        const bool applies = std::any_of(list.groups.begin(), list.groups.end(), [&](auto &g) {
            return g == "*" || std::find(groups.begin(), groups.end(), g) != groups.end();
        });
        if (applies)
            for (const Rule &r : list.rules)
                rules_in_order_.push_back(&r);
    }
}

bool Subject::may_execute(std::string_view module, std::string_view name,
                          bool default_deny_all) const
{
    if (unrestricted_ || (module == "ietf-netconf" && name == "close-session"))
        return true;
    for (const Rule *r : rules_in_order_) {
        if ((r->access & Access::exec) == 0)
            continue;
        if (r->type != Rule::Type::any && r->type != Rule::Type::operation)
            continue;
        if (r->module != "*" && r->module != module)
            continue;
        if (r->type == Rule::Type::operation && r->rpc != "*" && r->rpc != name)
            continue;
        return r->permit;
    }
    if (default_deny_all)
        return false;
    return rules_->exec_permit;
}

bool Subject::may_execute(const lysc_node *operation) const
{
    if (unrestricted_)
        return true;
    return may_execute(operation->module->name, operation->name, default_deny(operation, false));
}

bool Subject::may_receive(std::string_view module, std::string_view name) const
{
    if (unrestricted_ || (module == "nc-notifications" &&
                          (name == "replayComplete" || name == "notificationComplete")))
        return true;
    for (const Rule *r : rules_in_order_) {
        if ((r->access & Access::read) == 0)
            continue;
        if (r->type != Rule::Type::any && r->type != Rule::Type::notification)
            continue;
        if (r->module != "*" && r->module != module)
            continue;
        if (r->type == Rule::Type::notification && r->rpc != "*" && r->rpc != name)
            continue;
        return r->permit;
    }
    return rules_->read_permit;
}

bool Subject::may(Access access, std::span<const DataStep> path) const
{
    if (unrestricted_ || path.empty())
        return true;
    const DataStep &node = path.back();
    for (const Rule *r : rules_in_order_) {
        if ((r->access & access) == 0)
            continue;
        if (r->type != Rule::Type::any && r->type != Rule::Type::data)
            continue;
        if (r->module != "*" && r->module != node.module)
            continue;
        if (r->type == Rule::Type::data && !path_matches(*r, path))
            continue;
        return r->permit;
    }
    const bool write = access != Access::read;
    for (const DataStep &step : path)
        if (step.schema != nullptr && has_extension(step.schema, write))
            return false;
    return write ? rules_->write_permit : rules_->read_permit;
}

bool Subject::may(Access access, const lyd_node *node) const
{
    if (unrestricted_)
        return true;
    const std::vector<DataStep> path = path_of(node);
    return may(access, path);
}

std::vector<DataStep> path_of(const lyd_node *node)
{
    std::vector<DataStep> path;
    for (const lyd_node *n = node; n != nullptr; n = lyd_parent(n))
        path.push_back(step_of(n));
    std::reverse(path.begin(), path.end());
    return path;
}

std::optional<Denial> first_denied_change(const Subject &subject, const lyd_node *before,
                                          const lyd_node *after)
{
    if (subject.unrestricted())
        return std::nullopt;
    // Pairs of sibling lists to compare, walked without recursion.
    std::vector<std::pair<const lyd_node *, const lyd_node *>> todo{{before, after}};
    while (!todo.empty()) {
        const auto [was, now] = todo.back();
        todo.pop_back();
        for (const lyd_node *n = now; n != nullptr; n = n->next) {
            const lyd_node *match = counterpart(was, n);
            if (match == nullptr) {
                if (auto d = denied_in(subject, n, Access::create))
                    return d;
                continue;
            }
            if (n->schema != nullptr && (n->schema->nodetype & LYD_NODE_TERM) != 0) {
                if (lyd_compare_single(match, n, 0) != LY_SUCCESS && checked(n) &&
                    !subject.may(Access::update, n))
                    return Denial{n, Access::update};
                continue;
            }
            todo.emplace_back(lyd_child(match), lyd_child(n));
        }
        for (const lyd_node *w = was; w != nullptr; w = w->next) {
            if (counterpart(now, w) == nullptr)
                if (auto d = denied_in(subject, w, Access::del))
                    return d;
        }
    }
    return std::nullopt;
}

namespace {

const char *action(bool permit)
{
    return permit ? "permit" : "deny";
}

std::string access_text(uint8_t bits)
{
    if (bits == Access::all)
        return "*";
    std::string s;
    for (const auto &[bit, word] :
         {std::pair{Access::create, "create"}, std::pair{Access::read, "read"},
          std::pair{Access::update, "update"}, std::pair{Access::del, "delete"},
          std::pair{Access::exec, "exec"}})
        if ((bits & bit) != 0)
            s.append(s.empty() ? "" : " ").append(word);
    return s;
}

} // namespace

std::string state_xml(const Rules *rules, uint32_t denied_operations, uint32_t denied_writes,
                      uint32_t denied_notifications)
{
    std::string out = "<nacm xmlns=\"" + std::string(ns) + "\">";
    Rules none;
    none.enabled = false;
    const Rules &r = rules != nullptr ? *rules : none;
    append_leaf(out, "enable-nacm", r.enabled ? "true" : "false");
    append_leaf(out, "read-default", action(r.read_permit));
    append_leaf(out, "write-default", action(r.write_permit));
    append_leaf(out, "exec-default", action(r.exec_permit));
    append_leaf(out, "enable-external-groups", r.external_groups ? "true" : "false");
    append_leaf(out, "denied-operations", std::to_string(denied_operations));
    append_leaf(out, "denied-data-writes", std::to_string(denied_writes));
    append_leaf(out, "denied-notifications", std::to_string(denied_notifications));
    if (!r.groups.empty()) {
        out += "<groups>";
        for (const Group &g : r.groups) {
            out += "<group>";
            append_leaf(out, "name", g.name);
            for (const std::string &u : g.users)
                append_leaf(out, "user-name", u);
            out += "</group>";
        }
        out += "</groups>";
    }
    for (const RuleList &list : r.lists) {
        out += "<rule-list>";
        append_leaf(out, "name", list.name);
        for (const std::string &g : list.groups)
            append_leaf(out, "group", g);
        for (const Rule &rule : list.rules) {
            out += "<rule>";
            append_leaf(out, "name", rule.name);
            append_leaf(out, "module-name", rule.module);
            if (rule.type == Rule::Type::operation)
                append_leaf(out, "rpc-name", rule.rpc);
            else if (rule.type == Rule::Type::data)
                append_leaf(out, "path", rule.path_text);
            append_leaf(out, "access-operations", access_text(rule.access));
            append_leaf(out, "action", action(rule.permit));
            out += "</rule>";
        }
        out += "</rule-list>";
    }
    return out + "</nacm>";
}

} // namespace octunnel::serve::nacm
