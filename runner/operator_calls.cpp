#include "operator_calls.h"

#include "vask/refkernel/errors.h"

#include <array>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace vask::runner {
namespace {

using bat_number = const std::int32_t *;

template <std::size_t>
using numbered = bat_number;

template <std::size_t... I>
char *call(const operator_library &operators, const std::string &name, void *result,
           std::span<const bat_number> bats, std::index_sequence<I...>) {
    return operators.function<char *(void *, numbered<I>...)>(name)(result, bats[I]...);
}

} // namespace

void check(char *exception_string) {
    if (exception_string == nullptr)
        return;
    const refkernel::exception failure = refkernel::take_exception(exception_string);
    throw std::runtime_error(
        fmt::format("the operator failed: {}: {}", failure.place, failure.text));
}

void call_operator(const operator_library &operators, const std::string &name, void *result,
                   std::span<const std::int32_t *const> bats) {
    switch (bats.size()) {
        case 1:
            return check(call(operators, name, result, bats, std::make_index_sequence<1>{}));
        case 2:
            return check(call(operators, name, result, bats, std::make_index_sequence<2>{}));
        case 3:
            return check(call(operators, name, result, bats, std::make_index_sequence<3>{}));
        case 4:
            return check(call(operators, name, result, bats, std::make_index_sequence<4>{}));
        default:
            throw std::logic_error(fmt::format("{} of {} BATs", name, bats.size()));
    }
}

} // namespace vask::runner
