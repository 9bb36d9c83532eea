#include "agent/filter.h"

#include "netconf/monitor.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <unordered_map>

namespace octunnel::serve {
namespace {

std::atomic<uint64_t> passes{0};

enum class Role { containment, content, selection };

Role role(const Node &f)
{
    if (f.child_count() > 0)
        return Role::containment;
    return f.has_value() ? Role::content : Role::selection;
}

bool same_name(const Node &f, const Node &d)
{
    return std::string_view(f.tag()) == d.tag() &&
           (*f.ns() == '\0' || std::string_view(f.ns()) == d.ns());
}

// Whether a containment or content-match element names one list entry by
// all its keys, so that the entry is found through the parent's index.
bool keyed(const Node &f)
{
    if (f.kind() != NodeKind::list || *f.ns() == '\0')
        return false;
    auto keys = models().keys(f.place());
    if (keys.empty())
        return false;
    for (std::string_view key : keys) {
        const Node *k = f.child(key);
        if (k == nullptr || !k->has_value() || k->child_count() > 0)
            return false;
    }
    return true;
}

void mark(const Node &d, Selection &s, uint8_t level)
{
    if (d.mark_pass != s.pass) {
        d.mark_pass = s.pass;
        d.mark = level;
        s.marked[d.parent()].push_back(&d);
    } else if (d.mark < level) {
        d.mark = level;
    }
}

// The keys of a list entry: as the models give them, and for the lists of
// the server's own state (NETCONF monitoring, event streams), which the
// models do not describe, as their modules do.
std::span<const std::string_view> keys_of(const Node &d)
{
    if (d.place() != nullptr)
        return models().keys(d.place());
    static constexpr std::string_view session[] = {"session-id"};
    static constexpr std::string_view datastore[] = {"name"};
    static constexpr std::string_view schema[] = {"identifier", "version", "format"};
    static constexpr std::string_view stream[] = {"name"};
    if (std::string_view(d.ns()) == "urn:ietf:params:xml:ns:netmod:notification" &&
        std::string_view(d.tag()) == "stream")
        return stream;
    if (d.ns() != monitoring_ns)
        return {};
    const std::string_view tag = d.tag();
    if (tag == "session")
        return session;
    if (tag == "datastore")
        return datastore;
    if (tag == "schema")
        return schema;
    return {};
}

// A list entry in an answer holds its keys, whatever the filter selected
// in it: data has no entry without them.  An entry of a list without keys
// (the router's operational lists of addresses) is known by what it holds:
// it keeps its leaves, so that whoever reads the answer can still tell
// which entry the part selected is of.
void mark_partly(const Node &d, Selection &s)
{
    mark(d, s, 1);
    const std::span<const std::string_view> keys = keys_of(d);
    if (keys.empty() && d.kind() == NodeKind::list) {
        for (const std::unique_ptr<Node> &c : d.slots())
            if (c != nullptr && c->child_count() == 0)
                mark(*c, s, 2);
        return;
    }
    for (std::string_view key : keys)
        if (const Node *k = d.child(key); k != nullptr)
            mark(*k, s, 2);
}

// The children of a data node by tag, gathered for a node with many the
// first time a filter element names them other than by all the keys of an
// entry: an entry named by its keys is found through the node's index.
class Children {
public:
    void reset(const Node &d)
    {
        d_ = &d;
        by_tag_.clear();
        gathered_ = false;
    }

    // Calls `each` with every child that `f` names, in order.
    template <typename F> void named(const Node &f, F &&each) const
    {
        if (keyed(f)) {
            if (const Node *k = d_->find(f.identity()); k != nullptr)
                each(*k);
            return;
        }
        if (d_->child_count() <= 8) {
            for (const auto &k : d_->slots())
                if (k && same_name(f, *k))
                    each(*k);
            return;
        }
        if (!gathered_) {
            for (const auto &k : d_->slots())
                if (k)
                    by_tag_[k->tag()].push_back(k.get());
            gathered_ = true;
        }
        auto it = by_tag_.find(f.tag());
        if (it == by_tag_.end())
            return;
        for (const Node *k : it->second)
            if (same_name(f, *k))
                each(*k);
    }

private:
    const Node *d_ = nullptr;
    // Gathered on the first lookup that needs them: a lookup is logically
    // const.
    mutable bool gathered_ = false;
    mutable std::unordered_map<std::string_view, std::vector<const Node *>> by_tag_;
};

// One data node under evaluation against the children of one filter node.
struct Frame {
    const Node *f = nullptr;
    const Node *d = nullptr;
    Children children;
    // Containment elements and the data nodes they stand in, still to go.
    std::vector<std::pair<const Node *, const Node *>> pending;
    std::size_t next = 0;
    bool any = false; // something below d is selected
};

class Evaluation {
public:
    explicit Evaluation(Selection &selection) : s_(selection) {}

