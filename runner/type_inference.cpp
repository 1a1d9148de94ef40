#include "type_inference.h"

#include <algorithm>

namespace vask::runner {
namespace {

// Enough to see the type of nearly every column of real files; a wrong guess costs one more pass
// over the file for the columns it concerns.
constexpr std::size_t sampled_chunks = 8;
constexpr std::size_t sampled_records = 256;

class type_sampler {
public:
    type_sampler(const missing_words &missing, bool keep_zeros, std::vector<column_type> &types)
        : missing_(missing), keep_zeros_(keep_zeros), types_(types) {}

    void field(std::string_view cell) {
        const std::size_t i = column_++;
        if (i >= types_.size() || types_[i] == column_type::str || missing_.contains(cell))
            return;
        types_[i] = std::max(types_[i], inferred_type(cell, keep_zeros_));
    }
    void record() {
        column_ = 0;
        ++records_;
    }
    bool stopped() const { return records_ >= sampled_records; }

private:
    const missing_words &missing_;
    const bool keep_zeros_;
    std::vector<column_type> &types_;
    std::size_t column_ = 0;
    std::size_t records_ = 0;
};

} // namespace

std::vector<column_type> guess_types(std::string_view text, const std::vector<record_chunk> &chunks,
                                     const csv_dialect &dialect, const missing_words &missing,
                                     bool keep_zeros, std::size_t columns) {
    std::vector<column_type> types(columns, column_type::int_);
    const std::size_t step = std::max<std::size_t>(chunks.size() / sampled_chunks, 1);
    for (std::size_t i = 0; i < chunks.size(); i += step) {
        type_sampler sampler(missing, keep_zeros, types);
        csv_parser parser(dialect, sampler);
        if (parser.feed(text.substr(chunks[i].begin, chunks[i].end - chunks[i].begin)) ==
            chunks[i].end - chunks[i].begin)
            parser.finish();
    }
    return types;
}

} // namespace vask::runner
