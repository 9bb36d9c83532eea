// `octunnel serve`: a NETCONF server (RFC 6241, base 1.0 and 1.1) on
// libnetconf2, over SSH and a UNIX socket, in front of the agent.
#pragma once

#include "admission.h"
#include "agent.h"

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
    bool verbose = false;
};

// Serves until SIGINT or SIGTERM; returns the exit status.  Says on `err`
// what it listens on once it does, and why it cannot start when it cannot.
int serve(const ServerOptions &o, std::ostream &err);

} // namespace octunnel::serve
