#include "gnmi/server.h"
#include "gnmi/service.h"
#include "gnmi/subscriptions.h"

#include "translate/input_error.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <fstream>
#include <netinet/in.h>
#include <sstream>
#include <unordered_map>

#include <grpcpp/grpcpp.h>
#include <grpcpp/security/server_credentials.h>

namespace octunnel::serve {
namespace {

using octunnel::gnmi_front::Caller;
using octunnel::gnmi_front::GnmiService;

// The text of a PEM file an option names; a file that cannot be read, or
// holds nothing, refuses the start naming both.
std::string pem_file(const std::string &path, const char *option)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error(std::string(option) + " " + path + ": " + std::strerror(errno));
    // A certificate chain or key is a few kilobytes: a file far larger is
    // not one, and is not read whole.
    constexpr std::size_t most = std::size_t{1} << 20;
    std::string text(most + 1, '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(in.gcount()));
    if (text.size() > most)
        throw std::runtime_error(std::string(option) + " " + path +
                                 ": larger than 1 MiB, not a PEM file");
    if (text.find("-----BEGIN ") == std::string::npos)
        throw std::runtime_error(std::string(option) + " " + path + ": holds no PEM block");
    return text;
}

// The gRPC address of --gnmi: ADDR:PORT, [ADDR]:PORT for IPv6, the port
// a number 1 to 65535.
std::string grpc_address(const std::string &listen)
{
    const auto colon = listen.find_last_of(':');
    if (colon == std::string::npos || colon == 0)
        throw std::invalid_argument("--gnmi " + listen + ": not ADDRESS:PORT");
    const std::string port = listen.substr(colon + 1);
    char *end = nullptr;
    errno = 0;
    const unsigned long n = std::strtoul(port.c_str(), &end, 10);
    if (port.empty() || *end != '\0' || errno != 0 || n == 0 || n > 65535)
        throw std::invalid_argument("--gnmi " + listen + ": the port is not 1 to 65535");
    return listen;
}

class GnmiServer : public Service {
public:
    GnmiServer(const GnmiOptions &o, const Front &front) : o_(o), front_(front) {}
    ~GnmiServer() override { stop(); }

    void start() override
    {
        const std::string address = grpc_address(o_.listen);
        std::shared_ptr<grpc::ServerCredentials> credentials;
        if (o_.insecure) {
            credentials = grpc::InsecureServerCredentials();
        } else {
            grpc::SslServerCredentialsOptions ssl(
                o_.client_ca.empty() ? GRPC_SSL_DONT_REQUEST_CLIENT_CERTIFICATE
                                     : GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY);
            ssl.pem_key_cert_pairs.push_back(
                {pem_file(o_.tls_key, "--tls-key"), pem_file(o_.tls_cert, "--tls-cert")});
            if (!o_.client_ca.empty())
                ssl.pem_root_certs = pem_file(o_.client_ca, "--tls-client-ca");
            credentials = grpc::SslServerCredentials(ssl);
        }
        // The paths and values are read with the agent's own models.
        service_ = std::make_unique<GnmiService>(front_, front_.models, o_.max_lag);
        service_->start_subscriptions();
        grpc::ServerBuilder builder;
        int port = 0;
        builder.AddListeningPort(address, credentials, &port);
        builder.RegisterService(service_.get());
        // A request is at most what a NETCONF <config> may be, and a little
        // more for the rest of the message.
        const std::size_t most = front_.agent_options.max_content + (std::size_t{1} << 20);
        builder.SetMaxReceiveMessageSize(static_cast<int>(std::min<std::size_t>(most, INT_MAX)));
        // Threads and streams are bounded: past them a client hears
        // RESOURCE_EXHAUSTED, and no client holds the agent's memory or
        // threads without end.
        grpc::ResourceQuota quota("octunnel-gnmi");
        quota.SetMaxThreads(static_cast<int>(std::max(4u, o_.threads) * 2));
        // What gRPC's buffers of all clients may hold: two requests of the
        // largest and 64 MiB, as NETCONF's requests in flight.
        quota.Resize(2 * most + (std::size_t{64} << 20));
        builder.SetResourceQuota(quota);
        builder.AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS, 16);
        // A client that does not finish its TLS handshake in 10 s holds
        // nothing longer, as an SSH client that says nothing.
        builder.AddChannelArgument(GRPC_ARG_SERVER_HANDSHAKE_TIMEOUT_MS, 10000);
        server_ = builder.BuildAndStart();
        if (server_ == nullptr || port == 0)
            throw std::runtime_error("cannot listen on " + o_.listen + " (gNMI)");
        front_.log("listening on " + o_.listen +
                   (o_.insecure            ? " (gNMI in plain text)"
                    : o_.client_ca.empty() ? " (gNMI over TLS)"
                                           : " (gNMI over TLS, client certificates required)"));
    }

