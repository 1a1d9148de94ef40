#include "refkernel/algebra/held_bats.h"
#include "refkernel/algebra/old_groups.h"
#include "refkernel/instrumented.h"
#include "rows/row_blocks.h"

#include <algorithm>
#include <array>
#include <vector>

namespace refkernel::algebra {
namespace {

constexpr const char *place = "aggr.count3Nils";

// A row counts whatever its value is; none is read, and so a tail of any type will do.
std::int32_t count(const std::array<std::int32_t, 3> &inputs) {
    const held_bat values(inputs[0]);
    const held_bat group_map(inputs[1]);
    const held_bat extents(inputs[2]);
    const row_parents parents(*extents, *group_map, *values);
    const old_groups groups(parents, *extents, values->info->count);
    // One more for the rows that are in no group.
    std::vector<wrd> counts(std::size_t{groups.count()} + 1);
    std::array<std::uint32_t, vask::block_rows> numbers;
    const BUN rows = values->info->count;
    for (BUN row = 0; row < rows; row += vask::block_rows) {
        const BUN block = std::min(vask::block_rows, rows - row);
        groups.load_numbers(row, block, numbers.data());
        for (BUN i = 0; i < block; ++i)
            ++counts[numbers[i]];
    }
    auto result = make_entry(TYPE_void, TYPE_wrd, groups.count());
    result->info.count = groups.count();
    result->tail.free = std::uint64_t{groups.count()} << result->tail.shift;
    result->head.share(column_of(extents->head), extents->info->first, true);
    align_heads(result->head, column_of(extents->head));
    std::copy_n(counts.data(), groups.count(), elements<wrd>(result->tail));
    result->tail.nonil = 1;
    return hand_over(std::move(result));
}

} // namespace
} // namespace refkernel::algebra

char *AX3aggrX3_count3Nils(int32_t *result, const int32_t *values, const int32_t *group_map,
                           const int32_t *extents) {
    using namespace refkernel;
    if (instrumentation::enter(instrumentation::operation::aggr_count3_nils, *values, *group_map,
                               *extents))
        return make_exception(algebra::place, "operation failed");
    return algebra::or_exception(algebra::place, [&] {
        *result = algebra::count({*values, *group_map, *extents});
    });
}
