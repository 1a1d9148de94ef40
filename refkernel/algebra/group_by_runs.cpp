#include "refkernel/algebra/row_groups.h"

#include <algorithm>
#include <array>
#include <vector>

namespace refkernel::algebra {

void group_by_runs(const grouping_task &task, const key_loader &load,
                   const std::function<bool(BUN row)> &same_as_previous) {
    std::vector<BUN> starts;
    std::size_t groups = 0;
    BUN start = 0;
    std::uint64_t previous = 0;
    std::array<std::uint64_t, block_rows> keys;
    for (BUN row = 0; row < task.rows; row += block_rows) {
        const unsigned rows = std::min<BUN>(block_rows, task.rows - row);
        load(row, rows, keys.data());
        if (row == 0)
            previous = ~keys[0];
        // One place beyond the starts known so far is always written, and kept only when a run
        // begins: short runs of varying length would otherwise mislead the branch prediction.
        if (starts.size() < groups + block_rows + 1)
            starts.resize((groups + block_rows) * 2);
        for (unsigned i = 0; i < rows; ++i) {
            bool begins = keys[i] != previous;
            if (same_as_previous && begins && row + i > 0)
                begins = !same_as_previous(row + i);
            previous = keys[i];
            start = begins ? row + i : start;
            starts[groups] = start;
            groups += begins;
            task.map[row + i] = start;
        }
        task.ids.name(task.map + row, rows);
    }
    const auto count = static_cast<BUN>(groups);
    const extents_rows out = task.make_extents(count);
    if (out.ids == nullptr)
        return;
    for (BUN group = 0; group < count; ++group) {
        const BUN end = group + 1 < count ? starts[group + 1] : task.rows;
        out.ids[group] = task.ids[starts[group]];
        out.counts[group] = wrd{end} - starts[group];
    }
}

} // namespace refkernel::algebra
