#include "translate/json_schema.h"

#include "octunnel/model_tables.h"

#include <algorithm>

namespace octunnel {
namespace {

NodeKind kind_of(models::form f)
{
    switch (f) {
    case models::form::container:
        return NodeKind::container;
    case models::form::list:
        return NodeKind::list;
    case models::form::leaf:
        return NodeKind::leaf;
    case models::form::leaf_list:
        break;
    }
    return NodeKind::leaf_list;
}

} // namespace

// The rows as a tree of steps: module names play no part in the paths.
struct ModelSchema::Step {
    std::string_view name;
    std::string_view ns;
    NodeKind kind = NodeKind::unknown;
    std::vector<std::pair<std::string_view, std::size_t>> children;
    std::vector<std::string_view> keys;
    bool state = false;
};

ModelSchema::ModelSchema() : steps_(1)
{
    for (const models::node &row : models::nodes) {
        std::size_t at = 0;
        std::string_view path = row.path;
        while (!path.empty()) {
            path.remove_prefix(1); // the '/'
            std::string_view name = path.substr(0, path.find('/'));
            path.remove_prefix(name.size());
            auto &kids = steps_[at].children;
            auto it = std::find_if(kids.begin(), kids.end(),
                                   [&](const auto &c) { return c.first == name; });
            if (it != kids.end()) {
                at = it->second;
                continue;
            }
            steps_[at].children.emplace_back(name, steps_.size());
            at = steps_.size();
            steps_.push_back(Step{name, {}, NodeKind::unknown, {}, {}, false});
        }
        Step &step = steps_[at];
        step.ns = row.ns;
        step.kind = kind_of(row.kind);
        step.state = row.state;
        step.keys.assign(row.keys, row.keys + row.key_count);
    }
}

ModelSchema::~ModelSchema() = default;

JsonSchema::Node ModelSchema::root() const
{
    return &steps_[0];
}

JsonSchema::Node ModelSchema::child(Node parent, std::string_view, std::string_view name) const
{
    if (parent == nullptr)
        return nullptr;
    for (const auto &[step, index] : static_cast<const Step *>(parent)->children)
        if (step == name)
            return &steps_[index];
    return nullptr;
}

NodeKind ModelSchema::kind(Node node) const
{
    return node != nullptr ? static_cast<const Step *>(node)->kind : NodeKind::unknown;
}

} // namespace octunnel

namespace octunnel {

std::span<const std::string_view> ModelSchema::keys(Node node) const
{
    if (node == nullptr)
        return {};
    return static_cast<const Step *>(node)->keys;
}

std::string_view ModelSchema::ns(Node node) const
{
    return node != nullptr ? static_cast<const Step *>(node)->ns : std::string_view();
}

bool ModelSchema::state(Node node) const
{
    return node != nullptr && static_cast<const Step *>(node)->state;
}

} // namespace octunnel
