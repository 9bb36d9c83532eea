// What an edit means on the OpenConfig configuration, by RFC 6241's rules,
// and how that meaning reaches the module.
//
// The module translates an edit node by node: a leaf it maps becomes a
// native leaf with the node's operation.  An operation that means more than
// its nodes (a replace of an entry, a delete of /interfaces, a default
// operation of replace) would lose that meaning on the way.  So the agent
// works out what the configuration is to become (the edit applied to what
// get-config shows now), and hands the module only the difference, leaf by
// leaf: what goes, as removals, and what comes or changes, as merges.  After
// the native configuration took both, what the module reads back must be
// what was intended; the agent checks that before it answers.
//
// Configurations here are libyang data trees of the OpenConfig models, with
// canonical values, so that "064" and "64" are the same ttl.
#pragma once

#include "translate/document.h"
#include "translate/oc_models.h"

#include <optional>
#include <string>
#include <vector>

namespace octunnel::serve {

// The interfaces an edit touches, by name; none when it may touch every
// one (an operation on /interfaces itself, or a default operation of
// replace, which stands for the whole configuration).
std::optional<std::vector<std::string>>
interfaces_touched(const OpenConfigModels &models, const lyd_node *edit, EditOp default_operation);

// Applies `edit` to `config` by RFC 6241 (section 7.2): merge, replace,
// create, delete and remove at any level, the default operation for nodes
// without one (none: no level is made), data-exists and data-missing.  On a
// refusal `config` is left half changed: the caller edits a copy.
std::optional<ModelError> apply_edit(const OpenConfigModels &models, DataTree &config,
                                     const lyd_node *edit, EditOp default_operation);

// A configuration as what it holds: no non-presence container that holds
// nothing, and no interface that holds nothing but its name (the router's
// configuration holds an interface through what is configured in it).
void settle(DataTree &config);

// What the router's configuration holds by design of an intended one: a
// tunnel's address is named by its address, so its config/ip is its key,
// given or not (the native entry is the address itself, and both come back
// from it).  A config/ip other than the key is refused (invalid-value).
std::optional<ModelError> hold_by_design(const OpenConfigModels &models, DataTree &config);

// Takes out what the module reads back elsewhere by design, for comparing
// an intended configuration with what reads back: an IPv4 address's
// config/prefix-length (the native netmask gives no prefix length back; the
// operational one comes under state).  Then settles.
void leave_out_by_design(DataTree &config);

// The change from `from` to `to` as two OpenConfig requests for the module:
// `removals`, every node that goes and every leaf whose value changes, with
// the operation remove; `additions`, every node that comes and every leaf's
// new value, with no operation (merge).  Either may be empty (no roots).
struct Change {
    Document removals;
    Document additions;
};
Change difference(const lyd_node *from, const lyd_node *to);

// The first place where `read_back` differs from `intended`, as the refusal
// of an edit whose result would not read back as it was asked for.
std::optional<ModelError> first_difference(const OpenConfigModels &models, const lyd_node *intended,
                                           const lyd_node *read_back);

} // namespace octunnel::serve
