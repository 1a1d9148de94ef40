#include "table/groups.h"

#include "kernel/column.h"
#include "table/errors.h"
#include "table/kernel_column.h"
#include "table/parallel.h"
#include "table/value_text.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <numeric>
#include <utility>

#include <tbb/parallel_sort.h>

namespace vask::table {
namespace {

using refkernel::bat;
using refkernel::nil_of;

__extension__ using wide_unsigned = unsigned __int128;

// ---- several keys as one ------------------------------------------------------------------------

// A column to group by.
struct named_key {
    bat values;
    std::string name;    // of the columns in it
    const column *whole; // whose keys these are, with bounds that it knows; else null
};

// A key of close integers: what is added to make it count from 1, and how many values it can have,
// the missing one, which is 0, included.
struct close_key {
    const bat *values;
    lng low;
    std::uint64_t values_count;
};

// Nothing for keys that are no integers, or so far apart that nothing is gained.
std::optional<close_key> close_key_of(const named_key &key, const teller &tell) {
    if (key.whole == nullptr)
        return std::nullopt;
    constexpr auto farthest = std::uint64_t{1} << 40;
    const value_bounds found = key.whole->bounds(tell);
    if (found.is_empty())
        return close_key{&key.values, 0, 1};
    const auto width =
        static_cast<std::uint64_t>(found.high) - static_cast<std::uint64_t>(found.low);
    if (width >= farthest)
        return std::nullopt;
    return close_key{&key.values, found.low, width + 2};
}

template <class Code>
bat one_key(std::span<const close_key> keys, std::size_t rows) {
    fresh_column<Code> made(rows);
    for_rows(rows, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = 0; i < keys.size(); ++i)
            visit_values(*keys[i].values, [&]<class T>(std::span<const T> values) {
                if constexpr (std::is_integral_v<T>) {
                    const T nil = nil_of<T>();
                    const auto low = static_cast<Code>(keys[i].low - 1);
                    const auto count = static_cast<Code>(keys[i].values_count);
                    for (std::size_t row = begin; row < end; ++row) {
                        const Code before = i == 0 ? 0 : made.values[row];
                        const Code own =
                            values[row] == nil
                                ? Code{0}
                                : static_cast<Code>(static_cast<Code>(values[row]) - low);
                        made.values[row] = static_cast<Code>(before * count + own);
                    }
                }
            });
    });
    return std::move(made).finish({.nonil = true});
}

// The keys of a grouping, with runs of close ones brought together: grouping once by a number that
// stands for several keys is faster than grouping by one and refining by the others.
std::vector<named_key> joined_keys(const std::vector<named_key> &keys, std::size_t rows,
                                   const teller &tell) {
    constexpr auto widest = wide_unsigned{1} << 62;
    constexpr auto most_int = wide_unsigned{1} << 30;
    std::vector<named_key> result;
    for (std::size_t i = 0; i < keys.size();) {
        std::vector<close_key> together;
        std::string name;
        wide_unsigned product = 1;
        std::size_t next = i;
        for (; next < keys.size() && keys.size() > 1; ++next) {
            const auto key = close_key_of(keys[next], tell);
            if (!key || product * key->values_count > widest)
                break;
            product *= key->values_count;
            together.push_back(*key);
            name += fmt::format("{}{}", name.empty() ? "" : ", ", keys[next].name);
        }
        if (together.size() < 2) {
            result.push_back({bat::share(keys[i].values.id()), keys[i].name, nullptr});
            ++i;
            continue;
        }
        result.push_back({product < most_int ? one_key<std::int32_t>(together, rows)
                                             : one_key<std::int64_t>(together, rows),
                          std::move(name), nullptr});
        i = next;
    }
    return result;
}

// ---- order of keys ------------------------------------------------------------------------------

// A key of each group as a number that compares as the key does, missing ones above all.
struct sort_key {
    std::vector<std::uint64_t> value;
    std::vector<std::uint8_t> missing; // empty: none
};

template <class T>
std::uint64_t as_ordered(T value, bool is_unsigned) {
    constexpr std::uint64_t top = std::uint64_t{1} << 63;
    if constexpr (std::is_floating_point_v<T>) {
        const double wide = static_cast<double>(value) + 0.0;
        if (wide != wide)
            return ~std::uint64_t{0};
        const auto bits = std::bit_cast<std::uint64_t>(wide);
        return (bits & top) != 0 ? ~bits : bits | top;
    } else {
        return static_cast<std::uint64_t>(static_cast<lng>(value)) ^ (is_unsigned ? 0 : top);
    }
}

