// NETCONF XML documents to and from the host's data trees.
#pragma once

#include "input_error.h"
#include "yfwhost/host.h"

#include <string>
#include <string_view>
#include <vector>

namespace octunnel {

// Reads the top-level nodes of a document: bare, or wrapped in one NETCONF
// <data>, <config> or <filter> element.  Every node gets its tag, namespace, value,
// NETCONF operation attribute (as op) and source line.
std::vector<yfwhost::Tree> read_document(std::string_view text);

// `root` and its children as a NETCONF document; the root is the envelope
// (<data>, <config>, or <filter>, which is marked as a subtree filter).  An
// element declares xmlns where its namespace differs from its parent's, and
// carries nc:operation where the node has an operation.
std::string write_document(const vidl_yfw_datatree *root);

} // namespace octunnel
