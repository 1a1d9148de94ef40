// The hash table of grouping and refinement: chained, insert-only, its entries in insertion order.
//
// An entry is a plain struct with
//   key_type               what the table is asked for
//   key()                  the entry's own key
//   hash(key)              static; its topmost bit says nothing
//   has(key)               whether the entry is the key's
//   first_oid, count       head value of the key's first row, rows seen with the key
//   chain                  the next entry of the bucket, NO_BUN at the end
//   hashed                 optional: hash(key()), set by whoever makes the entry. For keys whose
//                          hash is dear; keys of other hashes are then not compared either.
#pragma once

#include "rows/gdk_vector.h"
#include "rows/isa.h"
#include "rows/key_hash.h"
#include "vask/kernel/bat.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <utility>

namespace vask {

//! The mask of the smallest power of two above n: 2^bitlen(n) - 1.
constexpr std::uint32_t covering_mask(std::uint64_t n) noexcept {
    return static_cast<std::uint32_t>((std::uint64_t{1} << std::bit_width(n)) - 1);
}

//! Entries are never removed. Not thread-safe while it grows: one writer at a time; any number may
//! read the entries once it stands. Throws bad_allocation when the kernel has no memory left.
//!
//! There is memory for `mask` + 1 buckets from the start, but no more of them are in use than the
//! entries call for. With a mask that comes from the number of rows, as texts and floats have it,
//! the buckets of 1e7 rows take 64 MiB: filling them and missing the caches in them costs more
//! than grouping the rows. Where there turn out to be many more entries than the mask was made for,
//! as a sample can mislead, more buckets are asked for, and where there are none chains grow.
template <class Entry>
class vask_chained_table {
public:
    using key_type = typename Entry::key_type;

    static constexpr std::uint32_t default_mask = 1023;
    static constexpr std::size_t default_capacity = 4096;

    vask_chained_table() : vask_chained_table(default_mask) {}

    //! `mask` + 1, a power of two, buckets and room for `capacity` entries.
    explicit vask_chained_table(std::uint32_t mask, std::size_t capacity = default_capacity)
        : mask_(mask) {
        entries_.reserve(capacity);
        buckets_.reset(gdk_allocate<std::uint32_t>(std::size_t{mask} + 1));
        use_buckets(std::min(mask, default_mask));
    }

    std::uint32_t mask() const noexcept { return mask_; }
    const gdk_vector<Entry> &entries() const noexcept { return entries_; }
    gdk_vector<Entry> &entries() noexcept { return entries_; }

    //! The entry of a key, null if there is none; an insert of that key may follow.
    VASK_ALWAYS_INLINE Entry *probe(const key_type &key) noexcept {
        return probe(key, Entry::hash(key));
    }

    //! The same with the key's hash at hand.
    VASK_ALWAYS_INLINE Entry *probe(const key_type &key, std::uint32_t hash) noexcept {
        last_bucket_ = bucket_of(hash);
        for (std::uint32_t i = buckets_[last_bucket_]; i != NO_BUN; i = entries_[i].chain)
            if (is_entry_of(entries_[i], key, hash))
                return &entries_[i];
        return nullptr;
    }

    //! Asks the processor for the bucket of a hash that will be probed soon.
    VASK_ALWAYS_INLINE void prefetch(std::uint32_t hash) const noexcept {
        __builtin_prefetch(buckets_.get() + bucket_of(hash));
    }

    //! Adds the entry of the key that the last probe did not find, in front of its chain, and gives
    //! its number.
    std::uint32_t insert(const Entry &entry) {
        if (next_entry_ > used_mask_ && widen()) [[unlikely]]
            last_bucket_ = bucket_of(hash_of(entry));
        entries_.push_back(entry);
        link(next_entry_, last_bucket_);
        return next_entry_++;
    }

    //! Adds an entry that no probe will find, and gives its number: for a key that is equal to
    //! nothing.
    std::uint32_t append(const Entry &entry) {
        entries_.push_back(entry);
        entries_[next_entry_].chain = in_no_chain;
        return next_entry_++;
    }

    //! The number of an entry, by which chains and others refer to it.
    std::uint32_t number_of(const Entry *entry) const noexcept {
        return static_cast<std::uint32_t>(entry - entries_.begin());
    }

private:
    // Each widening links all entries again, which with this factor is about once per entry.
    static constexpr unsigned widening = 8;
    // Entries per bucket beyond which the mask was plainly made for fewer: chains of a few cost
    // less than the misses of more buckets.
    static constexpr std::uint32_t longest_chains = 4;
    static constexpr std::uint64_t most_buckets = std::uint64_t{1} << 30;
    // Differs from every entry's number and from the end of a chain.
    static constexpr BUN in_no_chain = NO_BUN + 1;

    static constexpr bool keeps_hash = requires(Entry entry) { entry.hashed; };

    //! The topmost bit of a hash is that of -0.0, which can be the same key as 0.0.
    VASK_ALWAYS_INLINE std::uint32_t bucket_of(std::uint32_t hash) const noexcept {
        return spread_hash(hash << 1) & used_mask_;
    }

    static std::uint32_t hash_of(const Entry &entry) noexcept {
        if constexpr (keeps_hash)
            return entry.hashed;
        else
            return Entry::hash(entry.key());
    }

    VASK_ALWAYS_INLINE static bool is_entry_of(const Entry &entry, const key_type &key,
                                               [[maybe_unused]] std::uint32_t hash) noexcept {
        if constexpr (keeps_hash)
            return entry.hashed == hash && entry.has(key);
        else
            return entry.has(key);
    }

    //! Takes more buckets into use; false when there are none to be had.
    bool widen() noexcept {
        const std::uint64_t wider = std::uint64_t{used_mask_} * widening + 1;
        if (used_mask_ < mask_) {
            use_buckets(std::min<std::uint64_t>(wider, mask_));
            return true;
        }
        if (next_entry_ / longest_chains <= used_mask_ || wider > most_buckets)
            return false;
        const std::uint32_t mask = covering_mask(wider);
        void *more = GDKmalloc((std::size_t{mask} + 1) * sizeof(std::uint32_t));
        if (more == nullptr)
            return false;
        buckets_.reset(static_cast<std::uint32_t *>(more));
        use_buckets(mask);
        return true;
    }

    //! Spreads the entries over the buckets 0 .. mask.
    void use_buckets(std::uint64_t mask) noexcept {
        used_mask_ = covering_mask(mask);
        std::fill_n(buckets_.get(), std::size_t{used_mask_} + 1, std::uint32_t{NO_BUN});
        for (std::uint32_t i = 0; i < next_entry_; ++i)
            if (entries_[i].chain != in_no_chain)
                link(i, bucket_of(hash_of(entries_[i])));
    }

    void link(std::uint32_t entry, std::uint32_t bucket) noexcept {
        entries_[entry].chain = std::exchange(buckets_[bucket], entry);
    }

    gdk_vector<Entry> entries_;
    gdk_block<std::uint32_t> buckets_; // first entry of each chain
    std::uint32_t next_entry_ = 0;     // always the number of entries
    std::uint32_t mask_;
    std::uint32_t used_mask_ = 0;   // of the buckets in use
    std::uint32_t last_bucket_ = 0; // of the last probe, for the insert that may follow
};

} // namespace vask
