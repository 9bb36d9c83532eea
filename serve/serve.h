// `octunnel serve` as a program: one agent (one native running
// configuration, one lock, one order of edits) behind every front it is
// asked for, NETCONF and gNMI, so that an edit made over either is seen at
// once over both.
#pragma once

#include "agent/agent.h"
#include "netconf/server.h"
#ifdef OCTUNNEL_GNMI
#include "gnmi/server.h"
#endif

#include <iosfwd>
#include <string>

namespace octunnel::serve {

struct ServeOptions {
    AgentOptions agent;
    std::string yang_dir;        // the YANG models served
    std::string users;           // NAME:HASH lines, for every front
    std::string authorized_keys; // OpenSSH authorized_keys lines (SSH)
    bool verbose = false;
    NetconfOptions netconf;
#ifdef OCTUNNEL_GNMI
    GnmiOptions gnmi;
#endif
};

// Holds the state directory, makes the agent, starts each front asked for
// and serves until SIGINT or SIGTERM (SIGHUP reads the access control rules
// again); returns the exit status: 0 stopped by a signal, 2 it could not
// start.  Says on `err` what it listens on once it does, and why it cannot
// start when it cannot.
int serve(const ServeOptions &o, std::ostream &err);

} // namespace octunnel::serve
