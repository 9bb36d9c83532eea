#include "agent.h"

#include "filter.h"
#include "octunnel/yfw_namespaces.h"
#include "octunnel/yfw_trace.h"
#include "yfwhost/host.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace octunnel::serve {
namespace {

constexpr const char running_file[] = "running.xml";

std::string hex(verrno rc)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", rc);
    return text;
}

// One walk of the module.  When the module reports an error without naming
// the node, the framework knows where the walk stood when it said so: the
// hierarchy at its first ERR record becomes the error path.
class Walk {
public:
    Walk(uint32_t kind, const char *out_tag) : req_(kind, out_tag)
    {
        req_.log_to([this](std::string_view line) {
            if (line.starts_with("ERR") && req_.error_path().empty())
                req_.record_error_path();
        });
        req_.set_debug_levels(1u << YFW_LEVEL_ERR);
    }
    yfwhost::Request &request() { return req_; }

private:
    yfwhost::Request req_;
};

// The module's refusal as NETCONF says it.
RpcError refusal(verrno rc, yfwhost::Request &req)
{
    RpcError e;
    switch (rc) {
    case YFW_ERR_NOT_SUPPORTED:
    case YFW_ERR_AUGMENT_NOT_SUPPORTED:
        e.tag = "operation-not-supported";
        break;
    case YFW_ERR_UNSUPPORTED_TAG:
        e.tag = "unknown-element";
        break;
    case YFW_ERR_NO_SUBTREES:
    case YFW_ERR_LIST_KEY:
        e.tag = "missing-element";
        break;
    case YFW_ERR_INVALID_ARG:
    case YFW_ERR_KEY_DELETE:
    case yfwhost::YFW_ERR_LEAFREF_MISMATCH:
        e.tag = "invalid-value";
        break;
    default:
        e.tag = "operation-failed";
    }
    const char *name = yfwhost::error_name(rc);
    e.app_tag = name != nullptr ? name : hex(rc);
    const yfw_map_state &state = req.state();
    if (state.error_text != nullptr)
        e.message = one_line(state.error_text);
    else
        e.message = "the tunnel mapping module refused the request: " + e.app_tag +
                    (name != nullptr ? " (" + hex(rc) + ")" : std::string());
    e.path = req.error_path();
    if (state.error_tag != nullptr)
        e.bad_element = one_line(state.error_tag);
    else if (std::size_t at = e.path.find_last_of('/'); at != std::string::npos)
        e.bad_element = e.path.substr(at + 1, e.path.find('[', at) - at - 1);
    if (e.tag == "unknown-element" && e.bad_element.empty())
        e.tag = "operation-failed";
    return e;
}

// Whether the module's answer holds only text a document can hold; a
// refusal where it does not: nothing that cannot be read back is kept or
// sent.
std::optional<RpcError> unwritable(const yfwhost::Request &req)
{
    try {
        check_answer_text(req.answer());
    } catch (const InputError &err) {
        RpcError e;
        e.tag = "operation-failed";
        e.message = one_line(err.what());
        return e;
    }
    return std::nullopt;
}

// A document of the request that the readers refuse.
RpcError unreadable(const InputError &err, const char *what)
{
    RpcError e;
    std::string message = err.what();
    if (message.starts_with("unknown operation")) {
        e.tag = "bad-attribute";
        e.bad_attribute = "operation";
    } else if (message.find("nests deeper") != std::string::npos ||
               message.find("larger than") != std::string::npos) {
        e.tag = "too-big";
    } else {
        e.tag = "invalid-value";
    }
    e.type = "protocol";
    e.message = std::string(what) + (err.line > 0 ? ", line " + std::to_string(err.line) : "") +
                ": " + one_line(message);
    return e;
}

RpcError too_big(const char *what, std::size_t size, std::size_t limit)
{
    RpcError e;
    e.type = "protocol";
    e.tag = "too-big";
    e.message = std::string(what) + " of " + std::to_string(size) +
                " bytes is larger than the agent takes (" + std::to_string(limit) + " bytes)";
    return e;
}

