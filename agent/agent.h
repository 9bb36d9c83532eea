// What the agent does with each request, apart from the protocol: edits go
// through the mapping module to the native running configuration, reads go
// through it to the native configuration and operational data and back to
// OpenConfig.  Requests come in as the XML texts of their parameters and are
// answered with the XML text of the data or with NETCONF errors, so that
// everything here can be driven without a network.
#pragma once

#include "agent/changes.h"
#include "agent/datastore.h"
#include "agent/nacm.h"
#include "agent/oper.h"
#include "translate/oc_models.h"
#include "translate/walk.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace octunnel::serve {

// The lock of the running configuration: the session that holds it (0:
// none) and since when.
struct RunningLock {
    uint32_t session = 0;
    std::time_t since = 0;
};

// The configuration datastores of RFC 6241 the agent serves.
enum class Store { running, candidate, startup };

// The lock of each datastore, as NETCONF monitoring shows them.
struct DatastoreLocks {
    RunningLock running, candidate, startup;
};

// A <commit> and its parameters (RFC 6241, 8.3.4.1 and 8.4.5.1).
struct CommitRequest {
    bool confirmed = false;
    uint32_t timeout = 600; // seconds, <confirm-timeout>
    std::optional<std::string> persist;
    std::optional<std::string> persist_id;
};

// One <rpc-error> (RFC 6241, section 4.3).
struct RpcError {
    std::string type = "application"; // transport, rpc, protocol, application
    std::string tag;                  // error-tag
    std::string message;              // error-message
    std::string path;                 // error-path
    // The namespaces of the prefixes `path` uses (prefix, namespace), to be
    // declared where error-path is written so that the path reads as an
    // instance identifier.
    std::vector<std::pair<std::string, std::string>> path_namespaces;
    std::string app_tag; // error-app-tag
    // error-info
    std::string bad_element, bad_attribute, bad_namespace;
    uint32_t session_id = 0;
};

// An answer: errors, or (when there are none) data when the request reads.
struct Outcome {
    std::vector<RpcError> errors;
    std::string data; // XML elements, the content of <data>

    bool ok() const { return errors.empty(); }
    static Outcome error(RpcError e)
    {
        Outcome o;
        o.errors.push_back(std::move(e));
        return o;
    }
};

// One edit of several made as one: the text of its <config> and its
// default operation.
struct EditStep {
    std::string config;
    DefaultOperation op = DefaultOperation::merge;
};

struct AgentOptions {
    std::string state_dir;
    std::string oper_dir;    // none: no operational data
    std::string module_path; // the mapping module
    std::string yang_dir;    // the OpenConfig models requests are checked against
    // Or the models themselves, loaded once for many agents (tests).
    std::shared_ptr<const OpenConfigModels> models;
    uint32_t router_type = 0;
    bool resolve_names = false;
    // The largest <config> or <filter> taken, in bytes; beyond: too-big.
    std::size_t max_content = std::size_t{256} << 20;
    // The access control rules (ietf-netconf-acm data in XML); none: no
    // access control, every user may do everything.
    std::string nacm_file;
    // Or the rules themselves (tests); nacm_file is read over them.
    std::shared_ptr<const nacm::Rules> rules;
    // The largest operational document read, in bytes.
    std::size_t max_oper_document = std::size_t{256} << 20;
    // Log each operational document as it is answered, and as it goes.
    bool verbose = false;
    // Called by the reader of operational documents as it begins one
    // (tests hold it there).
    std::function<void(const std::string &)> oper_reading;
};

class Agent {
public:
    // Loads the module and reads the running configuration of the state
    // directory (creating the directory if need be).  Throws
    // std::runtime_error naming what is wrong (the file and line of a
    // configuration that is not a document).
    Agent(const AgentOptions &o, std::function<void(const std::string &)> log);
    ~Agent();

    // <edit-config> on running: `config` is the text of its <config>, the
    // top-level elements each with the namespaces it uses declared.  The
    // edit is checked against the OpenConfig models, applied by RFC 6241's
    // rules to the configuration as <get-config> shows it, and carried to
    // the native configuration as the difference; it is kept only when the
    // configuration then reads back as intended.  The text is the agent's
    // to let go of as soon as it has read it.
    Outcome edit_config(uint32_t session, std::string config, DefaultOperation op, bool test_only);
    // Several edits applied in order to one working configuration, each as
    // edit_config() applies it to what the ones before made, and committed
    // once: all of them or, on the first refused, none.
    Outcome edit_steps(uint32_t session, std::vector<EditStep> steps);
    // <validate> of an inline configuration: whether it would be taken as
    // the whole running configuration, by every check of an edit.
    Outcome validate(uint32_t session, std::string config);
    // <get-config> on running (`config_only`) or <get>: `filter` is the text
    // of a subtree filter, or none for everything.
    Outcome read(uint32_t session, bool config_only, const std::optional<std::string> &filter);
    Outcome lock(uint32_t session);
    Outcome unlock(uint32_t session);

