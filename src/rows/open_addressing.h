// Hash table with open addressing: keys and values in arrays of their own, insert-only.
//
// Keys is a struct with
//   key_type                what is stored for a key; trivially copyable
//   hash(key)               32 bits
//   equal(a, b)
// Value is any trivially copyable struct; an empty one makes the table a set.
#pragma once

#include "rows/huge_pages.h"
#include "rows/isa.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace vask {

//! The value of a table that is a set.
struct no_value {};

//! Memory comes from the process heap, not from the kernel; bad_alloc when there is none. One
//! writer at a time; any number of readers when there is no writer.
template <class Keys, class Value = no_value>
class open_addressing_table {
public:
    using key_type = typename Keys::key_type;
    static_assert(std::is_trivially_copyable_v<key_type> && std::is_trivially_copyable_v<Value>);

    struct insertion {
        std::uint32_t bucket;
        bool is_new; // the key is stored, its value is for the caller to set
    };

    explicit open_addressing_table(Keys keys = {}) : keys_of_(keys) {}

    //! Buckets: a power of two, or 0 before the first key.
    std::uint32_t bucket_count() const noexcept { return bucket_count_; }
    std::uint32_t size() const noexcept { return size_; }

    //! Whether the next insert makes the table grow, be its key new or not.
    bool full() const noexcept { return size_ >= upper_bound_; }

    bool in_use(std::uint32_t bucket) const noexcept { return state(flags_.get(), bucket) == 0; }
    const key_type &key(std::uint32_t bucket) const noexcept { return keys_.get()[bucket]; }
    Value &value(std::uint32_t bucket) noexcept { return values_.get()[bucket]; }
    const Value &value(std::uint32_t bucket) const noexcept { return values_.get()[bucket]; }

    //! The bucket of a key; bucket_count() when it is not there.
    VASK_ALWAYS_INLINE std::uint32_t find(const key_type &key) const noexcept {
        if (bucket_count_ == 0)
            return 0;
        const std::uint32_t bucket = place_of(key);
        return in_use(bucket) ? bucket : bucket_count_;
    }

    //! The bucket of a key, which is stored if it was not there; may move all others.
    VASK_ALWAYS_INLINE insertion insert(const key_type &key) {
        if (full()) [[unlikely]]
            grow_to(bucket_count_ + 1);
        const std::uint32_t bucket = place_of(key);
        if (in_use(bucket))
            return {bucket, false};
        keys_.get()[bucket] = key;
        clear_state(flags_.get(), bucket, empty | moved);
        ++size_;
        return {bucket, true};
    }

    //! Asks for the memory in which a look for the key will begin, to be there when it does.
    VASK_ALWAYS_INLINE void prefetch(const key_type &key) const noexcept {
        const std::uint32_t bucket = keys_of_.hash(key) & (bucket_count_ - 1);
        __builtin_prefetch(flags_.get() + bucket / buckets_per_word);
        __builtin_prefetch(keys_.get() + bucket);
        if constexpr (!std::is_empty_v<Value>)
            __builtin_prefetch(values_.get() + bucket);
    }

    //! Keys that a look for this one comes by that are not it: how far it is out of its place, or
    //! what finding out that it is not there costs.
    std::uint32_t detour(const key_type &key) const noexcept {
        std::uint32_t met = 0;
        probe(keys_of_.hash(key), bucket_count_ - 1, [&, this](std::uint32_t bucket) {
            const bool ends = !in_use(bucket) || keys_of_.equal(this->key(bucket), key);
            met += ends ? 0 : 1;
            return ends;
        });
        return met;
    }

    //! Forgets all keys and goes back to no buckets; keeps the memory for the buckets to come.
    void clear() noexcept { bucket_count_ = size_ = upper_bound_ = 0; }

    //! Grows the table to `requested` buckets, rounded up to a power of two and at least 4. A table
    //! of that size or more stays as it is.
    void grow_to(std::uint32_t requested);

private:
    // Two bits for each bucket, 16 buckets to a word; neither means in use. Keys are never removed:
    // the second mark says, while a table is rebuilt, that the key has left its bucket.
    static constexpr std::uint32_t empty = 2;
    static constexpr std::uint32_t moved = 1;
    static constexpr int all_empty = 0xAA;
    static constexpr std::uint32_t buckets_per_word = 16;

    static constexpr std::uint32_t smallest_table = 4;
    // Probing becomes long beyond. At least one bucket stays empty, which is what ends a probe.
    static constexpr double load_limit = 0.77;

    static std::uint32_t shift_of(std::uint32_t bucket) noexcept {
        return 2 * (bucket % buckets_per_word);
    }
    static std::uint32_t state(const std::uint32_t *flags, std::uint32_t bucket) noexcept {
        return flags[bucket / buckets_per_word] >> shift_of(bucket) & (empty | moved);
    }
    static void clear_state(std::uint32_t *flags, std::uint32_t bucket,
                            std::uint32_t bits) noexcept {
        flags[bucket / buckets_per_word] &= ~(bits << shift_of(bucket));
    }
    static void set_moved(std::uint32_t *flags, std::uint32_t bucket) noexcept {
        flags[bucket / buckets_per_word] |= moved << shift_of(bucket);
    }

