#include "rows/old_groups.h"

#include <algorithm>
#include <limits>

namespace vask {

namespace {

// Beyond every number; its topmost bit is set in no other.
constexpr BUN no_group = std::numeric_limits<BUN>::max();

//! Whether a table of so many places is made sooner than it saves. Of a sorted column the ids lie
//! far apart; the chains of few groups stay in the first-level cache.
bool pays(std::uint64_t places, BUN groups) noexcept {
    constexpr std::uint64_t places_per_group = 64;
    constexpr std::uint64_t small_table = 1 << 16;
    // Ids of all 32 bits have more places than can be numbered.
    return places <= std::min<std::uint64_t>(small_table + places_per_group * groups,
                                             std::numeric_limits<BUN>::max());
}

//! Without vector instructions: their gathers take twice as long as loads one by one. All by value:
//! the loop's bounds must be locals, which no store can change.
VASK_ALWAYS_INLINE BUN look_up(const BUN *table, oid least, BUN last, const oid *ids, BUN n,
                               BUN *numbers) noexcept {
    BUN all = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const BUN place = ids[i] - least;
        numbers[i] = table[place < last ? place : last];
        all |= numbers[i];
    }
    return all;
}

} // namespace

old_groups::old_groups(BAT &histo) : count_(histo.info->count), first_(histo.info->first) {
    // Dense ids are numbers already.
    if (count_ == 0 || (is_dense(*histo.head) && histo.head->seqbase != oid_nil)) {
        lookup_.emplace(histo);
        return;
    }
    const oid_reader ids(*histo.head, histo);
    oid least = std::numeric_limits<oid>::max();
    oid greatest = 0;
    for (BUN p = first_; p < first_ + count_; ++p) {
        least = std::min(least, ids[p]);
        greatest = std::max(greatest, ids[p]);
    }
    const std::uint64_t places = std::uint64_t{greatest} - least + 2;
    if (pays(places, count_))
        make_table(ids, least, static_cast<BUN>(places));
    else
        lookup_.emplace(histo);
}

void old_groups::make_table(const oid_reader &ids, oid least, BUN places) {
    least_ = least;
    table_ = gdk_vector<BUN>(places);
    std::fill(table_.begin(), table_.end(), no_group);
    for (BUN i = 0; i < count_; ++i)
        table_[ids[first_ + i] - least] = i;
}

bool old_groups::number(const oid *ids, BUN n, BUN *numbers) const {
    constexpr BUN only_in_no_group = 0x80000000;
    if (!lookup_) {
        const auto last = static_cast<BUN>(table_.size() - 1);
        const BUN all = look_up(table_.data(), least_, last, ids, n, numbers);
        return (all & only_in_no_group) == 0;
    }
    const oid_lookup lookup = *lookup_;
    for (BUN i = 0; i < n; ++i) {
        const BUN position = vask_find_histo_row(lookup, ids[i]);
        if (position == NO_BUN)
            return false;
        numbers[i] = position - first_;
    }
    return true;
}

} // namespace vask
