#include "refkernel/algebra/derive_lone_rows.h"
#include "refkernel/algebra/group_result.h"
#include "refkernel/algebra/held_bats.h"
#include "refkernel/algebra/old_groups.h"
#include "refkernel/algebra/pair_groups.h"
#include "refkernel/algebra/value_groups.h"
#include "refkernel/instrumented.h"

#include <algorithm>
#include <array>
#include <vector>

namespace refkernel::algebra {
namespace {

constexpr const char *place = "group.derive";

bool has_nil(const oid *ids, BUN rows) {
    return std::find(ids, ids + rows, oid_nil) != ids + rows;
}

//! Old groups by number, rows in no group as one more.
struct groups_by_number {
    const old_groups *groups;
    BUN first;

    BUN count() const noexcept { return groups->count() + 1; }

    bool number(BUN row, BUN n, BUN *numbers) const {
        groups->load_numbers(row - first, n, numbers);
        return true;
    }
};

//! Codes in place of values, by position.
struct value_codes {
    using key_type = std::uint32_t;

    const std::uint32_t *codes;

    std::uint32_t key(BUN row, std::size_t i) const noexcept { return (codes + row)[i]; }
};

// Values that take wide pairs are grouped by themselves first: the number of a value's group, or
// its first row where the groups are many, is its code. Gives a bound of the codes.
std::uint32_t encode_by_grouping(const BAT &b, std::uint32_t *codes) {
    // Up to here groups are numbered anew through a table that caches well.
    constexpr oid most_renumbered = oid{1} << 18;
    const BUN first = b.info->first;
    std::vector<oid> firsts;
    std::vector<wrd> counts;
    group_values(b, {}, codes, [&](BUN groups) {
        firsts.resize(groups);
        counts.resize(groups);
        return extents_rows{firsts.data(), counts.data()};
    });
    if (firsts.back() - first > most_renumbered)
        return first + b.info->count;
    std::vector<std::uint32_t> numbers(firsts.back() - first + 1);
    for (std::uint32_t number = 0; number < firsts.size(); ++number)
        numbers[firsts[number] - first] = number;
    for (BUN row = 0; row < b.info->count; ++row)
        codes[row] = numbers[codes[row] - first];
    return static_cast<std::uint32_t>(firsts.size());
}

// Groups the rows by pairs of old group and code, for values that take wide pairs.
void group_encoded_pairs(const groups_by_number &numbered, const groups_by_id &by_id, const BAT &b,
                         const serial_rows &rows, oid *map, const extents_maker &make_extents) {
    const vask::gdk_block<std::uint32_t> codes(vask::gdk_allocate<std::uint32_t>(b.info->count));
    const std::uint32_t bound = encode_by_grouping(b, codes.get());
    const value_codes values{codes.get() - b.info->first};
    vask::grouping_keys<std::uint64_t, vask::bit_keys<std::uint64_t>> keys;
    keys.index = vask::index_of_pairs(numbered, values, {0, bound}, rows.get());
    keys.load = keys.load_for_buckets = vask::load_derived<std::uint32_t>(by_id, values);
    rows.group(keys, {}, map, make_extents);
}

// Groups the rows by pairs, under their positions as ids. Those that are in no group make groups as
// well.
void group_pairs(const old_groups &groups, const BAT &b, group_result &result,
                 const extents_maker &make_extents) {
    const BUN first = b.info->first;
    const serial_rows rows(first, b.info->count);
    const groups_by_number numbered{&groups, first};
    const groups_by_id by_id{groups.ids() - first};
    bool wide = b.tail->varsized && !holds_each_text_once(*b.tail);
    if (!wide)
        visit_pair_keys(b, by_id, [&](auto &keys, const auto &look) {
            wide = !look(numbered, rows.get());
            if (!wide)
                rows.group(keys, {}, result.map(), make_extents);
        });
    if (wide)
        group_encoded_pairs(numbered, by_id, b, rows, result.map(), make_extents);
    // With many groups, numbering every row would cost as much as the grouping; whether the extents
    // have an id is asked once for each group that comes out.
    for (BUN group = 0; group < result.groups(); ++group)
        groups.number_of(groups.ids()[result.ids()[group] - first]);
}

// Puts the ids of rows in the place of their positions, and takes the groups of the rows in no
// group away.
void name_groups(group_result &result, const BAT &b, const oid *parents, bool nil_is_group) {
    const BUN rows = b.info->count;
    const oid_reader heads(*b.head, b);
    const BUN first = heads.first;
    oid *const map = result.map();
    if (!nil_is_group && has_nil(parents, rows)) {
        result.keep_groups([=](oid position) { return parents[position - first] != oid_nil; });
        for (BUN row = 0; row < rows; ++row)
            map[row] = parents[row] == oid_nil ? oid_nil : heads[map[row]];
    } else if (heads.stored == nullptr && heads.seqbase == first) {
        return; // the positions are the ids
    } else {
        for (BUN row = 0; row < rows; ++row)
            map[row] = heads[map[row]];
    }
    for (BUN group = 0; group < result.groups(); ++group)
        result.ids()[group] = heads[result.ids()[group]];
}

void derive(std::int32_t *histogram, std::int32_t *map, const std::array<std::int32_t, 3> &inputs) {
    const held_bat extents(inputs[0]);
    const held_bat group_map(inputs[1]);
    const held_bat b(inputs[2]);
    const row_parents parents(*extents, *group_map, *b);
    require_groupable_tail(*b);
    group_result result(*b);
    const extents_maker make_extents = [&result](BUN count) { return result.make_extents(count); };
    // Unique values or, with every row known to be a group of its own, unique groups.
    const bool unique =
        b->tail->key != 0 || (group_map->tail->key != 0 && heads_are_aligned(*group_map, *b));
    const BUN rows = b->info->count;
    bool nil_is_group = true;
    if (unique && !has_nil(parents.ids(), rows)) {
        group_unique_rows(*b, {}, result.map(), make_extents);
    } else if (rows == 0) {
        make_extents(0);
    } else if (!derive_lone_rows(parents.ids(), *extents, *b, result.map(), make_extents)) {
        const old_groups groups(parents, *extents, rows);
        nil_is_group = groups.has_nil();
        group_pairs(groups, *b, result, make_extents);
    }
    name_groups(result, *b, parents.ids(), nil_is_group);
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
