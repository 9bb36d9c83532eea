#include "agent/changes.h"

#include <libyang/libyang.h>

#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace octunnel::serve {
namespace {

std::string path_of(const lyd_node *node)
{
    std::unique_ptr<char, decltype(&free)> p(lyd_path(node, LYD_PATH_STD, nullptr, 0), &free);
    if (!p)
        throw std::bad_alloc();
    return p.get();
}

bool same_value(const lyd_node *a, const lyd_node *b)
{
    return std::string_view(lyd_get_value(a)) == lyd_get_value(b);
}

} // namespace

const lyd_node *counterpart(const lyd_node *siblings, const lyd_node *node)
{
    lyd_node *match = nullptr;
    if (siblings == nullptr)
        return nullptr;
    if (node->schema != nullptr && (node->schema->nodetype & (LYS_LIST | LYS_LEAFLIST)))
        lyd_find_sibling_first(siblings, node, &match);
    else
        lyd_find_sibling_val(siblings, node->schema, nullptr, 0, &match);
    return match;
}

std::vector<ConfigChange::Edit> edits_between(const lyd_node *before, const lyd_node *after)
{
    std::vector<ConfigChange::Edit> edits;
    // Depth first, without recursion: at each level, the nodes of `before`
    // in their order, each found among its siblings in `after` by
    // libyang's hashes (gone: delete; a leaf of another value: replace;
    // else, what is below it), then the nodes of `after` that `before`
    // lacks (create).  The configuration compared may be the part of it a
    // change touched: a container it lacks may still be there.  Once past the most a notice names,
    // the walk stops.
    struct Level {
        const lyd_node *before, *after; // the first siblings of each
        const lyd_node *next;           // the next of `before`, then of `after`
        bool creating = false;
    };
    std::vector<Level> levels{{before, after, before}};
    const auto add = [&](const lyd_node *node, const char *operation) {
        if (edits.size() == max_change_edits)
            return false;
        edits.push_back({path_of(node), operation});
        return true;
    };
    bool whole = false;
    while (!levels.empty() && !whole) {
        Level &level = levels.back();
        if (level.next == nullptr) {
            if (level.creating) {
                levels.pop_back();
            } else {
                level.creating = true;
                level.next = level.after;
            }
            continue;
        }
        const lyd_node *node = level.next;
        level.next = node->next;
        const lyd_node *match = nullptr;
        // A container without a presence of its own is never created or
        // deleted: what it holds is.
        const bool np = lysc_is_np_cont(node->schema);
        if (level.creating) {
            if (level.before != nullptr && (match = counterpart(level.before, node)) != nullptr)
                continue;
            if (np)
                levels.push_back({nullptr, lyd_child(node), nullptr});
            else
                whole = !add(node, "create");
        } else if (level.after == nullptr || (match = counterpart(level.after, node)) == nullptr) {
            if (np)
                levels.push_back({lyd_child(node), nullptr, lyd_child(node)});
            else
                whole = !add(node, "delete");
        } else if (node->schema->nodetype & LYD_NODE_TERM) {
            whole = !same_value(node, match) && !add(node, "replace");
        } else if (lyd_child(node) != nullptr || lyd_child(match) != nullptr) {
            levels.push_back({lyd_child(node), lyd_child(match), lyd_child(node)});
        }
    }
    if (whole) {
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
