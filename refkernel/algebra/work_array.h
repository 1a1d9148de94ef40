// Working memory of one call of the algebra.
#ifndef REFKERNEL_ALGEBRA_WORK_ARRAY_H
#define REFKERNEL_ALGEBRA_WORK_ARRAY_H

#include "refkernel/memory.h"

#include <cstddef>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

namespace refkernel::algebra {

//! An array of plain values on the kernel's memory, large ones on huge pages. It does not grow.
//! Running out of memory throws std::bad_alloc.
template <class T>
class work_array {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    work_array() = default;

    static work_array uninitialised(std::size_t size) {
        return work_array(memory::allocate(bytes_of(size)), size);
    }

    //! Zeroed by the system where it can: a page that is never touched costs nothing.
    static work_array zeroed(std::size_t size) {
        return work_array(memory::allocate_zeroed(bytes_of(size)), size);
    }

    work_array(work_array &&other) noexcept
        : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

    work_array &operator=(work_array &&other) noexcept {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        return *this;
    }

    ~work_array() {
        if (data_ != nullptr)
            memory::release(data_);
    }

    T *data() noexcept { return data_; }
    const T *data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }
    T &operator[](std::size_t i) noexcept { return data_[i]; }
    const T &operator[](std::size_t i) const noexcept { return data_[i]; }

private:
    work_array(void *block, std::size_t size) : data_(static_cast<T *>(block)), size_(size) {
        if (block == nullptr)
            throw std::bad_alloc();
    }

    static std::size_t bytes_of(std::size_t size) {
        if (size > std::numeric_limits<std::size_t>::max() / sizeof(T))
            throw std::bad_alloc();
        return size * sizeof(T);
    }

    T *data_ = nullptr;
    std::size_t size_ = 0;
};

} // namespace refkernel::algebra

#endif
