#include "chunk_reader.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <type_traits>

#include <fmt/format.h>

namespace vask::runner {
namespace {

// Whether a number is printed in the spelling in which it was read.
template <class T>
bool is_printed_as(T value, std::string_view cell) {
    if constexpr (std::is_integral_v<T>) {
        return cell != "-0" && !cell.starts_with('+');
    } else if constexpr (std::is_floating_point_v<T>) {
        std::array<char, 32> text{}; // the longest double has 24 characters
        const auto *const end = fmt::format_to(text.data(), "{}", value);
        return std::string_view(text.data(), static_cast<std::size_t>(end - text.data())) == cell;
    } else {
        return true;
    }
}

class chunk_reader {
public:
    chunk_reader(const record_chunk &chunk, const missing_words &missing,
                 const std::vector<column_target> &targets, std::uint64_t first_row,
                 const row_filter *filter)
        : missing_(missing), targets_(targets), first_row_(first_row), filter_(filter) {
        outcome_.columns.resize(targets.size());
        if (filter != nullptr) {
            filter_cells_.resize(filter->columns().size());
            slots_.resize(targets.size(), no_slot);
            for (std::size_t slot = 0; slot < filter_cells_.size(); ++slot)
                slots_[filter->columns()[slot]] = slot;
        }
        bool has_text = false;
        for (std::size_t i = 0; i < targets.size(); ++i) {
            outcome_.columns[i].needed = targets[i].type;
            if (!targets[i].wanted || targets[i].type != column_type::str)
                continue;
            outcome_.columns[i].texts.reserve(chunk.max_records);
            has_text = true;
        }
        // Cells are never longer than what they were written as, so all texts fit in.
        if (has_text)
            outcome_.text_memory = std::make_shared_for_overwrite<char[]>(chunk.end - chunk.begin);
        text_end_ = outcome_.text_memory.get();
        row_text_ = text_end_;
    }

    void field(std::string_view cell) {
        const std::size_t i = column_++;
        if (i >= targets_.size() || outcome_.fault)
            return;
        if (filter_ != nullptr && slots_[i] != no_slot)
            filter_cells_[slots_[i]] = {std::string(cell), missing_.contains(cell)};
        if (!targets_[i].wanted)
            return;
        if (targets_[i].type == column_type::str)
            store_text(cell, i);
        else
            visit_cell_type(targets_[i].type,
                            [&]<class T>(std::type_identity<T>) { store_value<T>(cell, i); });
    }

    void record() {
        if (outcome_.fault)
            return;
        if (column_ != targets_.size())
            outcome_.fault = load_fault{load_fault::kind::ragged, parsed_, column_, 0, {}, {}, 0};
        column_ = 0;
        const bool kept = filter_ == nullptr || outcome_.fault || keeps_row();
        ++parsed_;
        if (kept)
            ++outcome_.records;
        if (filter_ == nullptr)
            return;
        if (!kept)
            take_back_row();
        row_missing_.clear();
        row_text_ = text_end_;
    }

    bool stopped() const { return outcome_.fault.has_value(); }

    //! Records that the text cannot be parsed from this place on.
    void refuse(load_fault::kind what, std::size_t position) {
        outcome_.fault = load_fault{what, parsed_, 0, column_, {}, {}, position};
    }

    chunk_outcome take_outcome() { return std::move(outcome_); }

private:
    bool keeps_row() {
        std::optional<row_filter::misfit> misfit;
        const bool kept = filter_->keeps(filter_cells_, misfit);
        if (misfit) {
            load_fault &fault = outcome_.fault.emplace();
            fault.what = load_fault::kind::uncomparable;
            fault.record = parsed_;
            fault.column = filter_->columns()[misfit->slot];
            fault.cell = filter_cells_[misfit->slot].text;
            fault.wanted = misfit->kind;
        }
        return kept;
    }

