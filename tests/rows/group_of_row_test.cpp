// Numbers of the groups of a column's rows against a look at every row of the map.
#include "rows/group_of_row.h"

#include "vask/embed.h"

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace vask;
using refkernel::bat;

constexpr BUN rows = 2'500; // more than two blocks

enum class head_kind { void_head, dense, ascending, shuffled };

bat with_head(const std::vector<oid> &tail, const std::vector<oid> &head, head_kind kind,
              BUN first) {
    refkernel::column_options options{.first = first};
    options.stored_head = kind != head_kind::void_head;
    options.seqbase = head.empty() ? 0 : head.front();
    options.head_oids = options.stored_head ? std::span<const oid>(head) : std::span<const oid>();
    options.head.sorted = kind == head_kind::dense || kind == head_kind::ascending;
    options.head.dense = kind == head_kind::dense;
    return refkernel::make_column<oid>(std::span<const oid>(tail), options);
}

struct layout {
    map_order order;
    head_kind column;
    head_kind map;
    BUN column_first;
    BUN map_first;
    oid id_distance; // 0: dense extents
    bool lacks_rows = false;
};

struct grouped_column {
    bat b;
    bat map;
    bat extents;
    grouped_rows in;
    std::vector<BUN> numbers; // by row

    explicit grouped_column(const layout &l) {
        std::mt19937 random(7);
        constexpr BUN groups = 60;
        std::vector<oid> ids;
        for (oid j = 0; j < groups; ++j)
            ids.push_back(9 + j * std::max(l.id_distance, oid{1}));
        if (l.id_distance > 1)
            std::shuffle(ids.begin(), ids.end(), random);
        std::vector<oid> heads;
        for (oid row = 0; row < rows; ++row)
            heads.push_back(100 + (l.column == head_kind::ascending ? 3 * row : row));
        if (l.column == head_kind::shuffled)
            std::shuffle(heads.begin(), heads.end(), random);

        // The map's rows, and what each row of the column finds there.
        std::vector<std::pair<oid, BUN>> held;
        for (BUN row = 0; row < rows; ++row) {
            const auto number = static_cast<BUN>(random() % groups);
            const bool lacks =
                l.lacks_rows && (l.map == head_kind::ascending ? row % 7 == 3 : row < 40);
            if (!lacks)
                held.emplace_back(heads[row], number);
            numbers.push_back(lacks ? no_group : number);
        }
        if (l.order != map_order::in_step) {
            std::sort(held.begin(), held.end());
            if (l.map == head_kind::shuffled)
                std::shuffle(held.begin(), held.end(), random);
        }
        std::vector<oid> map_heads;
        std::vector<oid> map_ids;
        for (const auto &[head, number] : held) {
            map_heads.push_back(head);
            map_ids.push_back(ids[number]);
        }
        b = with_head(heads, heads, l.column, l.column_first);
        map = with_head(map_ids, map_heads, l.map, l.map_first);
        extents =
            with_head(ids, ids, l.id_distance == 0 ? head_kind::void_head : head_kind::shuffled, 5);
        in = {b.record(), map.record(), extents.record(), l.order};
    }
};

//! Numbers of a range's rows as they are told block by block; nothing when they cannot be found.
std::optional<std::vector<BUN>> told(const grouped_rows &in, const slot_table *table,
                                     vask_row_range range) {
    std::vector<BUN> numbers;
    const bool found =
        for_each_numbered_block(in, table, range, [&](BUN row, BUN n, const BUN *block) {
            EXPECT_EQ(row, range.begin + numbers.size());
            numbers.insert(numbers.end(), block, block + n);
        });
    return found ? std::optional(numbers) : std::nullopt;
}

const layout layouts[] = {
    {map_order::in_step, head_kind::void_head, head_kind::void_head, 0, 0, 4},
    {map_order::in_step, head_kind::shuffled, head_kind::shuffled, 6, 2, 0},
    {map_order::in_step, head_kind::dense, head_kind::dense, 1, 4, 9'000'000},
    {map_order::by_head, head_kind::void_head, head_kind::dense, 3, 0, 4},
    {map_order::by_head, head_kind::shuffled, head_kind::void_head, 0, 3, 9'000'000},
    {map_order::by_head, head_kind::ascending, head_kind::shuffled, 2, 1, 0},
    {map_order::ascending, head_kind::void_head, head_kind::void_head, 4, 2, 4},
    {map_order::ascending, head_kind::void_head, head_kind::dense, 0, 1, 4, true},
    {map_order::ascending, head_kind::dense, head_kind::ascending, 2, 0, 0, true},
    {map_order::ascending, head_kind::ascending, head_kind::ascending, 0, 2, 9'000'000, true},
};

TEST(GroupOfRow, RowsHaveTheNumbersOfTheirGroups) {
    for (const layout &l : layouts) {
        SCOPED_TRACE(std::to_string(&l - layouts));
        const grouped_column made(l);
        const slot_table_owner table(*made.in.extents, rows, 1);
        EXPECT_EQ(table.get() != nullptr, l.id_distance == 4);
        for (const vask_row_range part : {vask_row_range{0, rows}, {1'000, 2'100}, {41, 42}}) {
            const std::optional<std::vector<BUN>> found = told(
                made.in, table.get(), {part.begin + l.column_first, part.end + l.column_first});
            EXPECT_EQ(found, std::vector<BUN>(made.numbers.begin() + part.begin,
                                              made.numbers.begin() + part.end));
        }
    }
}

TEST(GroupOfRow, UnknownGroupsMissingRowsAndUnorderedHeadsAreFailures) {
    for (const layout &l : layouts) {
        SCOPED_TRACE(std::to_string(&l - layouts));
        const vask_row_range all{l.column_first, l.column_first + rows};
        {
            const grouped_column made(l);
            made.map.mutable_values<oid>()[2'000] = 8;
            const slot_table_owner table(*made.in.extents, rows, 1);
            EXPECT_FALSE(told(made.in, table.get(), all));
        }
        {
            // The map ends before the column.
            const grouped_column made(l);
            made.map->info->count -= 1;
            EXPECT_EQ(told(made.in, nullptr, all).has_value(), l.order == map_order::ascending);
        }
        if (l.order == map_order::ascending && l.column != head_kind::void_head) {
            const grouped_column made(l);
            made.b->head->sorted = 0;
            EXPECT_FALSE(told(made.in, nullptr, all));
        }
    }
}

} // namespace
