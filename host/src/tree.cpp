// Data trees of vidl_yfw_datatree records, with contiguous child arrays.
#include "yfwhost/host.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace yfwhost {
namespace {

char *copy(std::string_view s)
{
    auto *p = static_cast<char *>(std::malloc(s.size() + 1));
    if (p == nullptr)
        throw std::bad_alloc();
    std::memcpy(p, s.data(), s.size());
    p[s.size()] = '\0';
    return p;
}

void release(vidl_yfw_datatree *node)
{
    for (uint32_t i = 0; i < node->subtree_count; ++i)
        release(&node->subtrees[i]);
    std::free(node->subtrees);
    std::free(node->tag);
    std::free(node->value);
    std::free(node->ns);
}

void init(vidl_yfw_datatree *node, std::string_view tag, std::string_view ns)
{
    *node = vidl_yfw_datatree{};
    node->tag = copy(tag);
    node->ns = copy(ns);
}

} // namespace

vidl_yfw_datatree *tree_new(std::string_view tag, std::string_view ns)
{
    auto *root = static_cast<vidl_yfw_datatree *>(std::calloc(1, sizeof(vidl_yfw_datatree)));
    if (root == nullptr)
        throw std::bad_alloc();
    init(root, tag, ns);
    return root;
}

void tree_free(vidl_yfw_datatree *root)
{
    if (root == nullptr)
        return;
    release(root);
    std::free(root);
}

vidl_yfw_datatree *tree_add_child(vidl_yfw_datatree *parent, std::string_view tag,
                                  std::string_view ns)
{
    // A walker may have detached the array for a while; a fresh one is then
    // started rather than writing through a null pointer.
    if (parent->subtrees == nullptr)
        parent->fw_capacity = 0;
    if (parent->subtree_count == parent->fw_capacity) {
        uint32_t capacity = parent->fw_capacity == 0 ? 4 : parent->fw_capacity * 2;
        void *grown = std::realloc(parent->subtrees, capacity * sizeof(vidl_yfw_datatree));
        if (grown == nullptr)
            throw std::bad_alloc();
        parent->subtrees = static_cast<vidl_yfw_datatree *>(grown);
        parent->fw_capacity = capacity;
    }
    vidl_yfw_datatree *child = &parent->subtrees[parent->subtree_count];
    init(child, tag, ns);
    parent->subtree_count++;
    parent->present |= YFW_PRESENT_SUBTREES;
    return child;
}

void tree_set_value(vidl_yfw_datatree *node, std::string_view value)
{
    std::free(node->value);
    node->value = copy(value);
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
    for (std::size_t i = 0; i < tree_child_count(node); ++i)
        if (node->subtrees[i].tag != nullptr && tag == node->subtrees[i].tag)
            return &node->subtrees[i];
    return nullptr;
}

bool ns_match(const char *a, const char *b)
{
    if (a == nullptr || b == nullptr)
        return false;
    std::string_view x(a), y(b);
    if (x == y)
        return true;
    constexpr std::string_view suffix = ".yang";
    if (x.size() == y.size() + suffix.size())
        return x.ends_with(suffix) && x.substr(0, y.size()) == y;
    if (y.size() == x.size() + suffix.size())
        return y.ends_with(suffix) && y.substr(0, x.size()) == x;
    return false;
}

} // namespace yfwhost
