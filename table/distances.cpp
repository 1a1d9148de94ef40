#include "table/distances.h"

#include "table/parallel.h"

#include "kernel/column.h"
#include "rows/isa.h"

#include <algorithm>
#include <cmath>
#include <concepts>
#include <span>
#include <type_traits>
#include <utility>

namespace vask::table {
namespace {

using refkernel::bat;
using refkernel::nil_of;

// From here on rows are dealt out to buckets of groups and read twice, and a centre is far off:
// distances are looked up once.
constexpr std::size_t fewest_groups_to_write = std::size_t{1} << 18;

// Of 64-bit integers that of the integers where 64 bits hold it: as dbl, large integers that are
// close to each other may be equal. Narrower ones are what they are as dbl, too.
template <class T>
VASK_ALWAYS_INLINE double distance(T value, T centre) {
    if constexpr (std::integral<T> && sizeof(T) == sizeof(lng)) {
        lng difference = 0;
        if (!__builtin_sub_overflow(value, centre, &difference))
            return static_cast<double>(difference);
    }
    return static_cast<double>(value) - static_cast<double>(centre);
}

// An integer as wide as T, so that whether there was a nil is told by vectors, too.
template <class T>
using mark_of = std::conditional_t<
    sizeof(T) == 8, std::int64_t,
    std::conditional_t<sizeof(T) == 4, std::int32_t,
                       std::conditional_t<sizeof(T) == 2, std::int16_t, std::int8_t>>>;

// Whether there was a nil. Its distance is reckoned, too, so that the loop has no branch and
// becomes vectors.
template <class T, class CentreOf>
bool write_distances(const T *values, const CentreOf &centre_of, vask_row_range rows, dbl *to) {
    return with_best_instruction_set([=]() __attribute__((always_inline)) {
        using mark = mark_of<T>;
        const CentreOf own = centre_of;
        const T nil = nil_of<T>();
        const T *const from = values + rows.begin;
        const std::size_t n = rows.size();
        mark any_nil = 0;
        // Blocks of several partitions in turn are no order that the processor sees.
        prefetch_bytes(from + n, 0, n * sizeof(T));
        for (std::size_t i = 0; i < n; ++i) {
            const double found = distance(from[i], own(rows.begin + i));
            to[i] = from[i] == nil ? nil_of<dbl>() : found;
            any_nil |= static_cast<mark>(from[i] == nil);
        }
        return any_nil != 0;
    });
}

// By group the first value; the nil where there is none.
template <class T>
std::vector<T> first_values(std::span<const T> all, const groups &by) {
    const T nil = nil_of<T>();
    std::vector<T> first(by.count(), nil);
    if (all.empty())
        return first;
    const std::span<const oid> first_rows = by.first_rows();
    bool any_without = false;
    for (std::size_t group = 0; group < first.size(); ++group) {
        first[group] = all[first_rows[group]];
        any_without |= first[group] == nil;
    }
    const auto number_of = by.number_of_row();
    for (std::size_t row = 0; any_without && row < all.size(); ++row) {
        T &own = first[number_of(row)];
        if (own == nil)
            own = all[row];
    }
    return first;
}

} // namespace

centred_values::centred_values(bat values, const groups &by) : values_(std::move(values)) {
    visit_values(values_, [&]<class T>(std::span<const T> all) {
        are_integers_ = std::integral<T>;
        std::vector<T> centre = first_values(all, by);
        centres_.resize(centre.size());
        std::transform(centre.begin(), centre.end(), centres_.begin(), [](T value) {
            return value == nil_of<T>() ? std::nan("") : static_cast<double>(value);
        });
        // Of the whole there is one centre, and the loop has nothing to look up.
        if (by.is_whole())
            write_ = [from = all.data(), c = centre[0]](vask_row_range rows, dbl *to) {
                return write_distances(
                    from, [c](std::size_t) { return c; }, rows, to);
            };
        else
            write_ = [from = all.data(), numbers = by.numbers().data(),
                      centre = std::move(centre)](vask_row_range rows, dbl *to) {
                return write_distances(
                    from,
                    [numbers, own = centre.data()](std::size_t row) {
                        return own[static_cast<std::size_t>(numbers[row])];
                    },
                    rows, to);
            };
    });
    if (by.count() < fewest_groups_to_write)
        return;
    written_.emplace(static_cast<std::size_t>(by.rows()));
    for_rows(written_->values.size(), [&](std::size_t begin, std::size_t end) {
        write({static_cast<BUN>(begin), static_cast<BUN>(end)}, written_->values.data() + begin);
    });
}

} // namespace vask::table
