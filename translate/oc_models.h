// The OpenConfig models as a client's request must fit them.  On the router
// the framework checks every request against the models before the module
// sees it; here the agent does, and the tool does the same under
// --validate.  libyang knows the models: their types, ranges, patterns,
// enumerations, identities and keys; what is checked here besides is what a
// request must be to be taken apart node by node (each element known, in
// its place, with its keys), so that every refusal names its node.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct ly_ctx;
struct lyd_node;
struct lysc_node;
struct lys_module;

namespace octunnel {

struct Document;

// A request the models refuse, in NETCONF's terms (RFC 6241, appendix A).
struct ModelError {
    std::string tag;     // error-tag
    std::string message; // a sentence
    // error-path: an instance identifier whose every step has its module's
    // prefix, and the namespaces of those prefixes.
    std::string path;
    std::vector<std::pair<std::string, std::string>> path_namespaces;
    std::string bad_element;
    std::string bad_namespace;
    uint32_t line = 0; // the node's line in its document, where known
};

struct DataTreeDeleter {
    void operator()(lyd_node *first) const;
};
// Top-level data nodes of libyang and all they hold.
using DataTree = std::unique_ptr<lyd_node, DataTreeDeleter>;

// The NETCONF operation an edit gives a node (RFC 6241, 7.2), or none.
enum class EditOp { none, merge, replace, create, remove, del };

// A context of libyang with the models served: openconfig-interfaces, -if-ip,
// -if-tunnel and -vlan with the modules whose identities their values name
// (iana-if-type, openconfig-if-types, -vlan-types), ietf-netconf with its
// writable-running, rollback-on-error and validate features (and so the
// operation attribute), ietf-netconf-monitoring and ietf-netconf-acm (the
// access control rules, enforced by `octunnel serve`).  Throws
// std::runtime_error naming what cannot be loaded.
ly_ctx *load_served_models(const std::string &yang_dir);

class OpenConfigModels {
public:
    // The models served from `yang_dir` (load_served_models).
    explicit OpenConfigModels(const std::string &yang_dir);
    ~OpenConfigModels();
    OpenConfigModels(const OpenConfigModels &) = delete;
    OpenConfigModels &operator=(const OpenConfigModels &) = delete;

    ly_ctx *context() const { return ctx_; }

    enum class Use { edit, filter };

    // The shape of a document the readers built: every element of a
    // namespace the models have (unknown-namespace) and a name its parent
    // has (unknown-element), text only in leaves (bad-element).  An edit
    // sets no read-only node (invalid-value) and names every list entry by
    // all its keys (missing-element); a filter may leave out keys and
    // select state.  In a filter an element without a namespace stands for
    // a node of that name in any module.  Nothing for a document that fits.
    std::optional<ModelError> check(const Document &doc, Use use) const;

    // The data of an edit from its text: the top-level elements in XML, each
    // with the namespaces it uses declared (or RFC 7951 JSON when `json`),
    // with typed, canonical values and the operations as metadata.  A leaf
    // whose value does not fit its type is refused (invalid-value), but for
    // one deleted or removed without a value.  The document must have
    // passed check() first.  Returns null with `error` set on a refusal; a
    // document with no data gives null and no error.
    DataTree parse_edit(std::string_view text, bool json, std::optional<ModelError> &error) const;

    // The operation `node` of an edit carries itself.
    EditOp own_operation(const lyd_node *node) const;
    // The schema node of a data node, also of one libyang kept opaque.
    const lysc_node *schema_of(const lyd_node *node) const;

    // The instance identifier of `node`, into error.path and its namespaces.
    void locate(const lyd_node *node, ModelError &error) const;
    // The same for a path without prefixes ("/a/b[k='v']/c"), as the
    // module's walk names the node it stood at, with `last` as one step
    // more when not empty.  Steps the models do not have keep their name.
    void locate(std::string_view path, std::string_view last, ModelError &error) const;

private:
    // Why `value` does not fit the type of the leaf `schema`, or nothing.
    std::optional<std::string> invalid_value(const lysc_node *schema, std::string_view value) const;
    const lys_module *module_of_ns(std::string_view ns) const;
    const lysc_node *child_of(const lysc_node *parent, const lys_module *module,
                              std::string_view name) const;

    ly_ctx *ctx_ = nullptr;
    const lys_module *netconf_ = nullptr;
};

// `text` as a sentence: its first letter capital, a full stop at its end.
std::string as_sentence(std::string text);

// The text of the top-level elements of the XML document `text`, inside a
// NETCONF <config>, <filter> or <data> when it has one, each carrying every
// namespace declaration in scope where it stands, so that a prefix in a
// value (an identity) still resolves once the element stands alone.
// Throws std::runtime_error when the text is not one XML document.
std::string standalone_elements(std::string_view text);

} // namespace octunnel
