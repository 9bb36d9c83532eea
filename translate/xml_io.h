// NETCONF XML documents to and from the host's data trees.
#pragma once

#include "translate/document.h"

namespace octunnel {

// Reads the top-level nodes of a document: bare, or wrapped in one NETCONF
// <data>, <config> or <filter> element.  Every node gets its tag, namespace,
// value, NETCONF operation attribute (as op) and source line.  Throws
// InputError with the line at fault.
Document read_document(Input &input);

// An answer as a NETCONF document; its root is the envelope (<data>,
// <config>, or <filter>, which is marked as a subtree filter).  An element
// declares xmlns where its namespace differs from its parent's, and carries
// nc:operation where the node has an operation.
void write_document(const yfwhost::Answer &answer, Output &out);

} // namespace octunnel
