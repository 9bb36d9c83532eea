// Event notifications (RFC 5277) on the NETCONF stream: the base
// notifications of RFC 6470 (netconf-config-change for every commit,
// netconf-session-start and -end), kept in a bounded replay log and sent to
// the sessions that subscribed with <create-subscription>, replay first.
//
// Events are published by whoever makes them (the thread that commits, the
// threads that start and end sessions) without waiting on any client: one
// thread of its own sends them, session by session, each subscription at
// its own place in the log.
#pragma once

#include "agent/agent.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>

struct ly_ctx;
struct lyd_node;
struct nc_session;

namespace octunnel::serve {

// The capabilities of event notifications: sessions may go on sending
// requests while they are subscribed.
inline constexpr const char *notification_capability =
    "urn:ietf:params:netconf:capability:notification:1.0";
inline constexpr const char *interleave_capability =
    "urn:ietf:params:netconf:capability:interleave:1.0";

// Why a <create-subscription> with a <filter> is refused.
inline constexpr const char *events_filter_refusal =
    "a <filter> of events is not supported: subscribe without one, and select among the events "
    "as they come";

// The replay log keeps the last events up to this many, and up to this
// much of their text, whichever comes first: a day of commits on a busy
// router, and never a large part of the agent's memory.
inline constexpr std::size_t max_replay_events = 1000;
inline constexpr std::size_t max_replay_bytes = std::size_t{16} << 20;

// Who a session is, as the notifications name it.
struct SessionWho {
    uint32_t session = 0;
    std::string user;
    std::string host; // the client's address; none on the UNIX socket
};

class Notifications {
public:
    // What the server is told and asked as events go.
    struct Hooks {
        std::function<void(const std::string &)> log;
        // Whether a session may be sent an event (module, name): access
        // control, asked at each send, so that rules read again hold at
        // once.
        std::function<bool(uint32_t session, std::string_view module, std::string_view name)>
            permitted;
        // An event went to the session (its counters).
        std::function<void(nc_session *)> sent;
    };
    // `ctx` holds the modules of the events (ietf-netconf-notifications,
    // notifications, nc-notifications) and outlives this.
    Notifications(const ly_ctx *ctx, Hooks hooks);
    ~Notifications();
    Notifications(const Notifications &) = delete;
    Notifications &operator=(const Notifications &) = delete;

    // The events.  A session is known from its start to its end, and a
    // change is told as made by its session's user.
    void config_changed(const ConfigChange &change);
    void confirmed_commit(const ConfirmedCommitEvent &event);
    void session_started(const SessionWho &who);
    // `reason`: closed, killed, dropped, timeout, bad-hello or other.
    void session_ended(uint32_t session, const std::string &reason, uint32_t killed_by);

    // <create-subscription> of `session`: checked, then held until
    // start() once its reply is out, so that nothing it is sent goes
    // before its <ok/>.
    Outcome subscribe(nc_session *session, uint32_t id, const lyd_node *rpc);
    void start(uint32_t id);
    // The session ends: nothing more is sent to it, and nothing being
    // sent to it is under way when this returns.
    void forget(uint32_t id);

    // nc-notifications' /netconf/streams, XML, for <get>.
    std::string streams() const;

private:
    struct Event;
    struct Subscription;
    using Clock = std::chrono::system_clock;

    void publish(lyd_node *event);
    SessionWho who(uint32_t session) const;
    void send_loop();

    const ly_ctx *ctx_;
    Hooks hooks_;
    const Clock::time_point created_ = Clock::now();

    mutable std::mutex mutex_; // the log and the subscriptions
    std::condition_variable wake_;
    std::deque<std::shared_ptr<const Event>> log_events_;
    std::size_t log_bytes_ = 0;
    uint64_t next_seq_ = 0;
    std::unordered_map<uint32_t, std::shared_ptr<Subscription>> subscriptions_;
    std::unordered_map<uint32_t, SessionWho> sessions_;
    bool stopping_ = false;

    std::mutex send_mutex_; // held while a session is sent to
    std::thread sender_;    // last: it starts once everything else is made
};

} // namespace octunnel::serve