bool blank(std::string_view s)
{
    return s.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

bool is_interfaces(const vidl_yfw_datatree &root)
{
    return std::string_view(root.tag) == "interfaces" &&
           yfwhost::ns_match(NS_OC_INTERFACES, root.ns);
}

std::string state_file(const AgentOptions &o)
{
    return o.state_dir + "/" + running_file;
}

// The running configuration's file in the state directory, made if need
// be, without what an earlier run left half-written.
std::string prepare(const AgentOptions &o)
{
    if (mkdir(o.state_dir.c_str(), 0700) != 0 && errno != EEXIST)
        throw std::runtime_error("cannot make the state directory " + o.state_dir + ": " +
                                 std::strerror(errno));
    if (DIR *d = opendir(o.state_dir.c_str()); d != nullptr) {
        const std::string temp = std::string(running_file) + ".";
        while (const dirent *e = readdir(d)) {
            std::string_view name = e->d_name;
            if (name.starts_with(temp) && name.size() == temp.size() + 6)
                unlink((o.state_dir + "/" + std::string(name)).c_str());
        }
        closedir(d);
    }
    return state_file(o);
}

} // namespace

Agent::Agent(const AgentOptions &o, std::function<void(const std::string &)> log)
    : options_(o), log_(std::move(log)), module_(&translator_.module(o.module_path)),
      running_(prepare(o)), oper_(o.oper_dir, log_)
{
    yfwhost::set_router_type(static_cast<int>(o.router_type));
    yfwhost::set_resolve_names(o.resolve_names);
}

Agent::~Agent() = default;

const std::string &Agent::running_path() const
{
    return running_.path();
}

Outcome Agent::edit_config(uint32_t session, std::string_view config, DefaultOperation op,
                           bool test_only)
{
    if (config.size() > options_.max_content)
        return Outcome::error(too_big("the configuration", config.size(), options_.max_content));
    std::lock_guard guard(mutex_);
    if (lock_owner_ != 0 && lock_owner_ != session) {
        RpcError e;
        e.tag = "lock-denied";
        e.type = "protocol";
        e.message = "the running configuration is locked by session " + std::to_string(lock_owner_);
        e.session_id = lock_owner_;
        return Outcome::error(e);
    }
    if (blank(config))
        return {};
    Document doc;
    try {
        doc = read_xml(config, options_.max_content);
    } catch (const InputError &e) {
        return Outcome::error(unreadable(e, "the configuration"));
    }
    for (const vidl_yfw_datatree *root : doc.roots)
        if (!is_interfaces(*root)) {
            RpcError e;
            e.type = "application";
            const bool ours = yfwhost::ns_match(NS_OC_INTERFACES, root->ns);
            e.tag = ours ? "unknown-element" : "unknown-namespace";
            e.bad_element = root->tag;
            if (!ours)
                e.bad_namespace = root->ns;
            e.message = element_name(root->tag) + " in namespace '" + root->ns +
                        "' is not served here: the agent serves OpenConfig <interfaces> (" +
                        NS_OC_INTERFACES + ")";
            return Outcome::error(e);
        }

    Walk walk(edit_kind, "config");
    yfwhost::Request &req = walk.request();
    req.add_input(doc.tree.get());
    verrno rc = walk_to_native(*module_, req, doc.roots);
    if (rc != YFW_OK)
        return Outcome::error(refusal(rc, req));
    if (auto e = unwritable(req))
        return Outcome::error(*e);
    Tree edit;
    adopt(edit, req.answer());
    try {
        running_.edit(edit, op, test_only);
    } catch (const EditError &err) {
        RpcError e;
        e.tag = err.tag;
        e.path = err.path;
        e.bad_element = err.element;
        e.message = std::string(err.what()) + " in the native configuration";
        return Outcome::error(e);
    } catch (const std::exception &err) {
        RpcError e;
        e.tag = "operation-failed";
        e.message = "the configuration was not changed: " + one_line(err.what());
        log_(e.message);
        return Outcome::error(e);
    }
    return {};
}

Outcome Agent::read(uint32_t, bool config_only, const std::optional<std::string> &filter)
{
    if (filter && filter->size() > options_.max_content)
        return Outcome::error(too_big("the filter", filter->size(), options_.max_content));
    std::lock_guard guard(mutex_);
    return read_locked(config_only, filter);
}

