// Large blocks of memory for trees, and the one copy of each string a tree
// holds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace yfwhost {

// A block for a tree's nodes or arena.  Blocks of 2 MiB and more are
// mapped on their own and asked to be backed by huge pages, so a tree of a
// router's size is faulted in a few large pages rather than thousands of
// small ones; smaller ones come from malloc.  Throws std::bad_alloc.
void *block_new(std::size_t bytes);
void block_free(void *block, std::size_t bytes);
// The size above which blocks are huge-page sized.
inline constexpr std::size_t huge_block = std::size_t{2} << 20;

// The strings of one tree, each held once: a table with open addressing
// over the copies, which live in the caller's arena.
class StringPool {
public:
    // The copy of `s`, or null.
    const char *find(std::string_view s) const;
    // Records `copy` (a NUL-terminated copy of `s` made by the caller) as
    // the copy of `s`, which must not be in the pool yet.
    void insert(std::string_view s, const char *copy);

private:
    struct Slot {
        const char *text = nullptr;
        uint32_t size = 0;
        uint32_t hash = 0;
    };
    void grow();

    std::vector<Slot> slots_;
    std::size_t used_ = 0;
};

// Texts that the caller keeps, each mapped to the number it came with
// first: a table with open addressing, whose probes stay in one array.
class TextIndex {
public:
    static constexpr uint32_t none = UINT32_MAX;
    uint32_t find(std::string_view text) const;
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
    void grow();

    std::vector<Slot> slots_;
    std::size_t used_ = 0;
};

// The hash of a text, eight bytes at a time: namespaces are long and alike
// but for their ends.
uint32_t hash_text(std::string_view s);

} // namespace yfwhost
