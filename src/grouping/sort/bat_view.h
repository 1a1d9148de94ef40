// A BAT as a sequence of rows that a standard sort can sort in place.
//
// A row is not one object in memory: its head and its tail lie in two blocks. The iterator and the
// row view below make it look like one, so that the scheduler's parallel sort moves head and tail
// together without an array of indices or pairs beside them.
#pragma once

#include "kernel/column.h"
#include "rows/isa.h"
#include "vask/kernel/bat.h"

#include <compare>
#include <cstddef>
#include <iterator>

namespace vask {

//! A row of a BAT with a stored oid head and a tail of T: one that owns a copy of the two values,
//! or one that refers to the row's cells. Reading an iterator gives a referring view; a copy made
//! of any view owns its values, so an algorithm can keep a pivot or a temporary while the BAT
//! changes beneath it. Assignment to a referring view writes into the BAT.
//!
//! `auto row = *it` is no copy: the view is made in place and refers. Cmp orders the views.
template <class T, class Cmp>
class BUNview {
public:
    BUNview() noexcept : owned_(true), head_{.value = 0}, tail_{.value = T()} {}

    VASK_ALWAYS_INLINE BUNview(oid *head_cell, T *tail_cell) noexcept
        : owned_(false), head_{.cell = head_cell}, tail_{.cell = tail_cell} {}

    VASK_ALWAYS_INLINE BUNview(const BUNview &other) noexcept
        : owned_(true), head_{.value = other.head()}, tail_{.value = other.tail()} {}

    // Reads both values before it writes, so a row may be assigned to itself.
    // NOLINTNEXTLINE(cert-oop54-cpp)
    VASK_ALWAYS_INLINE BUNview &operator=(const BUNview &other) noexcept {
        const oid head = other.head();
        const T tail = other.tail();
        (owned_ ? head_.value : *head_.cell) = head;
        (owned_ ? tail_.value : *tail_.cell) = tail;
        return *this;
    }

    ~BUNview() = default;

    VASK_ALWAYS_INLINE bool owned() const noexcept { return owned_; }
    VASK_ALWAYS_INLINE oid head() const noexcept { return owned_ ? head_.value : *head_.cell; }
    VASK_ALWAYS_INLINE T tail() const noexcept { return owned_ ? tail_.value : *tail_.cell; }

    friend VASK_ALWAYS_INLINE bool operator<(const BUNview &a, const BUNview &b) noexcept {
        return Cmp{}(a, b);
    }

    //! Exchanges two rows. The general swap takes lvalues only, and what an iterator gives is none.
    friend VASK_ALWAYS_INLINE void swap(BUNview &&a, BUNview &&b) noexcept {
        const BUNview kept(static_cast<const BUNview &>(a));
        a = b;
        b = kept;
    }

private:
    template <class V>
    union place {
        V value;
        V *cell;
    };

    bool owned_;
    place<oid> head_;
    place<T> tail_;
};

//! Orders rows by head, as unsigned numbers. Rows of one head come in no particular order.
template <class T>
struct BUNviewHeadComparator {
    template <class View>
    VASK_ALWAYS_INLINE bool operator()(const View &a, const View &b) const noexcept {
        return a.head() < b.head();
    }
};

//! Orders rows by tail in T's own order; a nil sorts where its value says. With a NaN this is no
//! strict weak order.
template <class T>
struct BUNviewTailComparator {
    template <class View>
    VASK_ALWAYS_INLINE bool operator()(const View &a, const View &b) const noexcept {
        return a.tail() < b.tail();
    }
};

//! Random-access iterator over the rows of a BAT whose head is a stored oid column and whose tail
//! is stored as T. Two iterators compare by position; comparing those of two BATs means nothing.
template <class T, class Cmp>
class BATview_RAiterator {
public:
    using value_type = BUNview<T, Cmp>;
    using reference = value_type;
    using pointer = void;
    using difference_type = std::ptrdiff_t;
    using iterator_category = std::random_access_iterator_tag;

    BATview_RAiterator() noexcept = default;
    BATview_RAiterator(BAT *b, BUN position) noexcept : bat_(b), pos_(position) {}

    BUN position() const noexcept { return pos_; }

    // The element width is T's, so the position is scaled by it: a shift read from the record
    // would be read again for every row, as it could be changed by any store into the rows.
    VASK_ALWAYS_INLINE reference operator*() const noexcept {
        return {rows_of<oid>(*bat_->head) + pos_, rows_of<T>(*bat_->tail) + pos_};
    }
    VASK_ALWAYS_INLINE reference operator[](difference_type n) const noexcept {
        return *(*this + n);
    }

    VASK_ALWAYS_INLINE BATview_RAiterator &operator+=(difference_type n) noexcept {
        pos_ += static_cast<BUN>(n);
        return *this;
    }
    VASK_ALWAYS_INLINE BATview_RAiterator &operator-=(difference_type n) noexcept {
        pos_ -= static_cast<BUN>(n);
        return *this;
    }
    VASK_ALWAYS_INLINE BATview_RAiterator &operator++() noexcept { return *this += 1; }
    VASK_ALWAYS_INLINE BATview_RAiterator &operator--() noexcept { return *this -= 1; }
    VASK_ALWAYS_INLINE BATview_RAiterator operator++(int) noexcept {
        const BATview_RAiterator before = *this;
        ++*this;
        return before;
    }
    VASK_ALWAYS_INLINE BATview_RAiterator operator--(int) noexcept {
        const BATview_RAiterator before = *this;
        --*this;
        return before;
    }

    friend VASK_ALWAYS_INLINE BATview_RAiterator operator+(BATview_RAiterator it,
                                                           difference_type n) noexcept {
        return it += n;
    }
    friend VASK_ALWAYS_INLINE BATview_RAiterator operator+(difference_type n,
                                                           BATview_RAiterator it) noexcept {
        return it += n;
    }
    friend VASK_ALWAYS_INLINE BATview_RAiterator operator-(BATview_RAiterator it,
                                                           difference_type n) noexcept {
        return it -= n;
    }
    friend VASK_ALWAYS_INLINE difference_type operator-(const BATview_RAiterator &a,
                                                        const BATview_RAiterator &b) noexcept {
        return static_cast<difference_type>(a.pos_) - static_cast<difference_type>(b.pos_);
    }

    friend VASK_ALWAYS_INLINE bool operator==(const BATview_RAiterator &a,
                                              const BATview_RAiterator &b) noexcept {
        return a.pos_ == b.pos_;
    }
    friend VASK_ALWAYS_INLINE std::strong_ordering
    operator<=>(const BATview_RAiterator &a, const BATview_RAiterator &b) noexcept {
        return a.pos_ <=> b.pos_;
    }

private:
    BAT *bat_ = nullptr;
    BUN pos_ = 0;
};

} // namespace vask