    //! Walks the probe sequence of a hash in a table of `mask` + 1 buckets up to the first bucket
    //! that `stop` accepts. The step is odd, so the walk meets every bucket.
    template <class Stop>
    VASK_ALWAYS_INLINE static std::uint32_t probe(std::uint32_t hash, std::uint32_t mask,
                                                  Stop stop) noexcept {
        std::uint32_t bucket = hash & mask;
        if (stop(bucket))
            return bucket;
        const std::uint32_t step = ((hash >> 3 ^ hash << 3) | 1) & mask;
        do
            bucket = (bucket + step) & mask;
        while (!stop(bucket));
        return bucket;
    }

    //! The bucket that holds the key, or the empty one where it belongs.
    VASK_ALWAYS_INLINE std::uint32_t place_of(const key_type &key) const noexcept {
        const std::uint32_t *flags = flags_.get();
        const key_type *keys = keys_.get();
        return probe(keys_of_.hash(key), bucket_count_ - 1, [=, this](std::uint32_t bucket) {
            return state(flags, bucket) != 0 || keys_of_.equal(keys[bucket], key);
        });
    }

    struct release {
        void operator()(void *block) const noexcept { std::free(block); }
    };
    template <class T>
    using block = std::unique_ptr<T, release>;

    template <class T>
    static void reallocate(block<T> &array, std::size_t n) {
        void *moved_to = std::realloc(static_cast<void *>(array.get()), n * sizeof(T));
        if (moved_to == nullptr)
            throw std::bad_alloc();
        static_cast<void>(array.release());
        array.reset(static_cast<T *>(moved_to));
        advise_huge_pages(moved_to, n * sizeof(T));
    }

    void place_again(std::uint32_t bucket, std::uint32_t new_mask);

    [[no_unique_address]] Keys keys_of_;
    std::uint32_t bucket_count_ = 0;
    std::uint32_t size_ = 0;
    std::uint32_t upper_bound_ = 0; // keys at which the table grows
    std::uint32_t capacity_ = 0;    // buckets that there is memory for
    block<std::uint32_t> flags_;
    block<std::uint32_t> new_flags_; // of the table that grow_to builds
    block<key_type> keys_;
    block<Value> values_;
};

template <class Keys, class Value>
void open_addressing_table<Keys, Value>::grow_to(std::uint32_t requested) {
    constexpr std::uint32_t largest_table = std::uint32_t{1} << 31;
    if (requested > largest_table)
        throw std::bad_alloc();
    const std::uint32_t new_count = std::bit_ceil(std::max(requested, smallest_table));
    if (new_count <= bucket_count_)
        return;

    const std::size_t words = std::max(new_count / buckets_per_word, std::uint32_t{1});
    if (new_count > capacity_) {
        reallocate(flags_, words);
        reallocate(new_flags_, words);
        reallocate(keys_, new_count);
        if constexpr (!std::is_empty_v<Value>)
            reallocate(values_, new_count);
        capacity_ = new_count;
    }
    std::memset(new_flags_.get(), all_empty, words * sizeof(std::uint32_t));
    for (std::uint32_t bucket = 0; bucket < bucket_count_; ++bucket)
        if (in_use(bucket))
            place_again(bucket, new_count - 1);
    flags_.swap(new_flags_);
    bucket_count_ = new_count;
    // NOLINTNEXTLINE(bugprone-incorrect-roundings): positive, and cut off as the growth is defined
    upper_bound_ = static_cast<std::uint32_t>(new_count * load_limit + 0.5);
}

//! Moves the key of a bucket to where it belongs in the new table, which lies in the same arrays. A
//! key that stands there still, not moved yet, is kicked out and is the next to be placed.
template <class Keys, class Value>
void open_addressing_table<Keys, Value>::place_again(std::uint32_t bucket, std::uint32_t new_mask) {
    std::uint32_t *new_flags = new_flags_.get();
    key_type *keys = keys_.get();
    Value *values = values_.get();
    key_type key = keys[bucket];
    Value value{};
    if constexpr (!std::is_empty_v<Value>)
        value = values[bucket];
    set_moved(flags_.get(), bucket);
    for (;;) {
        const std::uint32_t to = probe(keys_of_.hash(key), new_mask, [=](std::uint32_t candidate) {
            return state(new_flags, candidate) != 0;
        });
        clear_state(new_flags, to, empty | moved);
        const bool kicks_out = to < bucket_count_ && in_use(to);
        std::swap(key, keys[to]);
        if constexpr (!std::is_empty_v<Value>)
            std::swap(value, values[to]);
        if (!kicks_out)
            return;
        set_moved(flags_.get(), to);
    }
}

} // namespace vask