    // Whether the children of `f` select anything in `d`; marks it.
    bool run(const Node &f, const Node &d)
    {
        depth_ = 0;
        bool result = false;
        if (!begin(push(f, d), result))
            return result;
        while (depth_ > 0) {
            Frame &top = frames_[depth_ - 1];
            if (top.next < top.pending.size()) {
                auto [cf, cd] = top.pending[top.next++];
                bool selected = false;
                if (begin(push(*cf, *cd), selected))
                    continue;
                top.any = top.any || selected;
                continue;
            }
            // Every containment element of this level is done.
            const bool selected = top.any;
            if (selected)
                mark_partly(*top.d, s_);
            --depth_;
            if (depth_ == 0)
                return selected;
            Frame &parent = frames_[depth_ - 1];
            parent.any = parent.any || selected;
        }
        return result;
    }

private:
    Frame &push(const Node &f, const Node &d)
    {
        if (frames_.size() == depth_)
            frames_.emplace_back();
        Frame &fr = frames_[depth_++];
        fr.f = &f;
        fr.d = &d;
        fr.pending.clear();
        fr.next = 0;
        fr.any = false;
        fr.children.reset(d);
        return fr;
    }

    // Evaluates what can be told at once: the content matches, then the
    // selections.  Returns true when containment elements remain, the frame
    // staying on the stack; otherwise pops it with `selected` set.
    bool begin(Frame &fr, bool &selected)
    {
        const Node &d = *fr.d;
        bool others = false;
        for (const auto &slot : fr.f->slots()) {
            if (!slot)
                continue;
            const Node &c = *slot;
            if (role(c) != Role::content) {
                others = true;
                continue;
            }
            bool found = false;
            fr.children.named(c, [&](const Node &k) {
                found = found || (k.has_value() && k.value() == c.value());
            });
            if (!found) {
                --depth_;
                selected = false;
                return false;
            }
        }
        if (!others) {
            // Content matches alone: the node with all it holds.
            mark(d, s_, 2);
            --depth_;
            selected = true;
            return false;
        }
        for (const auto &slot : fr.f->slots()) {
            if (!slot)
                continue;
            const Node &c = *slot;
            switch (role(c)) {
            case Role::content:
                // Kept with the node, but they do not select it: it needs
                // something of its selections or containments.
                fr.children.named(c, [&](const Node &k) {
                    if (k.has_value() && k.value() == c.value())
                        mark(k, s_, 2);
                });
                break;
            case Role::selection:
                fr.children.named(c, [&](const Node &k) {
                    mark(k, s_, 2);
                    fr.any = true;
                });
                break;
            case Role::containment:
                fr.children.named(c, [&](const Node &k) { fr.pending.emplace_back(&c, &k); });
                break;
            }
        }
        if (!fr.pending.empty())
            return true;
        selected = fr.any;
        if (selected)
            mark_partly(d, s_);
        --depth_;
        return false;
    }

    Selection &s_;
    std::deque<Frame> frames_; // frames stay where they are as it grows
    std::size_t depth_ = 0;
};

} // namespace

Selection select(const Node &filter, std::span<const Node *const> data)
{
    Selection selection;
    selection.pass = ++passes;
    Evaluation evaluation(selection);
    for (const Node *holder : data)
        if (filter.child_count() > 0)
            evaluation.run(filter, *holder);
    // In the order of the data, as they are written.
    for (auto &[parent, kids] : selection.marked)
        std::sort(kids.begin(), kids.end(),
                  [](const Node *a, const Node *b) { return a->slot() < b->slot(); });
    return selection;
}

} // namespace octunnel::serve
