#include "operator_calls.h"

#include "refkernel/errors.h"

#include <stdexcept>

#include <fmt/format.h>

namespace vask::runner {

void check(char *exception_string) {
    if (exception_string == nullptr)
        return;
    const refkernel::exception failure = refkernel::take_exception(exception_string);
    throw std::runtime_error(
        fmt::format("the operator failed: {}: {}", failure.place, failure.text));
}

} // namespace vask::runner
