#include "netconf/notifications.h"

#include "agent/tree.h"
#include "netconf/requests.h"

#include <libyang/libyang.h>
#include <nc_server.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <new>
#include <stdexcept>
#include <vector>

namespace octunnel::serve {

namespace {

using Clock = std::chrono::system_clock;

// A time as the notifications write it: UTC, to the microsecond.
std::string date_and_time(Clock::time_point t)
{
    const std::time_t seconds = Clock::to_time_t(t);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[48];
    const std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    const auto micros =
        std::chrono::duration_cast<std::chrono::microseconds>(t - Clock::from_time_t(seconds))
            .count();
    std::snprintf(text + n, sizeof text - n, ".%06lldZ", static_cast<long long>(micros));
    return text;
}

// A yang:date-and-time as libyang took it (its pattern checked):
// YYYY-MM-DDTHH:MM:SS, a fraction of a second or not, then Z or an offset.
std::optional<Clock::time_point> parse_date_and_time(const std::string &text)
{
    std::tm tm{};
    int consumed = 0;
    if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &tm.tm_year, &tm.tm_mon, &tm.tm_mday,
                    &tm.tm_hour, &tm.tm_min, &tm.tm_sec, &consumed) != 6)
        return std::nullopt;
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    std::size_t i = static_cast<std::size_t>(consumed);
    std::chrono::microseconds fraction{0};
    if (i < text.size() && text[i] == '.') {
        long long scale = 100000, micros = 0;
        for (++i; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i, scale /= 10)
            micros += (text[i] - '0') * scale;
        fraction = std::chrono::microseconds(micros);
    }
    long offset = 0;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        int hours = 0, minutes = 0;
        if (std::sscanf(text.c_str() + i + 1, "%2d:%2d", &hours, &minutes) != 2)
            return std::nullopt;
        offset = (text[i] == '+' ? 1 : -1) * (hours * 3600L + minutes * 60L);
    } else if (i >= text.size() || (text[i] != 'Z' && text[i] != 'z')) {
        return std::nullopt;
    }
    const std::time_t utc = timegm(&tm);
    if (utc == static_cast<std::time_t>(-1))
        return std::nullopt;
    return Clock::from_time_t(utc - offset) + fraction;
}

Outcome refusal(const char *tag, const char *element, std::string message)
{
    RpcError e;
    e.type = std::string_view(tag) == "operation-not-supported" ? "application" : "protocol";
    e.tag = tag;
    e.bad_element = element;
    e.message = std::move(message);
    return Outcome::error(e);
}

struct Owned {
    lyd_node *root = nullptr;
    ~Owned() { lyd_free_all(root); }
};

// Adds a leaf; a value libyang does not take is a fault of this code.
void leaf(lyd_node *parent, const lys_module *module, const char *name, const std::string &value)
{
    if (lyd_new_term(parent, module, name, value.c_str(), 0, nullptr) != LY_SUCCESS)
        throw std::runtime_error(std::string("a notification's ") + name + " of '" + value +
                                 "' that libyang does not take");
}

lyd_node *event_node(const ly_ctx *ctx, const char *module_name, const char *name,
                     const lys_module *&module)
{
    module = ly_ctx_get_module_implemented(ctx, module_name);
    lyd_node *node = nullptr;
    if (module == nullptr || lyd_new_inner(nullptr, module, name, 0, &node) != LY_SUCCESS)
        throw std::runtime_error(std::string("the models have no notification ") + name);
    return node;
}

void session_leaves(lyd_node *parent, const lys_module *m, const SessionWho &who)
{
    leaf(parent, m, "username", who.user.empty() ? "?" : who.user);
    leaf(parent, m, "session-id", std::to_string(who.session));
    if (!who.host.empty())
        leaf(parent, m, "source-host", who.host);
}

} // namespace

struct Notifications::Event {
    uint64_t seq = 0;
    Clock::time_point time;
    std::string time_text;
    lyd_node *tree = nullptr;
    std::size_t bytes = 0; // what it holds, about
    ~Event() { lyd_free_all(tree); }
};