Outcome Agent::read_locked(bool config_only, const std::optional<std::string> &filter)
{
    const uint32_t kind = config_only ? YFW_MAP_REQ_GET_CONFIG : YFW_MAP_REQ_GET;
    std::vector<const Node *> data{&running_.tree().root()};
    if (!config_only)
        for (const Node *holder : oper_.current())
            data.push_back(holder);

    // The client's filter, and the native one the module makes of it.  No
    // filter, or <interfaces/> alone, reads everything: the module would
    // make an empty native filter of it.
    Tree oc_filter, native_filter;
    bool whole = !filter.has_value();
    // Whether the filter may select some of the server's own state.
    bool server_state = !config_only && server_state_ && !filter;
    if (filter) {
        if (blank(*filter))
            return {}; // an empty filter selects nothing
        Document doc;
        try {
            doc = read_xml(*filter, options_.max_content);
        } catch (const InputError &e) {
            return Outcome::error(unreadable(e, "the filter"));
        }
        std::vector<vidl_yfw_datatree *> ours;
        for (vidl_yfw_datatree *root : doc.roots) {
            if (!is_interfaces(*root)) {
                server_state = server_state || (!config_only && server_state_);
                continue; // selects nothing here
            }
            if (yfwhost::tree_child_count(root) == 0 && (root->present & YFW_PRESENT_VALUE) == 0)
                whole = true;
            else
                ours.push_back(root);
        }
        if (!whole && !ours.empty()) {
            Walk walk(kind, "filter");
            yfwhost::Request &req = walk.request();
            req.add_input(doc.tree.get());
            verrno rc = walk_to_native(*module_, req, ours);
            if (rc != YFW_OK)
                return Outcome::error(refusal(rc, req));
            if (auto e = unwritable(req))
                return Outcome::error(*e);
            adopt(native_filter, req.answer());
        }
        adopt(oc_filter, doc);
    }

    // The native data that answers the native filter, as the module's
    // walkers take it.
    HostSink native;
    const uint64_t pass = whole ? 0 : select(native_filter.root(), data);
    for (const Node *holder : data)
        write(*holder, native, Prune::nothing, pass);
    Document doc = native.finish();
    std::vector<vidl_yfw_datatree *> roots;
    for (vidl_yfw_datatree *root : doc.roots)
        if (native_root_known(*root))
            roots.push_back(root);

    Walk walk(kind, "data");
    yfwhost::Request &req = walk.request();
    req.add_input(doc.tree.get());
    verrno rc = walk_to_oc(*module_, req, roots);
    if (rc != YFW_OK)
        return Outcome::error(refusal(rc, req));
    if (auto e = unwritable(req))
        return Outcome::error(*e);

    // The answer holds what the client's filter selects of it, and in a
    // configuration nothing read-only; <get> has the server's own state
    // beside it.
    Tree answer, state;
    adopt(answer, req.answer());
    std::vector<const Node *> answers{&answer.root()};
    if (server_state) {
        try {
            adopt(state, read_xml(server_state_(RunningLock{lock_owner_, lock_time_}),
                                  max_document_bytes));
        } catch (const InputError &e) {
            RpcError err;
            err.tag = "operation-failed";
            err.message = "the server's own state is not a document: " + one_line(e.what());
            log_(err.message);
            return Outcome::error(err);
        }
        answers.push_back(&state.root());
    }
    const uint64_t oc_pass = filter ? select(oc_filter.root(), answers) : 0;
    Outcome out;
    out.data = "\n"; // the answer's first element on a line of its own
    XmlSink sink(out.data);
    write(answer.root(), sink, config_only ? Prune::state : Prune::nothing, oc_pass);
    if (server_state) {
        XmlSink state_sink(out.data, 0, {}, value_prefixes_);
        write(state.root(), state_sink, Prune::nothing, oc_pass);
    }
    return out;
}

Outcome Agent::lock(uint32_t session)
{
    std::lock_guard guard(mutex_);
    if (lock_owner_ == 0) {
        lock_owner_ = session;
        lock_time_ = std::time(nullptr);
        return {};
    }
    RpcError e;
    e.type = "protocol";
    e.tag = "lock-denied";
    e.session_id = lock_owner_;
    e.message =
        lock_owner_ == session
            ? "this session holds the lock of the running configuration already"
            : "the running configuration is locked by session " + std::to_string(lock_owner_);
    return Outcome::error(e);
}

Outcome Agent::unlock(uint32_t session)
{
    std::lock_guard guard(mutex_);
    if (lock_owner_ == session) {
        lock_owner_ = 0;
        return {};
    }
    RpcError e;
    e.type = "protocol";
    e.tag = "operation-failed";
    e.message = lock_owner_ == 0 ? "the running configuration is not locked"
                                 : "the running configuration is locked by session " +
                                       std::to_string(lock_owner_) + ", not by this one";
    if (lock_owner_ != 0)
        e.session_id = lock_owner_;
    return Outcome::error(e);
}

void Agent::set_server_state(ServerState state, std::vector<PrefixNs> value_prefixes)
{
    std::lock_guard guard(mutex_);
    server_state_ = std::move(state);
    value_prefixes_ = std::move(value_prefixes);
}

void Agent::session_ended(uint32_t session)
{
    std::lock_guard guard(mutex_);
    if (lock_owner_ == session)
        lock_owner_ = 0;
}

} // namespace octunnel::serve
