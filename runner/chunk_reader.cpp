#include "chunk_reader.h"

#include "field_index.h"
#include "plain_numbers.h"

#include "vask/refkernel/nil.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <type_traits>
#include <utility>

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
    chunk_reader(std::string_view text, const reading_rules &rules,
                 const std::vector<column_target> &targets, std::uint64_t first_row,
                 std::uint64_t most_records)
        : text_(text),
          missing_(rules.missing),
          numbers_(rules.format.numbers),
          format_(rules.format),
          ragged_(rules.ragged),
          targets_(targets),
          first_row_(first_row),
          most_records_(most_records),
          filter_(rules.filter) {
        const row_filter *const filter = filter_;
        outcome_.columns.resize(targets.size());
        if (filter != nullptr) {
            judge_.emplace(*filter);
            filter_cells_.resize(filter->columns().size());
            slots_.resize(targets.size(), no_slot);
            for (std::size_t slot = 0; slot < filter_cells_.size(); ++slot) {
                if (filter->is_file_name(slot))
                    filter_cells_[slot].text = rules.file_name;
                else
                    slots_[filter->columns()[slot]] = slot;
            }
        }
    }

    void field(std::string_view cell) {
        if (ragged_ == ragged_records::refused)
            take_field(cell);
        else // whose record may be left out
            row_cells_.emplace_back(cell);
    }

    void record() {
        if (ragged_ == ragged_records::refused) {
            end_record();
            return;
        }
        std::vector<std::string> &cells = row_cells_;
        const std::size_t columns = targets_.size();
        if (cells.size() == columns || ragged_ == ragged_records::filled) {
            for (const std::string &cell : cells)
                take_field(cell);
            while (column_ < columns)
                take_missing_field();
            end_record();
        } else if (!outcome_.fault) {
            ++parsed_;
        }
        cells.clear();
    }

    //! Takes plain records at one go: by columns, or with a filter by rows.
    void take(const field_index &fields) {
        if (fields.records() > most_records_ - parsed_) {
            refuse(load_fault::kind::changed, 0);
            return;
        }
        if (filter_ != nullptr) {
            for (std::size_t record_number = 0; record_number < fields.records(); ++record_number)
                take_row(fields, record_number);
            return;
        }
        for (std::size_t i = 0; i < targets_.size(); ++i) {
            if (!targets_[i].wanted)
                continue;
            if (targets_[i].type == column_type::str)
                take_texts(fields, i);
            else
                visit_cell_type(targets_[i].type,
                                [&]<class T>(std::type_identity<T>) { take_values<T>(fields, i); });
        }
        parsed_ += fields.records();
        outcome_.records += fields.records();
    }

    bool stopped() const { return outcome_.fault.has_value(); }

    //! Records that the text cannot be parsed from this place on.
    void refuse(load_fault::kind what, std::size_t position) {
        const std::size_t column = ragged_ == ragged_records::refused ? column_ : row_cells_.size();
        outcome_.fault = load_fault{what, parsed_, 0, column, {}, {}, position};
    }

    chunk_outcome take_outcome() {
        for (column_outcome &column : outcome_.columns)
            column.texts.shrink();
        return std::move(outcome_);
    }

