// `octunnel serve`: a NETCONF server (RFC 6241, base 1.0 and 1.1) on
// libnetconf2, over SSH and a UNIX socket, in front of the agent.
#pragma once

#include "agent/admission.h"
#include "agent/agent.h"

#include <cstddef>
#include <iosfwd>
#include <string>

namespace octunnel::serve {

struct ServerOptions {
    AgentOptions agent;
    std::string listen;          // ADDR:PORT ([ADDR]:PORT for IPv6) for SSH; none: no SSH
    std::string unix_path;       // a UNIX socket; none: no socket
    std::string users;           // NAME:HASH lines
    std::string authorized_keys; // OpenSSH authorized_keys lines
    std::string yang_dir;        // the YANG models the hello advertises
    unsigned threads = 4;        // sessions served at once
    AdmissionLimits admission;   // who may begin an SSH login (admission.h)
    // What the requests of all sessions may hold before they are answered;
    // 0: the largest message taken and 64 MiB more.
    std::size_t max_in_flight = 0;
    // What a client may leave unread before its session ends.
    std::size_t max_unread = std::size_t{64} << 20;
    // Sessions one user may hold at once.
    unsigned max_sessions_per_user = 16;
    bool verbose = false;
};

// Serves until SIGINT or SIGTERM; returns the exit status.  Says on `err`
// what it listens on once it does, and why it cannot start when it cannot.
int serve(const ServerOptions &o, std::ostream &err);

} // namespace octunnel::serve
