// The candidate configuration (RFC 6241, 8.3): a configuration edited
// apart from running and made running's, whole, by <commit>.
//
// The candidate is held as the OpenConfig configuration it stands for, a
// libyang tree of the models, and only once it is changed: from a <commit>
// or a <discard-changes> to the next edit it is running itself, and a read
// of it is a read of running.  Its edits are checked against the
// models and applied by the rules of an edit of running; the module sees
// nothing of them until <commit>, which hands running's edit path the
// candidate as its whole configuration (a default operation of replace),
// so that the change reaches the native configuration as the difference and
// reads back as intended, or nothing of it is kept.
#include "agent/agent.h"

#include "agent/filter.h"
#include "agent/oc_edit.h"
#include "agent/shared.h"
#include "octunnel/yfw_namespaces.h"

#include <libyang/libyang.h>

#include <cstdlib>

namespace octunnel::serve {
namespace {

RpcError error(const char *type, const char *tag, std::string message)
{
    RpcError e;
    e.type = type;
    e.tag = tag;
    e.message = std::move(message);
    return e;
}

// An edit's text as the models take it, for a datastore the module does
// not see until it is committed: its shape and values, and nothing but
// OpenConfig interfaces in it.
std::optional<RpcError> screened(const OpenConfigModels &models, std::string_view text,
                                 std::size_t limit, DataTree &edit)
{
    Document doc;
    try {
        if (!blank(text))
            doc = read_xml(text, limit);
    } catch (const InputError &err) {
        return error("protocol", "invalid-value",
                     std::string("the configuration") +
                         (err.line > 0 ? ", line " + std::to_string(err.line) : "") + ": " +
                         one_line(err.what()));
    }
    if (auto e = models.check(doc, OpenConfigModels::Use::edit))
        return from_model(*e);
    for (const vidl_yfw_datatree *root : doc.roots)
        if (std::string_view(root->tag) != "interfaces" ||
            !yfwhost::ns_match(NS_OC_INTERFACES, root->ns)) {
            RpcError e = error("application", "operation-not-supported",
                               element_name(root->tag) + " in the namespace '" + root->ns +
                                   "' is not served here: the agent serves OpenConfig "
                                   "<interfaces> (" +
                                   NS_OC_INTERFACES + ")");
            e.bad_element = root->tag;
            return e;
        }
    std::optional<ModelError> invalid;
    edit = models.parse_edit(text, false, invalid);
    if (invalid)
        return from_model(*invalid);
    return std::nullopt;
}

DataTree copy_of(const lyd_node *tree)
{
    lyd_node *copy = nullptr;
    if (tree != nullptr && lyd_dup_siblings(tree, nullptr, LYD_DUP_RECURSIVE, &copy) != LY_SUCCESS)
        throw std::bad_alloc();
    return DataTree(copy);
}

} // namespace

std::string Agent::text_of(const lyd_node *config)
{
    if (config == nullptr)
        return {};
    char *text = nullptr;
    if (lyd_print_mem(&text, config, LYD_XML, LYD_PRINT_WITHSIBLINGS) != LY_SUCCESS)
        throw std::bad_alloc();
    std::string s = text != nullptr ? text : "";
    std::free(text);
    return s;
}

std::optional<RpcError> Agent::running_text(std::string &text)
{
    DataTree config;
    if (auto e = configuration(std::nullopt, config))
        return e;
    text = text_of(config.get());
    return std::nullopt;
}

std::optional<RpcError> Agent::locked_by_other(uint32_t session, const RunningLock &lock,
                                               const char *store) const
{
    if (lock.session == 0 || lock.session == session)
        return std::nullopt;
    RpcError e = error("protocol", "lock-denied",
                       std::string("the ") + store + " configuration is locked by session " +
                           std::to_string(lock.session));
    e.session_id = lock.session;
    return e;
}

std::optional<RpcError> Agent::checked_config(uint32_t session, std::string_view text, Store target,
                                              DataTree &config)
{
    if (text.size() > options_.max_content)
        return error("protocol", "too-big",
                     "the configuration of " + std::to_string(text.size()) +
                         " bytes is larger than the agent takes (" +
                         std::to_string(options_.max_content) + " bytes)");
    DataTree edit;
    if (auto e = screened(models_, text, options_.max_content, edit))
        return e;
    DataTree whole;
    if (auto e = apply_edit(models_, whole, edit.get(), EditOp::replace))
        return from_model(*e);
    if (auto e = hold_by_design(models_, whole))
        return from_model(*e);
    settle(whole);
    // What the session would create, change or delete of the configuration
    // the datastore holds now.
    DataTree before;
    if (target == Store::startup) {
        std::string stored;
        if (auto e = startup_text(stored))
            return e;
        std::optional<ModelError> invalid;
        if (!blank(stored))
            before = models_.parse_edit(stored, false, invalid);
        if (invalid)
            return from_model(*invalid);
    } else if (candidate_changed_) {
        before = copy_of(candidate_.get());
    } else if (auto e = configuration(std::nullopt, before)) {
        return e;
    }
    if (auto d = nacm::first_denied_change(subject(session), before.get(), whole.get())) {
        ++denied_writes_;
        ModelError where;
        models_.locate(d->node, where);
        RpcError e = error("application", "access-denied",
                           "access denied: " + user_of(session) + " may not " + verb(d->access) +
                               " " + where.path);
        e.path = where.path;
        e.path_namespaces = where.path_namespaces;
        return e;
    }
    config = std::move(whole);
    return std::nullopt;
}

Outcome Agent::edit_candidate(uint32_t session, std::string_view config, DefaultOperation op,
                              bool test_only)
{
    if (config.size() > options_.max_content)
        return Outcome::error(error("protocol", "too-big",
                                    "the configuration of " + std::to_string(config.size()) +
                                        " bytes is larger than the agent takes (" +
                                        std::to_string(options_.max_content) + " bytes)"));
    std::lock_guard guard(mutex_);
    if (auto e = locked_by_other(session, candidate_lock_, "candidate"))
        return Outcome::error(*e);
    DataTree edit;
    if (auto e = screened(models_, config, options_.max_content, edit))
        return Outcome::error(*e);
    // The candidate as it stands: running's configuration until it is
    // changed.
    DataTree before;
    if (candidate_changed_)
        before = copy_of(candidate_.get());
    else if (auto e = configuration(std::nullopt, before))
        return Outcome::error(*e);
    DataTree intended = copy_of(before.get());
    if (auto e = apply_edit(models_, intended, edit.get(), edit_op(op)))
        return Outcome::error(from_model(*e));
    if (auto e = hold_by_design(models_, intended))
        return Outcome::error(from_model(*e));
    settle(intended);
    if (auto d = nacm::first_denied_change(subject(session), before.get(), intended.get())) {
        ++denied_writes_;
        ModelError where;
        models_.locate(d->node, where);
        RpcError e = error("application", "access-denied",
                           "access denied: " + user_of(session) + " may not " + verb(d->access) +
                               " " + where.path);
        log_(e.message + " (session " + std::to_string(session) + ")");
        e.path = where.path;
        e.path_namespaces = where.path_namespaces;
        return Outcome::error(e);
    }
    if (test_only)
        return {};
    candidate_ = std::move(intended);
    candidate_changed_ = true;
    candidate_by_ = session;
    return {};
}

Outcome Agent::answer_config(uint32_t session, const std::string &text,
                             const std::optional<std::string> &filter)
{
    Tree data;
    Tree oc_filter;
    try {
        if (!blank(text))
            adopt(data, read_xml(text, max_document_bytes));
    } catch (const InputError &e) {
        RpcError err = error("application", "operation-failed",
                             "a stored configuration is not a document: " + one_line(e.what()));
        log_(err.message);
        return Outcome::error(err);
    }
    if (filter) {
        if (blank(*filter))
            return {}; // an empty filter selects nothing
        Document doc;
        try {
            doc = read_xml(*filter, options_.max_content);
        } catch (const InputError &e) {
            return Outcome::error(
                error("protocol", "invalid-value", "the filter: " + one_line(e.what())));
        }
        if (auto e = models_.check(doc, OpenConfigModels::Use::filter))
            return Outcome::error(from_model(*e));
        adopt(oc_filter, doc);
    }
    if (const nacm::Subject who = subject(session); !who.unrestricted())
        leave_out_unreadable(who, data.root());
    std::optional<Selection> selected;
    std::vector<const Node *> answers{&data.root()};
    if (filter)
        selected = select(oc_filter.root(), answers);
    Outcome out;
    out.data = "\n";
    XmlSink sink(out.data);
    write(data.root(), sink, Prune::state, selected ? &*selected : nullptr);
    return out;
}

Outcome Agent::read_store(uint32_t session, Store source, const std::optional<std::string> &filter)
{
    if (filter && filter->size() > options_.max_content)
        return Outcome::error(error("protocol", "too-big",
                                    "the filter of " + std::to_string(filter->size()) +
                                        " bytes is larger than the agent takes (" +
                                        std::to_string(options_.max_content) + " bytes)"));
    std::lock_guard guard(mutex_);
    if (source == Store::running || (source == Store::candidate && !candidate_changed_))
        return read_locked(session, true, filter);
    if (source == Store::candidate)
        return answer_config(session, text_of(candidate_.get()), filter);
    std::string text;
    if (auto e = startup_text(text))
        return Outcome::error(*e);
    return answer_config(session, text, filter);
}

Outcome Agent::validate_store(uint32_t session, Store source)
{
    std::lock_guard guard(mutex_);
    std::string text;
    if (source == Store::running || (source == Store::candidate && !candidate_changed_))
        return {}; // running is valid as it stands
    if (source == Store::candidate)
        text = text_of(candidate_.get());
    else if (auto e = startup_text(text))
        return Outcome::error(*e);
    // A check that keeps nothing is not held up by running's lock.
    return edit_locked(lock_owner_ != 0 ? lock_owner_ : session, text, DefaultOperation::replace,
                       true, false);
}

Outcome Agent::lock(uint32_t session, Store target)
{
    if (target == Store::running)
        return lock(session);
    std::lock_guard guard(mutex_);
    RunningLock &held = target == Store::candidate ? candidate_lock_ : startup_lock_;
    const char *name = target == Store::candidate ? "candidate" : "startup";
    RpcError e = error("protocol", "lock-denied", "");
    if (held.session != 0) {
        e.session_id = held.session;
        e.message = held.session == session
                        ? std::string("this session holds the lock of the ") + name +
                              " configuration already"
                        : std::string("the ") + name + " configuration is locked by session " +
                              std::to_string(held.session);
        return Outcome::error(e);
    }
    // A lock that would let its holder commit changes another session
    // made is never granted (RFC 6241, 7.5): they are committed or
    // discarded first.
    if (target == Store::candidate && candidate_changed_) {
        e.message = "the candidate configuration holds changes not committed (made last by "
                    "session " +
                    std::to_string(candidate_by_) +
                    "): <commit> or <discard-changes> them before it is locked";
        return Outcome::error(e);
    }
    held = RunningLock{session, std::time(nullptr)};
    return {};
}

Outcome Agent::unlock(uint32_t session, Store target)
{
    if (target == Store::running)
        return unlock(session);
    std::lock_guard guard(mutex_);
    RunningLock &held = target == Store::candidate ? candidate_lock_ : startup_lock_;
    const std::string name = target == Store::candidate ? "candidate" : "startup";
    if (held.session != session) {
        RpcError e =
            error("protocol", "operation-failed",
                  held.session == 0 ? "the " + name + " configuration is not locked"
                                    : "the " + name + " configuration is locked by session " +
                                          std::to_string(held.session) + ", not by this one");
        e.session_id = held.session;
        return Outcome::error(e);
    }
    held = {};
    // What the holder left uncommitted goes with its lock (RFC 6241,
    // 8.3.5.2), so that a client that fails leaves a candidate the next
    // one can lock.
    if (target == Store::candidate)
        drop_candidate();
    return {};
}

void Agent::drop_candidate()
{
    candidate_.reset();
    candidate_changed_ = false;
    candidate_by_ = 0;
}

Outcome Agent::discard_changes(uint32_t session)
{
    std::lock_guard guard(mutex_);
    if (auto e = locked_by_other(session, candidate_lock_, "candidate"))
        return Outcome::error(*e);
    drop_candidate();
    return {};
}

Outcome Agent::commit_candidate(uint32_t session)
{
    if (!candidate_changed_)
        return {}; // running is the candidate already
    std::string text = text_of(candidate_.get());
    Outcome o = edit_locked(session, text, DefaultOperation::replace, false);
    if (o.ok())
        drop_candidate();
    return o;
}

void Agent::datastores_session_ended(uint32_t session)
{
    std::lock_guard guard(mutex_);
    if (candidate_lock_.session == session) {
        candidate_lock_ = {};
        drop_candidate();
    }
    if (startup_lock_.session == session)
        startup_lock_ = {};
    // A confirmed commit without persist is its session's: it goes back
    // when the session ends unconfirmed (RFC 6241, 8.4.1).
    if (pending_ && pending_->session == session && !pending_->persist) {
        roll_back("session " + std::to_string(session) + " that made it ended unconfirmed");
        tell(ConfirmedCommitEvent{"cancel", session, 0});
    }
}

Outcome Agent::copy_config(uint32_t session, Store target, std::optional<Store> source,
                           std::string_view config)
{
    if (source && *source == target)
        return Outcome::error(
            error("protocol", "invalid-value", "a datastore is not copied onto itself"));
    if (!source && config.size() > options_.max_content)
        return Outcome::error(error("protocol", "too-big",
                                    "the configuration of " + std::to_string(config.size()) +
                                        " bytes is larger than the agent takes (" +
                                        std::to_string(options_.max_content) + " bytes)"));
    std::lock_guard guard(mutex_);
    // The source's whole configuration, as text.
    std::string text;
    if (!source) {
        text = config;
    } else if (*source == Store::candidate && candidate_changed_) {
        text = text_of(candidate_.get());
    } else if (*source == Store::startup) {
        if (auto e = startup_text(text))
            return Outcome::error(*e);
    } else if (target != Store::candidate) { // running, or a candidate that is running
        if (auto e = running_text(text))
            return Outcome::error(*e);
    }
    switch (target) {
    case Store::running:
        // Through running's edit path, as a commit.
        return edit_locked(session, text, DefaultOperation::replace, false);
    case Store::candidate: {
        if (auto e = locked_by_other(session, candidate_lock_, "candidate"))
            return Outcome::error(*e);
        if (source == Store::running) {
            drop_candidate(); // the candidate is running again
            return {};
        }
        DataTree whole;
        if (auto e = checked_config(session, text, Store::candidate, whole))
            return Outcome::error(*e);
        candidate_ = std::move(whole);
        candidate_changed_ = true;
        candidate_by_ = session;
        return {};
    }
    case Store::startup:
    default:
        return store_startup(session, text, source == Store::running);
    }
}

} // namespace octunnel::serve
