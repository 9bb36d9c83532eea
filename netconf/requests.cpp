#include "netconf/requests.h"

#include "netconf/monitor.h"
#include "translate/oc_models.h"

#include <libyang/libyang.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <new>
#include <stdexcept>

namespace octunnel::serve {
namespace {

// The XML text an anyxml parameter holds.  Its elements are printed
// whatever they hold: an empty one (<interfaces/>) is a selection node of
// a filter, which libyang's own text of the value would leave out.
std::string content_of(const lyd_node *node)
{
    const auto *any = reinterpret_cast<const lyd_node_any *>(node);
    char *text = nullptr;
    switch (any->value_type) {
    case LYD_ANYDATA_DATATREE:
        if (any->value.tree == nullptr)
            return {};
        if (lyd_print_mem(&text, any->value.tree, LYD_XML,
                          LYD_PRINT_WITHSIBLINGS | LYD_PRINT_KEEPEMPTYCONT | LYD_PRINT_SHRINK) !=
            LY_SUCCESS)
            throw std::bad_alloc();
        break;
    case LYD_ANYDATA_XML:
    case LYD_ANYDATA_STRING:
        return any->value.str != nullptr ? any->value.str : "";
    default:
        if (lyd_any_value_str(node, &text) != LY_SUCCESS)
            throw std::bad_alloc();
    }
    std::string s = text != nullptr ? text : "";
    std::free(text);
    return s;
}

// The XML text of the anyxml parameter `node`, taken out of the request:
// libyang holds it as a tree many times the size of the text, which would
// otherwise stay beside every tree the agent builds of the text until the
// reply is sent.
std::string take_content(lyd_node *node)
{
    std::string text = content_of(node);
    if (lyd_any_copy_value(node, nullptr, LYD_ANYDATA_STRING) != LY_SUCCESS)
        throw std::bad_alloc();
    return text;
}

// The node at `path` below `rpc`, to be changed.
lyd_node *param_in(lyd_node *rpc, const char *path)
{
    lyd_node *found = nullptr;
    return lyd_find_path(rpc, path, 0, &found) == LY_SUCCESS ? found : nullptr;
}

Outcome no_datastore(const char *which)
{
    return failure("operation-not-supported",
                   std::string("the ") + which + " names no datastore the agent serves",
                   "application");
}

// The datastore <target> or <source> (`which`) names, if one of those the
// agent serves.
std::optional<Store> store_of(const lyd_node *rpc, const std::string &which)
{
    if (param(rpc, (which + "/running").c_str()) != nullptr)
        return Store::running;
    if (param(rpc, (which + "/candidate").c_str()) != nullptr)
        return Store::candidate;
    if (param(rpc, (which + "/startup").c_str()) != nullptr)
        return Store::startup;
    return std::nullopt;
}

Reply edit_config(Agent &agent, lyd_node *rpc, uint32_t sid)
{
    const std::optional<Store> target = store_of(rpc, "target");
    if (target != Store::running && target != Store::candidate)
        return {no_datastore("target")};
    lyd_node *config = param_in(rpc, "config");
    if (config == nullptr)
        return {
            failure("operation-not-supported", "only an inline <config> is taken", "application")};
    DefaultOperation op = DefaultOperation::merge;
    if (const std::string d = text_of(param(rpc, "default-operation")); d == "replace")
        op = DefaultOperation::replace;
    else if (d == "none")
        op = DefaultOperation::none;
    const bool test_only = text_of(param(rpc, "test-option")) == "test-only";
    if (target == Store::candidate)
        return {agent.edit_candidate(sid, take_content(config), op, test_only)};
    return {agent.edit_config(sid, take_content(config), op, test_only)};
}

Reply validate(Agent &agent, lyd_node *rpc, uint32_t sid)
{
    // The running configuration is valid as it stands; an inline one is
    // tried as the whole configuration, and not kept.
    if (lyd_node *config = param_in(rpc, "source/config"); config != nullptr)
        return {agent.validate(sid, take_content(config))};
    if (const std::optional<Store> source = store_of(rpc, "source"))
        return {agent.validate_store(sid, *source)};
    return {no_datastore("source")};
}

// <commit> (RFC 6241, 8.3.4.1 and 8.4.5.1).
Reply commit(Agent &agent, const lyd_node *rpc, uint32_t sid)
{
    CommitRequest r;
    r.confirmed = param(rpc, "confirmed") != nullptr;
    if (const lyd_node *t = param(rpc, "confirm-timeout"); t != nullptr)
        r.timeout = static_cast<uint32_t>(std::strtoul(text_of(t).c_str(), nullptr, 10));
    if (const lyd_node *p = param(rpc, "persist"); p != nullptr)
        r.persist = text_of(p);
    if (const lyd_node *p = param(rpc, "persist-id"); p != nullptr)
        r.persist_id = text_of(p);
    if (!r.confirmed && (param(rpc, "confirm-timeout") != nullptr || r.persist)) {
        RpcError e;
        e.type = "protocol";
        e.tag = "invalid-value";
        e.message = "<confirm-timeout> and <persist> go with <confirmed/>";
        e.bad_element = r.persist ? "persist" : "confirm-timeout";
        return {Outcome::error(e)};
    }
    return {agent.commit(sid, r)};
}

Reply copy_config(Agent &agent, const lyd_node *rpc, uint32_t sid)
{
    const std::optional<Store> target = store_of(rpc, "target");
    if (!target)
        return {no_datastore("target")};
    if (const lyd_node *config = param(rpc, "source/config"); config != nullptr)
        return {agent.copy_config(sid, *target, std::nullopt, content_of(config))};
    const std::optional<Store> source = store_of(rpc, "source");
    if (!source)
        return {no_datastore("source")};
    return {agent.copy_config(sid, *target, source, {})};
}

Reply read(Agent &agent, const lyd_node *rpc, uint32_t sid, bool config_only)
{
    const std::optional<Store> source = config_only ? store_of(rpc, "source") : Store::running;
    if (!source)
        return {no_datastore("source")};
    std::optional<std::string> filter;
    if (const lyd_node *f = param(rpc, "filter"); f != nullptr) {
        const lyd_meta *type = lyd_find_meta(f->meta, nullptr, "ietf-netconf:type");
        if (type != nullptr && std::string_view(lyd_get_meta_value(type)) != "subtree") {
            RpcError e;
            e.tag = "bad-attribute";
            e.type = "protocol";
            e.bad_attribute = "type";
            e.bad_element = "filter";
            e.message = "only subtree filters are taken";
            return {Outcome::error(e)};
        }
        filter = content_of(f);
    }
    if (*source != Store::running)
        return {agent.read_store(sid, *source, filter), true};
    Reply r{agent.read(sid, config_only, filter), true};
    return r;
}

} // namespace

ly_ctx *served_context(const std::string &yang_dir)
{
    ly_ctx *ctx = load_served_models(yang_dir);
    // The agent's own identities of monitoring, built in.
    if (lys_parse_mem(ctx, octunnel_monitoring_yang, LYS_IN_YANG, nullptr) != LY_SUCCESS) {
        ly_ctx_destroy(ctx);
        throw std::runtime_error("cannot load the model " +
                                 std::string(octunnel_monitoring_module));
    }
    return ctx;
}

std::string text_of(const lyd_node *node)
{
    return node != nullptr && lyd_get_value(node) != nullptr ? lyd_get_value(node) : "";
}

const lyd_node *param(const lyd_node *rpc, const char *path)
{
    lyd_node *found = nullptr;
    return lyd_find_path(rpc, path, 0, &found) == LY_SUCCESS ? found : nullptr;
}

Outcome failure(const char *tag, std::string message, const char *type)
{
    RpcError e;
    e.tag = tag;
    e.type = type;
    e.message = std::move(message);
    return Outcome::error(e);
}

bool performs(std::string_view module, std::string_view name)
{
    static constexpr std::string_view netconf[] = {
        "edit-config",   "get-config",  "get",           "lock",
        "unlock",        "validate",    "commit",        "discard-changes",
        "cancel-commit", "copy-config", "delete-config", "close-session",
        "kill-session"};
    if (module == "ietf-netconf")
        return std::find(std::begin(netconf), std::end(netconf), name) != std::end(netconf);
    if (module == "notifications")
        return name == "create-subscription";
    return module == "ietf-netconf-monitoring" && name == "get-schema";
}

std::optional<Reply> handle_request(Agent &agent, lyd_node *rpc, uint32_t session)
{
    if (rpc->schema == nullptr || std::string_view(rpc->schema->module->name) != "ietf-netconf")
        return std::nullopt;
    const std::string_view name = LYD_NAME(rpc);
    if (name == "edit-config")
        return edit_config(agent, rpc, session);
    if (name == "get-config")
        return read(agent, rpc, session, true);
    if (name == "get")
        return read(agent, rpc, session, false);
    if (name == "lock" || name == "unlock") {
        const std::optional<Store> target = store_of(rpc, "target");
        if (!target)
            return Reply{no_datastore("target")};
        return Reply{name == "lock" ? agent.lock(session, *target)
                                    : agent.unlock(session, *target)};
    }
    if (name == "validate")
        return validate(agent, rpc, session);
    if (name == "commit")
        return commit(agent, rpc, session);
    if (name == "cancel-commit") {
        std::optional<std::string> persist_id;
        if (const lyd_node *p = param(rpc, "persist-id"); p != nullptr)
            persist_id = text_of(p);
        return Reply{agent.cancel_commit(session, persist_id)};
    }
    if (name == "discard-changes")
        return Reply{agent.discard_changes(session)};
    if (name == "copy-config")
        return copy_config(agent, rpc, session);
    if (name == "delete-config") {
        const std::optional<Store> target = store_of(rpc, "target");
        if (!target)
            return Reply{no_datastore("target")};
        return Reply{agent.delete_config(session, *target)};
    }
    return std::nullopt;
}

} // namespace octunnel::serve