private:
    void take_field(std::string_view cell) {
        const std::size_t i = column_++;
        if (i >= targets_.size() || outcome_.fault)
            return;
        // There is no room for more rows than were counted.
        if (parsed_ == most_records_) {
            refuse(load_fault::kind::changed, 0);
            return;
        }
        if (filter_ != nullptr && slots_[i] != no_slot)
            filter_cells_[slots_[i]] = {in_plain_spelling(cell), missing_.contains(cell)};
        if (!targets_[i].wanted)
            return;
        if (targets_[i].type == column_type::str)
            store_text(cell, cell.size(), i, parsed_);
        else
            visit_cell_type(targets_[i].type, [&]<class T>(std::type_identity<T>) {
                store_value(cell, i, parsed_, *place<T>(i));
            });
    }

    void end_record() {
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
    }

    // Of a record that ends before its last column.
    void take_missing_field() {
        const std::size_t i = column_++;
        if (outcome_.fault)
            return;
        if (filter_ != nullptr && slots_[i] != no_slot)
            filter_cells_[slots_[i]] = {{}, true};
        if (!targets_[i].wanted)
            return;
        if (targets_[i].type == column_type::str)
            outcome_.columns[i].texts.add_missing();
        else
            visit_cell_type(targets_[i].type, [&]<class T>(std::type_identity<T>) {
                store_missing(*place<T>(i), targets_[i].type);
            });
        count_missing(i);
    }

    // As conditions read cells.
    std::string in_plain_spelling(std::string_view cell) const {
        std::string memory;
        const auto plain = plain_spelling(cell, numbers_, memory);
        dbl value = 0;
        return std::string(plain && read_cell(*plain, value) ? *plain : cell);
    }

    bool keeps_row() {
        std::optional<row_filter::misfit> misfit;
        const bool kept = judge_->keeps(filter_cells_, misfit);
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
                outcome_.columns[i].texts.pop();
    }

    void take_row(const field_index &fields, std::size_t record_number) {
        for (std::size_t i = 0; i < targets_.size(); ++i) {
            column_ = i;
            if (targets_[i].wanted || slots_[i] != no_slot)
                take_field(fields.field(record_number, i));
        }
        column_ = targets_.size();
        end_record();
    }

    template <class T>
    void take_values(const field_index &fields, std::size_t i) {
        T *const to = place<T>(i);
        const char *const first = text_.data();
        const bool is_key = targets_[i].is_key;
        const bool reads_plain = std::is_integral_v<T> || numbers_.is_plain();
        std::size_t others = 0;
        for (std::size_t row = 0; row < fields.records(); ++row) {
            const std::string_view cell = fields.field(row, i);
            if (!(reads_plain && read_plain(cell, first, is_key, to[row])) ||
                missing_.contains(cell)) [[unlikely]] {
                store_value(cell, i, parsed_ + row, to[row]);
                ++others;
            }
        }
        if (others < fields.records())
            outcome_.columns[i].any_fits = true;
    }

    template <class T>
    static bool read_plain(std::string_view cell, const char *first, bool is_key, T &value) {
        const char *const begin = cell.data();
        const char *const end = begin + cell.size();
        if constexpr (std::is_same_v<T, dbl>) {
            return read_plain_decimal(begin, end, first, is_key, value);
        } else if constexpr (std::is_same_v<T, std::int32_t> || std::is_same_v<T, lng>) {
            std::int64_t number = 0;
            if (!read_plain_integer(begin, end, first, number))
                return false;
            value = static_cast<T>(number);
            return value == number && value != refkernel::nil_of<T>();
        } else {
            return false;
        }
    }

    void take_texts(const field_index &fields, std::size_t i) {
        const auto end = text_.data() + text_.size();
        for (std::size_t row = 0; row < fields.records(); ++row) {
            const std::string_view cell = fields.field(row, i);
            store_text(cell, static_cast<std::size_t>(end - cell.data()), i, parsed_ + row);
        }
    }

    void count_missing(std::size_t i) {
        ++outcome_.columns[i].missing;
        if (filter_ != nullptr)
            row_missing_.push_back(i);
    }

    // Of the next record.
    template <class T>
    T *place(std::size_t column) const {
        return static_cast<T *>(targets_[column].values) + first_row_ + outcome_.records;
    }

    template <class T>
    static void store_missing(T &to, column_type type) {
        std::memcpy(&to, BATatoms[type_code(type)].atom_null, sizeof to);
    }

    template <class T>
    bool read_value(std::string_view cell, std::size_t i, T &value) {
        if constexpr (is_time<T>) {
            return read_time_value(cell, i, value);
        } else {
            const bool keep_zeros = targets_[i].keep_zeros;
            if (!std::is_arithmetic_v<T> || numbers_.is_plain())
                return read_cell(cell, value) && !(keep_zeros && has_leading_zero(cell));
            std::string memory;
            const auto plain = plain_spelling(cell, numbers_, memory);
            return plain && read_cell(*plain, value) && !(keep_zeros && has_leading_zero(*plain));
        }
    }

    template <class T>
    bool read_time_value(std::string_view cell, std::size_t i, T &value) {
        const auto time = read_time(cell, format_.dates);
        if (!time)
            return false;
        value.microseconds = time->microseconds;
        // Who asks for dates has midnights read as such.
        if (std::is_same_v<T, calendar_date> && !time->style.is_date() &&
            !(targets_[i].forced && is_midnight(time->microseconds)))
            return false;
        outcome_.columns[i].times.add(cell, *time, format_.dates);
        return true;
    }

    template <class T>
    void store_value(std::string_view cell, std::size_t i, std::uint64_t record_number, T &to) {
        T value;
        column_outcome &column = outcome_.columns[i];
        // A number can be listed as a missing word, so the list comes first.
        if (missing_.contains(cell)) {
            store_missing(value, targets_[i].type);
            count_missing(i);
        } else if (read_value(cell, i, value)) {
            column.any_fits = true;
            if (targets_[i].is_key && !column.respelled && !is_printed_as(value, cell))
                column.respelled = cell;
        } else {
            misfit(cell, i, record_number);
            return;
        }
        to = value;
    }

    void store_text(std::string_view cell, std::size_t readable, std::size_t i,
                    std::uint64_t record_number) {
        column_outcome &column = outcome_.columns[i];
        if (missing_.contains(cell)) {
            column.texts.add_missing();
            count_missing(i);
            return;
        }
        if (cell == nil_text_)
            note_fault({load_fault::kind::nil_text, record_number, 0, i, {}, {}, 0});
        else
            column.texts.add(cell, readable);
    }

    void misfit(std::string_view cell, std::size_t i, std::uint64_t record_number) {
        const column_target &target = targets_[i];
        if (target.forced)
            note_fault({load_fault::kind::bad_cell, record_number, 0, i, std::string(cell),
                        target.type, 0});
        else
            outcome_.columns[i].misfits =
                wider(outcome_.columns[i].misfits, inferred_type(cell, target.keep_zeros, format_));
    }

    // Columns are read one after the other, but the first fault of the file is told.
    void note_fault(load_fault fault) {
        if (!outcome_.fault || std::pair(fault.record, fault.column) <
                                   std::pair(outcome_.fault->record, outcome_.fault->column))
            outcome_.fault = std::move(fault);
    }

    const std::string_view text_; // the whole input's
    const missing_words &missing_;
    const number_format numbers_;
    const cell_format &format_;
    const ragged_records ragged_;
    std::vector<std::string> row_cells_; // of the open record, where it may be left out
    const std::vector<column_target> &targets_;
    const std::uint64_t first_row_;
    const std::uint64_t most_records_;
    const std::string_view nil_text_ = static_cast<const char *>(BATatoms[TYPE_str].atom_null);
    std::uint64_t parsed_ = 0; // records, kept or not
    std::size_t column_ = 0;   // of the next field

    static constexpr std::size_t no_slot = static_cast<std::size_t>(-1);
    const row_filter *filter_;
    std::optional<row_filter::judge> judge_;
    std::vector<std::size_t> slots_; // by column, the place of its cell among the filter's
    std::vector<row_filter::cell> filter_cells_;
    std::vector<std::size_t> row_missing_; // columns in which this row has no value
    chunk_outcome outcome_;
};

