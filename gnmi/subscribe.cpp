// Subscribe, ONCE and POLL: the data at the subscription's paths, read
// through the agent as a Get of ALL reads it, then sync_response; once for
// ONCE, which then ends, and again at each poll for POLL.  STREAM is not
// offered.
#include "gnmi/service.h"

#include <libyang/libyang.h>

namespace octunnel::gnmi_front {

using grpc::Status;
using grpc::StatusCode;

namespace {

// Subscribe streams open at once: a POLL stream holds one of the front's
// threads while it waits, so that past this many one more is turned away
// and Get and Set always find a thread.
constexpr unsigned max_streams = 4;

} // namespace

grpc::Status GnmiService::Subscribe(
    grpc::ServerContext *context,
    grpc::ServerReaderWriter<gnmi::SubscribeResponse, gnmi::SubscribeRequest> *stream)
{
    Caller caller;
    if (Status s = authenticate(context, "Subscribe", caller); !s.ok())
        return s;
    if (++streams_ > max_streams) {
        --streams_;
        return {StatusCode::RESOURCE_EXHAUSTED,
                std::to_string(max_streams) + " Subscribe streams are open already"};
    }
    // The stream's place is given back before its end is logged.
    return handled(front_, "Subscribe", caller, [&] {
        struct Release {
            std::atomic<unsigned> &streams;
            ~Release() { --streams; }
        } release{streams_};
        const Session session(front_.agent, caller);
        return subscribe(caller, *stream);
    });
}

grpc::Status GnmiService::subscribe(
    const Caller &caller,
    grpc::ServerReaderWriter<gnmi::SubscribeResponse, gnmi::SubscribeRequest> &stream)
{
    gnmi::SubscribeRequest first;
    if (!stream.Read(&first))
        return Status::OK; // the client went before it asked anything
    if (!first.has_subscribe())
        return {StatusCode::INVALID_ARGUMENT, "a Subscribe begins with its subscription list"};
    const gnmi::SubscriptionList &list = first.subscribe();
    if (list.mode() == gnmi::SubscriptionList::STREAM)
        return {StatusCode::UNIMPLEMENTED,
                "STREAM subscriptions are not offered: ONCE and POLL are"};
    if (list.mode() != gnmi::SubscriptionList::ONCE && list.mode() != gnmi::SubscriptionList::POLL)
        return {StatusCode::INVALID_ARGUMENT, "a subscription's mode is ONCE or POLL"};
    Json json;
    if (Status s = encoding_of(list.encoding(), json); !s.ok())
        return s;
    if (list.subscription_size() == 0)
        return {StatusCode::INVALID_ARGUMENT, "a subscription list without a subscription"};
    const ly_ctx *ctx = models_->context();
    std::vector<std::vector<Step>> resolved;
    for (const gnmi::Subscription &s : list.subscription()) {
        try {
            resolved.push_back(resolve(ctx, list.prefix(), s.path()));
        } catch (const NotInModels &e) {
            // A path well written that the models do not have is one the
            // agent does not implement.
            return {StatusCode::UNIMPLEMENTED, e.what()};
        }
    }

    // The data of every path, then sync_response; a path with no data has
    // no update.
    const auto send = [&]() -> Status {
        if (!list.updates_only()) {
            Data tree;
            if (Status s = read(caller, gnmi::GetRequest::ALL,
                                path_text(list.prefix(), list.subscription(0).path()), tree);
                !s.ok())
                return s;
            const int64_t now = now_ns();
            for (const std::vector<Step> &steps : resolved) {
                const std::vector<lyd_node *> nodes = select(tree.get(), steps);
                if (nodes.empty())
                    continue;
                gnmi::SubscribeResponse r;
                gnmi::Notification *n = r.mutable_update();
                n->set_timestamp(now);
                if (!list.prefix().target().empty())
                    n->mutable_prefix()->set_target(list.prefix().target());
                add_updates(nodes, json, *n);
                if (!stream.Write(r))
                    return {StatusCode::CANCELLED, "the client went"};
            }
        }
        gnmi::SubscribeResponse sync;
        sync.set_sync_response(true);
        if (!stream.Write(sync))
            return {StatusCode::CANCELLED, "the client went"};
        return Status::OK;
    };
    if (Status s = send(); !s.ok() || list.mode() == gnmi::SubscriptionList::ONCE)
        return s;
    for (gnmi::SubscribeRequest next; stream.Read(&next);) {
        if (!next.has_poll())
            return {StatusCode::INVALID_ARGUMENT,
                    "a POLL subscription takes polls once its subscription list is given"};
        if (Status s = send(); !s.ok())
            return s;
    }
    return Status::OK;
}

} // namespace octunnel::gnmi_front
