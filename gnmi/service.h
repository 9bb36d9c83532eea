// The gNMI service over the agent: one handler a file (capabilities.cpp,
// get.cpp, set.cpp), the service, TLS and credentials in server.cpp.
#pragma once

#include "gnmi/path.h"
#include "serve/front.h"
#include "translate/oc_models.h"

#include <gnmi.grpc.pb.h>

#include <atomic>
#include <cstdint>
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

class GnmiService final : public gnmi::gNMI::Service {
public:
    GnmiService(const serve::Front &front, std::shared_ptr<const OpenConfigModels> models)
        : front_(front), models_(std::move(models))
    {
    }

    grpc::Status Capabilities(grpc::ServerContext *context, const gnmi::CapabilityRequest *request,
                              gnmi::CapabilityResponse *response) override;
    grpc::Status Get(grpc::ServerContext *context, const gnmi::GetRequest *request,
                     gnmi::GetResponse *response) override;
    grpc::Status Set(grpc::ServerContext *context, const gnmi::SetRequest *request,
                     gnmi::SetResponse *response) override;

private:
    // The user the metadata names, checked against --users, and the
    // session this RPC is, registered with the agent until `Session` goes.
    class Session;
    grpc::Status authenticate(grpc::ServerContext *context, const char *rpc, Caller &caller);

    grpc::Status capabilities(gnmi::CapabilityResponse &response);
    grpc::Status get(const Caller &caller, const gnmi::GetRequest &request,
                     gnmi::GetResponse &response);
    grpc::Status set(const Caller &caller, const gnmi::SetRequest &request,
                     gnmi::SetResponse &response);

    serve::Front front_;
    std::shared_ptr<const OpenConfigModels> models_;
    // gNMI's sessions are numbered apart from NETCONF's (libnetconf2 counts
    // from 1): from 2^31 on, one an RPC.
    std::atomic<uint32_t> next_session_{uint32_t{1} << 31};
};

} // namespace octunnel::gnmi_front
