#include "table/text_order.h"

#include "table/parallel.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstring>
#include <memory>
#include <utility>

#include <tbb/parallel_sort.h>

namespace vask::table {
namespace {

//! Eight bytes of a text, how many of them it has, and its place, as one number: comparing such
//! numbers needs no branch and no look at the texts.
__extension__ using text_record = unsigned __int128;

constexpr std::size_t bytes_at_once = 8;
constexpr int place_bits = 32;

std::int32_t place_of(text_record record) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(record));
}

std::uint64_t bytes_of(text_record record) {
    return static_cast<std::uint64_t>(record >> 64);
}

//! Whether two texts are alike in these bytes, and in what stands before them.
bool are_alike(text_record a, text_record b) {
    return a >> place_bits == b >> place_bits;
}

//! Whether a text has more bytes than these. Those that do not, and are alike, are equal.
bool goes_on(text_record record) {
    return static_cast<std::uint32_t>(record >> place_bits) > bytes_at_once;
}

// The bytes from a place on compare as a number as they do one by one; behind the text's end stand
// zeros, which its size tells from a text's own.
text_record record_of(std::string_view text, std::size_t begin, std::int32_t place) {
    static_assert(std::endian::native == std::endian::little);
    const std::size_t left = text.size() - begin;
    std::uint64_t bytes = 0;
    if (left > 0)
        std::memcpy(&bytes, text.data() + begin, std::min(left, bytes_at_once));
    return text_record{__builtin_bswap64(bytes)} << 64 |
           text_record{std::min(left, bytes_at_once + 1)} << place_bits |
           static_cast<std::uint32_t>(place);
}

// How many bytes all texts of some places begin with, at least so many.
std::size_t common_bytes(std::span<const std::string_view> texts,
                         std::span<const text_record> records, std::size_t least) {
    const auto text_at = [&](std::size_t i) {
        return texts[static_cast<std::size_t>(place_of(records[i]))];
    };
    const std::string_view first = text_at(0);
    std::size_t common = first.size();
    for (std::size_t i = 1; i < records.size() && common > least; ++i) {
        const std::string_view text = text_at(i);
        const std::size_t most = std::min(common, text.size());
        common = least;
        while (common < most && text[common] == first[common])
            ++common;
    }
    return common;
}

//! Puts together the highest of the bits in which numbers differ, in their order.
class differing_bits {
public:
    differing_bits(std::uint64_t differ, int most) {
        while (differ != 0 && bits_ < most) {
            const int top = 64 - std::countl_zero(differ);
            const int run = std::min(std::countl_one(differ << (64 - top)), most - bits_);
            for (group &each : groups_)
                each.to += run;
            groups_[used_++] = {top - run, (std::uint64_t{1} << run) - 1, 0};
            bits_ += run;
            differ &= (std::uint64_t{1} << (top - run)) - 1;
        }
    }
    int count() const { return bits_; }
    std::uint64_t of(std::uint64_t number) const {
        std::uint64_t result = 0;
        for (std::size_t i = 0; i < used_; ++i)
            result |= (number >> groups_[i].from & groups_[i].mask) << groups_[i].to;
        return result;
    }

private:
    struct group {
        int from;
        std::uint64_t mask;
        int to;
    };
    std::array<group, 16> groups_{};
    std::size_t used_ = 0;
    int bits_ = 0;
};

