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
    type_sampler(const missing_words &missing, bool keep_zeros, const cell_format &format,
                 ragged_records ragged, std::vector<std::optional<column_type>> &types)
        : missing_(missing),
          keep_zeros_(keep_zeros),
          format_(format),
          ragged_(ragged),
          types_(types),
          row_(types) {}

    void field(std::string_view cell) {
        const std::size_t i = column_++;
        if (i >= types_.size() || row_[i] == column_type::str || missing_.contains(cell))
            return;
        row_[i] = wider(row_[i], inferred_type(cell, keep_zeros_, format_));
    }
    void record() {
        // The cells of a record that is left out have no say.
        if (ragged_ == ragged_records::skipped && column_ != types_.size())
            row_ = types_;
        else
            types_ = row_;
        column_ = 0;
        ++records_;
    }
    bool stopped() const { return records_ >= sampled_records; }

private:
    const missing_words &missing_;
    const bool keep_zeros_;
    const cell_format &format_;
    const ragged_records ragged_;
    std::vector<std::optional<column_type>> &types_;
    std::vector<std::optional<column_type>> row_; // the types with the cells of the open record
    std::size_t column_ = 0;
    std::size_t records_ = 0;
};

} // namespace

std::vector<std::optional<column_type>>
guess_types(std::string_view text, const std::vector<record_chunk> &chunks,
            const csv_dialect &dialect, const missing_words &missing, bool keep_zeros,
            const cell_format &format, ragged_records ragged, std::size_t columns) {
    std::vector<std::optional<column_type>> types(columns);
    const std::size_t step = std::max<std::size_t>(chunks.size() / sampled_chunks, 1);
    for (std::size_t i = 0; i < chunks.size(); i += step) {
        type_sampler sampler(missing, keep_zeros, format, ragged, types);
        csv_parser parser(dialect, sampler);
        if (parser.feed(text.substr(chunks[i].begin, chunks[i].end - chunks[i].begin)) ==
            chunks[i].end - chunks[i].begin)
            parser.finish();
    }
    return types;
}

} // namespace vask::runner
