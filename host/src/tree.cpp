// Data trees of vidl_yfw_datatree records, with contiguous child arrays, each
// tree in a store of its own.
#include "tree.h"

#include "store.h"
#include "yfwhost/host.h"

#include <cstring>
#include <new>

namespace yfwhost {
namespace {

// A root and the store of its tree, in one block: the root comes first, so
// that the block is found from the root.
struct Root {
    vidl_yfw_datatree node;
    Store *store;
};
static_assert(std::is_standard_layout_v<Root>);

void init(vidl_yfw_datatree *node, Store &store, std::string_view tag, std::string_view ns)
{
    *node = vidl_yfw_datatree{};
    node->tag = store.intern(tag);
    node->ns = store.intern(ns);
}

// Children that moved to a new place take their own children along.
void adopt(vidl_yfw_datatree *array, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i)
        for (uint32_t g = 0; array[i].subtrees != nullptr && g < array[i].subtree_count; ++g)
            array[i].subtrees[g].fw_parent = &array[i];
}

} // namespace

Store &store_of(const vidl_yfw_datatree *node)
{
    while (node->fw_parent != nullptr)
        node = node->fw_parent;
    return *reinterpret_cast<const Root *>(node)->store;
}

vidl_yfw_datatree *add_child(Store &store, vidl_yfw_datatree *parent, std::string_view tag,
                             std::string_view ns)
{
    // A walker may have detached the array for a while; a fresh one is then
    // started rather than writing through a null pointer.
    if (parent->subtrees == nullptr) {
        parent->fw_capacity = 0;
        parent->subtree_count = 0;
    }
    if (parent->subtree_count == parent->fw_capacity) {
        uint32_t capacity = 0;
        vidl_yfw_datatree *grown = store.nodes(parent->subtree_count + 1, capacity);
        if (parent->subtree_count != 0) {
            std::memcpy(static_cast<void *>(grown), parent->subtrees,
                        parent->subtree_count * sizeof(vidl_yfw_datatree));
            adopt(grown, parent->subtree_count);
            store.moved(parent->subtrees, grown);
            store.release(parent->subtrees, parent->fw_capacity);
        }
        parent->subtrees = grown;
        parent->fw_capacity = capacity;
    }
    vidl_yfw_datatree *child = &parent->subtrees[parent->subtree_count];
    init(child, store, tag, ns);
    child->fw_parent = parent;
    parent->subtree_count++;
    parent->present |= YFW_PRESENT_SUBTREES;
    return child;
}

vidl_yfw_datatree *tree_new(std::string_view tag, std::string_view ns)
{
    auto store = std::make_unique<Store>();
    auto *root = static_cast<Root *>(::operator new(sizeof(Root)));
    root->store = store.release();
    init(&root->node, *root->store, tag, ns);
    return &root->node;
}

void tree_free(vidl_yfw_datatree *node)
{
    if (node == nullptr)
        return;
    auto *root = reinterpret_cast<Root *>(node);
    delete root->store;
    ::operator delete(root);
}

vidl_yfw_datatree *tree_add_child(vidl_yfw_datatree *parent, std::string_view tag,
                                  std::string_view ns)
{
    return add_child(store_of(parent), parent, tag, ns);
}

void tree_set_value(vidl_yfw_datatree *node, std::string_view value)
{
    node->value = store_of(node).copy(value);
    node->present |= YFW_PRESENT_VALUE;
}

void tree_set_op(vidl_yfw_datatree *node, uint32_t op)
{
    node->op = op;
    node->present |= YFW_PRESENT_OP;
}

std::size_t tree_child_count(const vidl_yfw_datatree *node)
{
    return (node->present & YFW_PRESENT_SUBTREES) != 0 ? node->subtree_count : 0;
}

const vidl_yfw_datatree *tree_child(const vidl_yfw_datatree *node, std::string_view tag)
{
    std::size_t n = tree_child_count(node);
    if (n > 8 && node->subtrees != nullptr) {
        Store &store = store_of(node);
        return store.first_child(node->subtrees, static_cast<uint32_t>(n), store.interned(tag));
    }
    for (std::size_t i = 0; i < n; ++i)
        if (node->subtrees[i].tag != nullptr && tag == node->subtrees[i].tag)
            return &node->subtrees[i];
    return nullptr;
}

// ---------------------------------------------------------------- building whole

TreeBuilder::TreeBuilder(std::string_view root_tag, std::string_view root_ns)
    : root_(tree_new(root_tag, root_ns)), store_(&store_of(root_.get())), levels_(1)
{
}

TreeBuilder::~TreeBuilder() = default;

vidl_yfw_datatree &TreeBuilder::open(std::string_view tag, std::string_view ns, uint32_t line)
{
    std::vector<vidl_yfw_datatree> &siblings = levels_[depth_];
    vidl_yfw_datatree &node = siblings.emplace_back();
    init(&node, *store_, tag, ns);
    node.fw_line = line;
    ++depth_;
    if (levels_.size() == depth_)
        levels_.emplace_back();
    return node;
}

vidl_yfw_datatree &TreeBuilder::top()
{
    return depth_ == 0 ? *root_ : levels_[depth_ - 1].back();
}

void TreeBuilder::set_value(vidl_yfw_datatree &node, std::string_view value)
{
    node.value = store_->copy(value);
    node.present |= YFW_PRESENT_VALUE;
}

std::span<vidl_yfw_datatree> TreeBuilder::children()
{
    return levels_[depth_];
}

const char *TreeBuilder::intern(std::string_view s)
{
    return store_->intern(s);
}

// The children gathered for `node` go to an array of their own; they point
// at `node` where it stands now, and their children at them where they stand
// from now on.
void TreeBuilder::lay_out(vidl_yfw_datatree &node, std::vector<vidl_yfw_datatree> &kids)
{
    if (kids.empty())
        return;
    auto count = static_cast<uint32_t>(kids.size());
    vidl_yfw_datatree *array = store_->exact_nodes(count);
    std::memcpy(static_cast<void *>(array), kids.data(), count * sizeof(vidl_yfw_datatree));
    for (uint32_t i = 0; i < count; ++i)
        array[i].fw_parent = &node;
    adopt(array, count);
    node.subtrees = array;
    node.subtree_count = count;
    node.fw_capacity = count;
    node.present |= YFW_PRESENT_SUBTREES;
    kids.clear();
}

void TreeBuilder::close()
{
    vidl_yfw_datatree &node = levels_[depth_ - 1].back();
    lay_out(node, levels_[depth_]);
    --depth_;
}

Tree TreeBuilder::finish()
{
    while (depth_ > 0)
        close();
    lay_out(*root_, levels_[0]);
    return std::move(root_);
}

} // namespace yfwhost