    // The candidate and startup datastores (agent/candidate.cpp,
    // agent/startup.cpp) and the confirmed commit (agent/confirmed_commit.cpp).
    // <edit-config> on candidate: checked against the models and applied by
    // RFC 6241's rules to the candidate; the module sees it at <commit>.
    Outcome edit_candidate(uint32_t session, std::string_view config, DefaultOperation op,
                           bool test_only);
    // <get-config> of candidate or startup.
    Outcome read_store(uint32_t session, Store source, const std::optional<std::string> &filter);
    // <validate> of a datastore: every check of an edit that would make it
    // running's whole configuration.
    Outcome validate_store(uint32_t session, Store source);
    Outcome lock(uint32_t session, Store target);
    Outcome unlock(uint32_t session, Store target);
    Outcome commit(uint32_t session, const CommitRequest &request);
    Outcome cancel_commit(uint32_t session, const std::optional<std::string> &persist_id);
    Outcome discard_changes(uint32_t session);
    // <copy-config> from a datastore (`source`) or, when none, the inline
    // configuration `config`.
    Outcome copy_config(uint32_t session, Store target, std::optional<Store> source,
                        std::string_view config);
    Outcome delete_config(uint32_t session, Store target);
    // The session is gone: its lock goes with it.
    void session_ended(uint32_t session);

    // Access control.  A session is its user's from here on; a recovery
    // session (the agent's own administrator) is never restricted.  A
    // session never named here is a user of no group.
    void session_began(uint32_t session, std::string user, bool recovery);
    // Whether the session may run the protocol operation `operation`: an
    // access-denied error (of the protocol) where it may not.
    std::optional<RpcError> authorize(uint32_t session, const lysc_node *operation);
    // Whether the event notification `name` of `module` may be sent to the
    // session under the rules in force; one that may not is counted.
    bool may_receive(uint32_t session, std::string_view module, std::string_view name);
    // The rules read again from --nacm's file; on a fault (a RulesError
    // naming file and line) those in force stay.
    void reload_rules();
    // What the session may do under the rules in force.
    nacm::Subject subject(uint32_t session) const;
    uint32_t denied_operations() const { return denied_operations_; }
    uint32_t denied_data_writes() const { return denied_writes_; }
    // State data of the server itself (the YANG library, NETCONF
    // monitoring) that <get> answers beside the OpenConfig interfaces, as
    // XML elements: written by `state` each time a <get> may select some of
    // it, given the lock of running as it stands, so that it is current.
    // Its identities of modules other than their leaf's are named with
    // `value_prefixes`.  A text that is no document is an operation-failed.
    using ServerState = std::function<std::string(const DatastoreLocks &)>;
    void set_server_state(ServerState state, std::vector<PrefixNs> value_prefixes = {});

    // Each listener is told of every change committed to the running
    // configuration (and of startup written), by the thread that commits
    // it with the configuration's lock held: it must not wait, nor ask
    // anything of the agent.  A front adds its own, as `owner`, and takes
    // them away before it goes: once forget_listeners() returns, none of
    // them is running or will run.
    void on_change(const void *owner, ChangeListener listener);
    // The same of the steps of confirmed commits.
    void on_confirmed_commit(const void *owner, ConfirmedCommitListener listener);
    void forget_listeners(const void *owner);

    const std::string &running_path() const;
    // The operational data <get> answers from, to be told when it changes.
    OperationalData &operational() { return oper_; }

private:
    Outcome read_locked(uint32_t session, bool config_only,
                        const std::optional<std::string> &filter);
    // `checked`: whether what the edit writes is held to the session's
    // access (not for <validate>, which writes nothing).
    // `config` is emptied once it is read; so is each step's.
    Outcome edit_locked(uint32_t session, std::string &config, DefaultOperation op, bool test_only,
                        bool checked = true);
    Outcome edit_locked(uint32_t session, std::vector<EditStep> &steps, bool test_only,
                        bool checked);
    // Takes out of the top-level nodes of `holder` what the subject may
    // not read.
    void leave_out_unreadable(const nacm::Subject &who, Node &holder) const;
    std::string user_of(uint32_t session) const;
    // The OpenConfig answer of a read of `kind` through the module, into
    // `answer`: of the native data the module's filter of `filter` selects,
    // or of all of it when `filter` is null.
    std::optional<RpcError> read_oc(uint32_t kind, const Document *filter, Tree &answer);
    // Or handed to `take`, once the native data it was made of is let go.
    std::optional<RpcError> read_oc(uint32_t kind, const Document *filter,
                                    const std::function<void(const yfwhost::Answer &)> &take);
    // The entries of the native running configuration's top-level
    // containers: at least as many as the interfaces it configures.
    std::size_t configured_entries() const;
    // The OpenConfig configuration of the interfaces `names` (all of them
    // when none), as <get-config> shows it, settled.  `large`: for an edit
    // of a large text, which hands back to the system what the read freed
    // before it writes the answer's text.
    std::optional<RpcError> configuration(const std::optional<std::vector<std::string>> &names,
                                          DataTree &config, bool large = false);

