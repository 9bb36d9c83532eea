// Subtree filtering (RFC 6241, section 6) over the agent's trees.
#pragma once

#include "agent/tree.h"

#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

namespace octunnel::serve {

// What a filter selected: the pass its marks on the nodes carry, and the
// children marked under each node, so that writing it visits those alone
// however many children their parent holds.
struct Selection {
    uint64_t pass = 0;
    std::unordered_map<const Node *, std::vector<const Node *>> marked;
};

// Marks what the filter whose top-level nodes `filter` holds selects among
// the top-level nodes of each of `data`, by the RFC's rules:
//
// - a filter element with children is a containment node: a data node of its
//   name is kept when the children select something in it;
// - one with text is a content-match node: the data node it stands in holds
//   a child of its name with that very value, or nothing of it is kept;
//   when all the elements of a level are content matches, the data node is
//   kept whole; otherwise it is kept, its content matches with it, when its
//   selection and containment nodes keep something;
// - one with neither is a selection node: every data node of its name is
//   kept whole;
// - an element without a namespace matches one of any namespace.
//
// A list entry that something in it is selected from holds its keys.
// Several filter elements that select the same data select it once.
// Returns the selection to hand to write(), which writes what was marked, in
// the order of the data.  Lists whose keys all come as content matches are
// found through their parent's index: the cost follows what the filter
// names, not the data.  Does not recurse.
Selection select(const Node &filter, std::span<const Node *const> data);

} // namespace octunnel::serve
