// Where the nodes and strings of one tree live.
//
// A tree of the host is built in one Store: child arrays and values are
// carved out of an arena and all go at once when the tree does; each tag and
// namespace is held once and shared by every node that bears it, so that two
// tags of one tree are equal exactly when their pointers are; and a node
// with many children gets an index beside it, so that a child is found by
// tag without a scan of its siblings.
//
// Indexes are keyed by the address of the child array they describe, as the
// node records themselves move when the array around them grows.  They are
// built the first time they are asked for and catch up with children
// appended since, so appending a child costs nothing; the host re-keys them
// when it moves an array (moved()).
#pragma once

#include "memory.h"
#include "octunnel/yfw_types.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace yfwhost {

class Store {
public:
    Store() = default;
    ~Store();
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    // The one copy of `s` in this tree, made on first use.
    char *intern(std::string_view s);
    // The copy of `s` if some node of this tree bears it, else null.
    const char *interned(std::string_view s) const;
    // A NUL-terminated copy of a value.
    char *copy(std::string_view s);

    // An array for `count` nodes with room to grow; `capacity` receives its
    // room.  Its records are not initialised.
    vidl_yfw_datatree *nodes(uint32_t count, uint32_t &capacity);
    // An array of exactly `count` nodes, for a tree built whole.
    vidl_yfw_datatree *exact_nodes(uint32_t count);
    // Gives back an array that nodes() handed out.
    void release(vidl_yfw_datatree *array, uint32_t capacity);

    // The array at `from` now lives at `to`: its indexes follow it.
    void moved(const vidl_yfw_datatree *from, const vidl_yfw_datatree *to);

    // The first of the `count` children in `array` with tag `tag` (an
    // interned pointer of this store) whose namespace the framework matches
    // with `ns`, or null.
    vidl_yfw_datatree *child(vidl_yfw_datatree *array, uint32_t count, const char *tag,
                             const char *ns);
    // The first of them with tag `tag`, whatever its namespace.
    vidl_yfw_datatree *first_child(vidl_yfw_datatree *array, uint32_t count, const char *tag);

    // Work done by the indexes and scans, for tests that hold the cost of a
    // lookup to what it must be.
    std::size_t steps() const { return steps_; }

private:
    static constexpr uint32_t small_array = 8; // scanned without an index

    struct ByTag {
        const char *ns;
        uint32_t first;
    };
    struct ArrayIndex {
        std::unordered_map<const char *, std::vector<ByTag>> by_tag;
        uint32_t seen = 0; // children [0, seen) are in the index
    };

    void *raw(std::size_t bytes, std::size_t align);
    ArrayIndex &index_of(vidl_yfw_datatree *array, uint32_t count);

    struct Chunk {
        Chunk *next;
        std::size_t size;
    };
    Chunk *chunks_ = nullptr;
    char *free_ = nullptr;
    std::size_t left_ = 0;
    char *faulted_ = nullptr; // the end of what of the chunk is present
    std::size_t next_chunk_ = 4096;
    std::vector<void *> free_arrays_; // by size class: a list linked through the arrays
    std::unordered_map<void *, std::size_t> big_arrays_; // arrays of their own, by size
    StringPool strings_;
    // The copy found last for a few addresses: a string asked for again at
    // the same address (a constant of the module, a copy of this store) is
    // found without hashing, once its text is seen to be the same.
    struct Recent {
        const char *from = nullptr;
        std::size_t size = 0;
        const char *copy = nullptr;
    };
    mutable std::array<Recent, 64> recent_{};
    const char *recent(std::string_view s) const;
    void remember(std::string_view s, const char *copy) const;
    std::unordered_map<const vidl_yfw_datatree *, ArrayIndex> indexes_;
    std::size_t steps_ = 0;
};

} // namespace yfwhost
