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
constexpr std::size_t largest_chunk = std::size_t{4} << 20;

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

} // namespace

Store::~Store()
{
    for (Chunk *c = chunks_; c != nullptr;) {
        Chunk *next = c->next;
        block_free(c, c->size);
        c = next;
    }
    for (auto [p, size] : big_arrays_)
        block_free(p, size);
}

void *Store::raw(std::size_t bytes, std::size_t align)
{
    std::size_t pad = (align - reinterpret_cast<std::uintptr_t>(free_) % align) % align;
    if (free_ == nullptr || pad + bytes > left_) {
        std::size_t size = std::max(next_chunk_, bytes + sizeof(Chunk) + align);
        // A tree that outgrows its first pieces is likely large: the third
        // chunk is of the largest size, and mapped.
        next_chunk_ = std::min(next_chunk_ * 16, largest_chunk);
        auto *chunk = static_cast<Chunk *>(block_new(size));
        chunk->next = chunks_;
        chunk->size = size;
        chunks_ = chunk;
        free_ = reinterpret_cast<char *>(chunk + 1);
        left_ = size - sizeof(Chunk);
        // What malloc gave is the heap's; a mapped chunk is faulted in as it
        // fills.
        faulted_ = size < mapped_block ? free_ + left_ : free_;
        pad = (align - reinterpret_cast<std::uintptr_t>(free_) % align) % align;
    }
    char *p = free_ + pad;
    free_ = p + bytes;
    left_ -= pad + bytes;
    if (free_ > faulted_) {
        std::size_t ahead = std::min<std::size_t>(
            std::max<std::size_t>(prefault_window, static_cast<std::size_t>(free_ - faulted_)),
            static_cast<std::size_t>(free_ + left_ - faulted_));
        prefault(faulted_, ahead);
        faulted_ += ahead;
    }
    return p;
}

const char *Store::recent(std::string_view s) const
{
    const Recent &r = recent_[(reinterpret_cast<std::uintptr_t>(s.data()) >> 3) % recent_.size()];
    if (r.from != s.data() || r.size != s.size() || r.copy == nullptr)
        return nullptr;
    if (r.copy == s.data() || std::memcmp(r.copy, s.data(), s.size()) == 0)
        return r.copy;
    return nullptr;
}

void Store::remember(std::string_view s, const char *copy) const
{
    recent_[(reinterpret_cast<std::uintptr_t>(s.data()) >> 3) % recent_.size()] =
        Recent{s.data(), s.size(), copy};
}

char *Store::intern(std::string_view s)
{
    s = with_data(s);
    const char *known = recent(s);
    if (known == nullptr) {
        known = strings_.find(s);
        if (known == nullptr) {
            char *p = copy(s);
            strings_.insert(s, p);
            known = p;
        }
        remember(s, known);
    }
    return const_cast<char *>(known);
}

const char *Store::interned(std::string_view s) const
{
    s = with_data(s);
    const char *known = recent(s);
    if (known == nullptr) {
        known = strings_.find(s);
        if (known != nullptr)
            remember(s, known);
    }
    return known;
}

char *Store::copy(std::string_view s)
{
    s = with_data(s);
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
        void *p = block_new(bytes);
        big_arrays_.emplace(p, bytes);
        if (bytes >= mapped_block) // what the grown array takes over is written at once
            prefault(p, std::size_t{count} * node_size);
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
        void *p = block_new(bytes);
        big_arrays_.emplace(p, bytes);
        if (bytes >= mapped_block) // written whole at once
            prefault(p, bytes);
        return static_cast<vidl_yfw_datatree *>(p);
    }
    return static_cast<vidl_yfw_datatree *>(raw(bytes, alignof(vidl_yfw_datatree)));
}

void Store::release(vidl_yfw_datatree *array, uint32_t capacity)
{
    if (array == nullptr || capacity == 0)
        return;
    if (auto it = big_arrays_.find(array); it != big_arrays_.end()) {
        block_free(it->first, it->second);
        big_arrays_.erase(it);
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
    if (indexes_.empty())
        return;
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

} // namespace yfwhost