    void stop() override
    {
        if (server_ == nullptr)
            return;
        // Streams end first (they would wait for changes for good); RPCs
        // under way have a moment to end; then they are cancelled.
        service_->stop_subscriptions();
        server_->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(2));
        server_->Wait();
        server_.reset();
    }

private:
    const GnmiOptions o_;
    const Front front_;
    std::unique_ptr<GnmiService> service_;
    std::unique_ptr<grpc::Server> server_;
};

} // namespace

std::string gnmi_refusal(const GnmiOptions &o, const Users &users)
{
    if (users.size() == 0)
        return "--gnmi without --users: no one could log in";
    if (o.insecure) {
        if (!o.tls_cert.empty() || !o.tls_key.empty() || !o.client_ca.empty())
            return "--gnmi-insecure with --tls-cert, --tls-key or --tls-client-ca: plain text "
                   "or TLS, not both";
    } else if (o.tls_cert.empty() || o.tls_key.empty()) {
        return "--gnmi without --tls-cert and --tls-key (or --gnmi-insecure for plain text)";
    }
    try {
        grpc_address(o.listen);
        if (!o.insecure) {
            pem_file(o.tls_cert, "--tls-cert");
            pem_file(o.tls_key, "--tls-key");
            if (!o.client_ca.empty())
                pem_file(o.client_ca, "--tls-client-ca");
        }
    } catch (const std::exception &e) {
        return e.what();
    }
    return {};
}

std::unique_ptr<Service> gnmi_front(const GnmiOptions &o, const Front &front)
{
    return std::make_unique<GnmiServer>(o, front);
}

} // namespace octunnel::serve