struct Notifications::Subscription {
    nc_session *session = nullptr;
    uint32_t id = 0;
    bool started = false;
    bool gone = false; // forgotten: nothing more goes to it
    uint64_t next = 0; // the next event of the log it is to consider
    uint64_t live = 0; // the events before it are replayed
    std::optional<Clock::time_point> start_time, stop_time;
    bool replay_told = false;
};

Notifications::Notifications(const ly_ctx *ctx, Hooks hooks)
    : ctx_(ctx), hooks_(std::move(hooks)), sender_([this] { send_loop(); })
{
}

Notifications::~Notifications()
{
    {
        std::lock_guard guard(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    sender_.join();
}

void Notifications::publish(lyd_node *tree)
{
    auto e = std::make_shared<Event>();
    e->tree = tree;
    e->time = Clock::now();
    e->time_text = date_and_time(e->time);
    // About what it holds: its nodes' names and values, and their markup.
    const lyd_node *elem = nullptr;
    LYD_TREE_DFS_BEGIN(tree, elem)
    {
        e->bytes += 32;
        if (elem->schema != nullptr && (elem->schema->nodetype & LYD_NODE_TERM))
            e->bytes += std::string_view(lyd_get_value(elem)).size();
        LYD_TREE_DFS_END(tree, elem);
    }
    {
        std::lock_guard guard(mutex_);
        e->seq = next_seq_++;
        log_bytes_ += e->bytes;
        log_events_.push_back(std::move(e));
        while (log_events_.size() > max_replay_events ||
               (log_bytes_ > max_replay_bytes && log_events_.size() > 1)) {
            log_bytes_ -= log_events_.front()->bytes;
            log_events_.pop_front();
        }
    }
    wake_.notify_all();
}

SessionWho Notifications::who(uint32_t session) const
{
    std::lock_guard guard(mutex_);
    auto it = sessions_.find(session);
    return it != sessions_.end() ? it->second : SessionWho{session, "", ""};
}

void Notifications::config_changed(const ConfigChange &change)
{
    const lys_module *m = nullptr;
    Owned t{event_node(ctx_, "ietf-netconf-notifications", "netconf-config-change", m)};
    lyd_node *by = nullptr;
    if (lyd_new_inner(t.root, m, "changed-by", 0, &by) != LY_SUCCESS)
        throw std::bad_alloc();
    if (change.by_server)
        leaf(by, m, "server", "");
    else
        session_leaves(by, m, who(change.session));
    leaf(t.root, m, "datastore", change.datastore);
    for (const ConfigChange::Edit &edit : change.edits) {
        lyd_node *entry = nullptr;
        if (lyd_new_list(t.root, m, "edit", 0, &entry) != LY_SUCCESS)
            throw std::bad_alloc();
        leaf(entry, m, "target", edit.path);
        leaf(entry, m, "operation", edit.operation);
    }
    publish(t.root);
    t.root = nullptr;
}

void Notifications::confirmed_commit(const ConfirmedCommitEvent &event)
{
    const lys_module *m = nullptr;
    Owned t{event_node(ctx_, "ietf-netconf-notifications", "netconf-confirmed-commit", m)};
    if (event.event != "timeout")
        session_leaves(t.root, m, who(event.session));
    leaf(t.root, m, "confirm-event", event.event);
    if (event.event == "start" || event.event == "extend")
        leaf(t.root, m, "timeout", std::to_string(event.timeout));
    publish(t.root);
    t.root = nullptr;
}

void Notifications::session_started(const SessionWho &who)
{
    {
        std::lock_guard guard(mutex_);
        sessions_[who.session] = who;
    }
    const lys_module *m = nullptr;
    Owned t{event_node(ctx_, "ietf-netconf-notifications", "netconf-session-start", m)};
    session_leaves(t.root, m, who);
    publish(t.root);
    t.root = nullptr;
}

void Notifications::session_ended(uint32_t session, const std::string &reason, uint32_t killed_by)
{
    SessionWho who{session, "", ""};
    {
        std::lock_guard guard(mutex_);
        if (auto it = sessions_.find(session); it != sessions_.end()) {
            who = std::move(it->second);
            sessions_.erase(it);
        }
    }
    const lys_module *m = nullptr;
    Owned t{event_node(ctx_, "ietf-netconf-notifications", "netconf-session-end", m)};
    session_leaves(t.root, m, who);
    if (reason == "killed" && killed_by != 0)
        leaf(t.root, m, "killed-by", std::to_string(killed_by));
    leaf(t.root, m, "termination-reason", reason);
    publish(t.root);
    t.root = nullptr;
}

Outcome Notifications::subscribe(nc_session *session, uint32_t id, const lyd_node *rpc)
{
    const std::string stream = text_of(param(rpc, "stream"));
    if (!stream.empty() && stream != "NETCONF")
        return refusal("invalid-value", "stream",
                       "no stream '" + stream + "': the agent's one stream is NETCONF");
    if (param(rpc, "filter") != nullptr)
        return refusal("operation-not-supported", "filter", events_filter_refusal);
    auto sub = std::make_shared<Subscription>();
    sub->session = session;
    sub->id = id;
    const Clock::time_point now = Clock::now();
    if (const lyd_node *start = param(rpc, "startTime")) {
        sub->start_time = parse_date_and_time(text_of(start));
        if (!sub->start_time)
            return refusal("bad-element", "startTime", "a startTime that is no time");
        if (*sub->start_time > now)
            return refusal("bad-element", "startTime",
                           "a startTime later than the current time (" + date_and_time(now) + ")");
    }
    if (const lyd_node *stop = param(rpc, "stopTime")) {
        if (!sub->start_time)
            return refusal("missing-element", "startTime",
                           "a stopTime without a startTime: a subscription without replay has "
                           "no stop time");
        sub->stop_time = parse_date_and_time(text_of(stop));
        if (!sub->stop_time)
            return refusal("bad-element", "stopTime", "a stopTime that is no time");
        if (*sub->stop_time < *sub->start_time)
            return refusal("bad-element", "stopTime", "a stopTime earlier than the startTime");
    }
    {
        std::lock_guard guard(mutex_);
        if (subscriptions_.count(id) != 0)
            return refusal("operation-failed", "create-subscription",
                           "the session is subscribed already: a session holds one "
                           "subscription until it ends");
        const uint64_t first = log_events_.empty() ? next_seq_ : log_events_.front()->seq;
        sub->live = next_seq_;
        sub->next = sub->start_time ? first : next_seq_;
        subscriptions_.emplace(id, sub);
    }
    nc_session_inc_notif_status(session);
    return {};
}

void Notifications::start(uint32_t id)
{
    {
        std::lock_guard guard(mutex_);
        auto it = subscriptions_.find(id);
        if (it == subscriptions_.end() || it->second->started)
            return;
        it->second->started = true;
    }
    wake_.notify_all();
}

void Notifications::forget(uint32_t id)
{
    std::lock_guard sending(send_mutex_);
    std::lock_guard guard(mutex_);
    if (auto it = subscriptions_.find(id); it != subscriptions_.end()) {
        it->second->gone = true;
        subscriptions_.erase(it);
    }
}

std::string Notifications::streams() const
{
    std::string out = "<netconf xmlns=\"urn:ietf:params:xml:ns:netmod:notification\"><streams>"
                      "<stream><name>NETCONF</name>"
                      "<description>The agent's configuration changes and sessions "
                      "(RFC 6470)</description><replaySupport>true</replaySupport>";
    append_leaf(out, "replayLogCreationTime", date_and_time(created_));
    out += "</stream></streams></netconf>";
    return out;
}

void Notifications::send_loop()
{
    // One subscription's share of a round: the events due to it, and
    // whether its replay or the subscription itself is complete.
    struct Due {
        std::shared_ptr<Subscription> sub;
        std::vector<std::shared_ptr<const Event>> events;
        uint64_t next = 0; // where it is once they are sent
        bool replay_complete = false, complete = false;
    };
    std::unique_lock lock(mutex_);
    bool retry = false;
    while (!stopping_) {
        const Clock::time_point now = Clock::now();
        std::optional<Clock::time_point> wake_at;
        std::vector<Due> due;
        const uint64_t first = log_events_.empty() ? next_seq_ : log_events_.front()->seq;
        for (auto &[id, sub] : subscriptions_) {
            if (!sub->started || sub->gone)
                continue;
            Due d{sub, {}, std::max(sub->next, first)};
            for (; d.next < next_seq_; ++d.next) {
                const std::shared_ptr<const Event> &e = log_events_[d.next - first];
                if (d.next < sub->live && e->time < *sub->start_time)
                    continue;
                if (sub->stop_time && e->time > *sub->stop_time)
                    continue;
                d.events.push_back(e);
            }
            d.replay_complete = sub->start_time && !sub->replay_told;
            d.complete = sub->stop_time && now >= *sub->stop_time;
            if (sub->stop_time && !d.complete)
                wake_at = std::min(wake_at.value_or(*sub->stop_time), *sub->stop_time);
            if (!d.events.empty() || d.replay_complete || d.complete)
                due.push_back(std::move(d));
        }
        if (due.empty() || retry) {
            retry = false;
            const auto until = wake_at.value_or(now + std::chrono::hours(1));
            if (due.empty())
                wake_.wait_until(lock, until);
            else
                wake_.wait_until(lock, std::min(until, now + std::chrono::milliseconds(50)));
            continue;
        }
        lock.unlock();
        std::vector<uint32_t> ended;
        for (Due &d : due) {
            std::lock_guard sending(send_mutex_);
            Subscription &sub = *d.sub;
            if (sub.gone)
                continue;
            const auto send = [&](lyd_node *tree, const std::string &time) {
                nc_server_notif *n =
                    nc_server_notif_new(tree, const_cast<char *>(time.c_str()), NC_PARAMTYPE_CONST);
                if (n == nullptr)
                    throw std::bad_alloc();
                // A session busy with a long request holds its output: the
                // event waits for the next round rather than holding up the
                // others.
                const NC_MSG_TYPE r = nc_server_notif_send(sub.session, n, 100);
                nc_server_notif_free(n);
                if (r == NC_MSG_NOTIF)
                    hooks_.sent(sub.session);
                return r;
            };
            bool blocked = false;
            for (const auto &e : d.events) {
                // An event the session's user may not receive is passed
                // over (and counted), as if it had been sent.
                if (!hooks_.permitted(sub.id, e->tree->schema->module->name, LYD_NAME(e->tree))) {
                    sub.next = e->seq + 1;
                    continue;
                }
                const NC_MSG_TYPE r = send(e->tree, e->time_text);
                if (r == NC_MSG_WOULDBLOCK) {
                    blocked = true;
                    break;
                }
                if (r != NC_MSG_NOTIF) {
                    sub.gone = true;
                    break;
                }
                sub.next = e->seq + 1;
            }
            if (blocked || sub.gone) {
                retry = retry || blocked;
                continue;
            }
            sub.next = std::max(sub.next, d.next);
            try {
                const lys_module *m = nullptr;
                if (d.replay_complete) {
                    Owned t{event_node(ctx_, "nc-notifications", "replayComplete", m)};
                    if (send(t.root, date_and_time(Clock::now())) == NC_MSG_WOULDBLOCK) {
                        retry = true;
                        continue;
                    }
                    sub.replay_told = true;
                }
                if (d.complete) {
                    Owned t{event_node(ctx_, "nc-notifications", "notificationComplete", m)};
                    if (send(t.root, date_and_time(Clock::now())) == NC_MSG_WOULDBLOCK) {
                        retry = true;
                        continue;
                    }
                    nc_session_dec_notif_status(sub.session);
                    sub.gone = true;
                    ended.push_back(sub.id);
                }
            } catch (const std::exception &e) {
                hooks_.log(std::string("a notification not sent: ") + e.what());
            }
        }
        lock.lock();
        for (uint32_t id : ended)
            if (auto it = subscriptions_.find(id); it != subscriptions_.end() && it->second->gone)
                subscriptions_.erase(it);
    }
}

} // namespace octunnel::serve
