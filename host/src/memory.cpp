#include "memory.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <sys/mman.h>

namespace yfwhost {

void *block_new(std::size_t bytes)
{
    if (bytes < mapped_block) {
        void *p = std::malloc(bytes);
        if (p == nullptr)
            throw std::bad_alloc();
        return p;
    }
    void *p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED)
        throw std::bad_alloc();
    return p;
}

void block_free(void *block, std::size_t bytes)
{
    if (block == nullptr)
        return;
    if (bytes < mapped_block)
        std::free(block);
    else
        munmap(block, bytes);
}

void prefault(void *start, std::size_t bytes)
{
    constexpr std::uintptr_t page = 4096;
    auto from = reinterpret_cast<std::uintptr_t>(start) & ~(page - 1);
    auto to = (reinterpret_cast<std::uintptr_t>(start) + bytes + page - 1) & ~(page - 1);
    // A kernel without MADV_POPULATE_WRITE refuses it: the pages then come
    // one fault at a time, as they would have.
    madvise(reinterpret_cast<void *>(from), to - from, MADV_POPULATE_WRITE);
}

uint32_t hash_text(std::string_view s)
{
    constexpr uint64_t k = 0x9E3779B97F4A7C15ull;
    uint64_t h = s.size() * k;
    std::size_t i = 0;
    for (; i + 8 <= s.size(); i += 8) {
        uint64_t word;
        std::memcpy(&word, s.data() + i, 8);
        h = (h ^ word) * k;
        h ^= h >> 29;
    }
    uint64_t tail = 0;
    if (i < s.size())
        std::memcpy(&tail, s.data() + i, s.size() - i);
    h = (h ^ tail) * k;
    h ^= h >> 32;
    return static_cast<uint32_t>(h);
}

auto TextIndex::slot_of(std::string_view text) const -> const Slot *
{
    text = with_data(text);
    if (slots_.empty())
        return nullptr;
    const uint32_t h = hash_text(text);
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t i = h & mask;; i = (i + 1) & mask) {
        const Slot &slot = slots_[i];
        if (slot.text == nullptr)
            return nullptr;
        if (slot.hash == h && slot.size == text.size() &&
            std::memcmp(slot.text, text.data(), text.size()) == 0)
            return &slot;
    }
}

uint32_t TextIndex::find(std::string_view text) const
{
    const Slot *slot = slot_of(text);
    return slot != nullptr ? slot->value : none;
}

const char *TextIndex::kept(std::string_view text) const
{
    const Slot *slot = slot_of(text);
    return slot != nullptr ? slot->text : nullptr;
}

void TextIndex::insert(std::string_view text, uint32_t value)
{
    text = with_data(text);
    if ((used_ + 1) * 4 > slots_.size() * 3)
        grow();
    const uint32_t h = hash_text(text);
    const std::size_t mask = slots_.size() - 1;
    std::size_t i = h & mask;
    for (; slots_[i].text != nullptr; i = (i + 1) & mask)
        if (slots_[i].hash == h && slots_[i].size == text.size() &&
            std::memcmp(slots_[i].text, text.data(), text.size()) == 0)
            return;
    slots_[i] = Slot{text.data(), static_cast<uint32_t>(text.size()), h, value};
    ++used_;
}

void TextIndex::grow()
{
    std::vector<Slot> old = std::move(slots_);
    slots_.assign(old.empty() ? 16 : old.size() * 2, Slot{});
    const std::size_t mask = slots_.size() - 1;
    for (const Slot &slot : old) {
        if (slot.text == nullptr)
            continue;
        std::size_t i = slot.hash & mask;
        while (slots_[i].text != nullptr)
            i = (i + 1) & mask;
        slots_[i] = slot;
    }
}

} // namespace yfwhost
