// A growable array on the kernel's memory.
#pragma once

#include "vask/kernel/bat.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace vask {

//! Thrown when the kernel has no memory left.
class bad_allocation : public std::bad_alloc {
public:
    const char *what() const noexcept override { return "bad allocation"; }
};

//! Uninitialised room for n elements from GDKmalloc. Throws std::length_error ("vector<T> too
//! long") when the size cannot be expressed and bad_allocation when GDKmalloc gives null.
template <class T>
T *gdk_allocate(std::size_t n, void *(*allocate)(std::size_t) = GDKmalloc) {
    if (n > std::numeric_limits<std::size_t>::max() / sizeof(T))
        throw std::length_error("vector<T> too long");
    void *block = allocate(n * sizeof(T));
    if (block == nullptr)
        throw bad_allocation();
    return static_cast<T *>(block);
}

//! The same from GDKzalloc, zeroed.
template <class T>
T *gdk_allocate_zeroed(std::size_t n) {
    return gdk_allocate<T>(n, GDKzalloc);
}

struct gdk_release {
    void operator()(void *block) const noexcept { GDKfree(block); }
};

//! Owns a block of the kernel's memory whose elements begin as whatever lies there.
template <class T>
requires std::is_trivially_copyable_v<T>
using gdk_block = std::unique_ptr<T[], gdk_release>;

//! Growable array whose block comes from GDKmalloc and goes back through GDKfree, because its
//! memory must count as the kernel's. Elements may own blocks of their own (a vector of vectors):
//! destruction releases those first. Growing moves the elements; a reference into the array may be
//! appended to it. Not thread-safe: one writer at a time.
template <class T>
class gdk_vector {
public:
    gdk_vector() noexcept = default;

    //! Holds n value-initialised elements. An element that throws takes those before it along.
    explicit gdk_vector(std::size_t n) : gdk_vector() {
        if (n == 0)
            return;
        begin_ = end_ = gdk_allocate<T>(n);
        limit_ = begin_ + n;
        for (; end_ != limit_; ++end_)
            new (end_) T();
    }

    gdk_vector(gdk_vector &&other) noexcept
        : begin_(std::exchange(other.begin_, nullptr)),
          end_(std::exchange(other.end_, nullptr)),
          limit_(std::exchange(other.limit_, nullptr)) {}

    gdk_vector &operator=(gdk_vector &&other) noexcept {
        if (this != &other) {
            release();
            begin_ = std::exchange(other.begin_, nullptr);
            end_ = std::exchange(other.end_, nullptr);
            limit_ = std::exchange(other.limit_, nullptr);
        }
        return *this;
    }

    gdk_vector(const gdk_vector &) = delete;
    gdk_vector &operator=(const gdk_vector &) = delete;

    ~gdk_vector() { release(); }

    std::size_t size() const noexcept { return static_cast<std::size_t>(end_ - begin_); }
    std::size_t capacity() const noexcept { return static_cast<std::size_t>(limit_ - begin_); }
    bool empty() const noexcept { return begin_ == end_; }
    T *data() noexcept { return begin_; }
    const T *data() const noexcept { return begin_; }
    T *begin() noexcept { return begin_; }
    T *end() noexcept { return end_; }
    const T *begin() const noexcept { return begin_; }
    const T *end() const noexcept { return end_; }
    T &operator[](std::size_t i) noexcept { return begin_[i]; }
    const T &operator[](std::size_t i) const noexcept { return begin_[i]; }

    //! Makes room for exactly n elements if there is less.
    void reserve(std::size_t n) {
        if (n > capacity())
            move_to_block_of(n);
    }

    void push_back(const T &value) requires std::is_copy_constructible_v<T> {
        if (end_ == limit_) {
            // The value may be an element of this array, so it is found again by its index.
            const bool own =
                !std::less<const T *>()(&value, begin_) && std::less<const T *>()(&value, end_);
            const std::size_t index = own ? static_cast<std::size_t>(&value - begin_) : 0;
            move_to_block_of(grown_capacity());
            new (end_++) T(own ? begin_[index] : value);
            return;
        }
        new (end_++) T(value);
    }

    //! Room for at least n elements more behind those there are; the beginning of all.
    T *room_for(std::size_t n) {
        if (capacity() - size() < n)
            reserve(std::max(size() + n, grown_capacity()));
        return begin_;
    }
    void grow_to(std::size_t n) noexcept { end_ = begin_ + n; }

    //! Appends n values, converted to T as by an assignment, a block copy if they are Ts already;
    //! the room must have been reserved.
    template <class S>
    void append_reserved(const S *values,
                         std::size_t n) noexcept requires std::is_trivially_copyable_v<T> {
        if constexpr (std::is_same_v<S, T>) {
            if (n != 0)
                std::memcpy(static_cast<void *>(end_), values, n * sizeof(T));
        } else {
            for (std::size_t i = 0; i < n; ++i)
                new (end_ + i) T(static_cast<T>(values[i]));
        }
        end_ += n;
    }

    //! Forgets the elements and keeps the block.
    void clear() noexcept {
        destroy_elements();
        end_ = begin_;
    }

    //! Gives the block back.
    void release() noexcept {
        destroy_elements();
        if (begin_ != nullptr)
            GDKfree(begin_);
        begin_ = end_ = limit_ = nullptr;
    }

private:
    static constexpr std::size_t max_size = std::numeric_limits<std::size_t>::max() / sizeof(T);

    //! Half as much again, and at least one more; as much as there can be where the half does not
    //! fit any more.
    std::size_t grown_capacity() const {
        const std::size_t now = capacity();
        if (size() == max_size)
            throw std::length_error("vector<T> too long");
        const std::size_t grown = now > max_size - now / 2 ? max_size : now + now / 2;
        return grown > size() ? grown : size() + 1;
    }

    void move_to_block_of(std::size_t n) {
        T *block = gdk_allocate<T>(n);
        const std::size_t used = size();
        if constexpr (std::is_trivially_copyable_v<T>) {
            if (used != 0)
                std::memcpy(static_cast<void *>(block), begin_, used * sizeof(T));
        } else {
            for (std::size_t i = 0; i < used; ++i) {
                new (block + i) T(std::move(begin_[i]));
                begin_[i].~T();
            }
        }
        if (begin_ != nullptr)
            GDKfree(begin_);
        begin_ = block;
        end_ = block + used;
        limit_ = block + n;
    }

    void destroy_elements() noexcept {
        if constexpr (!std::is_trivially_destructible_v<T>)
            for (T *p = begin_; p != end_; ++p)
                p->~T();
    }

    T *begin_ = nullptr;
    T *end_ = nullptr;
    T *limit_ = nullptr;
};

} // namespace vask
