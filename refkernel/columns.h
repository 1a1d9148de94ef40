// Column records and how their elements are read and laid out.
#ifndef REFKERNEL_COLUMNS_H
#define REFKERNEL_COLUMNS_H

#include "refkernel/memory.h"
#include "refkernel/text_heap.h"
#include "vask/refkernel/contract.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace refkernel {

// The largest number of rows of a BAT, one below NO_BUN.
inline constexpr BUN max_rows = 0x7ffffffe;
// Bits of BATcol::sorted and the numbers of BATcol::key.
inline constexpr std::uint8_t ascending_bit = 1;
inline constexpr std::uint8_t key_unique = 1;

//! A hash table that columns over the same rows share; freed with the last.
struct hash_table : BAThashtable {
    std::atomic<std::int32_t> holders{1};
};
void release_hash(BAThashtable *table) noexcept;

/*
 * A column record with what stands behind it. Views share `memory` and `heap`
 * with their source; whoever grows or appends to one that was ever shared gets
 * its own first, so that readers of the other columns never see it move.
 */
struct column : BATcol {
    std::shared_ptr<memory::block> memory;
    std::shared_ptr<text_heap> heap;
    // Columns of the same number are aligned row by row; 0: with no other. Atomic because operators
    // that run at the same time may all align with one column; nothing else hangs on it.
    std::atomic<std::uint64_t> alignment{0};

    column() noexcept { static_cast<BATcol &>(*this) = {}; }
    column(const column &) = delete;
    column &operator=(const column &) = delete;
    ~column() { drop_hash(); }

    //! Drops the hash, which a change of the rows makes wrong.
    void drop_hash() noexcept;
    //! Takes over type, marks and memory, with position 0 at `first` of the
    //! source; the hash too if the rows are the same.
    void share(const column &source, BUN first, bool same_rows) noexcept;
    //! Reads the texts of the source by the same offsets.
    void share_heap(const column &source) noexcept;
    void adopt_memory(std::shared_ptr<memory::block> taken) noexcept;
    void adopt_heap(std::shared_ptr<text_heap> taken) noexcept;

    [[nodiscard]] std::uint64_t alignment_number() const noexcept {
        return alignment.load(std::memory_order_relaxed);
    }
    void set_alignment(std::uint64_t number) noexcept {
        alignment.store(number, std::memory_order_relaxed);
    }
};

inline column &column_of(BATcol *c) {
    return *static_cast<column *>(c);
}
inline const column &column_of(const BATcol *c) {
    return *static_cast<const column *>(c);
}

//! The hash that a column has now; another thread may be building one.
inline BAThashtable *published_hash(const BATcol &c) {
    return std::atomic_ref(const_cast<BATcol &>(c).hash).load(std::memory_order_acquire);
}

//! Gives the record its type and memory for `capacity` rows; false when memory runs out.
bool make_column_memory(column &c, int type, BUN capacity) noexcept;
//! Makes the record a void column; oid_nil: all nil.
void make_void(column &c, oid seqbase) noexcept;
//! Marks that follow from the type and seqbase of a void column.
void set_void_marks(BATcol &c) noexcept;
//! Grows the element memory to `capacity` rows; false when memory runs out.
bool grow_column(column &c, BUN capacity) noexcept;
//! A void column becomes stored oids of `info`'s rows; marks and alignment are dropped.
bool materialize_column(column &c, const BATinfo &info) noexcept;
//! A heap that no other column reads, cloned if need be; null when memory runs out.
text_heap *own_heap(column &c) noexcept;

inline bool is_void(const BATcol &c) {
    return c.type == TYPE_void;
}

//! Void, or stored and marked as consecutive oids.
inline bool is_dense(const BATcol &c) {
    return is_void(c) || ((c.sorted & ascending_bit) != 0 && c.dense != 0);
}

template <class T>
T *elements(const BATcol &c) {
    return static_cast<T *>(c.base);
}

inline char *element_place(const BATcol &c, BUN position) {
    return static_cast<char *>(c.base) + (std::size_t{position} << c.shift);
}

//! The oid of an oid or void column at a position.
inline oid oid_at(const BATcol &c, const BATinfo &info, BUN position) {
    if (!is_void(c)) {
        return elements<oid>(c)[position];
    }
    return c.seqbase == oid_nil ? oid_nil : c.seqbase + (position - info.first);
}

//! The offset stored at a position of a variable-sized column, in units of 8 bytes.
inline std::uint32_t offset_at(const BATcol &c, BUN position) {
    switch (c.width) {
        case 1:
            return elements<std::uint8_t>(c)[position] + offset_bias;
        case 2:
            return elements<std::uint16_t>(c)[position] + offset_bias;
        default:
            return elements<std::uint32_t>(c)[position];
    }
}

//! Whether the offset can be stored at the column's width.
inline bool offset_fits(const BATcol &c, std::uint32_t offset) {
    return c.width >= 4 || offset - offset_bias < (std::uint32_t{1} << (8 * c.width));
}

//! Stores an offset that fits.
inline void set_offset(BATcol &c, BUN position, std::uint32_t offset) {
    switch (c.width) {
        case 1:
            elements<std::uint8_t>(c)[position] = static_cast<std::uint8_t>(offset - offset_bias);
            break;
        case 2:
            elements<std::uint16_t>(c)[position] = static_cast<std::uint16_t>(offset - offset_bias);
            break;
        default:
            elements<std::uint32_t>(c)[position] = offset;
    }
}

inline const char *text_at(const BATcol &c, BUN position) {
    return c.vheap->vbase + std::size_t{offset_at(c, position)} * heap_unit;
}

//! Address of a value in the form that atom_cmp and BUNfastins take; an oid of
//! a void column is written to `scratch` first.
inline const void *value_at(const BATcol &c, const BATinfo &info, BUN position, oid &scratch) {
    if (is_void(c)) {
        scratch = oid_at(c, info, position);
        return &scratch;
    }
    return c.varsized ? static_cast<const void *>(text_at(c, position))
                      : element_place(c, position);
}

//! Whether a value, given as above, is the column's nil.
inline bool is_nil_value(const BATcol &c, const void *value) {
    const BATatom &atom = BATatoms[c.type];
    return atom.atom_cmp(atom.atom_null, value) == 0;
}

} // namespace refkernel

#endif
