// Working memory of one call of the algebra.
#ifndef REFKERNEL_ALGEBRA_WORK_ARRAY_H
#define REFKERNEL_ALGEBRA_WORK_ARRAY_H

#include "refkernel/memory.h"

#include <cstddef>
#include <limits>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace refkernel::algebra {

//! An array of plain values, large ones on huge pages. It does not grow. Running out of memory
//! throws std::bad_alloc.
template <class T>
class work_array {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    work_array() = default;

    static work_array uninitialised(std::size_t size) {
        return work_array(memory::allocate_block(bytes_of(size)), size);
    }

    static work_array zeroed(std::size_t size) {
        return work_array(memory::allocate_zeroed_block(bytes_of(size)), size);
    }

    T *data() noexcept { return data_; }
    const T *data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }
    T &operator[](std::size_t i) noexcept { return data_[i]; }
    const T &operator[](std::size_t i) const noexcept { return data_[i]; }

private:
    work_array(std::shared_ptr<memory::block> memory, std::size_t size)
        : memory_(std::move(memory)), size_(size) {
        if (memory_ == nullptr)
            throw std::bad_alloc();
        data_ = static_cast<T *>(memory_->base);
    }

    static std::size_t bytes_of(std::size_t size) {
        if (size > std::numeric_limits<std::size_t>::max() / sizeof(T))
            throw std::bad_alloc();
        return size * sizeof(T);
    }

    std::shared_ptr<memory::block> memory_;
    T *data_ = nullptr;
    std::size_t size_ = 0;
};

} // namespace refkernel::algebra

#endif
