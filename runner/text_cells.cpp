#include "text_cells.h"

#include "user_error.h"

#include <algorithm>
#include <limits>

namespace vask::runner {

void text_cells::reserve(std::size_t rows, std::size_t bytes) {
    constexpr std::size_t most_bytes = std::numeric_limits<std::int32_t>::max() - at_once;
    if (bytes > most_bytes)
        fail("a field has {} bytes, more than a text can have", bytes);
    if (blocks_.empty() || blocks_.back().used + bytes > most_bytes)
        blocks_.emplace_back();
    block &to = blocks_.back();
    if (to.ends.capacity() < to.ends.size() + rows)
        to.ends.reserve(std::max(to.ends.size() + rows, 2 * to.ends.size()));
    if (to.capacity - to.used >= bytes + at_once)
        return;
    const std::size_t capacity = std::max(to.used + bytes, 2 * to.used) + at_once;
    auto grown = std::make_unique_for_overwrite<char[]>(capacity);
    std::copy_n(to.bytes.get(), to.used, grown.get());
    to.bytes = std::move(grown);
    to.capacity = capacity;
}

void text_cells::note_validity(block &to, bool is_value) {
    const std::size_t row = to.ends.size() - 1;
    if (row / 8 >= to.validity.size())
        to.validity.resize(row / 8 + 1, 0xff);
    const auto bit = static_cast<std::uint8_t>(1U << row % 8);
    std::uint8_t &byte = to.validity[row / 8];
    byte = static_cast<std::uint8_t>(is_value ? byte | bit : byte & ~bit);
}

void text_cells::pop() {
    block &from = blocks_.back();
    from.ends.pop_back();
    from.used = static_cast<std::size_t>(from.ends.back());
    if (from.ends.size() == 1 && blocks_.size() > 1)
        blocks_.pop_back();
}

void text_cells::shrink() {
    for (block &each : blocks_) {
        auto exact = std::make_unique_for_overwrite<char[]>(each.used);
        std::copy_n(each.bytes.get(), each.used, exact.get());
        each.bytes = std::move(exact);
        each.capacity = each.used;
        each.ends.shrink_to_fit();
    }
}

void text_cells::append_chunks(std::vector<table::text_chunk> &to) const {
    for (const block &each : blocks_)
        to.push_back({.rows = static_cast<std::int64_t>(each.ends.size() - 1),
                      .places = each.ends.data(),
                      .bytes = each.bytes.get(),
                      .validity = each.validity.empty() ? nullptr : each.validity.data()});
}

} // namespace vask::runner
