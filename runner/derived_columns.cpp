#include "derived_columns.h"

#include "expression_evaluator.h"
#include "load_fault.h"
#include "notes.h"
#include "query.h"
#include "user_error.h"
#include "worker_pool.h"

#include "kernel/column.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

namespace vask::runner {
namespace {

constexpr std::string_view option = "--let";

//! Rows worked on at a time: the blocks of a dozen nodes lie in the second-level cache.
constexpr std::size_t block_rows = 1024;
//! Rows of a piece of work.
constexpr std::size_t piece_rows = block_rows * 64;

value_kind kind_of(column_type type) {
    switch (type) {
        case column_type::bit:
            return value_kind::truth;
        case column_type::flt:
        case column_type::dbl:
            return value_kind::real;
        case column_type::date:
        case column_type::timestamp:
            return value_kind::time;
        case column_type::str:
            return value_kind::text;
        default:
            return value_kind::whole;
    }
}

column_type type_of(value_kind kind) {
    switch (kind) {
        case value_kind::whole:
            return column_type::lng;
        case value_kind::real:
            return column_type::dbl;
        case value_kind::truth:
            return column_type::bit;
        case value_kind::time:
            return column_type::timestamp;
        case value_kind::text:
        case value_kind::cell:
            break;
    }
    return column_type::str;
}

// Rows of a loaded column as the values of an expression.
class column_values {
public:
    explicit column_values(const table_column &column) : type_(column.type) {
        const BAT &b = *column.values.record();
        first_ = b.info->first;
        base_ = static_cast<const char *>(b.tail->base);
        if (type_ == column_type::str)
            words_ = column.words->words;
    }

    void read(std::size_t first_row, std::size_t rows, value_block &block) const {
        block.of = kind_of(type_);
        block.missing.resize(block_rows);
        if (type_ == column_type::str)
            read_texts(first_row, rows, block);
        else
            visit_cell_type(type_, [&]<class T>(std::type_identity<T>) {
                read_values<T>(first_row, rows, block);
            });
    }

private:
    void read_texts(std::size_t first_row, std::size_t rows, value_block &block) const {
        const auto *const codes =
            reinterpret_cast<const std::int32_t *>(base_) + first_ + first_row;
        block.texts.resize(block_rows);
        for (std::size_t i = 0; i < rows; ++i) {
            block.missing[i] = codes[i] == refkernel::nil_of<std::int32_t>() ? 1 : 0;
            block.texts[i] = block.missing[i] != 0 ? std::string_view()
                                                   : words_[static_cast<std::size_t>(codes[i])];
        }
    }

    template <class T>
    void read_values(std::size_t first_row, std::size_t rows, value_block &block) const {
        const auto *const values = reinterpret_cast<const T *>(base_) + first_ + first_row;
        T nil;
        std::memcpy(&nil, BATatoms[type_code(type_)].atom_null, sizeof nil);
        constexpr bool is_real = std::is_floating_point_v<T>;
        auto &numbers = [&]() -> auto & {
            if constexpr (is_real)
                return block.reals;
            else
                return block.wholes;
        }
        ();
        numbers.resize(block_rows);
        for (std::size_t i = 0; i < rows; ++i) {
            numbers[i] = plain(values[i]);
            block.missing[i] = plain(values[i]) == plain(nil) ? 1 : 0;
        }
    }

    template <class T>
    static auto plain(T value) {
        if constexpr (std::is_same_v<T, truth>)
            return lng{value.value};
        else if constexpr (is_time<T>)
            return value.microseconds;
        else if constexpr (std::is_floating_point_v<T>)
            return double{value};
        else
            return lng{value};
    }

    column_type type_;
    BUN first_ = 0;
    const char *base_ = nullptr;
    std::span<const std::string_view> words_; // of texts
};

class computation {
public:
    computation(const definition &made, const loaded_table &data)
        : made_(made), rows_(static_cast<std::size_t>(data.rows)) {
        std::vector<value_kind> kinds;
        for (const std::size_t place : made.value.columns) {
            columns_.emplace_back(data.columns[place]);
            kinds.push_back(kind_of(data.columns[place].type));
        }
        kind_ = vask::runner::kind_of(made.value, kinds);
        result_.type = type_of(kind_);
        result_.is_derived = true;
    }

