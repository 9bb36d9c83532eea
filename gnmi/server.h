// The gNMI front of `octunnel serve` (gNMI 0.10.0 over gRPC): Capabilities,
// Get, Set and Subscribe (STREAM, ONCE, POLL) on the same agent as the NETCONF
// front.
#pragma once

#include "serve/front.h"

#include <chrono>
#include <memory>
#include <string>

namespace octunnel::serve {

struct GnmiOptions {
    std::string listen;    // ADDR:PORT ([ADDR]:PORT for IPv6); none: no gNMI
    std::string tls_cert;  // the server's certificate chain (PEM)
    std::string tls_key;   // its private key (PEM)
    std::string client_ca; // none: clients show no certificate; else one this CA signed
    bool insecure = false; // plain text, no TLS at all
    unsigned threads = 4;  // RPCs served at once
    // How long a Subscribe stream's updates may wait for the client to take
    // the ones before: past it, the subscriber is cut off.
    std::chrono::nanoseconds max_lag = std::chrono::seconds(30);

    bool wanted() const { return !listen.empty(); }
};

// Why the gNMI front could not serve with these options and users, before
// anything is started: a sentence naming the option, or nothing.
std::string gnmi_refusal(const GnmiOptions &o, const Users &users);

// The front, to be started by the program once the agent is made.
std::unique_ptr<Service> gnmi_front(const GnmiOptions &o, const Front &front);

} // namespace octunnel::serve
