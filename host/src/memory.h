// Large blocks of memory for trees, and the one copy of each string a tree
// holds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace yfwhost {

// A block for a tree's nodes or arena.  Blocks of `mapped_block` and more
// are mapped on their own, so that their pages are given back whole when
// the tree goes; smaller ones come from malloc.  Throws std::bad_alloc.
void *block_new(std::size_t bytes);
void block_free(void *block, std::size_t bytes);
inline constexpr std::size_t mapped_block = std::size_t{256} << 10;

// Makes the pages of a range of a mapped block present, in one call: a
// tree of a router's size fills thousands of pages in order, and a fault
// for each, on a virtual machine, costs more than filling it.  Only what is
// about to be written is asked for, so nothing unused becomes resident.
void prefault(void *start, std::size_t bytes);
// How far ahead of its writing an arena or a block of nodes asks.
inline constexpr std::size_t prefault_window = std::size_t{256} << 10;

// Texts that the caller keeps, each mapped to the number it came with
// first: a table with open addressing, whose probes stay in one array.
class TextIndex {
public:
    static constexpr uint32_t none = UINT32_MAX;
    uint32_t find(std::string_view text) const;
    // The kept text equal to `text`, or null.
    const char *kept(std::string_view text) const;
    // Maps `text` (which the caller keeps alive) to `value` unless it is
    // mapped already.
    void insert(std::string_view text, uint32_t value);
    std::size_t size() const { return used_; }

private:
    struct Slot {
        const char *text = nullptr;
        uint32_t size = 0;
        uint32_t hash = 0;
        uint32_t value = 0;
    };
    const Slot *slot_of(std::string_view text) const;
    void grow();

    std::vector<Slot> slots_;
    std::size_t used_ = 0;
};

// The strings of one tree, each held once: an index of the copies, which
// live in the caller's arena.
class StringPool {
public:
    // The copy of `s`, or null.
    const char *find(std::string_view s) const { return copies_.kept(s); }
    // Records `copy` (a NUL-terminated copy of `s` made by the caller) as
    // the copy of `s`, which must not be in the pool yet.
    void insert(std::string_view s, const char *copy) { copies_.insert({copy, s.size()}, 0); }

private:
    TextIndex copies_;
};

// `s`, with data even when empty: the tables below take a null pointer for
// an empty slot, and the C library's string functions take none at all.
inline std::string_view with_data(std::string_view s)
{
    return s.data() != nullptr ? s : std::string_view("", 0);
}

// The hash of a text, eight bytes at a time: namespaces are long and alike
// but for their ends.
uint32_t hash_text(std::string_view s);

} // namespace yfwhost
