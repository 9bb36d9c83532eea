// The operations on the configuration datastores as libnetconf2 hands them
// over, parsed by libyang, answered by the agent; apart from libnetconf2, so
// that tests and the fuzzer run the same handlers in process.
#pragma once

#include "agent/agent.h"

#include <optional>
#include <string>
#include <string_view>

struct ly_ctx;
struct lyd_node;

namespace octunnel::serve {

// A context of libyang with the models the agent serves, for libnetconf2
// (load_served_models).
ly_ctx *served_context(const std::string &yang_dir);

// What the agent answers to a request: errors, or <data> (`data`) or <ok/>.
struct Reply {
    Outcome outcome;
    bool data = false;
};

// Answers <edit-config>, <get-config>, <get>, <lock>, <unlock>,
// <validate>, <commit>, <cancel-commit>, <discard-changes>, <copy-config>
// and <delete-config> of `session`, on running, candidate and startup;
// nothing for any other operation.  The configuration an edit or a
// validate carries is taken out of `rpc` (its text goes to the agent), so
// that the tree of it is not held while the agent works.
std::optional<Reply> handle_request(Agent &agent, lyd_node *rpc, uint32_t session);

// Whether the agent performs operation `name` of YANG module `module`:
// those handle_request answers, and <close-session>, <kill-session> and
// <get-schema>, which the server answers itself.
bool performs(std::string_view module, std::string_view name);

// An error of the protocol (or of `type`) with `tag` and `message`.
Outcome failure(const char *tag, std::string message, const char *type = "protocol");

// The text of a leaf, or none.
std::string text_of(const lyd_node *node);
// The node at `path` below `rpc`, or null.
const lyd_node *param(const lyd_node *rpc, const char *path);

} // namespace octunnel::serve
