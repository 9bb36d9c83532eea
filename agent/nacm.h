// Access control by the rules of RFC 8341 (NETCONF Access Control Model),
// apart from any protocol: who may run an operation, read a data node, or
// create, change or delete one.  Any front (NETCONF, a later gNMI one, a
// candidate datastore) asks the same questions of a Subject, naming nodes
// by their place in the YANG models libyang compiled.
//
// The rules are the ietf-netconf-acm data of a file the operator writes
// (load_rules), checked against the model by libyang, not data of the
// running datastore: that datastore is the router's native configuration,
// which holds nothing of the agent's own, and rules kept apart from it can
// neither be lost with it nor lock out the one who would repair it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct ly_ctx;
struct lyd_node;
struct lysc_node;

namespace octunnel::serve::nacm {

// The access operations of RFC 8341 (the bits of access-operations).
enum Access : uint8_t {
    create = 1,
    read = 2,
    update = 4,
    del = 8,
    exec = 16,
    all = 31,
};

// A rules file the model refuses: where, and why.
struct RulesError : std::runtime_error {
    RulesError(const std::string &file, uint32_t line, const std::string &why);
};

// One step of a rule's path: a node of the models, and the values its
// predicates give the keys (a key left out matches every entry).
struct PathStep {
    const lysc_node *schema = nullptr;
    std::vector<std::pair<const lysc_node *, std::string>> keys;
};

struct Rule {
    std::string name;
    std::string module = "*"; // module-name
    enum class Type { any, operation, notification, data } type = Type::any;
    std::string rpc;            // rpc-name or notification-name, "*" for every one
    std::vector<PathStep> path; // data: none is "/", every node
    std::string path_text;      // as written, module names for prefixes
    uint8_t access = Access::all;
    bool permit = false;
};

struct RuleList {
    std::string name;
    std::vector<std::string> groups; // "*" for every group
    std::vector<Rule> rules;
};

struct Group {
    std::string name;
    std::vector<std::string> users;
};

struct Rules {
    bool enabled = true;
    bool read_permit = true, write_permit = false, exec_permit = true;
    bool external_groups = true;
    std::vector<Group> groups;
    std::vector<RuleList> lists;
};

// The rules of `text`, the <nacm> element of ietf-netconf-acm in XML,
// checked by libyang against the model of `ctx` (which must implement
// ietf-netconf-acm); `file` names the text in a RulesError, which gives
// the line of the fault where libyang tells it.
std::shared_ptr<const Rules> parse_rules(ly_ctx *ctx, std::string_view text,
                                         const std::string &file);
// The same from the file at `path`.
std::shared_ptr<const Rules> load_rules(ly_ctx *ctx, const std::string &path);

// Whether the schema node carries nacm:default-deny-all (or, with
// `write`, default-deny-write too), itself or by one of its ancestors.
bool default_deny(const lysc_node *schema, bool write);

// A data node as the rules see it: its node of the models (null where the
// models do not know it), its module's name, and for a list entry the
// values of its keys.
struct DataStep {
    const lysc_node *schema = nullptr;
    std::string_view module;
    std::vector<std::pair<const lysc_node *, std::string_view>> keys;
};

// A user under the rules in force.
class Subject {
public:
    // No rules: access control is off, everything is permitted.  A
    // recovery session is never restricted (RFC 8341, section 3.1.1).
    Subject(std::shared_ptr<const Rules> rules, std::string_view user, bool recovery);

    // Whether nothing is ever denied to this subject: the checks can be
    // skipped.
    bool unrestricted() const { return unrestricted_; }

    // Whether the protocol operation `name` of `module` may run;
    // `default_deny_all` when its definition says nacm:default-deny-all.
    // close-session always may.
    bool may_execute(std::string_view module, std::string_view name, bool default_deny_all) const;
    bool may_execute(const lysc_node *operation) const;
    // Whether the event notification `name` of `module` may be sent to it;
    // replayComplete and notificationComplete always may.
    bool may_receive(std::string_view module, std::string_view name) const;

    // Whether `access` (read, create, update or delete) is permitted on the
    // data node whose path from the top is `path`.
    bool may(Access access, std::span<const DataStep> path) const;
    // The same of a node of libyang's data.
    bool may(Access access, const lyd_node *node) const;

private:
    std::shared_ptr<const Rules> rules_;
    std::vector<const Rule *> rules_in_order_; // of the rule-lists of the user's groups
    bool unrestricted_ = false;
};

// The path of a node of libyang's data, as the rules see it.
std::vector<DataStep> path_of(const lyd_node *node);

// The first change from `before` to `after` (top-level siblings of
// libyang's data, either may be null) that `subject` may not make: each
// node created, deleted, or whose value changes is checked with its
// access (a subtree created or deleted, every node of it); the containers
// that have no meaning of their own and the keys of an entry go with what
// holds them.  Returns the node (of `after`, or of `before` for a delete)
// and the access denied.
struct Denial {
    const lyd_node *node = nullptr;
    Access access = Access::read;
};
std::optional<Denial> first_denied_change(const Subject &subject, const lyd_node *before,
                                          const lyd_node *after);

// The ietf-netconf-acm data that <get> shows: the rules in force (or
// enable-nacm false when there are none) and the counters, as XML.
std::string state_xml(const Rules *rules, uint32_t denied_operations, uint32_t denied_writes,
                      uint32_t denied_notifications);

inline constexpr const char *ns = "urn:ietf:params:xml:ns:yang:ietf-netconf-acm";

} // namespace octunnel::serve::nacm
