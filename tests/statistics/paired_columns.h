// Two columns of any types for the statistics of two, and what is to be read from them.
#pragma once

#include "statistics/plain_statistics.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <optional>
#include <random>
#include <span>
#include <utility>
#include <vector>

namespace support {

//! The types that the statistics let in.
inline constexpr int statistic_types[] = {TYPE_bit, TYPE_byte, TYPE_bte, TYPE_sht, TYPE_int,
                                          TYPE_oid, TYPE_wrd,  TYPE_flt, TYPE_dbl, TYPE_lng};

inline int storage_of(int type) {
    return BATatoms[type].atom_storage;
}

//! The classes in which a first and a second column are read; nothing if they are refused.
inline std::optional<std::pair<int, int>> plain_classes(int first, int second) {
    const auto odd = [](int type) { return type == TYPE_bit || type == TYPE_byte; };
    if (odd(first))
        return std::pair{int{TYPE_bte}, int{TYPE_bte}};
    if (first == TYPE_bte && odd(second))
        return std::nullopt;
    return std::pair{storage_of(first), odd(second) ? int{TYPE_bte} : storage_of(second)};
}

//! A view of generated rows of any type from position `first` on, and the elements that are read of
//! it: rows are paired by position, those of both columns from the first column's `first` on.
class any_column {
public:
    any_column(int type, BUN rows, BUN first, BUN read_from, std::uint32_t nils,
               std::mt19937 &random, bool with_specials = false)
        : type_(type), read_from_(read_from) {
        with_element_of(type, [&]<class T>(T) {
            const auto values = statistic_values<T>(rows + std::max(first, read_from), 1'000'000,
                                                    nils, random, with_specials);
            const auto bytes = std::as_bytes(std::span(values));
            elements_.assign(bytes.begin(), bytes.end());
            whole_ = column_of(values, {.type = type});
        });
        view = refkernel::view_rows(whole_, first, rows);
    }

    refkernel::bat view;

    //! The value of a row read in a class.
    [[nodiscard]] double value(BUN row, int storage_class) const {
        return with_element_of(storage_class, [&]<class T>(T v) {
            std::memcpy(&v, element(row), sizeof v);
            return static_cast<double>(v);
        });
    }
    //! Whether a row equals the nil of the column's type in a class.
    [[nodiscard]] bool equals_nil(BUN row, int storage_class) const {
        return with_element_of(storage_class, [&]<class T>(T v) {
            T nil;
            std::memcpy(&v, element(row), sizeof v);
            std::memcpy(&nil, BATatoms[type_].atom_null, sizeof nil);
            return v == nil;
        });
    }
    //! Whether a row is nil as a value of the column's type.
    [[nodiscard]] bool is_nil(BUN row) const { return equals_nil(row, storage_of(type_)); }

private:
    [[nodiscard]] const std::byte *element(BUN row) const {
        return elements_.data() +
               (read_from_ + row) * static_cast<std::size_t>(BATatoms[type_].atom_size);
    }

    int type_;
    BUN read_from_;
    std::vector<std::byte> elements_;
    refkernel::bat whole_;
};

//! Two columns, x and y, as a statistic sees them.
struct column_pair {
    any_column x;
    any_column y;
    std::pair<int, int> classes;
    bool is_line;

    //! Whether a row is no part of the sums.
    [[nodiscard]] bool dropped(BUN row) const {
        return is_line ? x.equals_nil(row, classes.first) || y.equals_nil(row, classes.second)
                       : x.is_nil(row) || y.is_nil(row);
    }
    void add(BUN row, plain_pair_sums &sums) const {
        sums.add(x.value(row, classes.first), y.value(row, classes.second));
    }
};

} // namespace support
