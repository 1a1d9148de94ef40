#include "refkernel/algebra/column_keys.h"
#include "refkernel/algebra/derive_lone_rows.h"
#include "refkernel/algebra/group_result.h"
#include "refkernel/algebra/held_bats.h"
#include "refkernel/algebra/old_groups.h"
#include "refkernel/algebra/value_groups.h"
#include "refkernel/instrumented.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>
#include <vector>

namespace refkernel::algebra {
namespace {

constexpr const char *place = "group.derive";

// Up to here the groups of a column are numbered anew through a table that caches well.
constexpr oid max_renumbered = oid{1} << 18;

//! The values of a column as codes below a bound: equal codes mean equal values.
struct value_codes {
    std::uint64_t bound = 0;
    index_loader load;
    // What the loader reads, where it is not the column itself.
    work_array<oid> first_rows;
    work_array<std::uint32_t> numbers;
};

// For values that do not fit in 32 bits, and for texts: the column is grouped by itself, and a
// group's first row is the code, or its number if those rows come early, as they do when the
// groups are few.
void encode_by_grouping(const BAT &b, value_codes &codes) {
    const BUN rows = b.info->count;
    codes.first_rows = work_array<oid>::uninitialised(rows);
    std::vector<oid> firsts;
    std::vector<wrd> counts;
    group_values(*b.tail, *b.info, {nullptr, 0}, codes.first_rows.data(), [&](BUN groups) {
        firsts.resize(groups);
        counts.resize(groups);
        return extents_rows{firsts.data(), counts.data()};
    });
    const oid last = firsts.empty() ? 0 : firsts.back();
    if (last > max_renumbered) {
        codes.bound = rows;
        codes.load = load_indices({codes.first_rows.data(), sizeof(oid)}, {0, rows});
        return;
    }
    codes.numbers = work_array<std::uint32_t>::uninitialised(std::size_t{last} + 1);
    for (std::uint32_t number = 0; number < firsts.size(); ++number)
        codes.numbers[firsts[number]] = number;
    codes.bound = firsts.size();
    codes.load = [firsts_of = codes.first_rows.data(),
                  numbers = codes.numbers.data()](BUN row, unsigned count, std::uint32_t *out) {
        for (unsigned i = 0; i < count; ++i)
            out[i] = numbers[firsts_of[row + i]];
    };
}

value_codes codes_of(const BAT &b) {
    value_codes codes;
    const BATcol &tail = *b.tail;
    if (!is_void(tail) && !tail.varsized) {
        column_keys keys = keys_of(tail, *b.info, widest_bound);
        if (keys.has_range) {
            codes.bound = keys.range.bound();
            codes.load = std::move(keys.indices);
            return codes;
        }
    }
    encode_by_grouping(b, codes);
    return codes;
}

//! Old group and value as one key. The rows that are in no group all have the same one.
class pair_keys {
public:
    pair_keys(const old_groups &groups, const value_codes &values)
        : groups_(groups), values_(values) {}

    //! The bound of the indices.
    std::uint64_t bound() const noexcept { return groups_.count() * values_.bound + 1; }

    //! For a bound() that fits.
    void load_indices(BUN row, unsigned rows, std::uint32_t *indices) {
        groups_.load_numbers(row, rows, numbers_.data());
        load_codes(row, rows, numbers_.data(), groups_.count());
        const auto width = static_cast<std::uint32_t>(values_.bound);
        for (unsigned i = 0; i < rows; ++i)
            indices[i] = numbers_[i] * width + codes_[i];
    }

    //! Keyed by the ids themselves. With many groups, numbering every row would cost as much as the
    //! grouping; whether the extents have an id is asked once for each group that comes out.
    void load_keys(BUN row, unsigned rows, std::uint64_t *keys) {
        const oid *const ids = groups_.ids() + row;
        load_codes(row, rows, ids, nil_is_group_ ? std::optional<oid>() : oid_nil);
        for (unsigned i = 0; i < rows; ++i)
            keys[i] = std::uint64_t{ids[i]} << 32 | codes_[i];
    }

