#include "rows/text_codes.h"

#include "kernel/frame.h"
#include "rows/table_keys.h"

#include <algorithm>
#include <atomic>
#include <limits>

#include <tbb/parallel_reduce.h>

namespace vask {

namespace {

constexpr std::uint32_t seen = 1;

template <class Offset>
void mark_range(const Offset *offsets, std::uint32_t least, row_range rows, std::uint32_t *marks) {
    for (BUN row = rows.begin; row < rows.end; ++row) {
        const std::atomic_ref mark(marks[offsets[row] - least]);
        // Only once per text: a line that is written goes from one processor to the other.
        if (mark.load(std::memory_order_relaxed) != seen)
            mark.store(seen, std::memory_order_relaxed);
    }
}

//! Calls `body(offsets)` with the stored offsets.
template <class Body>
auto visit_offsets(const text_reader &texts, Body body) {
    switch (texts.width) {
        case 1:
            return body(static_cast<const std::uint8_t *>(texts.offsets));
        case 2:
            return body(static_cast<const std::uint16_t *>(texts.offsets));
        default:
            return body(static_cast<const std::uint32_t *>(texts.offsets));
    }
}

//! By loads one by one, as old_groups looks its numbers up. All by value: the loop's bounds must be
//! locals, which no store can change.
template <class Offset>
VASK_ALWAYS_INLINE void look_up(const Offset *offsets, std::uint32_t least,
                                const std::uint32_t *table, BUN n, std::uint32_t *codes) noexcept {
    for (std::size_t i = 0; i < n; ++i)
        codes[i] = table[offsets[i] - least];
}

//! The lowest and the highest of the stored offsets.
template <class Offset>
offset_range scan(const BAT &b, const Offset *offsets) {
    tbb::task_group_context context(tbb::task_group_context::bound);
    return tbb::parallel_reduce(
        tbb::blocked_range<BUN>(b.info->first, end_position(b), 1), offset_range{},
        [=](const tbb::blocked_range<BUN> &rows, offset_range range) {
            return with_best_instruction_set([ =, from = offsets + rows.begin(),
                                               n = rows.size() ]() __attribute__((always_inline)) {
                Offset least = std::numeric_limits<Offset>::max();
                Offset most = 0;
                for (std::size_t i = 0; i < n; ++i) {
                    least = std::min(least, from[i]);
                    most = std::max(most, from[i]);
                }
                return offset_range{std::min<std::uint32_t>(range.least, least),
                                    std::max<std::uint32_t>(range.most, most)};
            });
        },
        [](const offset_range &a, const offset_range &c) {
            return offset_range{std::min(a.least, c.least), std::max(a.most, c.most)};
        },
        tbb::auto_partitioner{}, context);
}

} // namespace

offset_range scan_offsets(const BAT &b) {
    const void *offsets = b.tail->base;
    switch (b.tail->width) {
        case 1: // so few that no row need be read
            return {0, std::numeric_limits<std::uint8_t>::max()};
        case 2:
            return scan(b, static_cast<const std::uint16_t *>(offsets));
        default:
            return scan(b, static_cast<const std::uint32_t *>(offsets));
    }
}

met_texts::met_texts(std::size_t most) : slots_(std::bit_ceil(2 * most + 2)) {
    std::fill(slots_.begin(), slots_.end(), slot{nullptr, 0, 0});
}

std::uint32_t met_texts::find(str text, std::uint32_t next) {
    const std::uint32_t hash = vask_str_hash(text);
    const std::size_t mask = slots_.size() - 1;
    std::size_t place = spread_hash(hash) & mask;
    while (slots_[place].text != nullptr &&
           (slots_[place].hash != hash || !text_keys::equal(slots_[place].text, text)))
        place = (place + 1) & mask;
    if (slots_[place].text == nullptr)
        slots_[place] = {text, hash, next};
    return slots_[place].code;
}

text_codes::text_codes(const BATcol &tail, std::uint32_t least, std::size_t places)
    : texts_(tail), least_(least), codes_(places) {}

std::optional<text_codes> text_codes::make(const BAT &b, offset_range range) {
    // A place takes as much memory as a row of the map, and a text some ten times the time.
    constexpr BUN rows_per_place = 1;
    constexpr BUN rows_per_text = 8;
    constexpr std::size_t always = std::size_t{1} << 16;
    const std::size_t places = std::size_t{range.most} - range.least + 1;
    const BUN rows = b.info->count;
    if (places > std::max<std::size_t>(rows / rows_per_place, always))
        return std::nullopt;
    std::optional<text_codes> codes(text_codes(*b.tail, range.least, places));
    codes->mark_seen(b);
    if (!codes->number_seen(rows / rows_per_text + 1))
        codes.reset();
    return codes;
}

void text_codes::mark_seen(const BAT &b) {
    visit_offsets(texts_, [&, this](const auto *offsets) {
        run_row_loop(b.info->count, [=, least = least_, first = b.info->first,
                                     marks = codes_.data()](row_range r) {
            mark_range(offsets, least, {first + r.begin, first + r.end}, marks);
        });
    });
}

//! Puts the codes in the places of the marks. False when there are more texts than `most`.
bool text_codes::number_seen(std::size_t most) {
    const auto places = static_cast<std::size_t>(std::count(codes_.begin(), codes_.end(), seen));
    if (places > most)
        return false;
    met_texts met(places);
    for (std::size_t place = 0; place < codes_.size(); ++place) {
        if (codes_[place] != seen)
            continue;
        codes_[place] =
            met.find(text_at(texts_, least_ + static_cast<std::uint32_t>(place)), count_);
        if (codes_[place] == count_)
            ++count_;
    }
    return true;
}

void text_codes::number(BUN row, BUN n, std::uint32_t *codes) const {
    visit_offsets(texts_, [&, this](const auto *offsets) {
        look_up(offsets + row, least_, codes_.data(), n, codes);
    });
}

} // namespace vask
