#include "store.h"

#include "yfwhost/host.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace yfwhost {
namespace {

constexpr std::size_t node_size = sizeof(vidl_yfw_datatree);
// Arrays this large get a block of their own, given back to the system when
// they grow, rather than a place in the arena.
constexpr std::size_t big_array_bytes = 32 * 1024;
constexpr std::size_t largest_chunk = 1 << 20;

// Array sizes grow by half: 1, 2, 3, 4, 6, 8, 12, 16, 24, ...  Class k has
// room for class_room(k) nodes.
uint32_t class_room(uint32_t k)
{
    if (k < 2)
        return k + 1;
    uint32_t m = (k - 2) / 2;
    return ((k % 2 == 0) ? 3u : 4u) << m;
}

uint32_t class_of(uint32_t count)
{
    uint32_t k = 0;
    while (class_room(k) < count)
        ++k;
    return k;
}

void *checked(void *p)
{
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

} // namespace

Store::~Store()
{
    for (Chunk *c = chunks_; c != nullptr;) {
        Chunk *next = c->next;
        std::free(c);
        c = next;
    }
    for (void *p : big_arrays_)
        std::free(p);
}

void *Store::raw(std::size_t bytes, std::size_t align)
{
    std::size_t pad = (align - reinterpret_cast<std::uintptr_t>(free_) % align) % align;
    if (free_ == nullptr || pad + bytes > left_) {
        std::size_t size = std::max(next_chunk_, bytes + sizeof(Chunk) + align);
        next_chunk_ = std::min(next_chunk_ * 2, largest_chunk);
        auto *chunk = static_cast<Chunk *>(checked(std::malloc(size)));
        chunk->next = chunks_;
        chunks_ = chunk;
        free_ = reinterpret_cast<char *>(chunk + 1);
        left_ = size - sizeof(Chunk);
        pad = (align - reinterpret_cast<std::uintptr_t>(free_) % align) % align;
    }
    char *p = free_ + pad;
    free_ = p + bytes;
    left_ -= pad + bytes;
    return p;
}

char *Store::intern(std::string_view s)
{
    if (auto it = strings_.find(s); it != strings_.end())
        return const_cast<char *>(it->data());
    char *p = copy(s);
    strings_.insert(std::string_view(p, s.size()));
    return p;
}

const char *Store::interned(std::string_view s) const
{
    auto it = strings_.find(s);
    return it != strings_.end() ? it->data() : nullptr;
}

char *Store::copy(std::string_view s)
{
    auto *p = static_cast<char *>(raw(s.size() + 1, 1));
    std::memcpy(p, s.data(), s.size());
    p[s.size()] = '\0';
    return p;
}

vidl_yfw_datatree *Store::nodes(uint32_t count, uint32_t &capacity)
{
    uint32_t k = class_of(std::max<uint32_t>(count, 1));
    capacity = class_room(k);
    std::size_t bytes = std::size_t{capacity} * node_size;
    if (bytes >= big_array_bytes) {
        void *p = checked(std::malloc(bytes));
        big_arrays_.insert(p);
        return static_cast<vidl_yfw_datatree *>(p);
    }
    if (k < free_arrays_.size() && free_arrays_[k] != nullptr) {
        void *p = free_arrays_[k];
        std::memcpy(&free_arrays_[k], p, sizeof(void *));
        return static_cast<vidl_yfw_datatree *>(p);
    }
    return static_cast<vidl_yfw_datatree *>(raw(bytes, alignof(vidl_yfw_datatree)));
}

vidl_yfw_datatree *Store::exact_nodes(uint32_t count)
{
    std::size_t bytes = std::size_t{count} * node_size;
    if (bytes >= big_array_bytes) {
        void *p = checked(std::malloc(bytes));
        big_arrays_.insert(p);
        return static_cast<vidl_yfw_datatree *>(p);
    }
    return static_cast<vidl_yfw_datatree *>(raw(bytes, alignof(vidl_yfw_datatree)));
}

void Store::release(vidl_yfw_datatree *array, uint32_t capacity)
{
    if (array == nullptr || capacity == 0)
        return;
    if (auto it = big_arrays_.find(array); it != big_arrays_.end()) {
        big_arrays_.erase(it);
        std::free(array);
        return;
    }
    uint32_t k = class_of(capacity);
    if (class_room(k) != capacity)
        return; // an exact array: its place stays with the arena
    if (free_arrays_.size() <= k)
        free_arrays_.resize(k + 1, nullptr);
    std::memcpy(array, &free_arrays_[k], sizeof(void *));
    free_arrays_[k] = array;
}

void Store::moved(const vidl_yfw_datatree *from, const vidl_yfw_datatree *to)
{
    auto node = indexes_.extract(from);
    if (node.empty())
        return;
    node.key() = to;
    indexes_.insert(std::move(node));
}

// The index of `array`, caught up with its `count` children.
Store::ArrayIndex &Store::index_of(vidl_yfw_datatree *array, uint32_t count)
{
    ArrayIndex &index = indexes_[array];
    for (; index.seen < count; ++index.seen) {
        ++steps_;
        const vidl_yfw_datatree &c = array[index.seen];
        std::vector<ByTag> &same = index.by_tag[c.tag];
        if (std::none_of(same.begin(), same.end(), [&](const ByTag &b) { return b.ns == c.ns; }))
            same.push_back({c.ns, index.seen});
    }
    return index;
}

vidl_yfw_datatree *Store::child(vidl_yfw_datatree *array, uint32_t count, const char *tag,
                                const char *ns)
{
    if (tag == nullptr || array == nullptr)
        return nullptr;
    if (count <= small_array) {
        for (uint32_t i = 0; i < count; ++i) {
            ++steps_;
            if (array[i].tag == tag && ns_match(array[i].ns, ns))
                return &array[i];
        }
        return nullptr;
    }
    ArrayIndex &index = index_of(array, count);
    auto it = index.by_tag.find(tag);
    if (it == index.by_tag.end())
        return nullptr;
    // Namespaces in the order they first came, so the first match is the
    // first child.
    for (const ByTag &b : it->second) {
        ++steps_;
        if (ns_match(b.ns, ns))
            return &array[b.first];
    }
    return nullptr;
}

vidl_yfw_datatree *Store::first_child(vidl_yfw_datatree *array, uint32_t count, const char *tag)
{
    if (tag == nullptr || array == nullptr)
        return nullptr;
    ArrayIndex &index = index_of(array, count);
    auto it = index.by_tag.find(tag);
    return it != index.by_tag.end() ? &array[it->second.front().first] : nullptr;
}

Store::ListIndex &Store::list_index(vidl_yfw_datatree *array, uint32_t count, const char *tag,
                                    const char *key)
{
    ArrayIndex &index = indexes_[array];
    auto it = std::find_if(index.lists.begin(), index.lists.end(),
                           [&](const ListIndex &l) { return l.tag == tag && l.key == key; });
    if (it == index.lists.end()) {
        index.lists.push_back(ListIndex{tag, key, {}, UINT32_MAX, 0});
        it = std::prev(index.lists.end());
    }
    ListIndex &list = *it;
    for (; list.seen < count; ++list.seen) {
        ++steps_;
        vidl_yfw_datatree &entry = array[list.seen];
        if (entry.tag != tag)
            continue;
        list.last = list.seen;
        if (key == nullptr)
            continue; // no node of this tree bears the key's tag yet
        // The entry's first child of the key's tag names it, if it has a value.
        std::size_t n = tree_child_count(&entry);
        for (std::size_t i = 0; i < n; ++i) {
            const vidl_yfw_datatree &c = entry.subtrees[i];
            if (c.tag != key)
                continue;
            if ((c.present & YFW_PRESENT_VALUE) != 0 && c.value != nullptr)
                list.first.emplace(std::string_view(c.value), list.seen);
            break;
        }
    }
    return list;
}

vidl_yfw_datatree *Store::first_entry(vidl_yfw_datatree *array, uint32_t count, const char *tag,
                                      const char *key, std::string_view value)
{
    if (tag == nullptr || key == nullptr || array == nullptr)
        return nullptr;
    ListIndex &list = list_index(array, count, tag, key);
    ++steps_;
    auto it = list.first.find(value);
    return it != list.first.end() ? &array[it->second] : nullptr;
}

vidl_yfw_datatree *Store::last_entry(vidl_yfw_datatree *array, uint32_t count, const char *tag,
                                     const char *key)
{
    if (tag == nullptr || array == nullptr)
        return nullptr;
    ListIndex &list = list_index(array, count, tag, key);
    return list.last != UINT32_MAX ? &array[list.last] : nullptr;
}

void Store::forget_list(const vidl_yfw_datatree *array, const char *tag)
{
    auto it = indexes_.find(array);
    if (it == indexes_.end())
        return;
    std::erase_if(it->second.lists, [&](const ListIndex &l) { return l.tag == tag; });
}

} // namespace yfwhost
