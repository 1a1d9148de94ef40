#include "grouping/buckets/buckets_derive.h"

#include "grouping/buckets/distributed_rows.h"
#include "grouping/buckets/pair_counts.h"
#include "grouping/buckets/refined_groups.h"
#include "grouping/buckets/refined_keys.h"
#include "grouping/sort/sort_bat.h"
#include "grouping/table/custom_mask.h"
#include "rows/column_keys.h"
#include "rows/text_codes.h"

#include <limits>
#include <new>
#include <optional>
#include <stdexcept>

namespace vask {

namespace {

//! A refinement that is about to be made.
struct refinement {
    BAT &grp;
    BAT &ext;
    BAT &b;
    BAT &map;
    const old_groups &groups;
    const gdk_vector<vask_row_range> &ranges;
    bool synced;

    BUN rows() const noexcept { return b.info->count; }
};

//! Refines by counting, if there are few enough pairs.
template <class Codes, class MakeCodes>
counting_outcome count_pairs(const refinement &r, MakeCodes make_codes) {
    return pair_counts<Codes>(r.b, r.grp, r.groups, r.ranges, make_codes)
        .run(r.map, r.synced, r.ext);
}

//! Whether so many codes are few enough.
bool counts_pairs_of(const refinement &r, std::uint64_t codes) {
    return codes <=
           pair_counts<shared_text_codes>::most_pairs(r.rows(), r.ranges.size()) / r.groups.count();
}

//! Integers by their distances, where those are small.
template <class T>
counting_outcome count_by_window(const refinement &r) {
    using keys = number_keys<T>;
    using key_type = typename keys::key_type;
    const value_range<T> values = scan_values<T>(r.b);
    const key_type least = key_bits(values.least);
    const auto span = static_cast<key_type>(key_bits(values.max) - least);
    if (span >= std::numeric_limits<std::uint32_t>::max() - 1 ||
        !counts_pairs_of(r, std::uint64_t{span} + 2))
        return counting_outcome::too_many_pairs;
    const key_window<key_type> window{least, static_cast<std::uint32_t>(span)};
    return count_pairs<window_codes<keys>>(r, [&] {
        return window_codes<keys>{keys(*r.b.tail), window};
    });
}

template <class T>
counting_outcome count_numbers(const refinement &r) {
    if constexpr (std::integral<T>)
        if (const auto outcome = count_by_window<T>(r); outcome != counting_outcome::too_many_pairs)
            return outcome;
    if constexpr (sizeof(T) < sizeof(std::int32_t))
        return counting_outcome::too_many_pairs;
    else
        return count_pairs<memo_codes<number_keys<T>>>(
            r, [&] { return memo_codes<number_keys<T>>{number_keys<T>(*r.b.tail)}; });
}

//! Refines group by group.
template <class Keys>
bool split_groups(const refinement &r, const Keys &keys) {
    using row_type = distributed_row<typename Keys::key_type>;
    row_distribution distribution(r.b, r.grp, r.groups, r.ranges);
    if (!distribution.find_groups(r.map, r.synced))
        return false;
    const gdk_block<row_type> rows(gdk_allocate<row_type>(r.rows()));
    distribution.write_rows(keys, rows.get());
    gdk_vector<BUN> begun(distribution.ranges());
    if (!refine_groups(distribution, keys, rows.get(), r.b, r.ext, begun))
        return false;
    distribution.write_back(rows.get(), r.ext, begun);
    return true;
}

template <class Offset>
bool count_by_place(const refinement &r, offset_range places) {
    const key_window<Offset> window{static_cast<Offset>(places.least), places.most - places.least};
    return count_pairs<place_codes<Offset>>(r, [&] {
               return place_codes<Offset>{offset_keys<Offset>(*r.b.tail), window};
           }) == counting_outcome::done;
}

bool refine_texts(const refinement &r) {
    const offset_range places = scan_offsets(r.b);
    if (counts_pairs_of(r, places.places() + 1))
        switch (r.b.tail->width) {
            case 1:
                return count_by_place<std::uint8_t>(r, places);
            case 2:
                return count_by_place<std::uint16_t>(r, places);
            default:
                return count_by_place<std::uint32_t>(r, places);
        }
    const std::optional<text_codes> codes = text_codes::make(r.b, places);
    if (!codes)
        return split_groups(r, refined_texts(*r.b.tail));
    if (!counts_pairs_of(r, codes->count()))
        return split_groups(r, refined_codes{&*codes});
    return count_pairs<shared_text_codes>(r, [&] { return shared_text_codes{&*codes}; }) ==
           counting_outcome::done;
}

template <class T>
bool refine(const refinement &r) {
    if constexpr (std::same_as<T, str>) {
        return refine_texts(r);
    } else {
        const counting_outcome outcome = count_numbers<T>(r);
        return outcome == counting_outcome::too_many_pairs
                   ? split_groups(r, refined_numbers<T>(*r.b.tail))
                   : outcome == counting_outcome::done;
    }
}

template <class T>
bool derive(BAT &grp, BAT &ext, BAT &b, BAT &map, BAT &histo, bool synced) {
    if (b.info->count != 0) {
        const gdk_vector<vask_row_range> ranges = vask_row_ranges(b, vask_range_count(b));
        if (ranges.empty() || histo.info->count == 0)
            return false;
        const old_groups groups(histo);
        if (!refine<T>({grp, ext, b, map, groups, ranges, synced}))
            return false;
    }
    // In order already where ids follow the rows.
    vask_sort_bat<wrd, BUNviewHeadComparator>(&ext);
    ext.head->sorted = SORTED_ASCENDING;
    ext.tail->sorted = 0;
    return true;
}

} // namespace

template <class T>
int vask_buckets_derive(BAT *grp, BAT *ext, BAT *b, BAT *map, BAT *histo, bool synced) {
    try {
        return derive<T>(*grp, *ext, *b, *map, *histo, synced) ? 1 : 0;
    } catch (const std::bad_alloc &) {
        return 0;
    } catch (const std::length_error &) {
        return 0;
    }
}

template int vask_buckets_derive<bte>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_buckets_derive<sht>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_buckets_derive<std::int32_t>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_buckets_derive<lng>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_buckets_derive<flt>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_buckets_derive<dbl>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_buckets_derive<str>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);

} // namespace vask
