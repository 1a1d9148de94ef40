// The table of refined groups: by old group and new value.
#pragma once

#include "grouping/table/chained_table.h"
#include "kernel/column.h"
#include "rows/key_hash.h"

#include <concepts>
#include <cstdint>

namespace vask {

template <class T>
struct pair_key {
    oid parent; // the old group's id
    T value;
};

//! Rows of one old group with equal values. The rules differ from those of vask_group_entry, and
//! are meant to: numbers are compared as numbers, so -0.0 and 0.0 are one group (their hashes
//! differ in the topmost bit alone) and a NaN is never found again; texts are compared by where
//! they lie, so a text that is stored twice makes two groups.
template <class T>
struct vask_pair_entry {
    using key_type = pair_key<T>;

    oid parent;
    T value;
    oid first_oid;
    lng count;
    BUN chain;

    key_type key() const noexcept { return {parent, value}; }

    VASK_ALWAYS_INLINE static std::uint32_t hash(const key_type &key) noexcept {
        return vask_hash_mix(key.parent) ^ word_of(key.value);
    }

    VASK_ALWAYS_INLINE bool has(const key_type &key) const noexcept {
        return parent == key.parent && value == key.value;
    }

private:
    //! Of a text the place: by what they read, the copies of a text that is stored for every row
    //! would share one chain, and none of them would be found in it.
    VASK_ALWAYS_INLINE static std::uint32_t word_of(T value) noexcept {
        if constexpr (std::same_as<T, str>)
            return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(value) /
                                              heap_alignment);
        else
            return hash_word(value);
    }
};

template <class T>
using vask_pair_table = vask_chained_table<vask_pair_entry<T>>;

} // namespace vask
