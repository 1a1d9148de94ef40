// The rows of two columns as pairs of doubles. There are 36 pairs of element types, but no loop is
// compiled for a pair: each column is converted by itself, in blocks that stay in the cache, and
// what follows sees doubles only.
#pragma once

#include "aggregates/group_scan.h"
#include "kernel/frame.h"
#include "rows/atom_nil_test.h"
#include "rows/row_conversion.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>

namespace vask {

//! As what elements two columns are read, as storage codes.
struct class_pair {
    int x;
    int y;
};

//! The classes that two columns are read in; nothing if they do not go together. Beside a column of
//! truth values or of the nameless one-byte type, anything stored is read as bte: of each element
//! the first byte. The reverse is not so, and beside bte those two are refused. Both is intended:
//! plans rely on which pairs there are.
std::optional<class_pair> class_pair_of(const BATcol &x, const BATcol &y) noexcept;

//! The elements of a column as doubles, a block of rows at a time. Those of a dbl column are read
//! where they are.
class double_rows {
public:
    //! The column is read in a storage class.
    double_rows(const BATcol &column, int storage_class) noexcept;

    //! Makes the rows of the block available. `scratch` has room for them and lives as long as they
    //! are read.
    void load(vask_row_range block, dbl *scratch) {
        if (convert_ == nullptr)
            return;
        convert_(*column_, {block.begin, block.size(), nullptr}, scratch);
        rows_ = scratch;
        first_ = block.begin;
    }

    //! Sets flags[i] to 1 where row i of the block is nil by plain comparison in the column's
    //! class, and leaves the others. False if no row is.
    bool mark_nils(vask_row_range block, std::uint8_t *flags) const {
        return mark_(*column_, block, flags);
    }

    VASK_ALWAYS_INLINE dbl operator[](BUN p) const noexcept { return rows_[p - first_]; }

    //! Where the element at p lies, with those of the block behind it.
    const dbl *at(BUN p) const noexcept { return rows_ + (p - first_); }

    bool are_integers() const noexcept { return are_integers_; }

    //! Asks for the column's own elements.
    VASK_ALWAYS_INLINE void prefetch(BUN p, BUN n) const noexcept {
        prefetch_bytes(column_->base, std::size_t{p} << column_->shift,
                       std::size_t{n} << column_->shift);
    }

private:
    using nil_marker = bool (*)(const BATcol &column, vask_row_range block, std::uint8_t *flags);

    const BATcol *column_;
    row_converter<dbl> convert_; // null: the elements are doubles
    nil_marker mark_;
    bool are_integers_;
    const dbl *rows_ = nullptr;
    BUN first_ = 0; // position of rows_[0]
};

struct value_pair {
    dbl x;
    dbl y;
};

//! The rows of two columns; a row has a value when neither is nil. A copy begins without a loaded
//! block.
class paired_rows {
public:
    paired_rows(const BAT &x, const BAT &y) noexcept : paired_rows(*x.tail, *y.tail) {}

    void load(vask_row_range block) {
        room &block_room = scratch_.made();
        x_.load(block, block_room.x);
        y_.load(block, block_room.y);
    }

    VASK_ALWAYS_INLINE value_pair operator[](BUN p) const noexcept { return {x_[p], y_[p]}; }

    //! While n rows from p on are in use, asks for those that the next block has in their place.
    VASK_ALWAYS_INLINE void prefetch(BUN p, BUN n) const noexcept {
        x_.prefetch(p + scan_block_rows, n);
        y_.prefetch(p + scan_block_rows, n);
    }

protected:
    //! Room for a block.
    struct room {
        dbl x[scan_block_rows];
        dbl y[scan_block_rows];
        std::uint8_t nil[scan_block_rows];
        bool has_nils; // so the flags are to be cleared
    };

    //! Some pages, which are no part of the value: each copy makes its own when it loads a block,
    //! on the heap, as the source passes through several frames of a task's stack.
    class scratch {
    public:
        scratch() = default;
        scratch(const scratch &) noexcept {}
        scratch &operator=(const scratch &) = delete;

        //! Throws std::bad_alloc.
        room &made() {
            if (room_ == nullptr) {
                room_ = std::make_unique_for_overwrite<room>();
                room_->has_nils = true;
            }
            return *room_;
        }
        room &operator*() const noexcept { return *room_; }

    private:
        std::unique_ptr<room> room_;
    };

    double_rows x_;
    double_rows y_;
    scratch scratch_;

private:
    paired_rows(const BATcol &x, const BATcol &y) noexcept
        : paired_rows(x, y, *class_pair_of(x, y)) {}
    paired_rows(const BATcol &x, const BATcol &y, class_pair classes) noexcept
        : x_(x, classes.x), y_(y, classes.y) {}
};

//! A nil is what equals the nil of its column's type at the width of its class: a NaN is none.
class plainly_paired_rows : public paired_rows {
public:
    using paired_rows::paired_rows;

    //! Finds the nils as well.
    void load(vask_row_range block);

    //! The number of nils in the loaded block.
    BUN nils() const noexcept;

    VASK_ALWAYS_INLINE bool is_nil(BUN p) const noexcept {
        return (*scratch_).nil[p - block_.begin] != 0;
    }

    //! Where the values of the row at p lie, with those of the block behind it.
    std::array<const dbl *, 2> values(BUN p) const noexcept { return {x_.at(p), y_.at(p)}; }

    //! Where the flags of the same rows lie, 1 for a nil; null if the block has none.
    const std::uint8_t *nil_flags(BUN p) const noexcept {
        return (*scratch_).has_nils ? (*scratch_).nil + (p - block_.begin) : nullptr;
    }

    bool are_integers() const noexcept { return x_.are_integers() && y_.are_integers(); }

private:
    vask_row_range block_{};
};

//! A nil is what the type's own comparison says.
class atom_paired_rows : public paired_rows {
public:
    static constexpr bool asks_kernel = true;

    atom_paired_rows(const BAT &x, const BAT &y) noexcept
        : paired_rows(x, y), test_(*x.tail, *y.tail) {}

    VASK_ALWAYS_INLINE bool is_nil(BUN p) const { return !test_.both_values(p); }

private:
    paired_atom_nil_test test_;
};

} // namespace vask
