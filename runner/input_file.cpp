#include "input_file.h"

#include "compressed_text.h"
#include "load_fault.h"
#include "notes.h"
#include "query.h"
#include "user_error.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include <fmt/format.h>

namespace vask::runner {
namespace {

bool looks_tab_separated(std::string_view file) {
    file = without_compression(file);
    return file.ends_with(".tsv") || file.ends_with(".tab");
}

load_request reading(const std::string &path, const options &request) {
    load_request result;
    result.dialect.quotes = request.quotes;
    result.dialect.separator = request.separator.value_or(looks_tab_separated(path) ? '\t' : ',');
    if (request.form.blank_runs)
        result.dialect.separator = blank_run_separator;
    result.missing = missing_words(request.missing);
    result.format = request.cells;
    result.ragged = request.ragged;
    result.threads = static_cast<unsigned>(request.threads);
    return result;
}

// What times mean that do not say it alike.
void note_zones(const loaded_table &data, const csv_header &header, const source_text &source) {
    for (std::size_t i = 0; i < data.columns.size(); ++i) {
        const time_spellings &times = data.columns[i].times;
        const auto note = [&](const std::string &what) {
            tell_note(
                fmt::format("{}: column {} ({}): {}", source.name(), i + 1, header.names[i], what));
        };
        if (times.shifted())
            note(fmt::format("'{}' and perhaps other times have an offset from UTC, and are taken "
                             "as times in UTC",
                             shown(*times.shifted())));
        if (times.zones_differ())
            note("some times have an offset from UTC or a Z, and the others are taken as UTC, too");
    }
}

} // namespace

input_file::input_file(const std::string &path, const options &request, const header_rules &rules)
    : source_(path), loading_(reading(path, request)) {
    source_.bring_into_form(request.form, loading_.dialect.quote());
    header_ = read_header(source_, loading_.dialect, rules);
}

void input_file::append(const std::string &path, const options &request,
                        const header_rules &rules) {
    auto source = std::make_unique<source_text>(path);
    source->bring_into_form(request.form, loading_.dialect.quote());
    const csv_header header = read_header(*source, loading_.dialect, rules);
    const std::vector<std::string> &names = header_.names;
    for (std::size_t i = 0; i < std::min(names.size(), header.names.size()); ++i)
        if (header.names[i] != names[i])
            fail("{}:{}: column {} is called '{}', and '{}' in {}; files that are read together "
                 "need "
                 "the same header",
                 source->name(), header.line, i + 1, shown(header.names[i]), shown(names[i]),
                 source_.name());
    if (header.names.size() != names.size())
        fail("{}:{}: the header has {} name{}, and {} in {}; files that are read together need the "
             "same header",
             source->name(), header.line, header.names.size(), header.names.size() == 1 ? "" : "s",
             names.size(), source_.name());
    loading_.further.push_back({source.get(), header.data_begin});
    further_.push_back(std::move(source));
}

table_column input_file::file_names(const loaded_table &loaded) const {
    std::vector<std::string_view> names{source_.name()};
    for (const auto &source : further_)
        names.push_back(source->name());
    auto different = std::make_shared<word_list>();
    std::vector<std::int32_t> codes;
    codes.reserve(loaded.rows);
    for (std::size_t file = 0; file < names.size(); ++file) {
        // A file may be given twice.
        std::vector<std::string_view> &words = different->words;
        const auto at = std::find(words.begin(), words.end(), names[file]) - words.begin();
        if (static_cast<std::size_t>(at) == words.size())
            words.push_back(names[file]);
        codes.insert(codes.end(), loaded.file_rows[file], static_cast<std::int32_t>(at));
    }
    return {column_type::str, 0,
            refkernel::make_column(std::move(codes), {.tail = {.nonil = true}}),
            std::move(different)};
}

loaded_table input_file::load(const std::vector<bool> &wanted,
                              const std::vector<std::pair<std::string, column_type>> &types,
                              const explain_log &explain, bool keep_zeros,
                              const std::vector<bool> &keys) {
    loading_.wanted = wanted;
    loading_.keep_zeros = keep_zeros;
    loading_.keys = keys;
    for (const auto &[name, type] : types)
        loading_.forced.emplace_back(find_column(header_, source_, name, "--types"), type);
    const auto begin = std::chrono::steady_clock::now();
    loaded_table data = load_table(source_, header_, loading_);
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
    note_zones(data, header_, source_);
    explain.note(
        fmt::format("{}: loaded {} rows in {:.3f} s", source_.name(), data.rows, time.count()));
    for (std::size_t i = 0; i < data.columns.size(); ++i)
        if (data.columns[i].values)
            explain.note(fmt::format("  {}: {}, {} missing", header_.names[i],
                                     name_of(data.columns[i].type), data.columns[i].missing));
    return data;
}

} // namespace vask::runner
