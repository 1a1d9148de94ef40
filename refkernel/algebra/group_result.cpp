#include "refkernel/algebra/group_result.h"

#include "refkernel/algebra/held_bats.h"
#include "refkernel/instrumented.h"

#include <algorithm>
#include <cstring>
#include <functional>

namespace refkernel::algebra {
namespace {

std::unique_ptr<bat_entry> new_entry(int head_type, int tail_type, BUN rows) {
    auto made = make_entry(head_type, tail_type, rows);
    made->info.count = rows;
    for (column *c : {&made->head, &made->tail})
        c->free = std::uint64_t{rows} << c->shift;
    return made;
}

// Ascending in the order of the type, in which an oid compares by its bits as int.
bool ascends_strictly(const oid *ids, BUN count) {
    return std::adjacent_find(ids, ids + count, [](oid a, oid b) {
               return static_cast<std::int32_t>(a) >= static_cast<std::int32_t>(b);
           }) == ids + count;
}

} // namespace

group_result::group_result(BAT &b)
    : input_(b), map_(new_entry(TYPE_void, TYPE_oid, b.info->count)) {
    const column &head = column_of(b.head);
    const BATinfo &info = *b.info;
    if (is_void(head)) {
        make_void(map_->head, head.seqbase);
        return;
    }
    map_->head.share(head, info.first, true);
    if (b.state->access == ACCESS_WRITABLE) {
        const std::size_t bytes = std::size_t{info.count} << head.shift;
        auto copy = memory::allocate_block(bytes);
        if (copy == nullptr)
            throw std::bad_alloc();
        if (bytes > 0)
            std::memcpy(copy->base, element_place(head, info.first), bytes);
        map_->head.adopt_memory(std::move(copy));
    }
}

extents_rows group_result::make_extents(BUN groups) {
    histogram_ = new_entry(TYPE_oid, TYPE_wrd, groups);
    return {ids(), elements<wrd>(histogram_->tail)};
}

void group_result::set_groups(BUN groups) noexcept {
    histogram_->info.count = groups;
    histogram_->head.free = std::uint64_t{groups} * sizeof(oid);
    histogram_->tail.free = std::uint64_t{groups} * sizeof(wrd);
    every_row_has_a_group_ = false;
}

void group_result::mark_histogram() noexcept {
    column &head = histogram_->head;
    const bool ascends = ascends_strictly(ids(), groups());
    head.nil = std::find(ids(), ids() + groups(), oid_nil) != ids() + groups();
    head.nonil = !head.nil;
    if (ascends) {
        head.sorted = SORTED_ASCENDING;
        if (groups() > 0 && head.nonil && ids()[groups() - 1] - ids()[0] + 1 == groups()) {
            head.dense = 1;
            head.seqbase = ids()[0];
        }
    }
    // A head with a value twice gives two groups one name.
    const BATcol &rows = *input_.head;
    head.key =
        ascends || rows.key != 0 || (is_dense(rows) && rows.seqbase != oid_nil) ? key_unique : 0;
    column &tail = histogram_->tail;
    tail.nonil = 1;
    if (groups() <= 1 || (groups() == map_->info.count && every_row_has_a_group_))
        tail.sorted = SORTED_ASCENDING; // nothing but ones, or a single count
    tail.key = groups() <= 1 ? key_unique : 0;
}

void group_result::mark_map(bool rows_together) noexcept {
    const column &ids = histogram_->head;
    column &tail = map_->tail;
    tail.nonil = ids.nonil && every_row_has_a_group_;
    tail.nil = ids.nil || !every_row_has_a_group_;
    if (!every_row_has_a_group_)
        return;
    if (groups() == map_->info.count) {
        // Every row is a group of its own, and the map the same as the ids.
        tail.sorted = ids.sorted;
        tail.key = ids.key;
        tail.dense = ids.dense;
        tail.seqbase = ids.seqbase;
    } else if (groups() == 1 || (rows_together && ids.sorted != 0)) {
        tail.sorted = SORTED_ASCENDING;
    }
}

void group_result::hand_over(bool rows_together, std::int32_t *histogram, std::int32_t *map) {
    mark_histogram();
    mark_map(rows_together);
    align_heads(map_->head, column_of(input_.head));
    const std::int32_t histogram_id = algebra::hand_over(std::move(histogram_));
    try {
        *map = algebra::hand_over(std::move(map_));
    } catch (...) {
        pool::drop_reference(histogram_id, pool::reference::logical);
        throw;
    }
    *histogram = histogram_id;
    if (instrumentation::unloads_groupings()) {
        instrumentation::unload(*histogram);
        instrumentation::unload(*map);
    }
}

} // namespace refkernel::algebra