sort_key sort_key_of(const column &key, std::span<const oid> rows, bool nan_missing,
                     const teller &tell) {
    sort_key result;
    result.value.resize(rows.size());
    const bool text = is_text(key.type().of);
    const numbers *const own = text ? nullptr : &key.as_numbers(nan_missing, tell);
    const bat &values = text ? key.as_ranked_texts(tell).ranks : own->values;
    const bool by_presence = own != nullptr && own->beyond;
    const bool any_missing = key.missing(nan_missing, tell) > 0;
    if (any_missing)
        result.missing.resize(rows.size());
    visit_values(values, [&]<class T>(std::span<const T> all) {
        const T nil = nil_of<T>();
        for_rows(rows.size(), [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) {
                const T value = all[rows[i]];
                result.value[i] = as_ordered(value, by_presence && key.type().of == kind::uint64);
                if (any_missing)
                    result.missing[i] = by_presence ? own->present[rows[i]] == 0 : value == nil;
            }
        });
    });
    return result;
}

// Puts groups in the order of a single key, if its values lie close together and none comes twice:
// then each has a slot, as ranks of texts have. Otherwise nothing is changed.
bool place_by_key(large_vector<std::uint32_t> &groups, const sort_key &key) {
    constexpr std::uint64_t most_slots_of_group = 4;
    std::uint64_t least = ~std::uint64_t{0};
    std::uint64_t greatest = 0;
    std::vector<std::uint32_t> missing;
    for (const std::uint32_t group : groups) {
        if (!key.missing.empty() && key.missing[group] != 0) {
            missing.push_back(group);
            continue;
        }
        least = std::min(least, key.value[group]);
        greatest = std::max(greatest, key.value[group]);
    }
    if (missing.size() > 1 || missing.size() == groups.size() ||
        greatest - least >= most_slots_of_group * groups.size())
        return false;
    constexpr auto none = static_cast<std::uint32_t>(-1);
    std::vector<std::uint32_t> slots(greatest - least + 1, none);
    for (const std::uint32_t group : groups) {
        if (!missing.empty() && missing.front() == group)
            continue;
        std::uint32_t &slot = slots[key.value[group] - least];
        if (slot != none)
            return false;
        slot = group;
    }
    const auto end = std::copy_if(slots.begin(), slots.end(), groups.begin(),
                                  [](std::uint32_t group) { return group != none; });
    std::copy(missing.begin(), missing.end(), end);
    return true;
}

// Puts groups in the order of their keys, those with the same keys in that of `earlier`. The first
// key lies beside the group, as fetching it for each comparison took three times as long.
template <class Earlier>
void sort_by_keys(large_vector<std::uint32_t> &groups, std::span<const sort_key> keys,
                  const Earlier &earlier) {
    if (keys.size() == 1 && place_by_key(groups, keys.front()))
        return;
    struct record {
        std::uint64_t value;
        std::uint32_t group;
        bool missing;
    };
    const auto is_missing = [](const sort_key &key, std::uint32_t group) {
        return !key.missing.empty() && key.missing[group] != 0;
    };
    const sort_key &first = keys.front();
    const auto less = [&](const record &a, const record &b) {
        if (a.missing != b.missing)
            return b.missing;
        if (!a.missing && a.value != b.value)
            return a.value < b.value;
        for (const sort_key &key : keys.subspan(1)) {
            const bool a_missing = is_missing(key, a.group);
            const bool b_missing = is_missing(key, b.group);
            if (a_missing != b_missing)
                return b_missing;
            if (!a_missing && key.value[a.group] != key.value[b.group])
                return key.value[a.group] < key.value[b.group];
        }
        return earlier(a.group, b.group);
    };
    std::vector<record> records(groups.size());
    for_rows(groups.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            records[i] = {first.value[groups[i]], groups[i], is_missing(first, groups[i])};
    });
    tbb::parallel_sort(records.begin(), records.end(), less);
    end_if_cancelled();
    for_rows(groups.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            groups[i] = records[i].group;
    });
}

} // namespace

