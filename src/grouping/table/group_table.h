// The table of groups by value.
#pragma once

#include "grouping/table/chained_table.h"
#include "rows/key_hash.h"

#include <cstring>

namespace vask {

//! A group of equal values. Nil is a value like any other here.
template <class T>
struct vask_group_entry {
    using key_type = T;

    T value; // of a text the address, not a copy
    oid first_oid;
    lng count;
    BUN chain;
    std::uint32_t hashed; // fills what would be padding

    const T &key() const noexcept { return value; }

    VASK_ALWAYS_INLINE static std::uint32_t hash(const T &value) noexcept {
        return vask_hash_mix(hash_word(value));
    }

    //! Floats are the same when their bits are, so 0.0 and -0.0 are two groups and a NaN is found
    //! again; the sort path compares numbers instead. Texts are the same when they read the same,
    //! wherever they lie.
    VASK_ALWAYS_INLINE bool has(const T &other) const noexcept {
        if constexpr (std::same_as<T, str>)
            return value == other || (*value == *other && std::strcmp(value, other) == 0);
        else
            return key_bits(value) == key_bits(other);
    }
};

template <class T>
using vask_group_table = vask_chained_table<vask_group_entry<T>>;

} // namespace vask
