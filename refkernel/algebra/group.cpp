#include "refkernel/algebra/column_values.h"
#include "refkernel/algebra/group_result.h"
#include "refkernel/algebra/held_bats.h"
#include "refkernel/algebra/value_groups.h"
#include "refkernel/instrumented.h"

namespace refkernel::algebra {
namespace {

constexpr const char *place = "group.new";

void group(std::int32_t *histogram, std::int32_t *map, std::int32_t input) {
    const held_bat b(input);
    require_row_head(*b);
    require_groupable_tail(*b);
    group_result result(*b);
    const bool rows_together =
        group_values(*b, oid_reader(*b->head, *b), result.map(),
                     [&result](BUN groups) { return result.make_extents(groups); });
    result.hand_over(rows_together, histogram, map);
}

} // namespace
} // namespace refkernel::algebra

char *GRPgroup(int32_t *histogram, int32_t *map, const int32_t *input) {
    using namespace refkernel;
    if (instrumentation::enter(instrumentation::operation::grp_group, *input))
        return make_exception(algebra::place, "operation failed");
    return algebra::or_exception(algebra::place, [&] { algebra::group(histogram, map, *input); });
}
