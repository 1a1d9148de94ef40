// Reading columns: density, head oids, typed rows, text elements, nils.
#pragma once

#include "rows/isa.h"
#include "vask/kernel/bat.h"

#include <cstdint>
#include <cstring>

namespace vask {

//! Bit of BATcol::sorted that says ascending; other bits are the kernel's own.
inline constexpr std::uint8_t ascending_bit = 1;

//! Ascending by its mark. A void column has no stored mark and always counts as ascending.
inline bool is_ascending(const BATcol &column) noexcept {
    return column.type == TYPE_void || (column.sorted & ascending_bit) != 0;
}

//! The mark as another column takes it over: of a void column, that of an ascending one.
inline std::uint8_t sorted_mark(const BATcol &column) noexcept {
    return column.type == TYPE_void ? std::uint8_t{SORTED_ASCENDING} : column.sorted;
}

//! Values are seqbase, seqbase + 1, ... (or all nil when seqbase is oid_nil).
inline bool is_dense(const BATcol &column) noexcept {
    return column.type == TYPE_void || ((column.sorted & ascending_bit) != 0 && column.dense);
}

//! The exclusive end of a BAT's positions.
inline BUN end_position(const BAT &b) noexcept {
    return b.info->first + b.info->count;
}

//! The storage code of a column's type: user atoms run as what they are stored as.
inline int storage_of(const BATcol &column) noexcept {
    return BATatoms[column.type].atom_storage;
}

//! The nil of a type, as a T.
template <class T>
T nil_of(int type) noexcept {
    T nil;
    std::memcpy(&nil, BATatoms[type].atom_null, sizeof nil);
    return nil;
}

//! The element memory of a column whose elements are stored as T, to be indexed by position.
template <class T>
T *rows_of(const BATcol &column) noexcept {
    return static_cast<T *>(column.base);
}

//! Asks for the cache lines of some memory, which need not exist.
VASK_ALWAYS_INLINE void prefetch_bytes(const void *base, std::size_t offset,
                                       std::size_t bytes) noexcept {
    constexpr std::uintptr_t line = 64;
    const std::uintptr_t from = reinterpret_cast<std::uintptr_t>(base) + offset;
    for (std::uintptr_t i = 0; i < bytes; i += line)
        __builtin_prefetch(reinterpret_cast<const void *>(from + i));
}

//! Asks for the cache lines of the n elements that come 128 after position p, for a row loop that
//! reads a column in order and other memory at random between: those accesses keep the processor
//! from seeing the order (grouped sum of 1e7 int in 100,000 groups: 13 ms, against 28). The
//! elements need not exist.
template <class T>
VASK_ALWAYS_INLINE void prefetch_ahead(const T *rows, BUN p, BUN n) noexcept {
    prefetch_bytes(rows, (std::size_t{p} + 128) * sizeof(T), n * sizeof(T));
}

//! The oids of a column by position, stored or void: a copy of all that reading one needs.
struct oid_reader {
    const oid *stored; // null: void
    oid seqbase;
    BUN first;

    oid_reader(const BATcol &column, const BAT &b) noexcept
        : stored(column.type == TYPE_void ? nullptr : rows_of<const oid>(column)),
          seqbase(column.seqbase),
          first(b.info->first) {}

    //! The numbers from 0 on, as a void column from position 0 on has them.
    oid_reader() noexcept : stored(nullptr), seqbase(0), first(0) {}

    VASK_ALWAYS_INLINE oid operator[](BUN position) const noexcept {
        if (stored != nullptr)
            return stored[position];
        return seqbase == oid_nil ? oid_nil : seqbase + (position - first);
    }
};

//! Narrow offset columns count from this offset on: an element of the heap never lies below it.
inline constexpr std::uint32_t narrow_offset_bias = 256;
//! Elements of a variable-sized heap lie at multiples of this.
inline constexpr std::size_t heap_alignment = 8;

//! The texts of a variable-sized column by position.
struct text_reader {
    const void *offsets;
    const char *heap;
    int width;

    explicit text_reader(const BATcol &column) noexcept
        : offsets(column.base), heap(column.vheap->vbase), width(column.width) {}

    //! Position in the heap in units of heap_alignment. Equal offsets mean one and the same text.
    VASK_ALWAYS_INLINE std::uint32_t offset(BUN position) const noexcept {
        switch (width) {
            case 1:
                return static_cast<const std::uint8_t *>(offsets)[position] + narrow_offset_bias;
            case 2:
                return static_cast<const std::uint16_t *>(offsets)[position] + narrow_offset_bias;
            default:
                return static_cast<const std::uint32_t *>(offsets)[position];
        }
    }

    VASK_ALWAYS_INLINE const char *at_offset(std::uint32_t offset) const noexcept {
        return heap + offset * heap_alignment;
    }

    VASK_ALWAYS_INLINE const char *operator[](BUN position) const noexcept {
        return at_offset(offset(position));
    }
};

} // namespace vask