    // The datastores beside running, at start and as sessions end.
    void resume_datastores();
    void datastores_session_ended(uint32_t session);
    // running's whole configuration, as the text of an inline <config>.
    std::optional<RpcError> running_text(std::string &text);
    // The text of `config` (null: no interface), as an inline <config>.
    static std::string text_of(const lyd_node *config);
    // A read of the OpenConfig configuration `text`, as read_locked answers.
    Outcome answer_config(uint32_t session, const std::string &text,
                          const std::optional<std::string> &filter);
    // `text` checked as the whole configuration of `target` (candidate or
    // startup), the session's access to what changes in it included, into
    // `config`.
    std::optional<RpcError> checked_config(uint32_t session, std::string_view text, Store target,
                                           DataTree &config);
    std::optional<RpcError> locked_by_other(uint32_t session, const RunningLock &lock,
                                            const char *store) const;
    // The candidate becomes running's configuration.
    Outcome commit_candidate(uint32_t session);
    void drop_candidate();
    // The confirmed commit: its state file, the rollback it promises, the
    // timer that keeps the promise.
    std::string confirm_path() const;
    void save_pending();
    void roll_back(const std::string &why);
    void confirm_loop(std::stop_token stop);
    std::string startup_path() const;
    // The startup configuration's text (empty: none stored).
    std::optional<RpcError> startup_text(std::string &text) const;
    // Stores `text` as startup, checked as <validate> checks unless it is
    // running's own (`trusted`).
    Outcome store_startup(uint32_t session, const std::string &text, bool trusted);
    static bool never_written(const AgentOptions &o);

    // Writes the running configuration's document again once edits pause
    // (Datastore::fold), so that the file a person reads is current within
    // `fold_delay` of the last commit.
    void fold_loop();

    std::mutex mutex_; // one request at a time sees the datastore and the module
    AgentOptions options_;
    std::function<void(const std::string &)> log_;
    std::unique_ptr<yfwhost::Module> module_;
    std::shared_ptr<const OpenConfigModels> models_ptr_;
    const OpenConfigModels &models_;
    // Whether running had never been written when the agent started: then
    // it starts from startup.  Known before running_ is read.
    bool running_new_;
    Datastore running_;
    OperationalData oper_;
    ServerState server_state_;
    std::vector<std::pair<const void *, ChangeListener>> change_listeners_;
    std::vector<std::pair<const void *, ConfirmedCommitListener>> confirmed_listeners_;
    void tell(const ConfigChange &change) const;
    void tell(const ConfirmedCommitEvent &event) const;
    std::vector<PrefixNs> value_prefixes_;
    uint32_t lock_owner_ = 0;
    std::time_t lock_time_ = 0;

    struct SessionUser {
        std::string user;
        bool recovery = false;
    };
    mutable std::mutex access_mutex_; // the rules and the sessions' users
    std::shared_ptr<const nacm::Rules> rules_;
    std::unordered_map<uint32_t, SessionUser> session_users_;
    std::atomic<uint32_t> denied_operations_{0}, denied_writes_{0}, denied_notifications_{0};

    std::chrono::steady_clock::time_point last_commit_{};
    std::string fold_failure_; // the last one logged, to log each once
    bool stopping_ = false;
    std::condition_variable fold_cv_;
    std::thread folder_; // it starts once everything else is made

    // The candidate: running's configuration until it is changed, and then
    // (candidate_changed_) the OpenConfig configuration it holds, null when
    // that has no interface.  Nothing is held twice while it is running's.
    DataTree candidate_;
    bool candidate_changed_ = false;
    uint32_t candidate_by_ = 0; // the session that changed it last
    RunningLock candidate_lock_, startup_lock_;
    // The confirmed commit waiting for its confirmation.
    struct Pending {
        std::string rollback; // running's configuration before it
        std::time_t deadline = 0;
        uint32_t session = 0; // 0: made before the agent started
        std::optional<std::string> persist;
    };
    std::optional<Pending> pending_;
    std::condition_variable_any confirm_cv_;
    std::jthread confirmer_; // last: joined before anything else goes
};

// How long after the last commit the running configuration's document is
// written again: long enough that a burst of edits pays for it once, short
// enough that the file an operator opens is all but current.
inline constexpr std::chrono::milliseconds fold_delay{1000};

// The request kind of an edit, as the module knows it.
inline constexpr uint32_t edit_kind = 1;

} // namespace octunnel::serve
