#include "table/text_order.h"

#include "table/parallel.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>

#include <tbb/parallel_sort.h>
#include <tbb/task_arena.h>

namespace vask::table {
namespace {

// Eight bytes from a place on as a number that compares as they do; zeros behind the text's end.
std::uint64_t bytes_from(std::string_view text, std::size_t begin) {
    static_assert(std::endian::native == std::endian::little);
    std::uint64_t bytes = 0;
    if (begin < text.size())
        std::memcpy(&bytes, text.data() + begin, std::min(text.size() - begin, sizeof bytes));
    return __builtin_bswap64(bytes);
}

// How many bytes all texts begin with: keys such as customer-0815 differ behind them only.
std::size_t common_bytes(std::span<const std::string_view> texts) {
    std::size_t common = texts.empty() ? 0 : texts.front().size();
    for (const std::string_view text : texts) {
        if (common == 0)
            break;
        const auto differ =
            std::mismatch(text.begin(), text.end(), texts.front().begin(),
                          texts.front().begin() + static_cast<std::ptrdiff_t>(common));
        common = static_cast<std::size_t>(differ.first - text.begin());
    }
    return common;
}

} // namespace

// Most texts differ within eight bytes, which lie beside their places: a million texts of 6 to 16
// bytes take a fifth of the time in which whole texts are compared.
std::vector<std::int32_t> order_of_texts(std::span<const std::string_view> texts) {
    struct record {
        std::uint64_t bytes;
        std::int32_t place;
    };
    const std::size_t common = common_bytes(texts);
    std::vector<record> records(texts.size());
    std::vector<std::int32_t> order(texts.size());
    for_rows(texts.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            records[i] = {bytes_from(texts[i], common), static_cast<std::int32_t>(i)};
    });
    // Bytes are as equal as texts where one of these ends.
    const auto less = [&](const record &a, const record &b) {
        if (a.bytes != b.bytes)
            return a.bytes < b.bytes;
        return texts[static_cast<std::size_t>(a.place)] < texts[static_cast<std::size_t>(b.place)];
    };
    tbb::this_task_arena::isolate(
        [&] { tbb::parallel_sort(records.begin(), records.end(), less); });
    end_if_cancelled();
    for_rows(texts.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            order[i] = records[i].place;
    });
    return order;
}

} // namespace vask::table