groups::groups(std::int64_t rows, group_request request, const operator_set &operators,
               const teller &tell)
    : request_(std::move(request)), rows_(rows) {
    if (is_whole()) {
        first_rows_ = {0};
        order_ = {0};
        whole_size_ = {rows};
        return;
    }
    std::vector<named_key> keys;
    for (const column_pointer &key : request_.keys) {
        const std::vector<bat> &parts = key->as_keys(request_.nan_missing, tell);
        const bool bounded = parts.size() == 1 && !is_float(key->type().of);
        for (const bat &part : parts)
            keys.push_back({bat::share(part.id()), key->name(), bounded ? key.get() : nullptr});
    }
    const std::vector<named_key> together = joined_keys(keys, static_cast<std::size_t>(rows), tell);
    found_ = operators.group(together.front().values, together.front().name);
    for (std::size_t i = 1; i < together.size(); ++i)
        found_ = operators.derive(found_, together[i].values, together[i].name);
    const std::size_t count = found_.extents.count();
    first_rows_.resize(count);
    const oid_reader heads(*found_.extents->head, *found_.extents.record());
    const BUN first = found_.extents->info->first;
    for_rows(count, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            first_rows_[i] = heads[first + static_cast<BUN>(i)];
    });
    find_order(tell);
}

void groups::find_order(const teller &tell) {
    order_.resize(count());
    std::iota(order_.begin(), order_.end(), 0U);
    std::vector<sort_key> keys;
    if (request_.sorted || request_.drop_missing)
        for (const column_pointer &key : request_.keys)
            if (request_.sorted || key->missing(request_.nan_missing, tell) > 0)
                keys.push_back(sort_key_of(*key, first_rows_, request_.nan_missing, tell));
    if (request_.drop_missing)
        std::erase_if(order_, [&](std::uint32_t group) {
            return std::any_of(keys.begin(), keys.end(), [group](const sort_key &key) {
                return !key.missing.empty() && key.missing[group] != 0;
            });
        });
    const auto earlier = [&](std::uint32_t a, std::uint32_t b) {
        return first_rows_[a] < first_rows_[b];
    };
    tbb::this_task_arena::isolate([&] {
        if (request_.sorted)
            sort_by_keys(order_, keys, earlier);
        else if (!std::is_sorted(order_.begin(), order_.end(), earlier))
            tbb::parallel_sort(order_.begin(), order_.end(), earlier);
    });
    end_if_cancelled();
    in_order_ = order_.size() == count() && std::is_sorted(order_.begin(), order_.end());
}

const bat &groups::map() const {
    if (!found_.map)
        found_.map = refkernel::make_column(std::vector<oid>(static_cast<std::size_t>(rows_)),
                                            {.look_for_nils = false});
    return found_.map;
}

const bat &groups::extents() const {
    if (!found_.extents)
        found_.extents = refkernel::make_column(std::vector<lng>{rows_}, {.type = TYPE_wrd});
    return found_.extents;
}

std::span<const lng> groups::sizes() const {
    return is_whole() ? std::span<const lng>(whole_size_) : found_.extents.values<lng>();
}

std::span<const std::int32_t> groups::numbers() const {
    const auto rows = static_cast<std::size_t>(rows_);
    if (is_whole() || numbers_.size() == rows)
        return numbers_;
    fresh_column<std::int32_t> by_first_row(rows);
    for_rows(count(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            by_first_row.values[first_rows_[i]] = static_cast<std::int32_t>(i);
    });
    fresh_column<std::int32_t> made(rows);
    const oid_reader ids(*found_.map->tail, *found_.map.record());
    const BUN first = found_.map->info->first;
    for_rows(rows, [&](std::size_t begin, std::size_t end) {
        for (std::size_t row = begin; row < end; ++row)
            made.values[row] = by_first_row.values[ids[first + static_cast<BUN>(row)]];
    });
    number_memory_ = std::move(made.memory);
    numbers_ = made.values;
    return numbers_;
}

std::string groups::named(std::size_t number) const {
    std::string text;
    for (const column_pointer &key : request_.keys)
        text += fmt::format("{}{} {}", text.empty() ? " in the group " : ", ", shown(key->name()),
                            value_text(*key, first_rows_[number]));
    return text;
}

} // namespace vask::table