    // The next row is stored where this one was.
    void take_back_row() {
        for (const std::size_t i : row_missing_)
            --outcome_.columns[i].missing;
        for (std::size_t i = 0; i < targets_.size(); ++i)
            if (targets_[i].wanted && targets_[i].type == column_type::str)
                outcome_.columns[i].texts.pop_back();
        text_end_ = row_text_;
    }

    void count_missing(std::size_t i) {
        ++outcome_.columns[i].missing;
        if (filter_ != nullptr)
            row_missing_.push_back(i);
    }

    template <class T>
    T *place(std::size_t column) const {
        return static_cast<T *>(targets_[column].values) + first_row_ + outcome_.records;
    }

    template <class T>
    void store_value(std::string_view cell, std::size_t i) {
        T value;
        // A number can be listed as a missing word, so the list comes first.
        if (missing_.contains(cell)) {
            std::memcpy(&value, BATatoms[type_code(targets_[i].type)].atom_null, sizeof value);
            count_missing(i);
        } else if (!read_cell(cell, value) || (targets_[i].keep_zeros && has_leading_zero(cell))) {
            misfit(cell, i);
            return;
        } else if (targets_[i].is_key && !outcome_.columns[i].respelled &&
                   !is_printed_as(value, cell)) {
            outcome_.columns[i].respelled = cell;
        }
        *place<T>(i) = value;
    }

    void store_text(std::string_view cell, std::size_t i) {
        column_outcome &column = outcome_.columns[i];
        if (missing_.contains(cell)) {
            column.texts.emplace_back(nil_text_);
            count_missing(i);
            return;
        }
        if (cell == nil_text_) {
            outcome_.fault = load_fault{load_fault::kind::nil_text, parsed_, 0, i, {}, {}, 0};
            return;
        }
        column.texts.emplace_back(text_end_, cell.size());
        text_end_ = std::copy(cell.begin(), cell.end(), text_end_);
    }

    void misfit(std::string_view cell, std::size_t i) {
        const column_target &target = targets_[i];
        if (target.forced)
            outcome_.fault = load_fault{load_fault::kind::bad_cell, parsed_,     0, i,
                                        std::string(cell),          target.type, 0};
        else
            outcome_.columns[i].needed =
                std::max(outcome_.columns[i].needed, inferred_type(cell, target.keep_zeros));
    }

    const missing_words &missing_;
    const std::vector<column_target> &targets_;
    const std::uint64_t first_row_;
    const std::string_view nil_text_ = static_cast<const char *>(BATatoms[TYPE_str].atom_null);
    std::uint64_t parsed_ = 0; // records, kept or not
    std::size_t column_ = 0;   // of the next field
    char *text_end_ = nullptr; // of the used text memory

    static constexpr std::size_t no_slot = static_cast<std::size_t>(-1);
    const row_filter *filter_;
    std::vector<std::size_t> slots_; // by column, the place of its cell among the filter's
    std::vector<row_filter::cell> filter_cells_;
    std::vector<std::size_t> row_missing_; // columns in which this row has no value
    char *row_text_ = nullptr;             // where this row's texts begin
    chunk_outcome outcome_;
};

} // namespace

chunk_outcome read_chunk(std::string_view text, const record_chunk &chunk,
                         const csv_dialect &dialect, const missing_words &missing,
                         const std::vector<column_target> &targets, std::uint64_t first_row,
                         const row_filter *filter) {
    chunk_reader reader(chunk, missing, targets, first_row, filter);
    csv_parser parser(dialect, reader);
    const std::size_t size = chunk.end - chunk.begin;
    const std::size_t good = parser.feed(text.substr(chunk.begin, size));
    if (good < size)
        reader.refuse(load_fault::kind::stray_quote, chunk.begin + good);
    else if (!parser.finish())
        reader.refuse(load_fault::kind::open_quote, chunk.end);
    return reader.take_outcome();
}

} // namespace vask::runner
