// What a function gives, by group, before it becomes a column of the result.
#pragma once

#include "table/column.h"
#include "table/groups.h"

#include "vask/vask.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace vask::table {

__extension__ using wide_integer = __int128;

//! Forms of an answer's values.
enum class form : std::uint8_t {
    bte,
    sht,
    int_,
    lng,
    unsigned_lng,
    flt,
    dbl,
    wide, //!< integers of 128 bits
    rank, //!< places of words in their order, of ranked texts
    row   //!< rows of a column whose values are meant, lng
};

//! By group number; a missing one is the form's nil, or has 0 in `present`.
struct answer {
    form stored{};
    const void *values = nullptr;
    std::shared_ptr<const void> owner;
    //! By group number 1 for a value; empty: the nil tells.
    std::vector<std::uint8_t> present;
    bool no_nil = false; //!< every group has a value

    template <class T>
    std::span<const T> as(std::size_t count) const {
        return {static_cast<const T *>(values), count};
    }
};

template <class T, class Allocator>
answer answer_of(form stored, std::vector<T, Allocator> values) {
    const auto kept = std::make_shared<const std::vector<T, Allocator>>(std::move(values));
    answer result;
    result.stored = stored;
    result.values = kept->data();
    result.owner = kept;
    return result;
}

//! The tail of a BAT. `rank`: integers that are places of words.
answer answer_of(refkernel::bat values, bool rank = false);

//! By group number, of `count` groups, 1 for those with a value.
std::vector<std::uint8_t> presence_of(const answer &values, std::size_t count);

//! A column of a result, as the Arrow interface has it.
struct result_column {
    std::string name;
    value_type type;
    std::int64_t rows = 0;
    std::int64_t nulls = 0;
    const std::uint8_t *validity = nullptr;
    const void *values = nullptr; //!< values, bits or offsets
    const char *bytes = nullptr;  //!< of texts
    std::vector<std::shared_ptr<const void>> owners;
};

//! The answers of the groups that are shown, in their order, as a column of a type. `source` is the
//! column that rows and ranks speak of, null for other forms.
result_column finish_answer(std::string name, const value_type &type, const answer &values,
                            const groups &by, const column *source, bool nan_missing,
                            const teller &tell);

} // namespace vask::table
