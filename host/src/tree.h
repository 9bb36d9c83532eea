// The host's own access to the store behind a tree.
#pragma once

#include "octunnel/yfw_types.h"

#include <string_view>

namespace yfwhost {

class Store;

// The store of the tree that `node` belongs to, found through its root.
Store &store_of(const vidl_yfw_datatree *node);
// tree_add_child with the tree's store at hand.
vidl_yfw_datatree *add_child(Store &store, vidl_yfw_datatree *parent, std::string_view tag,
                             std::string_view ns);

} // namespace yfwhost
