// Rows of several arrays of texts, one array behind the other.
#pragma once

#include "table/text_encoder.h"
#include "table/text_key.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace vask::table {

//! A row among those of all arrays, or of one.
using row_position = std::int64_t;

//! Calls `f(texts)` with the array's texts as its layout has them.
template <class F>
decltype(auto) with_texts(const text_chunk &chunk, F f) {
    switch (chunk.kind) {
        case text_chunk::layout::offsets32:
            return f(offset_texts<std::int32_t>(chunk.places, chunk.rows, chunk.bytes));
        case text_chunk::layout::offsets64:
            return f(offset_texts<std::int64_t>(chunk.places, chunk.rows, chunk.bytes));
        case text_chunk::layout::views:
            return f(view_texts(chunk.places, chunk.view_buffers));
        case text_chunk::layout::anywhere:
            break;
    }
    return f(far_texts(chunk.places));
}

class text_rows {
public:
    explicit text_rows(std::span<const text_chunk> chunks) : chunks_(chunks) {
        begins_.reserve(chunks.size());
        for (const text_chunk &chunk : chunks) {
            begins_.push_back(rows_);
            rows_ += chunk.rows;
        }
    }

    row_position rows() const noexcept { return rows_; }

    //! Calls `f(chunk, chunk_begin, begin, end)` for the arrays of the rows begin .. end - 1: the
    //! row with which each begins, and its own rows begin .. end - 1. Until `f` gives false.
    template <class F>
    void for_each_chunk(row_position begin, row_position end, F f) const {
        for (std::size_t i = chunk_of(begin); i < chunks_.size() && begins_[i] < end; ++i) {
            const text_chunk &chunk = chunks_[i];
            if (chunk.rows != 0 &&
                !f(chunk, begins_[i], std::max<row_position>(begin - begins_[i], 0),
                   std::min(end - begins_[i], chunk.rows)))
                return;
        }
    }

    //! A text that is there and not malformed.
    std::string_view operator[](row_position row) const noexcept {
        const std::size_t i = chunk_of(row);
        return with_texts(chunks_[i], [&](const auto &texts) { return texts[row - begins_[i]]; });
    }

private:
    //! The last array that begins at or before the row; empty ones begin with it.
    std::size_t chunk_of(row_position row) const noexcept {
        return static_cast<std::size_t>(std::upper_bound(begins_.begin(), begins_.end(), row) -
                                        begins_.begin() - 1);
    }

    std::span<const text_chunk> chunks_;
    std::vector<row_position> begins_;
    row_position rows_ = 0;
};

} // namespace vask::table