    //! The least row loaded so far that is in no group, if there is one.
    std::optional<BUN> first_outside() const noexcept { return first_outside_; }

private:
    void load_codes(BUN row, unsigned rows, const std::uint32_t *parents,
                    std::optional<std::uint32_t> outside) {
        values_.load(row, rows, codes_.data());
        if (!outside || std::find(parents, parents + rows, *outside) == parents + rows)
            return;
        for (unsigned i = 0; i < rows; ++i) {
            if (parents[i] == *outside) {
                codes_[i] = 0;
                first_outside_ = std::min(first_outside_.value_or(row + i), row + i);
            }
        }
    }

    const old_groups &groups_;
    const value_codes &values_;
    bool nil_is_group_ = groups_.has_nil();
    std::optional<BUN> first_outside_;
    std::array<std::uint32_t, block_rows> numbers_;
    std::array<std::uint32_t, block_rows> codes_;
};

// Groups the rows by pairs, under their row numbers as ids. The result is the least row that is in
// no group, if there is one; those rows make a group as well.
std::optional<BUN> group_pairs(const old_groups &groups, const BAT &b, const grouping_task &task,
                               const group_result &result) {
    const value_codes values = codes_of(b);
    pair_keys pairs(groups, values);
    if (pairs.bound() <= index_bound_worth(task.rows)) {
        group_by_index(task, static_cast<std::uint32_t>(pairs.bound()),
                       [&pairs](BUN row, unsigned rows, std::uint32_t *indices) {
                           pairs.load_indices(row, rows, indices);
                       });
        return pairs.first_outside();
    }
    group_by_hash(task, [&pairs](BUN row, unsigned rows, std::uint64_t *keys) {
        pairs.load_keys(row, rows, keys);
    });
    for (BUN group = 0; group < result.groups(); ++group)
        groups.number_of(groups.ids()[result.ids()[group]]);
    return pairs.first_outside();
}

// Puts the ids of rows in the place of their numbers, and takes the group of the rows in no group
// away.
void name_groups(group_result &result, const BAT &b, std::optional<BUN> first_outside) {
    const BUN rows = b.info->count;
    const row_ids ids = ids_of(*b.head, *b.info);
    const bool numbers_are_ids = ids.stored == nullptr && ids.seqbase == 0;
    oid *const map = result.map();
    if (first_outside) {
        const oid *const firsts = result.ids();
        result.drop_group(
            static_cast<BUN>(std::find(firsts, firsts + result.groups(), *first_outside) - firsts));
        for (BUN row = 0; row < rows; ++row)
            map[row] = map[row] == *first_outside ? oid_nil : ids[map[row]];
    } else if (!numbers_are_ids) {
        ids.name(map, rows);
    }
    if (!numbers_are_ids)
        ids.name(result.ids(), result.groups());
}

bool has_nil(const oid *ids, BUN rows) {
    return std::find(ids, ids + rows, oid_nil) != ids + rows;
}

void derive(std::int32_t *histogram, std::int32_t *map, const std::array<std::int32_t, 3> &inputs) {
    const held_bat extents(inputs[0]);
    const held_bat group_map(inputs[1]);
    const held_bat b(inputs[2]);
    const row_parents parents(*extents, *group_map, *b);
    require_groupable_tail(*b);
    group_result result(*b);
    const extents_maker make_extents = [&result](BUN count) { return result.make_extents(count); };
    const grouping_task task{b->info->count, {nullptr, 0}, result.map(), make_extents, {}};
    // Unique values or, with every row known to be a group of its own, unique groups.
    const bool unique =
        b->tail->key != 0 || (group_map->tail->key != 0 && heads_are_aligned(*group_map, *b));
    std::optional<BUN> first_outside;
    if (unique && !has_nil(parents.ids(), task.rows)) {
        group_unique_rows(task);
    } else if (!derive_lone_rows(parents.ids(), *extents, *b, task)) {
        const old_groups groups(parents, *extents, task.rows);
        first_outside = group_pairs(groups, *b, task, result);
    }
    name_groups(result, *b, first_outside);
    result.hand_over(false, histogram, map);
}

} // namespace
} // namespace refkernel::algebra

char *GRPderive(int32_t *histogram, int32_t *map, const int32_t *extents, const int32_t *group_map,
                const int32_t *input) {
    using namespace refkernel;
    if (instrumentation::enter(instrumentation::operation::grp_derive, *extents, *group_map,
                               *input))
        return make_exception(algebra::place, "operation failed");
    return algebra::or_exception(algebra::place, [&] {
        algebra::derive(histogram, map, {*extents, *group_map, *input});
    });
}
