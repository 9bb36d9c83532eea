#include "gnmi/telemetry.h"

#include "agent/changes.h"
#include "translate/json_schema.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <unordered_set>
#include <utility>

#include <libyang/libyang.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace octunnel::gnmi_front {
namespace {

// The value of one term node: the type it holds decides, a union's being
// the member type its value matched.
void append_term(rapidjson::Writer<rapidjson::StringBuffer> &w, const lyd_node *node)
{
    const auto *term = reinterpret_cast<const lyd_node_term *>(node);
    const lyd_value *value = &term->value;
    while (value->realtype->basetype == LY_TYPE_UNION && value->subvalue != nullptr)
        value = &value->subvalue->value;
    const char *text = lyd_get_value(node);
    // As the tool's JSON writer types values: 64-bit numbers, decimals and
    // every other type are strings; an identity keeps its module
    // ("iana-if-type:tunnel"), in JSON as in JSON_IETF, as the subtree
    // values of a Get have it.
    switch (kind_of_basetype(value->realtype->basetype)) {
    case ValueKind::number:
        w.RawValue(text, std::strlen(text), rapidjson::kNumberType);
        return;
    case ValueKind::boolean:
        w.Bool(std::strcmp(text, "true") == 0);
        return;
    case ValueKind::empty:
        w.StartArray();
        w.Null();
        w.EndArray();
        return;
    case ValueKind::string:
        w.String(text);
        return;
    }
}

// Whether `n` is the first of its siblings with its schema node: a
// leaf-list's values are siblings next to one another, and the list is
// told once, at its first.
bool first_of_run(const lyd_node *n)
{
    return n->prev->next == nullptr || n->prev->schema != n->schema;
}

bool is_leaf_list(const lyd_node *n)
{
    return n->schema != nullptr && n->schema->nodetype == LYS_LEAFLIST;
}

bool is_term(const lyd_node *n)
{
    return n->schema != nullptr && (n->schema->nodetype & (LYS_LEAF | LYS_LEAFLIST));
}

// What a repeated field's element costs beyond its own bytes: its tag and
// length, at most this much for the sizes a Notification holds.
constexpr std::size_t framing = 4;

} // namespace

std::string leaf_json(const lyd_node *node)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> w(buffer);
    if (is_leaf_list(node)) {
        const lyd_node *first = node;
        while (!first_of_run(first))
            first = first->prev;
        w.StartArray();
        for (const lyd_node *v = first; v != nullptr && v->schema == node->schema; v = v->next)
            append_term(w, v);
        w.EndArray();
    } else {
        append_term(w, node);
    }
    return {buffer.GetString(), buffer.GetSize()};
}

gnmi::Notification &Batch::current()
{
    if (done_.empty() || bytes_ >= max_bytes) {
        gnmi::Notification *n = done_.emplace_back().mutable_update();
        n->set_timestamp(timestamp_);
        if (!target_.empty())
            n->mutable_prefix()->set_target(target_);
        bytes_ = 0;
    }
    return *done_.back().mutable_update();
}

void Batch::update(const lyd_node *leaf)
{
    gnmi::Update *u = current().add_update();
    *u->mutable_path() = path_of(leaf);
    if (json_ == Json::ietf)
        u->mutable_val()->set_json_ietf_val(leaf_json(leaf));
    else
        u->mutable_val()->set_json_val(leaf_json(leaf));
    bytes_ += u->ByteSizeLong() + framing;
    ++count_;
}

void Batch::remove(const lyd_node *node)
{
    gnmi::Path *p = current().add_delete_();
    *p = path_of(node);
    bytes_ += p->ByteSizeLong() + framing;
    ++count_;
}

std::vector<gnmi::SubscribeResponse> Batch::take()
{
    bytes_ = 0;
    return std::exchange(done_, {});
}

std::vector<const lyd_node *> outermost(const std::vector<lyd_node *> &roots)
{
    const std::unordered_set<const lyd_node *> all(roots.begin(), roots.end());
    std::vector<const lyd_node *> out;
    for (const lyd_node *r : roots) {
        bool held = false;
        for (const lyd_node *p = lyd_parent(r); p != nullptr && !held; p = lyd_parent(p))
            held = all.count(p) != 0;
        if (!held)
            out.push_back(r);
    }
    return out;
}

void all_leaves(const std::vector<const lyd_node *> &roots, Batch &batch)
{
    // A path to a leaf-list selects each of its values: the list is told
    // once all the same.
    std::set<std::pair<const lyd_node *, const lysc_node *>> lists;
    for (const lyd_node *root : roots) {
        if (is_term(root)) {
            if (!is_leaf_list(root) || lists.insert({lyd_parent(root), root->schema}).second)
                batch.update(root);
            continue;
        }
        lyd_node *elem = nullptr;
        LYD_TREE_DFS_BEGIN(const_cast<lyd_node *>(root), elem)
        {
            if (is_term(elem) && (!is_leaf_list(elem) || first_of_run(elem)))
                batch.update(elem);
            LYD_TREE_DFS_END(const_cast<lyd_node *>(root), elem);
        }
    }
}

