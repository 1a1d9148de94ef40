#include "table/operators.h"

#include "kernel/cancelled.h"
#include "table/errors.h"
#include "vask/refkernel/errors.h"
#include "vask/refkernel/reference_account.h"

#include <new>
#include <utility>

#include <fmt/format.h>
#include <tbb/task_arena.h>

namespace vask::table {
namespace {

using refkernel::bat;
using bat_number = const std::int32_t *;

template <std::size_t>
using numbered = bat_number;

template <std::size_t... I>
char *call_with(const operator_set &operators, const std::string &name, void *result,
                std::span<const bat *const> bats, std::index_sequence<I...>) {
    return operators.function<char *(void *, numbered<I>...)>(name)(result, bats[I]->slot()...);
}

void check(char *exception_string) {
    if (exception_string == nullptr)
        return;
    const refkernel::operator_failure failure = refkernel::take_exception(exception_string);
    end_if_cancelled(); // of which some only say that they failed
    if (failure.text.find("allocate") != std::string::npos)
        throw std::bad_alloc();
    // Columns were checked before, so that little else is left: some operators only say that they
    // failed where memory ran out in a task.
    fail(VASK_NO_MEMORY, "the operator failed: {}: {}; memory may have run out", failure.place,
         failure.text);
}

std::string nothing_told() {
    return {};
}

std::string number_of(const operator_set::grouped_rows &groups) {
    const BUN n = groups.extents.count();
    return fmt::format("{} group{}, ", n, n == 1 ? "" : "s");
}

// A thread that waits in an operator takes up no work of another query. What an operator loses when
// an exception passes it is given back.
template <class Call>
void isolated(const Call &call) {
    char *failure = nullptr;
    refkernel::reference_account references;
    try {
        tbb::this_task_arena::isolate([&] { failure = call(); });
    } catch (...) {
        references.give_back();
        throw;
    }
    check(failure);
}

} // namespace

void operator_set::call(const std::string &name, void *result, std::span<const bat *const> bats,
                        std::string_view about) const {
    const auto call = [&] {
        isolated([&] {
            switch (bats.size()) {
                case 1:
                    return call_with(*this, name, result, bats, std::make_index_sequence<1>{});
                case 2:
                    return call_with(*this, name, result, bats, std::make_index_sequence<2>{});
                case 3:
                    return call_with(*this, name, result, bats, std::make_index_sequence<3>{});
                case 4:
                    return call_with(*this, name, result, bats, std::make_index_sequence<4>{});
                default:
                    throw std::logic_error(fmt::format("{} of {} BATs", name, bats.size()));
            }
        });
    };
    watched({name, about, bats.empty() ? 0 : bats.front()->count()}, call, nothing_told);
}

bat operator_set::call(const std::string &name, std::span<const bat *const> bats,
                       std::string_view about) const {
    std::int32_t id = int_nil;
    call(name, &id, bats, about);
    return bat::adopt(id);
}

void operator_set::work(const std::string &name, std::string_view about, BUN rows,
                        const std::function<void()> &work) const {
    watched(
        {name, about, rows}, [&] { tbb::this_task_arena::isolate(work); }, nothing_told);
}

operator_set::grouped_rows operator_set::group(const bat &column, std::string_view about) const {
    const std::string name = "VASKgroup";
    auto *const group =
        function<char *(std::int32_t *, std::int32_t *, const std::int32_t *)>(name);
    std::int32_t extents = int_nil;
    std::int32_t map = int_nil;
    grouped_rows made;
    watched(
        {name, about, column.count()},
        [&] {
            isolated([&] { return group(&extents, &map, column.slot()); });
            made = {bat::adopt(map), bat::adopt(extents)};
        },
        [&] { return number_of(made); });
    return made;
}

operator_set::grouped_rows operator_set::derive(const grouped_rows &groups, const bat &column,
                                                std::string_view about) const {
    const std::string name = "VASKderive";
    auto *const derive = function<char *(std::int32_t *, std::int32_t *, const std::int32_t *,
                                         const std::int32_t *, const std::int32_t *)>(name);
    std::int32_t extents = int_nil;
    std::int32_t map = int_nil;
    grouped_rows made;
    watched(
        {name, about, column.count()},
        [&] {
            isolated([&] {
                return derive(&extents, &map, groups.extents.slot(), groups.map.slot(),
                              column.slot());
            });
            made = {bat::adopt(map), bat::adopt(extents)};
        },
        [&] { return number_of(made); });
    return made;
}

} // namespace vask::table
