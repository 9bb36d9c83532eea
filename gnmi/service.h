// The gNMI service over the agent: one handler a file (capabilities.cpp,
// get.cpp, set.cpp, subscribe.cpp), the service, TLS and credentials in
// server.cpp.
#pragma once

#include "gnmi/path.h"
#include "serve/front.h"
#include "translate/oc_models.h"

#include <gnmi.grpc.pb.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace octunnel::gnmi_front {

// Who asks: the user the metadata named, and the session of the agent this
// RPC is, for access control and the log.
struct Caller {
    std::string user;
    uint32_t session = 0;
    std::string peer; // as gRPC names it: ipv4:127.0.0.1:PORT
};

// The status a refusal of the agent is answered with (its error-tag mapped,
// its message and error-path kept).
grpc::Status status_of(const serve::RpcError &e, const std::string &path);

// Nanoseconds since the epoch.
int64_t now_ns();

struct DataFree {
    void operator()(lyd_node *n) const;
};
// OpenConfig data as a tree of the models.
using Data = std::unique_ptr<lyd_node, DataFree>;

// The encoding of a request's values, or UNIMPLEMENTED for one not offered.
grpc::Status encoding_of(gnmi::Encoding encoding, Json &json);

// An update of `notification` for each node, its path and its value.
void add_updates(const std::vector<lyd_node *> &nodes, Json json, gnmi::Notification &notification);

// The outcome of an RPC in the log, with --verbose: its user, session and
// status.
void log_outcome(const serve::Front &front, const char *rpc, const Caller &caller,
                 const grpc::Status &status);

// `work`, with every failure a status: a refusal as it says, a fault as
// INTERNAL (named in the log), memory as RESOURCE_EXHAUSTED; a message cut
// at 1 KiB.
grpc::Status guarded(const serve::Front &front, const char *rpc,
                     const std::function<grpc::Status()> &work);

// An RPC's handler, with every failure a status: a refusal as it says, a
// fault as INTERNAL (named in the log), memory as RESOURCE_EXHAUSTED; with
// --verbose, each RPC is logged with its user, session and outcome.
grpc::Status handled(const serve::Front &front, const char *rpc, const Caller &caller,
                     const std::function<grpc::Status()> &handler);

// The RPC (or stream) as a session of the agent, from its credentials to
// its answer: its user's access control holds, and what it leaves (a lock)
// goes with it.
class Session {
public:
    Session(serve::Agent &agent, const Caller &caller) : agent_(agent), id_(caller.session)
    {
        agent_.session_began(id_, caller.user, false);
    }
    ~Session() { agent_.session_ended(id_); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

private:
    serve::Agent &agent_;
    uint32_t id_;
};

class Subscriptions;

// Capabilities, Get and Set are served on the front's threads, one each;
// Subscribe by reactors, which hold none while a stream waits.
class GnmiService final : public gnmi::gNMI::WithCallbackMethod_Subscribe<gnmi::gNMI::Service> {
public:
    // A subscriber that keeps its updates waiting longer than `max_lag` is
    // cut off.
    GnmiService(const serve::Front &front, std::shared_ptr<const OpenConfigModels> models,
                std::chrono::nanoseconds max_lag);
    ~GnmiService() override;

    // The subscriptions' thread, started before the server and stopped
    // (every stream ended) before it shuts down.
    void start_subscriptions();
    void stop_subscriptions();

    grpc::Status Capabilities(grpc::ServerContext *context, const gnmi::CapabilityRequest *request,
                              gnmi::CapabilityResponse *response) override;
    grpc::Status Get(grpc::ServerContext *context, const gnmi::GetRequest *request,
                     gnmi::GetResponse *response) override;
    grpc::Status Set(grpc::ServerContext *context, const gnmi::SetRequest *request,
                     gnmi::SetResponse *response) override;
    grpc::ServerBidiReactor<gnmi::SubscribeRequest, gnmi::SubscribeResponse> *
    Subscribe(grpc::CallbackServerContext *context) override;

private:
    // The user the metadata names, checked against --users, and the
    // number of the session this RPC is.
    grpc::Status authenticate(grpc::ServerContextBase *context, const char *rpc, Caller &caller);

    grpc::Status capabilities(gnmi::CapabilityResponse &response);
    grpc::Status get(const Caller &caller, const gnmi::GetRequest &request,
                     gnmi::GetResponse &response);
    grpc::Status set(const Caller &caller, const gnmi::SetRequest &request,
                     gnmi::SetResponse &response);
    // The OpenConfig data a read of `type` gives the caller, through the
    // agent as NETCONF's <get> (ALL, STATE, OPERATIONAL: the last two with
    // the configuration taken out) or <get-config> (CONFIG) reads it.
    // Of the interfaces `paths` name, when each names one.
    grpc::Status read(const Caller &caller, gnmi::GetRequest::DataType type,
                      const std::string &path, const std::vector<const std::vector<Step> *> &paths,
                      Data &tree);

    serve::Front front_;
    std::shared_ptr<const OpenConfigModels> models_;
    // gNMI's sessions are numbered apart from NETCONF's (libnetconf2 counts
    // from 1): from 2^31 on, one an RPC.
    std::atomic<uint32_t> next_session_{uint32_t{1} << 31};
    std::unique_ptr<Subscriptions> subscriptions_;
};

} // namespace octunnel::gnmi_front
