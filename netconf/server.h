// The NETCONF front of `octunnel serve`: a NETCONF server (RFC 6241, base 1.0
// and 1.1) on libnetconf2, over SSH and a UNIX socket, in front of the agent
// the program gives it.
#pragma once

#include "agent/admission.h"
#include "serve/front.h"

#include <cstddef>
#include <memory>
#include <string>

namespace octunnel::serve {

struct NetconfOptions {
    std::string listen;    // ADDR:PORT ([ADDR]:PORT for IPv6) for SSH; none: no SSH
    std::string unix_path; // a UNIX socket; none: no socket
    unsigned threads = 4;  // sessions served at once
    // Who may begin an SSH login, and how fast a source may fail at logins
    // over any front (admission.h).
    AdmissionLimits admission;
    // What the requests of all sessions may hold before they are answered;
    // 0: the largest message taken and 64 MiB more.
    std::size_t max_in_flight = 0;
    // What a client may leave unread before its session ends.
    std::size_t max_unread = std::size_t{64} << 20;
    // Sessions one user may hold at once.
    unsigned max_sessions_per_user = 16;

    bool wanted() const { return !listen.empty() || !unix_path.empty(); }
};

// Why the NETCONF front could not serve with these options and users, before
// anything is started: a sentence naming the option, or nothing.
std::string netconf_refusal(const NetconfOptions &o, const Users &users,
                            const AuthorizedKeys &keys);

// The front, to be started by the program once the agent is made.
std::unique_ptr<Service> netconf_front(const NetconfOptions &o, const Front &front);

} // namespace octunnel::serve