    table_column run(const loaded_table &data, unsigned threads) {
        const expression_node &root = made_.value.nodes[made_.value.root];
        if (root.what == operation::column) {
            const table_column &same = data.columns[made_.value.columns[root.slot]];
            result_.missing = same.missing;
            result_.values = refkernel::bat::share(same.values.id());
            result_.words = same.words;
            return std::move(result_);
        }
        if (kind_ == value_kind::text)
            made_.value.complain(made_.value.root, "a text alone makes no column,");
        result_.values =
            refkernel::make_empty(TYPE_void, type_code(result_.type), static_cast<BUN>(rows_));
        BAT *const values = result_.values.record();
        base_ = values->tail->base;
        run_pieces((rows_ + piece_rows - 1) / piece_rows, threads,
                   [this](std::size_t piece) { run_piece(piece * piece_rows); });
        result_.missing = missing_;
        BATsetcount(values, static_cast<BUN>(rows_));
        values->tail->nil = missing_ > 0;
        values->tail->nonil = missing_ == 0;
        values->state->access = ACCESS_READ;
        if (undefined_ > 0)
            tell_note(fmt::format("--let: {} is missing in {} row{} for which there is no number, "
                                  "as in a division by zero",
                                  made_.name, undefined_.load(), undefined_ == 1 ? "" : "s"));
        return std::move(result_);
    }

private:
    void run_piece(std::size_t first) {
        std::size_t at = first;
        std::size_t rows = 0;
        expression_evaluator evaluator(
            made_.value, block_rows,
            [&](std::size_t slot, value_block &block) { columns_[slot].read(at, rows, block); });
        std::uint64_t missing = 0;
        for (const std::size_t end = std::min(first + piece_rows, rows_); at < end; at += rows) {
            rows = std::min(block_rows, end - at);
            const value_block &values = evaluator.evaluate(rows);
            if (evaluator.failed())
                refuse(*evaluator.failed());
            missing += store(values, at, rows);
        }
        missing_ += missing;
        undefined_ += evaluator.undefined();
    }

    [[noreturn]] void refuse(const expression_evaluator::fault &fault) const {
        if (fault.what == expression_evaluator::failure::overflow)
            made_.value.complain(fault.node,
                                 "a whole number leaves 64 bits; have it worked out in decimals, "
                                 "as in 1.0 * x,");
        made_.value.complain(fault.node, fmt::format("'{}' is no {}, but is used as one",
                                                     shown(fault.cell), fault.wanted));
    }

    std::uint64_t store(const value_block &block, std::size_t first, std::size_t rows) {
        return visit_cell_type(result_.type, [&]<class T>(std::type_identity<T>) {
            T nil;
            std::memcpy(&nil, BATatoms[type_code(result_.type)].atom_null, sizeof nil);
            T *const out = static_cast<T *>(base_) + first;
            std::uint64_t missing = 0;
            for (std::size_t i = 0; i < rows; ++i) {
                bool is_missing = block.missing[i] != 0;
                T value{};
                if constexpr (std::is_same_v<T, truth>)
                    value.value = static_cast<bit>(block.wholes[i]);
                else if constexpr (is_time<T>)
                    value.microseconds = block.wholes[i];
                else if constexpr (std::is_floating_point_v<T>)
                    value = static_cast<T>(block.reals[i]);
                else
                    value = static_cast<T>(block.wholes[i]);
                // The lowest number of doubles stands for a missing one.
                if constexpr (std::is_floating_point_v<T>)
                    is_missing = is_missing || value == nil;
                out[i] = is_missing ? nil : value;
                missing += is_missing ? 1 : 0;
            }
            return missing;
        });
    }

    const definition &made_;
    const std::size_t rows_;
    std::vector<column_values> columns_; // by slot
    value_kind kind_{};
    table_column result_;
    void *base_ = nullptr;
    std::atomic<std::uint64_t> missing_ = 0;
    std::atomic<std::uint64_t> undefined_ = 0;
};

} // namespace

derived_columns::derived_columns(const std::vector<std::string> &definitions, csv_header &header,
                                 const source_text &source, const date_format &dates)
    : first_place_(header.names.size()) {
    const name_finder find = [&](const std::string &name) -> meaning {
        for (const definition &made : definitions_)
            if (made.name == name)
                return &made.value;
        return find_column(header, source, name, option);
    };
    for (const std::string &text : definitions)
        parse_definitions(
            text, option, find,
            [&](definition made) {
                if (std::find(header.names.begin(), header.names.end(), made.name) !=
                    header.names.end())
                    fail("{}: there is a column '{}' already; give what is defined another name",
                         option, made.name);
                header.names.push_back(made.name);
                definitions_.push_back(std::move(made));
            },
            dates);
}

meaning derived_columns::in_condition(const std::string &name, const csv_header &header,
                                      const source_text &source, std::size_t file_columns,
                                      std::optional<std::size_t> file_place) const {
    constexpr std::string_view asked_by = "--where";
    const std::size_t place = find_column(header, source, name, asked_by);
    const auto is_read = [&](std::size_t column) {
        return column < file_columns || column == file_place;
    };
    if (is_read(place))
        return place;
    if (place < first_place_)
        fail("{}: the column {} is made when rows have been chosen", asked_by, name);
    const expression &used = definitions_[place - first_place_].value;
    if (!std::all_of(used.columns.begin(), used.columns.end(), is_read))
        fail("{}: {} uses a column that is made when rows have been chosen", asked_by, name);
    return &used;
}

void derived_columns::add_used(std::vector<bool> &needed) const {
    for (std::size_t i = 0; i < definitions_.size(); ++i)
        if (needed[first_place_ + i])
            for (const std::size_t place : definitions_[i].value.columns)
                needed[place] = true;
}

void derived_columns::compute(loaded_table &data, const std::vector<bool> &needed,
                              unsigned threads) const {
    for (std::size_t i = 0; i < definitions_.size(); ++i) {
        table_column &made = data.columns.emplace_back();
        if (needed[first_place_ + i]) {
            table_column values = computation(definitions_[i], data).run(data, threads);
            made = std::move(values);
        }
    }
}

} // namespace vask::runner
