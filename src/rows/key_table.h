// Keys to codes.
#pragma once

#include "rows/gdk_vector.h"
#include "rows/huge_pages.h"
#include "rows/isa.h"
#include "rows/keys.h"
#include "rows/row_blocks.h"
#include "vask/kernel/bat.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace vask {

//! Gives each different key a code: 0, 1, 2, ... in the order in which they come. Open addressing
//! with linear probing. At most half of the slots are in use, and an eighth after growing: a second
//! probe is a branch that the processor cannot foresee. Memory comes from the kernel; throws like
//! gdk_vector. One thread at a time.
template <class Kind>
class key_table {
public:
    using key_type = typename Kind::key_type;

    //! `used_bits`: leading bits of the hashes that are the same for all keys. `foreseen`: how many
    //! keys there is room for at once.
    explicit key_table(Kind kind = {}, unsigned used_bits = 0, std::size_t foreseen = 0)
        : kind_(kind), used_bits_(used_bits) {
        resize(std::bit_ceil(std::max(2 * foreseen, first_slots)));
    }

    //! Keys that it holds, which is one more than the greatest code.
    std::uint32_t size() const noexcept { return size_; }

    //! Forgets all keys, at once, and keeps the memory: slots of codes below the base are free.
    void clear() {
        base_ += size_;
        size_ = 0;
        if (base_ > most_base) {
            std::fill_n(slots_.get(), slot_count_, slot{});
            base_ = 1;
        }
    }

    //! Of a key that is not there.
    static constexpr std::uint32_t no_code = 0xffffffff;

    //! The code of a key, or no_code.
    VASK_ALWAYS_INLINE std::uint32_t find(const key_type &key) const noexcept {
        const slot *at = slot_for(key, kind_.hash(key));
        return at->code < base_ ? no_code : at->code - base_;
    }

    //! Asks for the memory in which a look for the key will begin.
    VASK_ALWAYS_INLINE void prefetch(const key_type &key) const noexcept {
        __builtin_prefetch(slots_.get() + slot_of(kind_.hash(key), used_bits_, shift_));
    }

    //! The code of a key, which is the size there was if the key is new.
    VASK_ALWAYS_INLINE std::uint32_t find_or_add(const key_type &key) {
        slot *at = slot_for(key, kind_.hash(key));
        if (at->code < base_) {
            if (2 * (std::size_t{size_} + 1) > slot_count_) [[unlikely]] {
                resize(growth * slot_count_);
                at = slot_for(key, kind_.hash(key));
            }
            *at = {key, base_ + size_++};
        }
        return at->code - base_;
    }

    //! The codes of the keys keys[0] .. keys[n - 1] of a block, at most block_rows.
    template <class Keys>
    void find_or_add(Keys keys, BUN n, std::uint32_t *codes) {
        while (2 * (std::size_t{size_} + n) > slot_count_)
            resize(growth * slot_count_);
        const std::uint32_t known = size_;
        const bool cached = slot_count_ < cached_slots;
        if (many_new_)
            cached ? find_or_add_block<true, true>(keys, n, codes)
                   : find_or_add_block<true, false>(keys, n, codes);
        else
            cached ? find_or_add_block<false, true>(keys, n, codes)
                   : find_or_add_block<false, false>(keys, n, codes);
        many_new_ = (size_ - known) * many_new_share > n;
    }

private:
    struct slot {
        key_type key{};
        std::uint32_t code = 0; // plus the base
    };

    static constexpr std::size_t first_slots = std::size_t{2} * block_rows;
    static constexpr std::size_t growth = 4;
    // From this many on the slots leave the second-level cache and are fetched ahead of their use.
    static constexpr std::size_t cached_slots = std::size_t{1} << 15;
    static constexpr std::size_t fetched_ahead = 32;
    // Of a block's keys, from a sixteenth on are many new ones.
    static constexpr std::uint32_t many_new_share = 16;
    // Codes stay below 2^32.
    static constexpr std::uint32_t most_base = std::uint32_t{1} << 31;

    static VASK_ALWAYS_INLINE std::size_t slot_of(std::uint64_t hash, unsigned used_bits,
                                                  unsigned shift) noexcept {
        return hash << used_bits >> shift;
    }

    //! The slot that holds the key, or the free one where it belongs.
    VASK_ALWAYS_INLINE slot *slot_for(const key_type &key, std::uint64_t hash) const noexcept {
        slot *slots = slots_.get();
        std::size_t i = slot_of(hash, used_bits_, shift_);
        while (slots[i].code >= base_ && !kind_.same(slots[i].key, key))
            i = (i + 1) & (slot_count_ - 1);
        return slots + i;
    }

    //! Without a branch on whether a key is new, of which the processor would guess every other
    //! wrong where many are; where few are, the store it takes costs more.
    template <bool ManyNew, bool Cached, class Keys>
    void find_or_add_block(Keys keys, BUN n, std::uint32_t *codes) {
        // Locals, which no store can change.
        const Kind kind = kind_;
        slot *const slots = slots_.get();
        const std::size_t mask = slot_count_ - 1;
        const std::uint32_t base = base_;
        std::uint32_t next = base + size_;
        const unsigned used_bits = used_bits_;
        const unsigned shift = shift_;
        // Those that are fetched ahead of their use.
        std::array<std::size_t, Cached ? 1 : block_rows> places;
        if constexpr (!Cached)
            for (std::size_t i = 0; i < n; ++i)
                places[i] = slot_of(kind.hash(keys[i]), used_bits, shift);
        for (std::size_t i = 0; i < n; ++i) {
            if (!Cached && i + fetched_ahead < n)
                __builtin_prefetch(slots + places[i + fetched_ahead]);
            const key_type key = keys[i];
            std::size_t place = Cached ? slot_of(kind.hash(key), used_bits, shift) : places[i];
            while (slots[place].code >= base && !kind.same(slots[place].key, key))
                place = (place + 1) & mask;
            slot *const at = slots + place;
            if constexpr (ManyNew) {
                const std::uint32_t known = 0 - static_cast<std::uint32_t>(at->code >= base);
                *at = {key, (at->code & known) | (next & ~known)};
                next += known + 1;
            } else if (at->code < base) {
                *at = {key, next++};
            }
            codes[i] = at->code - base;
        }
        size_ = next - base;
    }

    void resize(std::size_t n) {
        const gdk_block<slot> old = std::exchange(slots_, large_zeroed_block<slot>(n));
        const std::size_t old_count = std::exchange(slot_count_, n);
        shift_ = 64 - static_cast<unsigned>(std::bit_width(n - 1));
        for (std::size_t i = 0; i < old_count; ++i)
            if (old[i].code >= base_)
                *slot_for(old[i].key, kind_.hash(old[i].key)) = old[i];
    }

    Kind kind_;
    unsigned used_bits_;
    unsigned shift_ = 0;
    std::uint32_t base_ = 1;
    std::uint32_t size_ = 0;
    bool many_new_ = false;
    std::size_t slot_count_ = 0;
    gdk_block<slot> slots_;
};

} // namespace vask