void changes(const lyd_node *before, const std::vector<const lyd_node *> &roots_before,
             const lyd_node *after, const std::vector<const lyd_node *> &roots_after, Batch &batch,
             bool updates)
{
    // The subscribed nodes of each tree, and the nodes above them, which
    // the walk goes through to reach them; it goes nowhere else.
    const std::unordered_set<const lyd_node *> in_before(roots_before.begin(), roots_before.end());
    const std::unordered_set<const lyd_node *> in_after(roots_after.begin(), roots_after.end());
    std::unordered_set<const lyd_node *> above_before, above_after;
    for (const lyd_node *r : roots_before)
        for (const lyd_node *p = lyd_parent(r); p != nullptr && above_before.insert(p).second;
             p = lyd_parent(p)) {
        }
    for (const lyd_node *r : roots_after)
        for (const lyd_node *p = lyd_parent(r); p != nullptr && above_after.insert(p).second;
             p = lyd_parent(p)) {
        }

    // A node of either tree with its counterpart in the other, if any.
    // `siblings_after`: the first of the after-tree's siblings where the
    // node stands (a leaf-list's values are looked up there), null when
    // that parent is gone.
    struct Frame {
        const lyd_node *before, *after;
        const lyd_node *siblings_after;
        bool inside; // under a subscribed node
    };
    std::vector<Frame> stack;
    // Each gets its counterpart by hash; the after-tree's nodes are
    // pushed last, so that they come out first, in document order.
    const auto pair = [&stack](const lyd_node *first_before, const lyd_node *first_after,
                               bool inside) {
        for (const lyd_node *b = first_before; b != nullptr; b = b->next)
            if (serve::counterpart(first_after, b) == nullptr)
                stack.push_back({b, nullptr, first_after, inside});
        const std::size_t from = stack.size();
        for (const lyd_node *a = first_after; a != nullptr; a = a->next)
            stack.push_back({serve::counterpart(first_before, a), a, first_after, inside});
        std::reverse(stack.begin() + static_cast<std::ptrdiff_t>(from), stack.end());
    };
    // Leaf-lists told, by where they stand and their schema node.
    std::set<std::pair<const void *, const lysc_node *>> lists;

    pair(before, after, false);
    while (!stack.empty()) {
        const Frame f = stack.back();
        stack.pop_back();
        const bool inside = f.inside || (f.after != nullptr && in_after.count(f.after) != 0) ||
                            (f.before != nullptr && in_before.count(f.before) != 0);
        if (!inside && !(f.after != nullptr && above_after.count(f.after) != 0) &&
            !(f.before != nullptr && above_before.count(f.before) != 0))
            continue;
        const lyd_node *some = f.after != nullptr ? f.after : f.before;
        if (is_leaf_list(some)) {
            // A value came or went (one found in both is the same value):
            // the list as it stands now, or its delete once none is left.
            if (!inside || (f.after != nullptr && f.before != nullptr))
                continue;
            const void *where = f.siblings_after != nullptr
                                    ? static_cast<const void *>(f.siblings_after)
                                    : static_cast<const void *>(lyd_parent(f.before));
            if (!lists.insert({where, some->schema}).second)
                continue;
            lyd_node *first = nullptr;
            if (f.siblings_after != nullptr)
                lyd_find_sibling_val(f.siblings_after, some->schema, nullptr, 0, &first);
            if (first == nullptr)
                batch.remove(f.before);
            else if (updates)
                batch.update(first);
            continue;
        }
        if (is_term(some)) {
            if (!inside)
                continue;
            if (f.after == nullptr)
                batch.remove(f.before);
            else if (updates && (f.before == nullptr ||
                                 std::strcmp(lyd_get_value(f.after), lyd_get_value(f.before)) != 0))
                batch.update(f.after);
            continue;
        }
        if (f.after != nullptr && f.before != nullptr) {
            pair(lyd_child(f.before), lyd_child(f.after), inside);
        } else if (f.after != nullptr) {
            if (inside && updates)
                all_leaves({f.after}, batch);
            else if (inside)
                continue;
            else
                pair(nullptr, lyd_child(f.after), false);
        } else if (inside) {
            batch.remove(f.before);
        } else {
            pair(lyd_child(f.before), nullptr, false);
        }
    }
}

} // namespace octunnel::gnmi_front
