#include "schema.h"

#include "yfwhost/host.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace yfwhost::schema {

namespace models = octunnel::models;

// The models' nodes as a tree of steps, built once.  Node 0 stands above
// every model's top node.
struct Node {
    std::string_view tag;
    const char *owner = nullptr;
    const ListBinding *list = nullptr;
    std::vector<std::pair<std::string_view, uint32_t>> children;
};

namespace {

std::vector<Node> build()
{
    std::vector<Node> nodes(1);
    auto at = [&](std::string_view path) -> Node & {
        uint32_t n = 0;
        while (!path.empty()) {
            path.remove_prefix(1); // the '/'
            std::string_view step = path.substr(0, path.find('/'));
            path.remove_prefix(step.size());
            auto &kids = nodes[n].children;
            auto it = std::find_if(kids.begin(), kids.end(),
                                   [&](const auto &c) { return c.first == step; });
            if (it != kids.end()) {
                n = it->second;
                continue;
            }
            auto next = static_cast<uint32_t>(nodes.size());
            nodes[n].children.emplace_back(step, next);
            nodes.push_back(Node{step, nullptr, nullptr, {}});
            n = next;
        }
        return nodes[n];
    };
    for (const models::node &n : models::nodes)
        at(n.path).owner = n.ns;
    for (const ListBinding &b : models::bindings)
        at(b.path).list = &b;
    return nodes;
}

const std::vector<Node> &tree()
{
    static const std::vector<Node> nodes = build();
    return nodes;
}

} // namespace

const Node *child(const Node *parent, std::string_view tag)
{
    const std::vector<Node> &nodes = tree();
    const Node &from = parent != nullptr ? *parent : nodes[0];
    for (const auto &[step, index] : from.children)
        if (step == tag)
            return &nodes[index];
    return nullptr;
}

const char *owner(const Node *node)
{
    return node != nullptr ? node->owner : nullptr;
}

const ListBinding *list(const Node *node)
{
    return node != nullptr ? node->list : nullptr;
}

std::span<const char *const> key_names(const char *tag, const char *ns)
{
    for (const models::list &l : models::lists)
        if (tag != nullptr && std::string_view(tag) == l.tag && ns_match(l.ns, ns))
            return {l.keys, l.key_count};
    return {};
}

} // namespace yfwhost::schema
