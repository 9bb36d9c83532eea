// NETCONF monitoring (RFC 6022) of the agent itself: its sessions, the lock
// of the running configuration, and what was received and answered, kept
// as it happens.  <get> has it written out each time it asks, so that an
// operator always reads the sessions and counters as they stand.
#pragma once

#include "agent/agent.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace octunnel::serve {

inline constexpr std::string_view monitoring_ns =
    "urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring";

// The agent's own YANG module beside ietf-netconf-monitoring: the transport
// of sessions over its UNIX socket, which ietf-netconf-monitoring has no
// identity for (it names SSH, TLS, BEEP and SOAP).  Loaded with the served
// models, so that the hello advertises it and <get-schema> gives it.
inline constexpr std::string_view octunnel_monitoring_module = "octunnel-netconf-monitoring";
inline constexpr std::string_view octunnel_monitoring_ns =
    "urn:octunnel:yang:octunnel-netconf-monitoring";
inline constexpr std::string_view octunnel_monitoring_prefix = "octnm";
extern const char octunnel_monitoring_yang[];

// What a session comes over.
enum class Transport { ssh, unix_socket };

// What one session received and answered.  The relay of its connection
// counts what its guard answers itself, from before libnetconf2 has given
// the session an id, and the agent's callbacks the rest.  The counters are
// zero-based-counter32: they wrap at 2^32.
struct SessionCounters {
    std::atomic<uint32_t> in_rpcs{0};
    std::atomic<uint32_t> in_bad_rpcs{0};
    std::atomic<uint32_t> out_rpc_errors{0};
    std::atomic<uint32_t> out_notifications{0};
};

// A time as RFC 3339 writes it, in UTC: 2026-11-25T17:00:40Z.
std::string rfc3339(std::time_t t);

class Monitor {
public:
    // The agent starts now.
    Monitor();

    struct Session {
        uint32_t id = 0;
        std::string user;
        Transport transport = Transport::ssh;
        std::string source_host; // the client's address over SSH; none on the UNIX socket
        std::time_t login = 0;
        std::shared_ptr<SessionCounters> counters;
    };

    // A session began (its hello was answered) or ended; an end is a drop
    // unless the session was closed or killed.
    void started(Session s);
    void ended(uint32_t id, bool dropped);

    // A client's hello was no hello, and its session never began.
    void bad_hello() { ++bad_hellos_; }
    // A correct <rpc> received.
    void rpc(SessionCounters &c);
    // An <rpc> answered with <rpc-error>.
    void rpc_error(SessionCounters &c);
    // A message that was no correct <rpc>, answered with <rpc-error>.
    void bad_rpc(SessionCounters &c);
    // An event notification sent.
    void notification(SessionCounters &c);

    // What does not change once the agent serves: netconf-state's
    // capabilities and schemas, XML elements (<capability>..., <schema>...).
    void set_served(std::string capabilities, std::string schemas);

    // netconf-state as it stands, with the datastores' `locks`: XML.
    std::string netconf_state(const DatastoreLocks &locks) const;

private:
    const std::time_t start_;
    std::string capabilities_, schemas_;
    std::atomic<uint32_t> bad_hellos_{0}, sessions_in_{0}, dropped_{0};
    SessionCounters all_;
    mutable std::mutex mutex_;
    std::map<uint32_t, Session> sessions_;
};

} // namespace octunnel::serve
