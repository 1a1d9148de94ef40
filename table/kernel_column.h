// The kernel's columns, made and read by whole arrays.
#pragma once

#include "kernel/element_types.h"

#include "vask/embed.h"

#include <cstdint>
#include <memory>
#include <new>
#include <span>
#include <type_traits>

namespace vask::table {

//! A column with memory of its own that is yet to be written.
template <refkernel::element T>
struct fresh_column {
    std::shared_ptr<refkernel::memory::block> memory;
    std::span<T> values;

    explicit fresh_column(std::size_t rows)
        : memory(refkernel::memory::allocate_block(rows * sizeof(T))) {
        if (memory == nullptr)
            throw std::bad_alloc();
        values = {static_cast<T *>(memory->base), rows};
    }

    //! As a column of the type code that goes with T, or of `type`.
    refkernel::bat finish(const refkernel::column_marks &marks = {}, int type = TYPE_void) && {
        refkernel::column_options options;
        options.tail = marks;
        options.look_for_nils = false; // the marks are all that anybody asks for
        options.type = type;
        return refkernel::make_column_in(std::move(memory), values.size(), sizeof(T),
                                         refkernel::type_code_of<T>, options);
    }
};

//! A column over memory that outlives it.
template <refkernel::element T>
refkernel::bat borrowed_column(const T *values, std::size_t rows,
                               const refkernel::column_marks &marks = {}) {
    auto memory = std::make_shared<refkernel::memory::block>();
    // The kernel writes to no column that is made read-only.
    memory->base = const_cast<T *>(values);
    memory->bytes = rows * sizeof(T);
    refkernel::column_options options;
    options.tail = marks;
    options.look_for_nils = false;
    return refkernel::make_column_in(std::move(memory), rows, sizeof(T), refkernel::type_code_of<T>,
                                     options);
}

//! Calls `f(std::type_identity<T>{})` with the type that a storage code is read as.
template <class F>
decltype(auto) visit_storage(int storage, F f) {
    switch (storage) {
        case TYPE_bit:
        case TYPE_bte:
            return f(std::type_identity<bte>{});
        case TYPE_sht:
            return f(std::type_identity<sht>{});
        case TYPE_int:
            return f(std::type_identity<std::int32_t>{});
        case TYPE_flt:
            return f(std::type_identity<flt>{});
        case TYPE_dbl:
            return f(std::type_identity<dbl>{});
        default:
            return f(std::type_identity<lng>{});
    }
}

//! The same with the column's values.
template <class F>
decltype(auto) visit_values(const refkernel::bat &column, F f) {
    return visit_storage(column.type(),
                         [&]<class T>(std::type_identity<T>) { return f(column.values<T>()); });
}

} // namespace vask::table