// Text that is indexed at one go: the index and the text stay in the second-level cache while
// column after column is read from them.
constexpr std::size_t piece_bytes = std::size_t{64} << 10;

// Whole records from `begin` on, about a piece of them, if there is no quote among them.
std::size_t piece_end(std::string_view text, std::size_t begin) {
    const std::string_view piece = text.substr(begin, piece_bytes);
    if (piece.size() < piece_bytes)
        return text.size();
    const std::size_t last = piece.rfind('\n');
    if (last != std::string_view::npos)
        return begin + last + 1;
    const std::size_t next = text.find('\n', begin + piece.size());
    return next == std::string_view::npos ? text.size() : next + 1;
}

} // namespace

chunk_outcome read_chunk(std::string_view text, const record_chunk &chunk,
                         const reading_rules &rules, const std::vector<column_target> &targets,
                         std::uint64_t first_row) {
    const csv_dialect &dialect = rules.dialect;
    chunk_reader reader(text, rules, targets, first_row, chunk.max_records);
    csv_parser parser(dialect, reader);
    field_index fields(targets.size());
    const std::string_view records = text.substr(0, chunk.end);
    for (std::size_t at = chunk.begin; at < chunk.end && !reader.stopped();) {
        std::size_t end = piece_end(records, at);
        if (fields.build(records.substr(at, end - at), dialect.separator, dialect.quote())) {
            reader.take(fields);
        } else {
            end = end_outside_quotes(records, at, end, dialect.quote());
            const std::size_t good = parser.feed(records.substr(at, end - at));
            if (good < end - at)
                reader.refuse(load_fault::kind::stray_quote, at + good);
        }
        at = end;
    }
    if (!reader.stopped() && !parser.finish())
        reader.refuse(load_fault::kind::open_quote, chunk.end);
    return reader.take_outcome();
}

} // namespace vask::runner