namespace octunnel::gnmi_front {

using grpc::Status;
using grpc::StatusCode;

int64_t now_ns()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

grpc::Status status_of(const serve::RpcError &e, const std::string &path)
{
    // NETCONF's error-tags (RFC 6241, appendix A) as gRPC codes.
    static const std::unordered_map<std::string, StatusCode> codes = {
        {"invalid-value", StatusCode::INVALID_ARGUMENT},
        {"too-big", StatusCode::RESOURCE_EXHAUSTED},
        {"missing-attribute", StatusCode::INVALID_ARGUMENT},
        {"bad-attribute", StatusCode::INVALID_ARGUMENT},
        {"unknown-attribute", StatusCode::INVALID_ARGUMENT},
        {"missing-element", StatusCode::INVALID_ARGUMENT},
        {"bad-element", StatusCode::INVALID_ARGUMENT},
        {"unknown-element", StatusCode::INVALID_ARGUMENT},
        {"unknown-namespace", StatusCode::INVALID_ARGUMENT},
        {"malformed-message", StatusCode::INVALID_ARGUMENT},
        {"access-denied", StatusCode::PERMISSION_DENIED},
        {"lock-denied", StatusCode::ABORTED},
        {"in-use", StatusCode::ABORTED},
        {"resource-denied", StatusCode::RESOURCE_EXHAUSTED},
        {"rollback-failed", StatusCode::INTERNAL},
        {"data-exists", StatusCode::ALREADY_EXISTS},
        {"data-missing", StatusCode::NOT_FOUND},
        {"operation-not-supported", StatusCode::UNIMPLEMENTED},
        {"operation-failed", StatusCode::FAILED_PRECONDITION},
    };
    const auto it = codes.find(e.tag);
    std::string message = path + ": " + e.message;
    if (!e.path.empty())
        message += " (at " + e.path + ")";
    return {it != codes.end() ? it->second : StatusCode::INTERNAL, one_line(message)};
}

namespace {

// A gRPC peer ("ipv4:ADDR:PORT", "ipv6:[ADDR]:PORT", its brackets perhaps
// percent-encoded) as the admission counts sources: an IPv4 address, an
// IPv6 /64; none for what is not IP.
std::string source_key(const std::string &peer)
{
    std::string text;
    for (std::size_t i = 0; i < peer.size(); ++i) {
        if (peer[i] == '%' && i + 2 < peer.size()) {
            const char c =
                static_cast<char>(std::strtol(peer.substr(i + 1, 2).c_str(), nullptr, 16));
            if (c == '[' || c == ']' || c == '%') {
                text += c;
                i += 2;
                continue;
            }
        }
        text += peer[i];
    }
    sockaddr_storage address{};
    socklen_t size = 0;
    if (text.rfind("ipv4:", 0) == 0) {
        const std::string rest = text.substr(5);
        auto *in = reinterpret_cast<sockaddr_in *>(&address);
        in->sin_family = AF_INET;
        if (inet_pton(AF_INET, rest.substr(0, rest.rfind(':')).c_str(), &in->sin_addr) != 1)
            return {};
        size = sizeof(sockaddr_in);
    } else if (text.rfind("ipv6:[", 0) == 0) {
        const std::string rest = text.substr(6);
        std::string host = rest.substr(0, rest.find(']'));
        host = host.substr(0, host.find('%')); // a zone names no other host
        auto *in6 = reinterpret_cast<sockaddr_in6 *>(&address);
        in6->sin6_family = AF_INET6;
        if (inet_pton(AF_INET6, host.c_str(), &in6->sin6_addr) != 1)
            return {};
        size = sizeof(sockaddr_in6);
    } else {
        return {};
    }
    return serve::source_of(reinterpret_cast<const sockaddr *>(&address), size).key;
}

} // namespace

grpc::Status GnmiService::authenticate(grpc::ServerContextBase *context, const char *rpc,
                                       Caller &caller)
{
    caller.peer = context->peer();
    const auto &metadata = context->client_metadata();
    const auto user = metadata.find("username");
    const auto password = metadata.find("password");
    if (user == metadata.end() || password == metadata.end()) {
        front_.log(std::string("gNMI: a ") + rpc + " from " + caller.peer +
                   " refused: no username and password in its metadata");
        return {StatusCode::UNAUTHENTICATED,
                "the metadata 'username' and 'password' name a user of the agent"};
    }
    caller.user.assign(user->second.data(), user->second.size());
    // Each password checked costs its source, as an SSH login does, in the
    // same account: past a burst, a source fails once a --login-penalty.
    const std::string source = source_key(caller.peer);
    if (!source.empty()) {
        const serve::Admission::Verdict v = front_.admission.attempt(source);
        if (!v) {
            const auto left = std::chrono::duration_cast<std::chrono::seconds>(v.left).count() + 1;
            if (v.log)
                front_.log("gNMI RPCs from " + source + " refused for " + std::to_string(left) +
                           " s: too many failed logins (first refused: " + caller.peer + ")");
            return {StatusCode::RESOURCE_EXHAUSTED, "too many failed logins from " + source +
                                                        ": refused for " + std::to_string(left) +
                                                        " s"};
        }
    }
    const std::string_view given(password->second.data(), password->second.size());
    if (!front_.users.check(caller.user, given)) {
        front_.log(std::string("gNMI: a ") + rpc + " from " + caller.peer + " of " +
                   quoted(one_line(caller.user)) + " refused: wrong username or password");
        return {StatusCode::UNAUTHENTICATED, "wrong username or password"};
    }
    if (!source.empty())
        front_.admission.succeeded(source);
    caller.session = next_session_++;
    // Past 2^32 the numbers would meet NETCONF's: from 2^31 again.
    if (caller.session == 0)
        next_session_ = uint32_t{1} << 31;
    return Status::OK;
}

Status guarded(const serve::Front &front, const char *rpc, const std::function<Status()> &work)
{
    Status status;
    try {
        status = work();
    } catch (const Refused &r) {
        status = Status(r.code(), one_line(r.what()));
    } catch (const std::bad_alloc &) {
        status = Status(StatusCode::RESOURCE_EXHAUSTED, "out of memory");
    } catch (const std::exception &e) {
        front.log(std::string("gNMI ") + rpc + ": " + one_line(e.what()));
        status = Status(StatusCode::INTERNAL, one_line(e.what()));
    }
    // A message travels in the response's trailers, which clients take up
    // to a few kilobytes: one that quotes a large value is cut short.
    constexpr std::size_t most = 1024;
    if (status.error_message().size() > most) {
        std::string message = status.error_message().substr(0, most);
        while (!message.empty() && (static_cast<unsigned char>(message.back()) & 0xC0) == 0x80)
            message.pop_back(); // no UTF-8 sequence cut in two
        if (!message.empty() && static_cast<unsigned char>(message.back()) >= 0xC0)
            message.pop_back();
        status = Status(status.error_code(), message + "...");
    }
    return status;
}

Status handled(const serve::Front &front, const char *rpc, const Caller &caller,
               const std::function<Status()> &handler)
{
    const Status status = guarded(front, rpc, handler);
    log_outcome(front, rpc, caller, status);
    return status;
}

void log_outcome(const serve::Front &front, const char *rpc, const Caller &caller,
                 const Status &status)
{
    if (front.verbose)
        front.log(std::string("gNMI ") + rpc + " of " + quoted(one_line(caller.user)) +
                  " (session " + std::to_string(caller.session) + ") from " + caller.peer + ": " +
                  (status.ok() ? std::string("done")
                               : "refused, " + std::to_string(status.error_code()) + " " +
                                     status.error_message()));
}

GnmiService::GnmiService(const serve::Front &front, std::shared_ptr<const OpenConfigModels> models,
                         std::chrono::nanoseconds max_lag)
    : front_(front), models_(std::move(models))
{
    subscriptions_ = std::make_unique<Subscriptions>(
        front_,
        [this](const Caller &caller, const std::string &path,
               const std::vector<const std::vector<Step> *> &paths,
               Data &tree) { return read(caller, gnmi::GetRequest::ALL, path, paths, tree); },
        max_lag);
}

GnmiService::~GnmiService() = default;

void GnmiService::start_subscriptions()
{
    subscriptions_->start();
}

void GnmiService::stop_subscriptions()
{
    subscriptions_->stop();
}

grpc::Status GnmiService::Capabilities(grpc::ServerContext *context,
                                       const gnmi::CapabilityRequest *,
                                       gnmi::CapabilityResponse *response)
{
    Caller caller;
    if (Status s = authenticate(context, "Capabilities", caller); !s.ok())
        return s;
    const Session session(front_.agent, caller);
    return handled(front_, "Capabilities", caller, [&] { return capabilities(*response); });
}

grpc::Status GnmiService::Get(grpc::ServerContext *context, const gnmi::GetRequest *request,
                              gnmi::GetResponse *response)
{
    Caller caller;
    if (Status s = authenticate(context, "Get", caller); !s.ok())
        return s;
    const Session session(front_.agent, caller);
    return handled(front_, "Get", caller, [&] { return get(caller, *request, *response); });
}

grpc::Status GnmiService::Set(grpc::ServerContext *context, const gnmi::SetRequest *request,
                              gnmi::SetResponse *response)
{
    Caller caller;
    if (Status s = authenticate(context, "Set", caller); !s.ok())
        return s;
    const Session session(front_.agent, caller);
    return handled(front_, "Set", caller, [&] { return set(caller, *request, *response); });
}

} // namespace octunnel::gnmi_front
