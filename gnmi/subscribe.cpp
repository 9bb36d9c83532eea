// Subscribe: the stream's reactor (gRPC's callback API, so that a stream
// holds no thread while it waits) and the check of its subscription list;
// the rounds of updates are the subscriptions' thread's
// (gnmi/subscriptions.cpp).
#include "gnmi/service.h"
#include "gnmi/subscriptions.h"

#include <libyang/libyang.h>

namespace octunnel::gnmi_front {

using grpc::Status;
using grpc::StatusCode;

namespace {

// A stream refused before it began (its credentials): its status alone.
class Refusal final : public SubscribeReactor {
public:
    explicit Refusal(const Status &status) { Finish(status); }
    void OnDone() override { delete this; }
};

std::chrono::nanoseconds interval_of(uint64_t ns)
{
    // Past this many nanoseconds, a duration would overflow the clock's.
    constexpr uint64_t most = uint64_t{1} << 62;
    return std::chrono::nanoseconds(static_cast<int64_t>(std::min(ns, most)));
}

// The subscription list of a stream's first request, checked: a refusal
// names what is wrong, and nothing is read before every path resolves.
Status check(const ly_ctx *ctx, const gnmi::SubscribeRequest &first, Subscription &s)
{
    if (!first.has_subscribe())
        return {StatusCode::INVALID_ARGUMENT, "a Subscribe begins with its subscription list"};
    const gnmi::SubscriptionList &list = first.subscribe();
    switch (list.mode()) {
    case gnmi::SubscriptionList::ONCE:
    case gnmi::SubscriptionList::POLL:
    case gnmi::SubscriptionList::STREAM:
        break;
    default:
        return {StatusCode::INVALID_ARGUMENT, "a subscription's mode is STREAM, ONCE or POLL"};
    }
    s.mode = list.mode();
    if (Status st = encoding_of(list.encoding(), s.json); !st.ok())
        return st;
    if (list.subscription_size() == 0)
        return {StatusCode::INVALID_ARGUMENT, "a subscription list without a subscription"};
    if (list.subscription_size() > max_entries)
        return {StatusCode::INVALID_ARGUMENT,
                "a subscription list of " + std::to_string(list.subscription_size()) +
                    " paths: at most " + std::to_string(max_entries) + " are taken"};
    s.updates_only = list.updates_only();
    s.target = list.prefix().target();
    s.path = path_text(list.prefix(), list.subscription(0).path());
    for (const gnmi::Subscription &sub : list.subscription()) {
        const std::string text = path_text(list.prefix(), sub.path());
        Entry e;
        try {
            e.steps = resolve(ctx, list.prefix(), sub.path());
        } catch (const NotInModels &error) {
            // A path well written that the models do not have is one the
            // agent does not implement.
            return {StatusCode::UNIMPLEMENTED, error.what()};
        }
        if (s.mode == gnmi::SubscriptionList::STREAM) {
            switch (sub.mode()) {
            case gnmi::TARGET_DEFINED:
            case gnmi::ON_CHANGE:
                break;
            case gnmi::SAMPLE:
                e.sample = true;
                e.interval = sub.sample_interval() == 0 ? std::chrono::nanoseconds(default_sample)
                                                        : interval_of(sub.sample_interval());
                e.suppress_redundant = sub.suppress_redundant();
                break;
            default:
                return {StatusCode::INVALID_ARGUMENT,
                        text + ": a subscription's mode is TARGET_DEFINED, ON_CHANGE or SAMPLE"};
            }
            if (e.sample && e.interval < min_interval)
                return {StatusCode::INVALID_ARGUMENT, text + ": sample_interval " +
                                                          std::to_string(sub.sample_interval()) +
                                                          " ns is below the least taken, 1 s"};
            e.heartbeat = interval_of(sub.heartbeat_interval());
            if (e.heartbeat.count() != 0 && e.heartbeat < min_interval)
                return {StatusCode::INVALID_ARGUMENT, text + ": heartbeat_interval " +
                                                          std::to_string(sub.heartbeat_interval()) +
                                                          " ns is below the least taken, 1 s"};
        }
        s.entries.push_back(std::move(e));
    }
    return Status::OK;
}

class SubscribeStream final : public SubscribeReactor {
public:
    SubscribeStream(const serve::Front &front, const OpenConfigModels &models,
                    Subscriptions &subscriptions, grpc::CallbackServerContext *context,
                    const Caller &caller)
        : front_(front), models_(models), subscriptions_(subscriptions),
          sub_(std::make_shared<Subscription>()), session_(front.agent, caller)
    {
        sub_->caller = caller;
        sub_->attach(this, context);
        StartRead(&request_);
    }

    void OnReadDone(bool ok) override
    {
        if (!ok) {
            // The client has no more to say: a stream it never began ends;
            // one begun goes on until it is cancelled.
            if (!begun_)
                sub_->finish(Status::OK);
            return;
        }
        const Status status =
            guarded(front_, "Subscribe", [this] { return begun_ ? next() : begin(); });
        if (!status.ok()) {
            sub_->finish(status);
            subscriptions_.wake();
            return;
        }
        StartRead(&request_);
    }

    void OnWriteDone(bool ok) override
    {
        if (sub_->write_done(ok))
            subscriptions_.wake();
    }

    void OnCancel() override
    {
        sub_->cancelled();
        subscriptions_.wake();
    }

    void OnDone() override
    {
        sub_->detach();
        subscriptions_.wake();
        log_outcome(front_, "Subscribe", sub_->caller, sub_->status());
        delete this;
    }

private:
    Status begin()
    {
        begun_ = true;
        if (Status s = check(models_.context(), request_, *sub_); !s.ok())
            return s;
        if (std::optional<Status> refused = subscriptions_.add(sub_))
            return *refused;
        return Status::OK;
    }

    // After the list, a POLL stream takes polls; nothing else is taken.
    Status next()
    {
        if (sub_->mode == gnmi::SubscriptionList::POLL && request_.has_poll()) {
            subscriptions_.poll(sub_);
            return Status::OK;
        }
        return {StatusCode::INVALID_ARGUMENT,
                sub_->mode == gnmi::SubscriptionList::POLL
                    ? "a POLL subscription takes polls once its subscription list is given"
                    : "a subscription takes no request after its subscription list"};
    }

    const serve::Front &front_;
    const OpenConfigModels &models_;
    Subscriptions &subscriptions_;
    std::shared_ptr<Subscription> sub_;
    const Session session_; // the stream is one session of the agent for its life
    gnmi::SubscribeRequest request_;
    bool begun_ = false;
};

} // namespace

SubscribeReactor *GnmiService::Subscribe(grpc::CallbackServerContext *context)
{
    Caller caller;
    if (Status s = authenticate(context, "Subscribe", caller); !s.ok())
        return new Refusal(s);
    return new SubscribeStream(front_, *models_, *subscriptions_, context, caller);
}

} // namespace octunnel::gnmi_front
