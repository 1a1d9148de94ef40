// The hash table of grouping and refinement: chained, insert-only, its entries in insertion order.
//
// An entry is a plain struct with
//   key_type               what the table is asked for
//   key()                  the entry's own key
//   hash(key)              static; the bucket before masking
//   has(key)               whether the entry is the key's
//   first_oid, count       head value of the key's first row, rows seen with the key
//   chain                  the next entry of the bucket, NO_BUN at the end
#pragma once

#include "kernel/bat.h"
#include "kernel/gdk_vector.h"
#include "kernel/isa.h"

#include <algorithm>
#include <array>
#include <bit>
#include <utility>

namespace vask {

//! The mask of the smallest power of two above n: 2^bitlen(n) - 1.
constexpr std::uint32_t covering_mask(std::uint64_t n) noexcept {
    return static_cast<std::uint32_t>((std::uint64_t{1} << std::bit_width(n)) - 1);
}

//! Entries are never removed. Not thread-safe while it grows: one writer at a time; any number of
//! readers once it stands. Throws bad_allocation when the kernel has no memory left.
template <class Entry>
class vask_chained_table {
public:
    using key_type = typename Entry::key_type;

    static constexpr std::uint32_t default_mask = 1023;
    static constexpr std::size_t default_capacity = 4096;

    vask_chained_table() : vask_chained_table(default_mask) {}

    //! `mask` + 1, a power of two, buckets and room for `capacity` entries.
    explicit vask_chained_table(std::uint32_t mask, std::size_t capacity = default_capacity)
        : mask_(mask), page_shift_(bucket_page_shift(mask)) {
        entries_.reserve(capacity);
        buckets_ = gdk_allocate<std::uint32_t>(std::size_t{mask} + 1);
    }

    vask_chained_table(vask_chained_table &&other) noexcept
        : entries_(std::move(other.entries_)),
          buckets_(std::exchange(other.buckets_, nullptr)),
          next_entry_(other.next_entry_),
          mask_(other.mask_),
          last_bucket_(other.last_bucket_),
          page_shift_(other.page_shift_),
          page_filled_(other.page_filled_) {}

    //! Takes over another table's memory. The target's own buckets are not given back, and that is
    //! intended: they stay allocated until the process ends.
    vask_chained_table &operator=(vask_chained_table &&other) noexcept {
        entries_ = std::move(other.entries_);
        buckets_ = std::exchange(other.buckets_, nullptr);
        next_entry_ = other.next_entry_;
        mask_ = other.mask_;
        last_bucket_ = other.last_bucket_;
        page_shift_ = other.page_shift_;
        page_filled_ = other.page_filled_;
        return *this;
    }

    ~vask_chained_table() { release_buckets(); }

    std::uint32_t mask() const noexcept { return mask_; }
    const gdk_vector<Entry> &entries() const noexcept { return entries_; }
    gdk_vector<Entry> &entries() noexcept { return entries_; }

    //! The entry of a key, null if there is none; an insert of that key may follow.
    VASK_ALWAYS_INLINE Entry *probe(const key_type &key) noexcept {
        last_bucket_ = Entry::hash(key) & mask_;
        fill_page_of(last_bucket_);
        for (std::uint32_t i = buckets_[last_bucket_]; i != NO_BUN; i = entries_[i].chain)
            if (entries_[i].has(key))
                return &entries_[i];
        return nullptr;
    }

    //! Adds the entry of the key that the last probe did not find, in front of its chain, and gives
    //! its number.
    std::uint32_t insert(Entry entry) {
        entry.chain = buckets_[last_bucket_];
        buckets_[last_bucket_] = next_entry_;
        entries_.push_back(entry);
        return next_entry_++;
    }

    //! The group id of a key that is known to be present: there is no answer for any other.
    VASK_ALWAYS_INLINE oid find(const key_type &key) const noexcept {
        std::uint32_t i = buckets_[Entry::hash(key) & mask_];
        while (!entries_[i].has(key))
            i = entries_[i].chain;
        return entries_[i].first_oid;
    }

    //! Asks the processor for the bucket of a key that will be probed soon.
    VASK_ALWAYS_INLINE void prefetch(const key_type &key) const noexcept {
        __builtin_prefetch(buckets_ + (Entry::hash(key) & mask_));
    }

    //! Gives the buckets back early; the entries stay. Neither probe nor find may follow.
    void release_buckets() noexcept {
        if (buckets_ != nullptr)
            GDKfree(std::exchange(buckets_, nullptr));
    }

private:
    // Buckets are filled with NO_BUN page by page, when a page is first probed: with a mask from
    // the number of rows, as texts and floats have it, filling the three tables of 1e7 rows on two
    // threads at once costs as much time as grouping them does.
    static constexpr unsigned max_pages = 4096;
    static constexpr unsigned smallest_page_shift = 10;

    static constexpr unsigned bucket_page_shift(std::uint32_t mask) noexcept {
        constexpr unsigned page_bits = std::bit_width(max_pages - 1);
        const auto mask_bits = static_cast<unsigned>(std::bit_width(mask));
        return std::max(smallest_page_shift, mask_bits - std::min(mask_bits, page_bits));
    }

    VASK_ALWAYS_INLINE void fill_page_of(std::uint32_t bucket) noexcept {
        const std::uint32_t page = bucket >> page_shift_;
        const std::uint64_t bit = std::uint64_t{1} << (page % 64);
        if ((page_filled_[page / 64] & bit) == 0) [[unlikely]] {
            page_filled_[page / 64] |= bit;
            fill_page(page);
        }
    }

    void fill_page(std::uint32_t page) noexcept {
        const std::size_t begin = std::size_t{page} << page_shift_;
        const std::size_t end =
            std::min(begin + (std::size_t{1} << page_shift_), std::size_t{mask_} + 1);
        std::fill(buckets_ + begin, buckets_ + end, std::uint32_t{NO_BUN});
    }

    gdk_vector<Entry> entries_;
    std::uint32_t *buckets_ = nullptr; // first entry of each chain
    std::uint32_t next_entry_ = 0;     // always the number of entries
    std::uint32_t mask_;
    std::uint32_t last_bucket_ = 0; // of the last probe, for the insert that may follow
    unsigned page_shift_;
    std::array<std::uint64_t, max_pages / 64> page_filled_{};
};

} // namespace vask
