#include "gnmi/subscriptions.h"

#include "gnmi/telemetry.h"

#include <algorithm>

#include <libyang/libyang.h>

namespace octunnel::gnmi_front {

using grpc::Status;
using grpc::StatusCode;

namespace {

// How long a client cut off has to take what was being written to it
// before its RPC is cancelled outright: a client that reads nothing at all
// would otherwise hold its stream for good.
constexpr std::chrono::seconds cancel_grace{30};

std::shared_ptr<lyd_node> shared_tree(Data tree)
{
    return {tree.release(), [](lyd_node *n) { lyd_free_all(n); }};
}

std::vector<const lyd_node *> roots_in(const std::shared_ptr<lyd_node> &tree,
                                       const std::vector<Step> &steps)
{
    return outermost(select(tree.get(), steps));
}

} // namespace

// ------------------------------------------------------------ the stream

void Subscription::attach(SubscribeReactor *reactor, grpc::CallbackServerContext *context)
{
    const std::lock_guard lock(mutex_);
    reactor_ = reactor;
    context_ = context;
}

void Subscription::detach()
{
    const std::lock_guard lock(mutex_);
    reactor_ = nullptr;
    context_ = nullptr;
    finishing_ = finished_ = true;
    queue_.clear();
}

bool Subscription::push(std::vector<gnmi::SubscribeResponse> responses)
{
    const std::lock_guard lock(mutex_);
    if (finishing_ || reactor_ == nullptr)
        return false;
    // A deque keeps the one being written where it is as more are queued.
    for (gnmi::SubscribeResponse &r : responses)
        queue_.push_back(std::move(r));
    if (!writing_ && !queue_.empty()) {
        writing_ = true;
        reactor_->StartWrite(&queue_.front());
    }
    return true;
}

void Subscription::finish_locked(const Status &status)
{
    // One write at a time, and the end is the last: it waits for the write
    // under way.
    finishing_ = true;
    status_ = status;
    if (!writing_ && !finished_ && reactor_ != nullptr) {
        finished_ = true;
        reactor_->Finish(status_);
    }
}

void Subscription::finish(const Status &status, bool drop_queued)
{
    const std::lock_guard lock(mutex_);
    if (finishing_)
        return;
    if (drop_queued && !queue_.empty())
        queue_.erase(queue_.begin() + (writing_ ? 1 : 0), queue_.end());
    finish_locked(status);
}

bool Subscription::write_done(bool ok)
{
    const std::lock_guard lock(mutex_);
    writing_ = false;
    if (!queue_.empty())
        queue_.pop_front();
    if (!ok) {
        // The client is gone, or the RPC cancelled: nothing more is written.
        queue_.clear();
        if (!finishing_)
            status_ = Status(StatusCode::CANCELLED, "the client went");
        finishing_ = true;
    }
    if (!queue_.empty() && reactor_ != nullptr) {
        writing_ = true;
        reactor_->StartWrite(&queue_.front());
        return false;
    }
    if (finishing_ && !finished_ && reactor_ != nullptr) {
        finished_ = true;
        reactor_->Finish(status_);
    }
    return true;
}

void Subscription::cancelled()
{
    const std::lock_guard lock(mutex_);
    if (!finishing_)
        status_ = Status(StatusCode::CANCELLED, "the client went");
    finishing_ = true;
    // Every RPC is finished, cancelled or not; a write under way ends first.
    if (!writing_ && !finished_ && reactor_ != nullptr) {
        finished_ = true;
        reactor_->Finish(status_);
    }
}

void Subscription::try_cancel()
{
    const std::lock_guard lock(mutex_);
    if (context_ != nullptr && !finished_)
        context_->TryCancel();
}

bool Subscription::over() const
{
    const std::lock_guard lock(mutex_);
    return finishing_ || reactor_ == nullptr;
}

bool Subscription::finished() const
{
    const std::lock_guard lock(mutex_);
    return finished_;
}

bool Subscription::idle() const
{
    const std::lock_guard lock(mutex_);
    return queue_.empty();
}

Status Subscription::status() const
{
    const std::lock_guard lock(mutex_);
    return status_;
}

// ------------------------------------------------------------ the thread

Subscriptions::Subscriptions(const serve::Front &front, Read read, Clock::duration max_lag)
    : front_(front), read_(std::move(read)), max_lag_(max_lag)
{
}

Subscriptions::~Subscriptions()
{
    stop();
}

void Subscriptions::start()
{
    // Listeners only count and wake: a commit is not held up by a stream.
    const auto changed = [this] {
        {
            const std::lock_guard lock(mutex_);
            ++changes_;
        }
        cv_.notify_one();
    };
    front_.agent.on_change(this, [changed](const serve::ConfigChange &c) {
        if (c.datastore == "running")
            changed();
    });
    oper_listener_ = front_.agent.operational().subscribe(
        [changed](const std::shared_ptr<const serve::OperationalSnapshot> &) { changed(); });
    {
        const std::lock_guard lock(mutex_);
        started_ = true;
    }
    thread_ = std::thread([this] { run(); });
}

void Subscriptions::stop()
{
    std::vector<std::shared_ptr<Subscription>> ending;
    {
        const std::lock_guard lock(mutex_);
        if (!started_ || stopping_)
            return;
        stopping_ = true;
        ending.swap(subs_);
    }
    cv_.notify_one();
    thread_.join();
    front_.agent.forget_listeners(this);
    front_.agent.operational().unsubscribe(oper_listener_);
    for (const auto &s : ending)
        s->finish(Status(StatusCode::UNAVAILABLE, "the agent is stopping"), true);
}

std::optional<Status> Subscriptions::add(const std::shared_ptr<Subscription> &s)
{
    {
        const std::lock_guard lock(mutex_);
        if (stopping_ || !started_)
            return Status(StatusCode::UNAVAILABLE, "the agent is stopping");
        std::erase_if(subs_, [](const auto &t) { return t->over(); });
        if (subs_.size() >= max_subscriptions)
            return Status(StatusCode::RESOURCE_EXHAUSTED,
                          std::to_string(max_subscriptions) + " subscriptions are open already");
        const auto mine = std::count_if(subs_.begin(), subs_.end(), [&s](const auto &t) {
            return t->caller.user == s->caller.user;
        });
        if (static_cast<std::size_t>(mine) >= max_subscriptions_per_user)
            return Status(StatusCode::RESOURCE_EXHAUSTED,
                          quoted(one_line(s->caller.user)) + " has " + std::to_string(mine) +
                              " subscriptions open, as many as one user may");
        s->seen_ = changes_;
        s->on_change_ = s->mode == gnmi::SubscriptionList::STREAM &&
                        std::any_of(s->entries.begin(), s->entries.end(),
                                    [](const Entry &e) { return !e.sample; });
        subs_.push_back(s);
        woken_ = true;
    }
    cv_.notify_one();
    return std::nullopt;
}

void Subscriptions::poll(const std::shared_ptr<Subscription> &s)
{
    {
        const std::lock_guard lock(mutex_);
        // Polls that come before the last one is answered are answered
        // together: a flood of them costs one read at a time, not one each.
        s->poll_ = true;
        woken_ = true;
    }
    cv_.notify_one();
}

void Subscriptions::wake()
{
    {
        const std::lock_guard lock(mutex_);
        woken_ = true;
    }
    cv_.notify_one();
}

void Subscriptions::run()
{
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        const std::vector<std::shared_ptr<Subscription>> subs = subs_;
        woken_ = false;
        std::optional<Clock::time_point> next;
        std::vector<const Subscription *> gone;
        for (const auto &s : subs) {
            bool over = false;
            // The thread's own bookkeeping is under the lock; the read and
            // the work on the trees are not, so that listeners never wait.
            std::optional<Clock::time_point> at;
            try {
                at = serve(*s, Clock::now(), over);
            } catch (const std::exception &e) {
                // Memory, most likely, as the updates were queued: this
                // stream ends, the others go on.
                s->finish(Status(StatusCode::RESOURCE_EXHAUSTED, one_line(e.what())), true);
                over = true;
            }
            if (over)
                gone.push_back(s.get());
            else if (at)
                next = std::min(next.value_or(*at), *at);
            if (stopping_)
                return;
        }
        std::erase_if(subs_, [&gone](const auto &s) {
            return std::find(gone.begin(), gone.end(), s.get()) != gone.end();
        });
        // A change wakes the thread for the streams that listen for one
        // and are not waiting for their queue (which wakes it as it drains).
        const auto due = [this] {
            return stopping_ || woken_ ||
                   std::any_of(subs_.begin(), subs_.end(), [this](const auto &s) {
                       return s->on_change_ && !s->waiting_ && s->seen_ != changes_;
                   });
        };
        if (next)
            cv_.wait_until(lock, *next, due);
        else
            cv_.wait(lock, due);
    }
}

