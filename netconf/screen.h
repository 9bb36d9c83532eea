// What libnetconf2 would refuse of a request, or the agent does not do,
// found before libnetconf2 reads it, so that the client hears what is wrong
// in NETCONF's terms.
//
// libnetconf2 parses each <rpc> against the served context
// (lyd_parse_op) and answers whatever libyang refuses itself, with
// operation-failed and libyang's text: the agent never sees the request.
// So the relay has each <rpc> the guard would hand on parsed the same way
// first.  What libyang takes goes on to libnetconf2, which then cannot fail
// on it, unless it is an operation the agent does not perform or lacks a
// parameter the operation needs.  What libyang refuses is walked, element
// by element and attribute by attribute, against the schema to find what
// is at fault.  Parsing with libyang itself, rather than by rules of our
// own, keeps the two readings from drifting apart: whatever libnetconf2
// would refuse, the screen refuses first.
#pragma once

#include "agent/agent.h"

#include <optional>
#include <string>

struct ly_ctx;

namespace octunnel::serve {

// The error to answer `message` (a well-formed NETCONF <rpc> with one
// operation, as the guard hands it on) with, or none when libnetconf2 may
// have it.  `ctx` is the context libnetconf2 parses with.
std::optional<RpcError> screen_rpc(ly_ctx *ctx, const std::string &message);

} // namespace octunnel::serve
