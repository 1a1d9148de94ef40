// Vectors of a value for each group or row.
#pragma once

#include "rows/huge_pages.h"

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace vask::table {

//! Takes large blocks in huge pages, and leaves elements that are given no value as they are.
template <class T>
struct large_allocator {
    using value_type = T;

    large_allocator() = default;
    template <class U>
    explicit(false) large_allocator(const large_allocator<U> &) noexcept {}

    T *allocate(std::size_t n) {
        T *const block = std::allocator<T>().allocate(n);
        advise_huge_pages(block, n * sizeof(T));
        return block;
    }
    void deallocate(T *block, std::size_t n) noexcept { std::allocator<T>().deallocate(block, n); }

    template <class U, class... Arguments>
    void construct(U *at, Arguments &&...arguments) {
        if constexpr (sizeof...(Arguments) == 0)
            ::new (static_cast<void *>(at)) U;
        else
            ::new (static_cast<void *>(at)) U(std::forward<Arguments>(arguments)...);
    }

    bool operator==(const large_allocator &) const = default;
};

//! One whose elements are whatever lies there until they are given a value.
template <class T>
requires std::is_trivially_copyable_v<T>
using large_vector = std::vector<T, large_allocator<T>>;

//! Makes room for n values in an empty vector of any kind.
template <class T>
void resize_in_huge_pages(std::vector<T> &values, std::size_t n, T initial = {}) {
    values.reserve(n);
    advise_huge_pages(values.data(), n * sizeof(T));
    values.resize(n, initial);
}

} // namespace vask::table
