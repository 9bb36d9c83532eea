// The tree a request builds, kept compact by the host.
#include "memory.h"
#include "store.h"
#include "yfwhost/host.h"

#include <algorithm>
#include <unordered_map>

namespace yfwhost {
namespace {

// Children looked at one by one before an index is built for them.
constexpr std::size_t few_children = 8;

struct PairHash {
    std::size_t operator()(const std::pair<const char *, const char *> &p) const
    {
        return std::hash<const void *>()(p.first) * 31 + std::hash<const void *>()(p.second);
    }
};

} // namespace

struct Answer::Names {
    std::unordered_map<std::pair<const char *, const char *>, std::unique_ptr<Name>, PairHash>
        by_strings;
};

struct Answer::ListIndex {
    const char *tag;
    const char *key;
    TextIndex first; // by key value, the first entry
    Id last = none;
    Id seen = none; // the last child looked at
    // The entry found last: the paths of one instance come one after the
    // other, and this spares the table, which a large list keeps in memory
    // far from the cache.
    std::string_view hit_key;
    Id hit = none;
};

struct Answer::Indexes {
    // The children of a node by tag: for each namespace, the first child.
    struct ByTag {
        std::unordered_map<const char *, std::vector<std::pair<const char *, Id>>> first;
        Id seen = none;
    };
    std::unordered_map<Id, ByTag> children;
    std::unordered_map<Id, std::vector<ListIndex>> lists;
};

Answer::Answer(std::string_view tag, std::string_view ns)
    : strings_(std::make_unique<Store>()), names_(std::make_unique<Names>()),
      indexes_(std::make_unique<Indexes>())
{
    blocks_.push_back(static_cast<Node *>(block_new(first_block * sizeof(Node))));
    flags_.push_back(0);
    node(root) = Node{name(tag, ns), nullptr, none, none, none, 0};
}

Answer::~Answer()
{
    for (std::size_t i = 0; i < blocks_.size(); ++i)
        block_free(blocks_[i], (i == 0 ? first_block : Id{1} << block_bits) * sizeof(Node));
}

const Answer::Name *Answer::name(std::string_view tag, std::string_view ns)
{
    std::pair<const char *, const char *> key{strings_->intern(tag), strings_->intern(ns)};
    auto &slot = names_->by_strings[key];
    if (slot == nullptr)
        slot = std::make_unique<Name>(
            Name{key.first, key.second, static_cast<uint32_t>(names_->by_strings.size() - 1)});
    return slot.get();
}

Answer::Id Answer::add(Id parent, const Name *name)
{
    const auto id = static_cast<Id>(flags_.size());
    if (id >= first_block && ((id - first_block) & ((Id{1} << block_bits) - 1)) == 0)
        blocks_.push_back(static_cast<Node *>(block_new((Id{1} << block_bits) * sizeof(Node))));
    // A mapped block is faulted in a window at a time as its nodes are used.
    constexpr Id window = prefault_window / sizeof(Node);
    if (id >= first_block && ((id - first_block) % window) == 0)
        prefault(&node(id), prefault_window);
    flags_.push_back(0);
    node(id) = Node{name, nullptr, none, none, none, 0};
    Node &p = node(parent);
    if (p.last == none)
        p.first = id;
    else
        node(p.last).next = id;
    p.last = id;
    return id;
}

// The first child with this tag and a matching namespace.  A node with many
// children gets an index, which catches up with the children added since it
// last looked.
Answer::Id Answer::child(Id parent, const Name *want)
{
    const char *tag = want->tag;
    const char *ns = want->ns;
    if ((flags_[parent] & indexed_flag) == 0) {
        std::size_t looked = 0;
        for (Id c = node(parent).first; c != none; c = node(c).next) {
            ++steps_;
            if (++looked > few_children) {
                flags_[parent] |= indexed_flag;
                break;
            }
            const Name *n = node(c).name;
            if (n == want || (n->tag == tag && ns_match(n->ns, ns)))
                return c;
        }
        if ((flags_[parent] & indexed_flag) == 0)
            return none;
    }
    Indexes::ByTag &index = indexes_->children[parent];
    for (Id c = index.seen == none ? node(parent).first : node(index.seen).next; c != none;
         c = node(c).next) {
        ++steps_;
        const Name *n = node(c).name;
        auto &same = index.first[n->tag];
        if (std::none_of(same.begin(), same.end(), [&](const auto &s) { return s.first == n->ns; }))
            same.emplace_back(n->ns, c);
        index.seen = c;
    }
    auto it = index.first.find(tag);
    if (it == index.first.end())
        return none;
    // Namespaces in the order they first came: the first match is the first child.
    for (const auto &[child_ns, id] : it->second) {
        ++steps_;
        if (ns_match(child_ns, ns))
            return id;
    }
    return none;
}

Answer::Id Answer::find_or_add(Id parent, const Name *name)
{
    Id c = child(parent, name);
    return c != none ? c : add(parent, name);
}

void Answer::set_value(Id id, std::string_view value)
{
    Node &n = node(id);
    if (n.value == nullptr || value != n.value) // a value added again is not copied again
        n.value = strings_->copy(value);
}

void Answer::set_op(Id id, uint32_t op)
{
    node(id).op = op;
    flags_[id] |= has_op_flag;
}

Answer::ListIndex &Answer::list(Id parent, const char *tag, const char *key)
{
    std::vector<ListIndex> &lists = indexes_->lists[parent];
    auto it = std::find_if(lists.begin(), lists.end(),
                           [&](const ListIndex &l) { return l.tag == tag && l.key == key; });
    if (it == lists.end()) {
        lists.push_back(ListIndex{tag, key, {}, none, none, {}, none});
        it = std::prev(lists.end());
    }
    ListIndex &l = *it;
    for (Id e = l.seen == none ? node(parent).first : node(l.seen).next; e != none;
         e = node(e).next) {
        ++steps_;
        l.seen = e;
        if (node(e).name->tag != tag)
            continue;
        l.last = e;
        // The entry's first child of the key's tag names it, if it has a value.
        if (const char *k = key_of(e, key); k != nullptr)
            l.first.insert(k, e);
    }
    return l;
}

Answer::Id Answer::first_entry(Id parent, const Name *entry, const char *key,
                               std::string_view value)
{
    const char *tag = entry->tag;
    if ((flags_[parent] & list_indexed_flag) == 0) {
        std::size_t looked = 0;
        for (Id e = node(parent).first; e != none; e = node(e).next) {
            ++steps_;
            if (++looked > few_children) {
                flags_[parent] |= list_indexed_flag;
                break;
            }
            if (node(e).name->tag != tag)
                continue;
            const char *k = key_of(e, key);
            if (k != nullptr && value == k)
                return e;
        }
        if ((flags_[parent] & list_indexed_flag) == 0)
            return none;
    }
    ListIndex &l = list(parent, tag, key);
    ++steps_;
    if (l.hit != none && value == l.hit_key)
        return l.hit;
    Id found = l.first.find(value);
    if (found != none) {
        l.hit_key = key_of(found, key);
        l.hit = found;
    }
    return found;
}

Answer::Id Answer::last_entry(Id parent, const Name *entry, const char *key)
{
    const char *tag = entry->tag;
    if ((flags_[parent] & list_indexed_flag) == 0) {
        Id last = none;
        std::size_t looked = 0;
        for (Id e = node(parent).first; e != none; e = node(e).next) {
            ++steps_;
            if (++looked > few_children) {
                flags_[parent] |= list_indexed_flag;
                break;
            }
            if (node(e).name->tag == tag)
                last = e;
        }
        if ((flags_[parent] & list_indexed_flag) == 0)
            return last;
    }
    return list(parent, tag, key).last;
}

// The value of an entry's first child tagged `key`, or null.
const char *Answer::key_of(Id entry, const char *key) const
{
    for (Id c = node(entry).first; key != nullptr && c != none; c = node(c).next)
        if (node(c).name->tag == key)
            return node(c).value;
    return nullptr;
}

void Answer::forget_list(Id parent, const char *tag)
{
    auto it = indexes_->lists.find(parent);
    if (it != indexes_->lists.end())
        std::erase_if(it->second, [&](const ListIndex &l) { return l.tag == tag; });
}

} // namespace yfwhost
