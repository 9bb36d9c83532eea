// What the agent's sources share of their helpers (agent.cpp defines them):
// the refusals of the models as the protocol's errors, and the words of an
// edit and of access control.
#pragma once

#include "agent/agent.h"
#include "agent/datastore.h"
#include "agent/nacm.h"
#include "translate/oc_models.h"

#include <string_view>

namespace octunnel::serve {

// A refusal of the OpenConfig models as the error the client hears.
RpcError from_model(const ModelError &m);
// An edit's default operation as the operation of its top nodes.
EditOp edit_op(DefaultOperation op);
// Whether `s` holds nothing but white space.
bool blank(std::string_view s);
// What an access is called in a refusal ("create", "delete", "read",
// "change").
const char *verb(nacm::Access access);

} // namespace octunnel::serve
