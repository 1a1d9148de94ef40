#include "column_numbers.h"

#include <limits>
#include <stdexcept>

namespace side_by_side {
namespace {

template <class T>
std::vector<double> numbers(const refkernel::bat &column) {
    std::vector<double> result;
    result.reserve(column.count());
    for (const T value : column.values<T>())
        result.push_back(value == refkernel::nil_of<T>() ? std::numeric_limits<double>::quiet_NaN()
                                                         : static_cast<double>(value));
    return result;
}

} // namespace

std::vector<double> numbers_of(const refkernel::bat &column) {
    switch (column.type()) {
        case TYPE_bit:
        case TYPE_bte:
            return numbers<std::int8_t>(column);
        case TYPE_int:
            return numbers<std::int32_t>(column);
        case TYPE_wrd:
        case TYPE_lng:
            return numbers<std::int64_t>(column);
        case TYPE_dbl:
            return numbers<double>(column);
        default:
            throw std::runtime_error("no numbers in a column of type " +
                                     std::to_string(column.type()));
    }
}

} // namespace side_by_side
