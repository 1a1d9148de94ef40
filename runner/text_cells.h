// The cells of a text column from a part of a file.
#pragma once

#include "table/text_encoder.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

namespace vask::runner {

//! Texts one behind the other, as the text encoder takes them. A text has less than 2 GiB.
class text_cells {
public:
    //! Makes room for so many more rows with texts of so many bytes together.
    void reserve(std::size_t rows, std::size_t bytes);

    //! `readable` bytes lie in memory from the text's first on.
    void add(std::string_view text, std::size_t readable) {
        if (blocks_.empty() ||
            blocks_.back().capacity - blocks_.back().used < text.size() + at_once)
            reserve(1, text.size());
        block &to = blocks_.back();
        char *const place = to.bytes.get() + to.used;
        // Most texts are short: a copy of fixed length needs no call.
        if (text.size() <= at_once && readable >= at_once) [[likely]]
            std::memcpy(place, text.data(), at_once);
        else
            std::memcpy(place, text.data(), text.size());
        to.used += text.size();
        end_row(to, true);
    }
    void add(std::string_view text) { add(text, text.size()); }

    void add_missing() {
        if (blocks_.empty())
            reserve(1, 0);
        end_row(blocks_.back(), false);
    }

    //! Takes the last row back.
    void pop();
    //! Gives memory back that is not used.
    void shrink();

    //! Appends the rows' places; they hold as long as the cells do and nothing is added.
    void append_chunks(std::vector<table::text_chunk> &to) const;

    //! Calls `f(text)` for each row, with a null for a missing one.
    template <class F>
    void for_each(F f) const {
        for (const block &each : blocks_)
            for (std::size_t row = 0; row + 1 < each.ends.size(); ++row) {
                const auto begin = static_cast<std::size_t>(each.ends[row]);
                const std::string_view text(each.bytes.get() + begin,
                                            static_cast<std::size_t>(each.ends[row + 1]) - begin);
                f(each.is_value(row) ? &text : nullptr);
            }
    }

private:
    static constexpr std::size_t at_once = 16;

    //! Offsets have 32 bits, so a part with more text has several.
    struct block {
        std::unique_ptr<char[]> bytes;
        std::size_t used = 0;
        std::size_t capacity = 0;
        std::vector<std::int32_t> ends{0};  // behind each row's text, from the first one's begin on
        std::vector<std::uint8_t> validity; // bits; empty: all rows have values

        bool is_value(std::size_t row) const {
            return validity.empty() || (validity[row / 8] >> row % 8 & 1) != 0;
        }
    };

    static void end_row(block &to, bool is_value) {
        if (!is_value || !to.validity.empty()) [[unlikely]]
            note_validity(to, is_value);
        to.ends.push_back(static_cast<std::int32_t>(to.used));
    }
    static void note_validity(block &to, bool is_value);

    std::vector<block> blocks_;
};

} // namespace vask::runner
