// What order statistics of a column and of groups share between export and functor.
#pragma once

#include "kernel/element_types.h"
#include "kernel/frame.h"
#include "statistics/order_statistics.h"
#include "statistics/parameter.h"
#include "statistics/statistic.h"

#include <concepts>
#include <type_traits>

namespace vask {

//! Whether values of class S can be wanted as R: as doubles, or as they are. No other pair is asked
//! for: an export wants doubles, or chose R by the class of the same column.
template <class R, class S>
inline constexpr bool is_gathered_as = std::same_as<R, dbl> || std::same_as<R, S>;

//! Calls `f(std::type_identity<S>{})` with the class of an admitted column if its values can be
//! gathered as R. `f` gives 1 for success; the result is null or a failure text.
template <class R, class F>
const char *with_gathered_class(const BATcol &tail, F f) {
    if (!is_admitted(tail))
        return failure::unsupported_tail;
    const int done =
        visit_storage_class(storage_of(tail), 0, [&]<class S>(std::type_identity<S> source) {
            if constexpr (is_gathered_as<R, S>)
                return f(source);
            else
                return 0;
        });
    return done == 1 ? nullptr : failure::operation_failed;
}

//! Calls `f(std::type_identity<T>{}, type)` with the class and the type of the column `bid`: the
//! statistics whose answer is a value of the column need them before anything else. A column
//! without a class is answered by the bare place name, which is no exception string and not to be
//! freed; a plan relies on that it is not null.
template <class F>
char *with_stat_class(const std::int32_t *bid, F f) {
    BAT *b = vask_descriptor(*bid);
    if (b == nullptr)
        return make_exception(order_statistics_place, failure::object_not_found);
    const bte type = b->tail->type;
    BBPreleaseref(b->bat_id);
    return visit_storage_class(
        BATatoms[type].atom_storage, const_cast<char *>(order_statistics_place),
        [&]<class T>(std::type_identity<T> stat_class) { return f(stat_class, type); });
}

} // namespace vask
