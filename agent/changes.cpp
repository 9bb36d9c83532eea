#include "agent/changes.h"

#include <libyang/libyang.h>

#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace octunnel::serve {
namespace {

// The operation libyang's difference gives a node: create, delete,
// replace, or none for a node that only holds changes.
std::string_view operation_of(const lyd_node *node)
{
    for (const lyd_meta *m = node->meta; m != nullptr; m = m->next)
        if (std::string_view(m->name) == "operation" &&
            std::string_view(m->annotation->module->name) == "yang")
            return lyd_get_meta_value(m);
    return "none";
}

std::string path_of(const lyd_node *node)
{
    std::unique_ptr<char, decltype(&free)> p(lyd_path(node, LYD_PATH_STD, nullptr, 0), &free);
    if (!p)
        throw std::bad_alloc();
    return p.get();
}

} // namespace

std::vector<ConfigChange::Edit> edits_between(const lyd_node *before, const lyd_node *after)
{
    lyd_node *diff = nullptr;
    if (lyd_diff_siblings(before, after, LYD_DIFF_DEFAULTS, &diff) != LY_SUCCESS)
        throw std::bad_alloc();
    std::unique_ptr<lyd_node, decltype(&lyd_free_all)> held(diff, &lyd_free_all);
    std::vector<ConfigChange::Edit> edits;
    bool too_many = false;
    // Depth first, without recursion: a node the difference creates,
    // deletes or replaces is named, and nothing below it.
    for (const lyd_node *top = diff; top != nullptr && !too_many; top = top->next) {
        const lyd_node *node = top;
        while (node != nullptr) {
            const std::string_view op = operation_of(node);
            const lyd_node *child = op == "none" ? lyd_child(node) : nullptr;
            if (op != "none") {
                if (edits.size() == max_change_edits) {
                    too_many = true;
                    break;
                }
                edits.push_back({path_of(node), std::string(op)});
            }
            if (child != nullptr) {
                node = child;
                continue;
            }
            // On to the next sibling, or up to an ancestor's, within `top`.
            while (node != top && node->next == nullptr)
                node = lyd_parent(node);
            node = node == top ? nullptr : node->next;
        }
    }
    if (too_many) {
        const lyd_node *any = after != nullptr ? after : before;
        std::string top = "/";
        top += any->schema->module->name;
        top += ':';
        top += LYD_NAME(any);
        edits.assign(1, {std::move(top), "replace"});
    }
    return edits;
}

} // namespace octunnel::serve
