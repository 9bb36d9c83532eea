// The Subscribe streams of the gNMI front, served by one thread of their
// own rather than one each: it reads the data for every subscription as it
// falls due (its first answer, a poll, a change committed or an operational
// document changed, a sample or a heartbeat), works out the updates, and
// hands them to the stream, whose reactor writes them as the client takes
// them.  No stream holds a thread while it waits, and no edit waits for a
// stream: a commit only marks the subscriptions changed.
//
// A stream's queue holds at most the one round of updates being written:
// while it is not yet taken, what falls due waits, and is told in the next
// round (a leaf that changed twice once, with its last value).  A subscriber
// that keeps the updates waiting longer than `max_lag` has fallen behind and
// is cut off with RESOURCE_EXHAUSTED.
#pragma once

#include "gnmi/service.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace octunnel::gnmi_front {

using SubscribeReactor = grpc::ServerBidiReactor<gnmi::SubscribeRequest, gnmi::SubscribeResponse>;
using Clock = std::chrono::steady_clock;

// SAMPLE's interval: 0 asks for this one, less than the minimum is refused.
inline constexpr std::chrono::seconds default_sample{10};
inline constexpr std::chrono::seconds min_interval{1};
// Subscriptions open at once, of every client; past them RESOURCE_EXHAUSTED.
inline constexpr std::size_t max_subscriptions = 64;
// Of one user: each keeps the data it told, so that one user cannot take
// the agent's memory with them.
inline constexpr std::size_t max_subscriptions_per_user = 16;
// Paths of one subscription list.
inline constexpr int max_entries = 64;

// One path of a subscription list, as checked, and what the thread keeps
// of it.
struct Entry {
    std::vector<Step> steps;
    // SAMPLE (every `interval`); otherwise ON_CHANGE (TARGET_DEFINED is
    // ON_CHANGE: every value here changes only by a commit or an operational
    // document, both seen as they happen).
    bool sample = false;
    Clock::duration interval{}, heartbeat{}; // heartbeat 0: none
    bool suppress_redundant = false;

    // The tree its last updates were of (null before its first): the next
    // round tells what changed since.
    std::shared_ptr<lyd_node> told;
    Clock::time_point next_sample{}, next_heartbeat{};
};

// A subscription: what its list asks, the thread's bookkeeping, and the
// stream's queue of responses, shared by the reactor and the thread.
class Subscription {
public:
    Caller caller;
    std::string path; // its first path, as the client wrote it, for messages
    gnmi::SubscriptionList::Mode mode = gnmi::SubscriptionList::STREAM;
    Json json = Json::ietf;
    bool updates_only = false;
    std::string target; // the prefix's, told back in each Notification
    std::vector<Entry> entries;

    // The reactor writing for it, until its RPC is done.
    void attach(SubscribeReactor *reactor, grpc::CallbackServerContext *context);
    void detach();

    // Queues responses (written one at a time); false once the stream is
    // over (finished, cancelled or gone).
    bool push(std::vector<gnmi::SubscribeResponse> responses);
    // Ends the stream with `status` once what is queued is written; a cut
    // off drops what waits beyond the one being written.
    void finish(const grpc::Status &status, bool drop_queued = false);
    // The reactor's reactions.  Each returns whether the queue is empty
    // now, so that the thread may give it the next round.
    bool write_done(bool ok);
    void cancelled();
    // Cancels the RPC: for a client that has taken nothing long after it
    // was cut off.
    void try_cancel();

    bool over() const;           // finishing or finished
    bool finished() const;       // its end sent
    bool idle() const;           // nothing queued
    grpc::Status status() const; // the stream's end, as it was finished

private:
    void finish_locked(const grpc::Status &status);

    mutable std::mutex mutex_;
    SubscribeReactor *reactor_ = nullptr;
    grpc::CallbackServerContext *context_ = nullptr;
    std::deque<gnmi::SubscribeResponse> queue_; // the front one is being written
    bool writing_ = false, finishing_ = false, finished_ = false;
    grpc::Status status_;

    friend class Subscriptions;
    // The thread's, under its lock.
    bool started_ = false;                        // its first answer sent
    bool on_change_ = false;                      // a stream with an entry that hears of changes
    bool poll_ = false;                           // a poll waits for its answer
    uint64_t seen_ = 0;                           // the changes its last read saw
    std::optional<Clock::time_point> waiting_;    // since when a round waits for the queue
    std::optional<Clock::time_point> cut_off_at_; // when it was cut off
};

class Subscriptions {
public:
    // `read` is the data of a read of ALL for the caller, as a Get of the
    // paths has it.
    using Read =
        std::function<grpc::Status(const Caller &, const std::string &path,
                                   const std::vector<const std::vector<Step> *> &, Data &)>;
    Subscriptions(const serve::Front &front, Read read, Clock::duration max_lag);
    ~Subscriptions();
    Subscriptions(const Subscriptions &) = delete;
    Subscriptions &operator=(const Subscriptions &) = delete;

    // Listens for changes and starts the thread.
    void start();
    // Ends every stream (UNAVAILABLE: the agent is stopping) and joins the
    // thread; the agent no longer hears of it.
    void stop();

    // Takes a subscription whose list is checked: its first answer follows
    // on the thread.  A refusal when too many are open or the front stops.
    std::optional<grpc::Status> add(const std::shared_ptr<Subscription> &s);
    void poll(const std::shared_ptr<Subscription> &s);
    // Something about a stream changed (its queue drained, it ended).
    void wake();

private:
    void run();
    // One round of `s`, if any is due; the time of its next one.
    std::optional<Clock::time_point> serve(Subscription &s, Clock::time_point now, bool &gone);

    const serve::Front front_;
    Read read_;
    Clock::duration max_lag_;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<std::shared_ptr<Subscription>> subs_;
    uint64_t changes_ = 0; // commits and operational documents since the start
    bool woken_ = false, stopping_ = false, started_ = false;
    uint64_t oper_listener_ = 0;
    std::thread thread_;
};

} // namespace octunnel::gnmi_front
