#include "agent/agent.h"
#include "agent/shared.h"

#include "agent/filter.h"
#include "agent/oc_edit.h"
#include "octunnel/yfw_namespaces.h"
#include "octunnel/yfw_trace.h"
#include "yfwhost/host.h"

#include <libyang/libyang.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>

namespace octunnel::serve {
namespace {

constexpr const char running_file[] = "running.xml";

// An edit whose text is this large builds trees of many times its size,
// and the allocator keeps what they freed: it is handed back to the
// system afterwards, so that the agent at rest holds what it keeps.
constexpr std::size_t large_edit = std::size_t{1} << 20;

void give_back_memory()
{
    malloc_trim(0);
}

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

// The module's refusal as NETCONF says it, about the OpenConfig node the
// walk stood at: the module names the node it refused (error_tag) or the
// host saw where its walk stood when it said so.  The code's name goes in
// error-app-tag; the message is the module's own text when it gave one.
RpcError refusal(verrno rc, yfwhost::Request &req, const OpenConfigModels &models)
{
    RpcError e;
    switch (rc) {
    case YFW_ERR_NOT_SUPPORTED:
    case YFW_ERR_AUGMENT_NOT_SUPPORTED:
    case YFW_ERR_UNSUPPORTED_TAG:
        e.tag = "operation-not-supported";
        break;
    case YFW_ERR_NO_SUBTREES:
    case YFW_ERR_LIST_KEY:
        e.tag = "missing-element";
        break;
    case YFW_ERR_INVALID_ARG:
    case YFW_ERR_KEY_DELETE:
    case yfwhost::YFW_ERR_LEAFREF_MISMATCH:
    case 16: // a prefix length the netmask cannot take
        e.tag = "invalid-value";
        break;
    default:
        e.tag = "operation-failed";
    }
    const char *name = yfwhost::error_name(rc);
    e.app_tag = name != nullptr ? name : "code " + hex(rc);
    const yfw_map_state &state = req.state();
    const std::string refused = state.error_tag != nullptr ? one_line(state.error_tag) : "";
    ModelError where;
    models.locate(req.error_path(), refused, where);
    e.path = where.path;
    e.path_namespaces = where.path_namespaces;
    e.bad_element = refused;
    if (e.bad_element.empty())
        if (std::size_t at = req.error_path().find_last_of('/'); at != std::string::npos)
            e.bad_element =
                req.error_path().substr(at + 1, req.error_path().find('[', at) - at - 1);
    if (state.error_text != nullptr)
        e.message = one_line(state.error_text);
    else if (e.tag == "operation-not-supported")
        e.message = "The tunnel mapping does not carry this node to the router's configuration.";
    else if (e.tag == "invalid-value")
        e.message = "The tunnel mapping cannot take this value.";
    else
        e.message = "The tunnel mapping refused the request here.";
    return e;
}

// A filter of the interfaces `names`, each selected whole by its key.
Document interfaces_filter(const std::vector<std::string> &names)
{
    yfwhost::TreeBuilder b("", "");
    b.open("interfaces", NS_OC_INTERFACES, 0);
    for (const std::string &name : names) {
        b.open("interface", NS_OC_INTERFACES, 0);
        b.set_value(b.open("name", NS_OC_INTERFACES, 0), name);
        b.close();
        b.close();
    }
    b.close();
    Document doc{b.finish(), {}};
    doc.roots.push_back(&doc.tree.get()->subtrees[0]);
    return doc;
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

bool is_interfaces(const vidl_yfw_datatree &root)
{
    return std::string_view(root.tag) == "interfaces" &&
           yfwhost::ns_match(NS_OC_INTERFACES, root.ns);
}

bool is_nacm(const vidl_yfw_datatree &root)
{
    return std::string_view(root.tag) == "nacm" && yfwhost::ns_match(nacm::ns, root.ns);
}

// An access-denied answer (RFC 8341, section 3.4.5; RFC 6241, appendix A):
// of the application for data, of the protocol for an operation.
RpcError access_denied(std::string message, const char *type = "application")
{
    RpcError e;
    e.type = type;
    e.tag = "access-denied";
    e.message = std::move(message);
    return e;
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

RpcError from_model(const ModelError &m)
{
    RpcError e;
    e.tag = m.tag;
    e.message = as_sentence(m.message);
    e.path = m.path;
    e.path_namespaces = m.path_namespaces;
    e.bad_element = m.bad_element;
    e.bad_namespace = m.bad_namespace;
    if (m.tag == "bad-attribute")
        e.bad_attribute = "operation";
    return e;
}

EditOp edit_op(DefaultOperation op)
{
    switch (op) {
    case DefaultOperation::replace:
        return EditOp::replace;
    case DefaultOperation::none:
        return EditOp::none;
    default:
        return EditOp::merge;
    }
}

bool blank(std::string_view s)
{
    return s.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

const char *verb(nacm::Access access)
{
    switch (access) {
    case nacm::Access::create:
        return "create";
    case nacm::Access::del:
        return "delete";
    case nacm::Access::read:
        return "read";
    default:
        return "change";
    }
}

Agent::Agent(const AgentOptions &o, std::function<void(const std::string &)> log)
    : options_(o), log_(std::move(log)), module_(std::make_unique<yfwhost::Module>(o.module_path)),
      models_ptr_(o.models ? o.models : std::make_shared<const OpenConfigModels>(o.yang_dir)),
      models_(*models_ptr_), running_new_(never_written(o)), running_(prepare(o)),
      oper_(o.oper_dir, log_, {o.max_oper_document, o.verbose ? log_ : nullptr, o.oper_reading})
{
    yfwhost::set_router_type(static_cast<int>(o.router_type));
    yfwhost::set_resolve_names(o.resolve_names);
    rules_ = o.nacm_file.empty() ? o.rules : nacm::load_rules(models_.context(), o.nacm_file);
    if (!running_.note().empty())
        log_(running_.note());
    resume_datastores();
    folder_ = std::thread([this] { fold_loop(); });
    confirmer_ = std::jthread([this](std::stop_token stop) { confirm_loop(stop); });
}

Agent::~Agent()
{
    {
        std::lock_guard guard(mutex_);
        stopping_ = true;
    }
    fold_cv_.notify_all();
    folder_.join();
    // Stopped cleanly, the agent leaves the document whole and current.
    try {
        if (running_.behind())
            running_.fold();
    } catch (const std::exception &e) {
        log_("the running configuration's document was not written again (" + one_line(e.what()) +
             "); " + running_.log_path() + " holds the commits it lacks");
    }
}

void Agent::fold_loop()
{
    std::unique_lock guard(mutex_);
    while (!stopping_) {
        if (!running_.behind()) {
            fold_cv_.wait(guard);
            continue;
        }
        const auto due = last_commit_ + fold_delay;
        if (std::chrono::steady_clock::now() < due) {
            fold_cv_.wait_until(guard, due);
            continue;
        }
        try {
            // Requests go on while the document is written: only taking it
            // as it stands holds them up.
            auto [text, through] = running_.snapshot();
            guard.unlock();
            try {
                running_.write_document(text, through);
            } catch (...) {
                guard.lock();
                throw;
            }
            guard.lock();
            running_.folded(through, text.size());
            fold_failure_.clear();
        } catch (const std::exception &e) {
            // Tried again after as long again; the commits stand in the log.
            if (fold_failure_ != e.what())
                log_("the running configuration's document was not written again: " +
                     one_line(e.what()));
            fold_failure_ = e.what();
            last_commit_ = std::chrono::steady_clock::now();
        }
    }
}

const std::string &Agent::running_path() const
{
    return running_.path();
}

Outcome Agent::edit_config(uint32_t session, std::string config, DefaultOperation op,
                           bool test_only)
{
    if (config.size() > options_.max_content)
        return Outcome::error(too_big("the configuration", config.size(), options_.max_content));
    const bool large = config.size() >= large_edit;
    std::lock_guard guard(mutex_);
    Outcome out = edit_locked(session, config, op, test_only);
    if (large)
        give_back_memory();
    return out;
}

Outcome Agent::edit_steps(uint32_t session, std::vector<EditStep> steps)
{
    std::size_t size = 0;
    for (const EditStep &step : steps)
        size += step.config.size();
    if (size > options_.max_content)
        return Outcome::error(too_big("the configuration", size, options_.max_content));
    std::lock_guard guard(mutex_);
    Outcome out = edit_locked(session, steps, false, true);
    if (size >= large_edit)
        give_back_memory();
    return out;
}

Outcome Agent::validate(uint32_t session, std::string config)
{
    if (config.size() > options_.max_content)
        return Outcome::error(too_big("the configuration", config.size(), options_.max_content));
    const bool large = config.size() >= large_edit;
    std::lock_guard guard(mutex_);
    // The configuration as the whole running configuration, not kept.
    Outcome out = edit_locked(session, config, DefaultOperation::replace, true, false);
    if (large)
        give_back_memory();
    return out;
}

Outcome Agent::edit_locked(uint32_t session, std::string &config, DefaultOperation op,
                           bool test_only, bool checked)
{
    std::vector<EditStep> steps(1);
    steps.front().config.swap(config);
    steps.front().op = op;
    return edit_locked(session, steps, test_only, checked);
}

Outcome Agent::edit_locked(uint32_t session, std::vector<EditStep> &steps, bool test_only,
                           bool checked)
{
    if (lock_owner_ != 0 && lock_owner_ != session) {
        RpcError e;
        e.tag = "lock-denied";
        e.type = "protocol";
        e.message = "the running configuration is locked by session " + std::to_string(lock_owner_);
        e.session_id = lock_owner_;
        return Outcome::error(e);
    }
    std::size_t size = 0;
    for (const EditStep &step : steps)
        size += step.config.size();
    const bool large = size >= large_edit;
    const nacm::Subject who = subject(session);
    // Each edit as the models take it, in turn, and the interfaces all of
    // them touch (all interfaces when one names none in particular).  Each
    // form of an edit goes once the next is made: the large ones are of the
    // whole configuration, and none is needed twice.
    std::vector<std::pair<DataTree, EditOp>> edits;
    std::optional<std::vector<std::string>> names(std::in_place);
    for (EditStep &step : steps) {
        // The edit as the models take it: its shape, then its values.  An
        // empty <config> is an edit of nothing (all there is, with a default
        // operation of replace).
        Document doc;
        try {
            if (!blank(step.config))
                doc = read_xml(step.config, options_.max_content);
        } catch (const InputError &e) {
            return Outcome::error(unreadable(e, "the configuration"));
        }
        if (auto e = models_.check(doc, OpenConfigModels::Use::edit))
            return Outcome::error(from_model(*e));
        for (const vidl_yfw_datatree *root : doc.roots)
            if (is_nacm(*root)) {
                // The rules are the operator's file, never data of an edit:
                // whoever may not write them hears that first.
                const lysc_node *schema =
                    lys_find_path(models_.context(), nullptr, "/ietf-netconf-acm:nacm", 0);
                const nacm::DataStep top{schema, "ietf-netconf-acm", {}};
                if (checked && !who.may(nacm::Access::update, std::span(&top, 1))) {
                    ++denied_writes_;
                    RpcError e = access_denied("access denied: " + user_of(session) +
                                               " may not change the access control rules");
                    e.path = "/nacm:nacm";
                    e.path_namespaces = {{"nacm", nacm::ns}};
                    return Outcome::error(e);
                }
                RpcError e;
                e.tag = "operation-not-supported";
                e.bad_element = root->tag;
                e.path = "/nacm:nacm";
                e.path_namespaces = {{"nacm", nacm::ns}};
                e.message =
                    "the access control rules (/nacm) are not edited over NETCONF: they are "
                    "the file the agent is given with --nacm, read again on SIGHUP";
                return Outcome::error(e);
            } else if (!is_interfaces(*root)) {
                RpcError e;
                e.tag = "operation-not-supported";
                e.bad_element = root->tag;
                e.message = element_name(root->tag) + " in the namespace '" + root->ns +
                            "' is not served here: the agent serves OpenConfig <interfaces> (" +
                            NS_OC_INTERFACES + ")";
                return Outcome::error(e);
            }
        doc = Document{};
        std::optional<ModelError> invalid;
        DataTree edit = models_.parse_edit(step.config, false, invalid);
        std::string().swap(step.config);
        if (invalid)
            return Outcome::error(from_model(*invalid));
        const EditOp default_op = edit_op(step.op);
        const auto touched = interfaces_touched(models_, edit.get(), default_op);
        if (!touched)
            names.reset();
        else if (names)
            names->insert(names->end(), touched->begin(), touched->end());
        edits.emplace_back(std::move(edit), default_op);
    }
    // What the configuration is now, of the interfaces the edits touch, and
    // what it is to become.
    if (names && names->empty())
        return {}; // nothing named: nothing changes
    if (names) {
        std::sort(names->begin(), names->end());
        names->erase(std::unique(names->begin(), names->end()), names->end());
    }
    // Edits that name as many interfaces as the configuration holds read it
    // all: no more than they name, without a filter of every name made and
    // walked first.
    if (names && names->size() >= configured_entries())
        names.reset();
    DataTree before;
    if (auto e = configuration(names, before, large))
        return Outcome::error(*e);
    lyd_node *copy = nullptr;
    if (before && lyd_dup_siblings(before.get(), nullptr, LYD_DUP_RECURSIVE, &copy) != LY_SUCCESS)
        throw std::bad_alloc();
    DataTree intended(copy);
    for (const auto &[edit, default_op] : edits)
        if (auto e = apply_edit(models_, intended, edit.get(), default_op))
            return Outcome::error(from_model(*e));
    edits.clear();
    if (auto e = hold_by_design(models_, intended))
        return Outcome::error(from_model(*e));
    settle(intended);

    // Every node the edit creates, changes or deletes, with that access.
    if (checked)
        if (auto d = nacm::first_denied_change(who, before.get(), intended.get())) {
            ++denied_writes_;
            ModelError where;
            models_.locate(d->node, where);
            RpcError e = access_denied("access denied: " + user_of(session) + " may not " +
                                       verb(d->access) + " " + where.path);
            log_(e.message + " (session " + std::to_string(session) + ")");
            e.path = where.path;
            e.path_namespaces = where.path_namespaces;
            return Outcome::error(e);
        }

    // What those who watch the configuration will hear of, once it is
    // committed.
    std::optional<ConfigChange> told;
    if (!change_listeners_.empty() && !test_only) {
        told.emplace();
        told->session = session;
        told->by_server = !checked;
        told->edits = edits_between(before.get(), intended.get());
    }

    // The difference, through the module, into the native configuration:
    // first what goes, then what comes.
    Change change = difference(before.get(), intended.get());
    before.reset();
    if (change.removals.roots.empty() && change.additions.roots.empty())
        return {}; // the configuration is as intended already
    Datastore::Change native(running_);
    for (Document *part : {&change.removals, &change.additions}) {
        if (part->roots.empty())
            continue;
        // The native request, once made, is all that is needed of the walk
        // and of this part of the difference.
        Tree tree;
        {
            Walk walk(edit_kind, "config");
            yfwhost::Request &req = walk.request();
            req.add_input(part->tree.get());
            const verrno rc = walk_to_native(*module_, req, part->roots);
            if (rc != YFW_OK)
                return Outcome::error(refusal(rc, req, models_));
            if (auto e = unwritable(req))
                return Outcome::error(*e);
            adopt(tree, req.answer());
        }
        *part = Document{};
        try {
            native.apply(tree, DefaultOperation::merge);
        } catch (const EditError &err) {
            // The native configuration does not hold what the module reads
            // as OpenConfig (a configuration written by hand, say): the
            // client hears that, the log where.
            RpcError e;
            e.tag = "operation-failed";
            e.message = "The router's configuration could not take the change; nothing was "
                        "changed.";
            log_("an edit refused by the native configuration: " + err.tag + " at " + err.path +
                 ": " + one_line(err.what()));
            return Outcome::error(e);
        }
    }
    // What the forms of the edit freed is small pieces the read back's
    // large arrays and text cannot use: handed back first, it is not held
    // beside them.
    if (large)
        give_back_memory();
    // The promise of the answer: the configuration reads back as intended.
    DataTree after;
    if (auto e = configuration(names, after, large))
        return Outcome::error(*e);
    leave_out_by_design(intended);
    leave_out_by_design(after);
    if (auto e = first_difference(models_, intended.get(), after.get()))
        return Outcome::error(from_model(*e));
    intended.reset();
    after.reset();
    if (test_only)
        return {};
    try {
        native.commit();
        last_commit_ = std::chrono::steady_clock::now();
        fold_cv_.notify_all();
    } catch (const std::exception &err) {
        RpcError e;
        e.tag = "operation-failed";
        e.message = "the configuration was not changed: " + one_line(err.what());
        log_(e.message);
        return Outcome::error(e);
    }
    if (told)
        tell(*told);
    return {};
}

std::optional<RpcError> Agent::configuration(const std::optional<std::vector<std::string>> &names,
                                             DataTree &config, bool large)
{
    // The module's answer goes straight to text, and the text once libyang
    // has read it: of a whole configuration, each is large.
    std::string text;
    {
        const Document filter = names ? interfaces_filter(*names) : Document{};
        if (auto e = read_oc(YFW_MAP_REQ_GET_CONFIG, names ? &filter : nullptr,
                             [&](const yfwhost::Answer &answer) {
                                 // The native data the module walked, in
                                 // small pieces, goes back before the text
                                 // grows.
                                 if (large)
                                     give_back_memory();
                                 XmlSink sink(text);
                                 write(answer, sink, Prune::state);
                             }))
            return e;
    }
    lyd_node *tree = nullptr;
    if (lyd_parse_data_mem(models_.context(), text.c_str(), LYD_XML,
                           LYD_PARSE_ONLY | LYD_PARSE_STRICT | LYD_PARSE_NO_STATE, 0,
                           &tree) != LY_SUCCESS) {
        const ly_err_item *err = ly_err_last(models_.context());
        RpcError e;
        e.tag = "operation-failed";
        e.message = "the running configuration does not read as OpenConfig the models take (" +
                    one_line(err != nullptr && err->msg != nullptr ? err->msg : "") +
                    "); it must be set right before it is edited";
        log_(e.message);
        return e;
    }
    std::string().swap(text);
    config.reset(tree);
    settle(config);
    return std::nullopt;
}

std::size_t Agent::configured_entries() const
{
    std::size_t n = 0;
    for (const auto &top : running_.tree().root().slots())
        if (top)
            n += top->child_count();
    return n;
}

Outcome Agent::read(uint32_t session, bool config_only, const std::optional<std::string> &filter)
{
    if (filter && filter->size() > options_.max_content)
        return Outcome::error(too_big("the filter", filter->size(), options_.max_content));
    std::lock_guard guard(mutex_);
    return read_locked(session, config_only, filter);
}

Outcome Agent::read_locked(uint32_t session, bool config_only,
                           const std::optional<std::string> &filter)
{
    const uint32_t kind = config_only ? YFW_MAP_REQ_GET_CONFIG : YFW_MAP_REQ_GET;
    Document doc;
    Tree oc_filter;
    // Whether the filter may select some of the server's own state.
    bool server_state = !config_only && server_state_ && !filter;
    if (filter) {
        if (blank(*filter))
            return {}; // an empty filter selects nothing
        try {
            doc = read_xml(*filter, options_.max_content);
        } catch (const InputError &e) {
            return Outcome::error(unreadable(e, "the filter"));
        }
        if (auto e = models_.check(doc, OpenConfigModels::Use::filter))
            return Outcome::error(from_model(*e));
        adopt(oc_filter, doc);
        for (const vidl_yfw_datatree *root : doc.roots)
            server_state = server_state || (!config_only && server_state_ && !is_interfaces(*root));
    }
    Tree answer;
    if (auto e = read_oc(kind, filter ? &doc : nullptr, answer))
        return Outcome::error(*e);

    // The answer holds what the client's filter selects of it, and in a
    // configuration nothing read-only; <get> has the server's own state
    // beside it.
    Tree state;
    std::vector<const Node *> answers{&answer.root()};
    if (server_state) {
        try {
            std::shared_ptr<const nacm::Rules> rules;
            {
                std::lock_guard access(access_mutex_);
                rules = rules_;
            }
            adopt(state, read_xml(server_state_(DatastoreLocks{RunningLock{lock_owner_, lock_time_},
                                                               candidate_lock_, startup_lock_}) +
                                      nacm::state_xml(rules.get(), denied_operations_,
                                                      denied_writes_, denied_notifications_),
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
    // What the user may not read is left out before the filter sees it, so
    // that a filter cannot tell it by what it selects (RFC 8341, 3.4.5).
    if (const nacm::Subject who = subject(session); !who.unrestricted()) {
        leave_out_unreadable(who, answer.root());
        if (server_state)
            leave_out_unreadable(who, state.root());
    }
    std::optional<Selection> selected;
    if (filter)
        selected = select(oc_filter.root(), answers);
    const Selection *selection = selected ? &*selected : nullptr;
    Outcome out;
    out.data = "\n"; // the answer's first element on a line of its own
    XmlSink sink(out.data);
    write(answer.root(), sink, config_only ? Prune::state : Prune::nothing, selection);
    if (server_state) {
        XmlSink state_sink(out.data, 0, {}, value_prefixes_);
        write(state.root(), state_sink, Prune::nothing, selection);
    }
    return out;
}

std::optional<RpcError> Agent::read_oc(uint32_t kind, const Document *filter, Tree &answer)
{
    return read_oc(kind, filter, [&](const yfwhost::Answer &a) { adopt(answer, a); });
}

std::optional<RpcError> Agent::read_oc(uint32_t kind, const Document *filter,
                                       const std::function<void(const yfwhost::Answer &)> &take)
{
    std::vector<const Node *> data{&running_.tree().root()};
    // <get> answers from the operational documents as they were last read
    // whole, held to the end of the read however the reader moves on.
    std::shared_ptr<const OperationalSnapshot> oper;
    if (kind == YFW_MAP_REQ_GET) {
        oper = oper_.snapshot();
        data.insert(data.end(), oper->holders.begin(), oper->holders.end());
    }

    // The native filter the module makes of the client's.  No filter, or
    // <interfaces/> alone, reads everything: the module would make an empty
    // native filter of it.
    Tree native_filter;
    bool whole = filter == nullptr;
    if (filter != nullptr) {
        std::vector<vidl_yfw_datatree *> ours;
        for (vidl_yfw_datatree *root : filter->roots) {
            if (!is_interfaces(*root))
                continue; // selects nothing here
            if (yfwhost::tree_child_count(root) == 0 && (root->present & YFW_PRESENT_VALUE) == 0)
                whole = true;
            else
                ours.push_back(root);
        }
        if (!whole && !ours.empty()) {
            Walk walk(kind, "filter");
            yfwhost::Request &req = walk.request();
            req.add_input(filter->tree.get());
            verrno rc = walk_to_native(*module_, req, ours);
            if (rc != YFW_OK)
                return refusal(rc, req, models_);
            if (auto e = unwritable(req))
                return e;
            adopt(native_filter, req.answer());
        }
    }

    // The native data that answers the native filter, as the module's
    // walkers take it.
    HostSink native;
    std::optional<Selection> selected;
    if (!whole)
        selected = select(native_filter.root(), data);
    for (const Node *holder : data)
        write(*holder, native, Prune::nothing, selected ? &*selected : nullptr);
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
        return refusal(rc, req, models_);
    if (auto e = unwritable(req))
        return e;
    // The answer holds its own copies of what it took of the native data.
    roots.clear();
    doc = Document{};
    take(req.answer());
    return std::nullopt;
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

void Agent::on_change(const void *owner, ChangeListener listener)
{
    std::lock_guard guard(mutex_);
    change_listeners_.emplace_back(owner, std::move(listener));
}

void Agent::on_confirmed_commit(const void *owner, ConfirmedCommitListener listener)
{
    std::lock_guard guard(mutex_);
    confirmed_listeners_.emplace_back(owner, std::move(listener));
}

void Agent::forget_listeners(const void *owner)
{
    // Listeners run with the lock held: none runs once it is taken here.
    std::lock_guard guard(mutex_);
    std::erase_if(change_listeners_, [&](const auto &l) { return l.first == owner; });
    std::erase_if(confirmed_listeners_, [&](const auto &l) { return l.first == owner; });
}

void Agent::tell(const ConfigChange &change) const
{
    for (const auto &[owner, listener] : change_listeners_)
        listener(change);
}

void Agent::tell(const ConfirmedCommitEvent &event) const
{
    for (const auto &[owner, listener] : confirmed_listeners_)
        listener(event);
}

bool Agent::may_receive(uint32_t session, std::string_view module, std::string_view name)
{
    if (subject(session).may_receive(module, name))
        return true;
    ++denied_notifications_;
    return false;
}

void Agent::set_server_state(ServerState state, std::vector<PrefixNs> value_prefixes)
{
    std::lock_guard guard(mutex_);
    server_state_ = std::move(state);
    value_prefixes_ = std::move(value_prefixes);
}

void Agent::session_ended(uint32_t session)
{
    {
        std::lock_guard guard(mutex_);
        if (lock_owner_ == session)
            lock_owner_ = 0;
    }
    datastores_session_ended(session);
    std::lock_guard access(access_mutex_);
    session_users_.erase(session);
}

// ---------------------------------------------------------------- access

void Agent::session_began(uint32_t session, std::string user, bool recovery)
{
    std::lock_guard access(access_mutex_);
    session_users_[session] = SessionUser{std::move(user), recovery};
}

std::string Agent::user_of(uint32_t session) const
{
    std::lock_guard access(access_mutex_);
    auto it = session_users_.find(session);
    return it != session_users_.end() ? "'" + one_line(it->second.user) + "'"
                                      : "session " + std::to_string(session);
}

nacm::Subject Agent::subject(uint32_t session) const
{
    std::lock_guard access(access_mutex_);
    auto it = session_users_.find(session);
    if (it == session_users_.end())
        return nacm::Subject(rules_, {}, false);
    return nacm::Subject(rules_, it->second.user, it->second.recovery);
}

std::optional<RpcError> Agent::authorize(uint32_t session, const lysc_node *operation)
{
    if (operation == nullptr || subject(session).may_execute(operation))
        return std::nullopt;
    ++denied_operations_;
    RpcError e = access_denied("access denied: " + user_of(session) + " may not run <" +
                                   std::string(operation->name) + "> of " + operation->module->name,
                               "protocol");
    log_(e.message + " (session " + std::to_string(session) + ")");
    return e;
}

void Agent::reload_rules()
{
    if (options_.nacm_file.empty())
        return;
    auto rules = nacm::load_rules(models_.context(), options_.nacm_file);
    std::lock_guard access(access_mutex_);
    rules_ = std::move(rules);
}

void Agent::leave_out_unreadable(const nacm::Subject &who, Node &holder) const
{
    const ly_ctx *ctx = models_.context();
    // The module of each namespace met, found once.
    std::unordered_map<const char *, const lys_module *> modules;
    auto module_of = [&](const char *ns) {
        auto [it, fresh] = modules.try_emplace(ns, nullptr);
        if (fresh)
            it->second = ly_ctx_get_module_implemented_ns(ctx, ns);
        return it->second;
    };
    struct Frame {
        Node *node;
        std::size_t next = 0;
        bool permitted = false, keep = false, taken = false;
    };
    std::vector<Frame> stack;
    std::vector<nacm::DataStep> path;
    bool holder_taken = false;
    // Enters `node`: its place in the models below its parent's, and
    // whether it may be read for itself.
    auto enter = [&](Node &node) {
        const lysc_node *parent = path.empty() ? nullptr : path.back().schema;
        const lys_module *module = module_of(node.ns());
        nacm::DataStep step;
        step.module = module != nullptr ? module->name : "";
        if (module != nullptr && (path.empty() || parent != nullptr))
            step.schema = lys_find_child(parent, module, node.tag(), 0, 0, 0);
        if (step.schema != nullptr && step.schema->nodetype == LYS_LIST) {
            for (const lysc_node *k = lysc_node_child(step.schema); k != nullptr && lysc_is_key(k);
                 k = k->next)
                if (const Node *key = node.child(k->name); key != nullptr)
                    step.keys.emplace_back(k, key->value());
        } else if (step.schema != nullptr && step.schema->nodetype == LYS_LEAFLIST) {
            step.keys.emplace_back(step.schema, node.value());
        }
        path.push_back(std::move(step));
        stack.push_back({&node, 0, who.may(nacm::Access::read, path)});
    };
    // The keys of an entry go with it, whatever else is read of it.
    auto is_key = [&](const Node &node) {
        const lysc_node *list = path.empty() ? nullptr : path.back().schema;
        if (list == nullptr || list->nodetype != LYS_LIST)
            return false;
        for (const lysc_node *k = lysc_node_child(list); k != nullptr && lysc_is_key(k);
             k = k->next)
            if (std::string_view(k->name) == node.tag())
                return true;
        return false;
    };
    for (std::size_t i = 0; i < holder.slots().size(); ++i) {
        Node *top = holder.slots()[i].get();
        if (top == nullptr)
            continue;
        enter(*top);
        while (!stack.empty()) {
            Frame &f = stack.back();
            if (f.next < f.node->slots().size()) {
                Node *kid = f.node->slots()[f.next++].get();
                if (kid != nullptr && !is_key(*kid))
                    enter(*kid);
                continue;
            }
            const Frame done = f;
            stack.pop_back();
            path.pop_back();
            if (done.taken)
                done.node->compact();
            const bool keep = done.permitted || done.keep;
            Node &parent = stack.empty() ? holder : *stack.back().node;
            if (keep) {
                if (!stack.empty())
                    stack.back().keep = true;
                continue;
            }
            parent.take(done.node->slot());
            if (stack.empty())
                holder_taken = true;
            else
                stack.back().taken = true;
        }
    }
    if (holder_taken)
        holder.compact();
}

} // namespace octunnel::serve
