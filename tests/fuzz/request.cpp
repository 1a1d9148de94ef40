// What the command is told in text: its whole command line, a condition on rows, and lists of
// aggregates, names and words.
#include "fuzz_target.h"

#include "runner/derived_columns.h"
#include "runner/name_list.h"
#include "runner/options.h"
#include "runner/query.h"
#include "runner/row_filter.h"
#include "runner/source_text.h"
#include "runner/user_error.h"

#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using namespace vask::runner;

const csv_header &header() {
    static const csv_header made{{"a", "b", "city", "net price", "a,b", "a"}, 1};
    return made;
}

const source_text &source() {
    static const source_text made = [] {
        const int file = ::memfd_create("request", 0);
        fuzz::require(::write(file, "a,b\n1,2\n", 8) == 8, "the file cannot be stored");
        return source_text("/proc/self/fd/" + std::to_string(file));
    }();
    return made;
}

void read_command_line(const std::string &text) {
    std::vector<std::string> words{"vask"};
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        words.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    std::vector<const char *> argv;
    for (const std::string &word : words)
        argv.push_back(word.c_str());
    const auto request = parse_options(static_cast<int>(argv.size()), argv.data());
    if (!request)
        return;
    fuzz::require(request->threads >= 1 && request->threads <= 256, "threads out of bounds");
    csv_header all = header();
    const derived_columns derived(request->definitions, all, source());
    const query asked = bind_query(*request, all, source());
    std::vector<bool> needed = asked.needed_columns(all.names.size());
    derived.add_used(needed);
    fuzz::require(needed.size() == all.names.size(), "columns that the file does not have");
    if (request->where)
        const row_filter filter(*request->where, [&](const std::string &name) {
            return derived.in_condition(name, all, source(), header().names.size(), std::nullopt);
        });
}

// The rows of a fixed table that a condition keeps, and where it does not go with a cell.
std::string kept_rows(const std::string &condition) {
    const row_filter filter(condition, [&](const std::string &name) {
        return find_column(header(), source(), name, "--where");
    });
    const std::vector<std::vector<row_filter::cell>> rows{
        {{"1"}, {"2.5e3"}, {"Oslo"}, {"-0"}, {"x"}, {"1"}},
        {{"", true}, {"nan"}, {"2020-02-29T23:59:59.5Z"}, {"true"}, {"%_"}, {""}},
        {{"9223372036854775808"}, {"-1"}, {"", true}, {"FALSE"}, {"\xff\x80"}, {"inf"}}};
    std::string told;
    for (const auto &row : rows) {
        std::vector<row_filter::cell> cells;
        for (const std::size_t column : filter.columns()) {
            fuzz::require(column < row.size(), "a column that the file does not have");
            cells.push_back(row[column]);
        }
        std::optional<row_filter::misfit> fault;
        const bool kept = row_filter::judge(filter).keeps(cells, fault);
        if (fault) {
            fuzz::require(fault->slot < cells.size(), "a cell that the row does not have");
            told += '!';
        } else {
            told += kept ? '1' : '0';
        }
    }
    return told;
}

void read_condition(const std::string &text) {
    const std::string plain = kept_rows(text);
    // What can be read can be read in brackets, but for the depth that a condition can have.
    try {
        const std::string bracketed = fmt::format("({})", text);
        fuzz::require(kept_rows(bracketed) == plain, "brackets change a condition");
    } catch (const user_error &) {
        fuzz::require(std::count(text.begin(), text.end(), '(') +
                              std::count_if(text.begin(), text.end(),
                                            [](char c) {
                                                return c == 'n' || c == 'N' || c == '-' || c == '+';
                                            }) >
                          50,
                      "a condition cannot be read in brackets");
    }
}

void read_lists(const std::string &text) {
    const auto ignoring = [](auto read) {
        try {
            read();
        } catch (const user_error &) {
        }
    };
    ignoring([&] {
        for (const aggregate_call &call : parse_aggregates(text))
            fuzz::require(!call.function.empty(), "an aggregate without a name");
    });
    ignoring([&] { (void)parse_names(text, "--group-by"); });
    ignoring([&] { (void)parse_assignments(text, "--types"); });
    ignoring([&] { (void)parse_words(text, "--na"); });
    const std::vector<std::string> words = parse_words(as_word(text), "--na");
    fuzz::require(words.size() == 1 && words[0] == text, "a word is not read back");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // What --help prints.
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(nowhere, STDOUT_FILENO);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    fuzz::byte_source in(bytes, size);
    const std::uint64_t what = in.below(4);
    const std::string text = in.rest();
    try {
        if (what == 0)
            read_command_line(text);
        else if (what == 1)
            read_lists(text);
        else
            read_condition(text);
    } catch (const user_error &error) {
        fuzz::require(error.what()[0] != '\0', "a message is empty");
    }
    return 0;
}