std::optional<Clock::time_point> Subscriptions::serve(Subscription &s, Clock::time_point now,
                                                      bool &gone)
{
    // Called with mutex_ held.
    if (s.over()) {
        // One cut off keeps its place until what was being written is taken,
        // or its grace runs out and its RPC is cancelled.
        if (s.cut_off_at_ && !s.finished() && now < *s.cut_off_at_ + cancel_grace)
            return *s.cut_off_at_ + cancel_grace;
        if (s.cut_off_at_)
            s.try_cancel();
        gone = true;
        return std::nullopt;
    }

    // What falls due: the first answer, a poll, or for a stream the changes,
    // samples and heartbeats of its entries.
    const bool first = !s.started_;
    const bool poll = s.started_ && s.poll_;
    const bool changed = s.seen_ != changes_;
    const bool stream = s.mode == gnmi::SubscriptionList::STREAM;
    enum class Tell { nothing, changes, all };
    std::vector<Tell> tell(s.entries.size(), Tell::nothing);
    std::optional<Clock::time_point> next;
    for (std::size_t i = 0; i < s.entries.size(); ++i) {
        Entry &e = s.entries[i];
        if (first || poll) {
            tell[i] = Tell::all;
            continue;
        }
        if (!stream)
            continue;
        if (e.heartbeat.count() != 0 && now >= e.next_heartbeat)
            tell[i] = Tell::all;
        else if (e.sample && now >= e.next_sample)
            tell[i] = e.suppress_redundant ? Tell::changes : Tell::all;
        else if (!e.sample && changed)
            tell[i] = Tell::changes;
        if (e.sample)
            next = std::min(next.value_or(e.next_sample), e.next_sample);
        if (e.heartbeat.count() != 0)
            next = std::min(next.value_or(e.next_heartbeat), e.next_heartbeat);
    }
    const bool any =
        std::any_of(tell.begin(), tell.end(), [](Tell t) { return t != Tell::nothing; });
    if (!any)
        return next;
    // While the round before is not yet taken, this one waits; past
    // max_lag the subscriber is cut off.
    if (!s.idle()) {
        if (!s.waiting_)
            s.waiting_ = now;
        if (now >= *s.waiting_ + max_lag_) {
            const auto lag = std::chrono::duration_cast<std::chrono::seconds>(max_lag_).count();
            s.finish(Status(StatusCode::RESOURCE_EXHAUSTED,
                            "the subscriber fell behind: its updates waited more than " +
                                std::to_string(lag) + " s for it to take the ones before"),
                     true);
            s.cut_off_at_ = now;
            front_.log("gNMI Subscribe of " + quoted(one_line(s.caller.user)) + " (session " +
                       std::to_string(s.caller.session) + ") from " + s.caller.peer +
                       " cut off: it fell behind");
            return now + cancel_grace;
        }
        return *s.waiting_ + max_lag_;
    }
    s.waiting_.reset();
    s.seen_ = changes_;
    s.started_ = true;
    if (poll)
        s.poll_ = false;

    // The read and the trees' work, without the lock.
    mutex_.unlock();
    struct Relock {
        std::mutex &m;
        ~Relock() { m.lock(); }
    } relock{mutex_};
    std::vector<gnmi::SubscribeResponse> out;
    const Status status = guarded(front_, "Subscribe", [&]() -> Status {
        // All of the entries' paths, not only those due, so that each
        // entry's last tree holds what its next round compares with.
        std::vector<const std::vector<Step> *> paths;
        for (const Entry &e : s.entries)
            paths.push_back(&e.steps);
        Data data;
        if (Status read = read_(s.caller, s.path, paths, data); !read.ok())
            return read;
        const std::shared_ptr<lyd_node> tree = shared_tree(std::move(data));
        Batch batch(now_ns(), s.target, s.json);
        const bool quiet_first = first && s.updates_only;
        for (std::size_t i = 0; i < s.entries.size(); ++i) {
            Entry &e = s.entries[i];
            if (tell[i] == Tell::nothing)
                continue;
            const std::vector<const lyd_node *> roots = roots_in(tree, e.steps);
            if (quiet_first) {
                // updates_only: the data as it stands is not told, only
                // what changes from it.
            } else if (tell[i] == Tell::changes && e.told == nullptr) {
                all_leaves(roots, batch);
            } else if (tell[i] == Tell::changes) {
                changes(e.told.get(), roots_in(e.told, e.steps), tree.get(), roots, batch);
            } else {
                // All values, and deletes of what went away since the
                // last round.
                if (e.told != nullptr && stream)
                    changes(e.told.get(), roots_in(e.told, e.steps), tree.get(), roots, batch,
                            false);
                all_leaves(roots, batch);
            }
            e.told = stream ? tree : nullptr;
            if (tell[i] == Tell::all || first)
                e.next_heartbeat = now + e.heartbeat;
            if (e.sample && (first || now >= e.next_sample))
                e.next_sample = now + e.interval;
        }
        out = batch.take();
        if (first || poll)
            out.emplace_back().set_sync_response(true);
        return Status::OK;
    });
    if (!status.ok()) {
        s.finish(status);
        gone = true;
        return std::nullopt;
    }
    if (!out.empty() && !s.push(std::move(out))) {
        gone = true;
        return std::nullopt;
    }
    if (s.mode == gnmi::SubscriptionList::ONCE) {
        s.finish(Status::OK);
        gone = true;
        return std::nullopt;
    }
    // The next sample or heartbeat of its entries.
    std::optional<Clock::time_point> at;
    for (const Entry &e : s.entries) {
        if (!stream)
            break;
        if (e.sample)
            at = std::min(at.value_or(e.next_sample), e.next_sample);
        if (e.heartbeat.count() != 0)
            at = std::min(at.value_or(e.next_heartbeat), e.next_heartbeat);
    }
    return at;
}

} // namespace octunnel::gnmi_front
