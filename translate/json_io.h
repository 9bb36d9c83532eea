// RFC 7951 JSON documents to and from the host's data trees.
#pragma once

#include "translate/document.h"
#include "translate/json_schema.h"

#include <memory>

namespace octunnel {

// Reads the top-level nodes of a JSON document: one object whose members are
// module-qualified roots, bare or inside one "ietf-netconf:data", "config" or
// "filter" member.  The trees are those that read_document builds from the
// same document in XML: a member's namespace is its module's, a list or
// leaf-list gives one node per entry, a scalar becomes the node's text, and
// the metadata "ietf-netconf:operation" its op.  Throws InputError with the
// line of the member at fault.
Document read_json_document(Input &input);

// The children of the answer's root (the envelope, which JSON does not
// write) as a JSON document, lists and values as `schema` tells, operations
// as metadata.  Made in two steps so that a caller can tell whether the
// answer can be written before it commits to anything else: the
// constructor throws std::runtime_error, before anything is written, for a
// namespace that has no module name; write() then writes it all.
class JsonAnswer {
public:
    JsonAnswer(const yfwhost::Answer &answer, const JsonSchema &schema, Output &out);
    ~JsonAnswer();
    JsonAnswer(const JsonAnswer &) = delete;
    JsonAnswer &operator=(const JsonAnswer &) = delete;
    void write();

private:
    std::unique_ptr<class JsonWriter> writer_;
};

} // namespace octunnel
