// What each front of `octunnel serve` (NETCONF, gNMI) is handed by the
// program: the one agent all of them edit and read through, so that an edit
// made over one protocol is seen at once over every other, who may log in,
// and the program's log.
#pragma once

#include "agent/access.h"
#include "agent/admission.h"
#include "agent/agent.h"

#include <functional>
#include <memory>
#include <string>

namespace octunnel::serve {

struct Front {
    Agent &agent;
    const AgentOptions &agent_options; // as the agent was made (its state directory, its limits)
    const std::string &yang_dir;       // the YANG models served
    // The same models loaded once, which every front reads requests with.
    std::shared_ptr<const OpenConfigModels> models;
    const Users &users;         // who logs in by password
    const AuthorizedKeys &keys; // who logs in by key (SSH)
    // How fast a source may fail to log in, over every front at once: a
    // password guessed over one protocol costs as much as over another.
    Admission &admission;
    std::function<void(const std::string &)> log; // one line of the program's log
    bool verbose = false;
};

// A front as the program drives it: started once everything it needs is
// made, stopped before the agent goes.
class Service {
public:
    virtual ~Service() = default;
    // Listens and serves on threads of its own; throws std::exception naming
    // why it cannot (a port taken, a file unreadable).
    virtual void start() = 0;
    // Ends every session and joins the threads; the agent outlives it.
    virtual void stop() = 0;
};

} // namespace octunnel::serve
