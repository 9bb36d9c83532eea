// gNMI paths and values against the OpenConfig models: a path (with its
// prefix) resolved step by step through libyang's schema, the data it
// selects in a tree of the models, the gNMI path of a data node, the JSON
// value of a subtree (RFC 7951 with or without module names) and the edit a
// value makes.  Nothing here reads the models' names from text by hand:
// every name is looked up in the schema, every value parsed by libyang.
#pragma once

#include "translate/oc_models.h"

#include <gnmi.pb.h>
#include <grpcpp/support/status_code_enum.h>

#include <stdexcept>
#include <string>
#include <vector>

struct ly_ctx;
struct lyd_node;
struct lysc_node;

namespace octunnel::gnmi_front {

// A request refused, with the gRPC status it is answered with.
class Refused : public std::runtime_error {
public:
    Refused(grpc::StatusCode code, const std::string &message)
        : std::runtime_error(message), code_(code)
    {
    }
    grpc::StatusCode code() const { return code_; }

private:
    grpc::StatusCode code_;
};

// A path naming what the models do not have (a Get's INVALID_ARGUMENT, a
// Subscribe's UNIMPLEMENTED).
class NotInModels : public Refused {
public:
    explicit NotInModels(const std::string &message)
        : Refused(grpc::StatusCode::INVALID_ARGUMENT, message)
    {
    }
};

// The longest path taken, in elements, and the most keys on one: beyond,
// INVALID_ARGUMENT (the models are nowhere near as deep).
inline constexpr std::size_t max_path_elems = 64;
inline constexpr std::size_t max_path_keys = 16;

// A path as a client wrote it, for messages: /a/b[k=v]/c.
std::string path_text(const gnmi::Path &prefix, const gnmi::Path &path);

// One step of a path: the schema nodes it may stand for (several after a
// wildcard) and its keys, a value of "*" or a key left out standing for any.
struct Step {
    enum class Kind { name, any, descend }; // a name, "*", "..."
    Kind kind = Kind::name;
    std::vector<const lysc_node *> schema;
    std::vector<std::pair<const lysc_node *, std::string>> keys; // key leaf, value
};

// `prefix` and `path` joined and resolved against the models: an origin
// other than none or "openconfig", a name the models do not have where it
// stands, a key that is no key of its list or a deprecated `element` path
// is INVALID_ARGUMENT.
std::vector<Step> resolve(const ly_ctx *ctx, const gnmi::Path &prefix, const gnmi::Path &path);

// A subtree filter (NETCONF's) that selects the top-level containers of the
// OpenConfig models and nothing of the agent's own state.
std::string served_filter(const ly_ctx *ctx);

// The subtree filter of a read whose answer the paths select from: the
// interfaces they name by key when each names one, so that a read of one
// interface costs the same among 10 as among 100,000; else served_filter().
std::string read_filter(const ly_ctx *ctx, const std::vector<const std::vector<Step> *> &paths);

// Takes out of `tree` the configuration (what is config true, but for list
// keys), keeping the state data; returns the tree left, or null.
lyd_node *keep_state(lyd_node *tree);

// Whether the steps name one node: no wildcard, every key of every list.
bool concrete(const std::vector<Step> &steps);

// The nodes of `tree` the steps select, in document order.
std::vector<lyd_node *> select(lyd_node *tree, const std::vector<Step> &steps);

// The gNMI path of a data node (element names without modules, as the path
// conventions write OpenConfig paths, with the keys of each list entry).
gnmi::Path path_of(const lyd_node *node);

enum class Json { ietf, plain }; // JSON_IETF (RFC 7951), JSON (no module names)

// The value of the subtree at `node` as gNMI carries it: a leaf's value, or
// the members of a container or list entry, those of its top level named
// with their module in JSON_IETF.
std::string json_value(const lyd_node *node, Json json);

// An edit of one path, as the text of a NETCONF <config> (top-level elements
// with their namespaces) whose node at the path carries `operation`
// (ietf-netconf's merge, replace or remove); `value` is the JSON or
// JSON_IETF value of an update or replace, null for a delete.  The path
// must be concrete; the value must fit the models at the path (a JSON value
// may leave out module names, JSON_IETF ones may carry them).
// INVALID_ARGUMENT otherwise, naming the path.
std::string edit_text(const ly_ctx *ctx, const std::vector<Step> &steps,
                      const gnmi::TypedValue *value, const char *operation);

} // namespace octunnel::gnmi_front