// Deals records to buckets by the highest bits that tell any apart, and sorts these, which lie in
// the cache. Texts have few different bytes, such as digits: whole bytes would leave most buckets
// empty.
void sort_records(std::span<text_record> records, std::uint64_t differ) {
    constexpr std::size_t fewest = 4096;
    constexpr std::size_t records_of_bucket = 64;
    constexpr int most_bits = 14;
    if (records.size() < fewest) {
        std::sort(records.begin(), records.end());
        return;
    }
    const auto wanted_bits = static_cast<int>(std::bit_width(records.size() / records_of_bucket));
    const differing_bits bucket_of(differ, std::min(wanted_bits, most_bits));
    const std::size_t buckets = std::size_t{1} << bucket_of.count();
    const std::size_t parts = (records.size() + rows_of_a_task - 1) / rows_of_a_task;
    const auto records_of = [&](std::size_t part) {
        const std::size_t begin = part * rows_of_a_task;
        return records.subspan(begin, std::min(rows_of_a_task, records.size() - begin));
    };
    // Of each part the counts, and then where its next record of a bucket goes.
    std::vector<std::vector<std::uint32_t>> next(parts);
    for_each_number(parts, [&](std::size_t part) {
        next[part].resize(buckets);
        for (const text_record each : records_of(part))
            ++next[part][bucket_of.of(bytes_of(each))];
    });
    std::vector<std::uint32_t> begins(buckets + 1);
    for (std::size_t bucket = 0; bucket < buckets; ++bucket) {
        std::uint32_t at = begins[bucket];
        for (std::vector<std::uint32_t> &of_part : next)
            at += std::exchange(of_part[bucket], at);
        begins[bucket + 1] = at;
    }
    const auto dealt = std::make_unique_for_overwrite<text_record[]>(records.size());
    for_each_number(parts, [&](std::size_t part) {
        for (const text_record each : records_of(part))
            dealt[next[part][bucket_of.of(bytes_of(each))]++] = each;
    });
    constexpr std::size_t tasks = 64;
    for_parts(buckets, (buckets + tasks - 1) / tasks, [&](std::size_t begin, std::size_t end) {
        for (; begin < end; ++begin) {
            text_record *const first = dealt.get() + begins[begin];
            text_record *const last = dealt.get() + begins[begin + 1];
            if (begins[begin + 1] - begins[begin] > rows_of_a_task)
                tbb::parallel_sort(first, last);
            else
                std::sort(first, last);
            std::copy(first, last, records.begin() + begins[begin]);
        }
    });
}

// Sorts records of texts of which the first `known` bytes are alike: by their next bytes that are
// not, and then those that are alike in these.
void sort_alike(std::span<const std::string_view> texts, std::span<text_record> records,
                std::size_t known, int level) {
    // Few are compared as they are, and so are those of which each has another one's beginning.
    constexpr std::size_t few = 8;
    constexpr int most_levels = 100;
    const auto text_of = [&](text_record record) {
        return texts[static_cast<std::size_t>(place_of(record))];
    };
    if (records.size() <= few || level == most_levels) {
        std::sort(records.begin(), records.end(), [&](text_record a, text_record b) {
            return text_of(a).substr(known) < text_of(b).substr(known);
        });
        return;
    }
    const std::size_t begin = common_bytes(texts, records, known);
    std::atomic<std::uint64_t> differ{0};
    for_rows(records.size(), [&](std::size_t row, std::size_t end) {
        std::uint64_t here = 0;
        for (; row < end; ++row) {
            records[row] = record_of(text_of(records[row]), begin, place_of(records[row]));
            here |= bytes_of(records[row]) ^ bytes_of(records.front());
        }
        differ.fetch_or(here, std::memory_order_relaxed);
    });
    sort_records(records, differ);
    std::vector<std::span<text_record>> runs;
    for (std::size_t row = 0, end = 0; row < records.size(); row = end) {
        for (end = row + 1; end < records.size() && are_alike(records[row], records[end]);)
            ++end;
        if (end - row > 1 && goes_on(records[row]))
            runs.push_back(records.subspan(row, end - row));
    }
    constexpr std::size_t tasks = 64;
    const std::size_t runs_of_task =
        records.size() > rows_of_a_task ? runs.size() / tasks + 1 : runs.size();
    for_parts(runs.size(), runs_of_task, [&](std::size_t run, std::size_t end) {
        for (; run < end; ++run)
            sort_alike(texts, runs[run], begin + bytes_at_once, level + 1);
    });
}

} // namespace

// Most texts differ within eight bytes, once what all begin with is left out.
std::vector<std::int32_t> order_of_texts(std::span<const std::string_view> texts) {
    const auto records = std::make_unique_for_overwrite<text_record[]>(texts.size());
    for (std::size_t i = 0; i < texts.size(); ++i)
        records[i] = i;
    sort_alike(texts, {records.get(), texts.size()}, 0, 0);
    std::vector<std::int32_t> order(texts.size());
    for_rows(texts.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            order[i] = place_of(records[i]);
    });
    return order;
}

} // namespace vask::table
