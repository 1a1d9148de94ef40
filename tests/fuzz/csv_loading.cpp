// Loading a CSV text: its options stand in the first bytes. However the text is cut into chunks and
// however many threads read them, columns and messages are the same, also where it is compressed.
#include "fuzz_target.h"

#include "runner/column_cells.h"
#include "runner/csv_header.h"
#include "runner/row_filter.h"
#include "runner/source_text.h"
#include "runner/table_loader.h"
#include "runner/user_error.h"

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>
#include <zstd.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VASK_FUZZ_POISON
#include <sanitizer/asan_interface.h>
#endif
#endif

namespace {

using namespace vask::runner;

//! A file in memory, mapped as any input file. What lies behind it on its last page is poisoned.
class text_file {
public:
    explicit text_file(const std::string &text, std::size_t start_bytes = 1) {
        fuzz::require(::ftruncate(descriptor(), 0) == 0 &&
                          ::pwrite(descriptor(), text.data(), text.size(), 0) ==
                              static_cast<ssize_t>(text.size()),
                      "the input cannot be stored");
        source_.emplace("/proc/self/fd/" + std::to_string(descriptor()), start_bytes);
        was_packed_ = source_->is_packed();
        poison(true);
    }
    text_file(const text_file &) = delete;
    text_file &operator=(const text_file &) = delete;
    ~text_file() { poison(false); }

    const source_text &source() const { return *source_; }

private:
    static int descriptor() {
        static const int made = ::memfd_create("fuzzed", 0);
        return made;
    }
    void poison([[maybe_unused]] bool on) const {
#ifdef VASK_FUZZ_POISON
        if (was_packed_)
            return;
        const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
        const char *const end = source_->text().data() + source_->text().size();
        const std::size_t behind = (page - reinterpret_cast<std::uintptr_t>(end) % page) % page;
        if (source_->text().empty())
            return;
        if (on)
            ASAN_POISON_MEMORY_REGION(end, behind);
        else
            ASAN_UNPOISON_MEMORY_REGION(end, behind);
#endif
    }

    std::optional<source_text> source_;
    [[maybe_unused]] bool was_packed_ = false;
};

std::string compressed(const std::string &text) {
    std::string result(ZSTD_compressBound(text.size()), '\0');
    result.resize(ZSTD_compress(result.data(), result.size(), text.data(), text.size(), 1));
    return result;
}

struct column_bytes {
    column_type type{};
    std::uint64_t missing = 0;
    std::optional<std::string> respelled;
    std::string bytes;
    bool operator==(const column_bytes &) const = default;
};

struct outcome {
    std::string message;
    std::uint64_t rows = 0;
    std::vector<column_bytes> columns;
    bool operator==(const outcome &) const = default;
};

std::string bytes_of(const table_column &column) {
    if (!column.values)
        return {};
    const BUN rows = column.values.count();
    if (column.type != column_type::str) {
        const BATcol &tail = *column.values->tail;
        return {static_cast<const char *>(tail.base), std::size_t{rows} << tail.shift};
    }
    std::string bytes;
    const auto cell = cells_of(column);
    for (BUN row = 0; row < rows; ++row) {
        const result_cell text = cell(row);
        bytes
            .append(std::holds_alternative<std::monostate>(text) ? std::string_view("\xff")
                                                                 : std::get<std::string_view>(text))
            .push_back('\0');
    }
    return bytes;
}

struct choices {
    csv_dialect dialect;
    header_rules header;
    load_request request;
    std::string where;
    std::uint8_t forced_column = 0;
    std::optional<column_type> forced;
    std::uint8_t unwanted = 0; //!< a bit for each of the first columns
    std::uint8_t keys = 0;
    unsigned looked_at = 0;
};

outcome load(const source_text &source, const choices &chosen, std::size_t chunk_bytes,
             unsigned threads) {
    outcome told;
    try {
        const csv_header header = read_header(source, chosen.dialect, chosen.header);
        load_request request = chosen.request;
        const std::size_t columns = header.names.size();
        for (std::size_t i = 0; i < columns; ++i) {
            request.wanted.push_back(i >= 8 || ((chosen.unwanted >> i) & 1) == 0);
            request.keys.push_back(i < 8 && ((chosen.keys >> i) & 1) != 0);
        }
        if (chosen.forced)
            request.forced.emplace_back(chosen.forced_column % columns, *chosen.forced);
        if (!chosen.where.empty())
            request.filter =
                std::make_shared<const row_filter>(chosen.where, [&](const std::string &name) {
                    return name == "x" ? 0 : columns - 1;
                });
        request.chunk_bytes = chunk_bytes;
        request.threads = threads;
        const loaded_table table = load_table(source, header, request);
        told.rows = table.rows;
        for (std::size_t i = 0; i < columns; ++i) {
            const table_column &column = table.columns[i];
            fuzz::require(static_cast<bool>(column.values) == request.wanted[i],
                          "another column was loaded than asked for");
            fuzz::require(!column.values || column.values.count() == table.rows,
                          "columns differ in length");
            told.columns.push_back(
                {column.type, column.missing, column.respelled, bytes_of(column)});
            if (!column.values)
                told.columns.back().type = column_type::int_;
        }
        // What messages look up behind the loading.
        if (chosen.looked_at != 0) {
            const std::size_t place = chosen.looked_at % columns;
            (void)first_text(source, header, request, place);
            (void)first_leading_zero(source, header, request, place);
            (void)type_without_zeros(source, header, request, place);
            if (request.wanted[place])
                (void)first_wide_integer(source, header, request, place, table.columns[place]);
        }
    } catch (const user_error &error) {
        told = {};
        told.message = error.what();
        fuzz::require(!told.message.empty(), "a message is empty");
    }
    return told;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    GDKnr_threads = 2;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    fuzz::byte_source in(bytes, size);
    choices chosen;
    const auto flags = in.take<std::uint8_t>();
    chosen.dialect.separator = in.one_of({',', '\t', ';', '|', ' ', 'a', '-', '\x80'});
    chosen.dialect.quotes = (flags & 1) == 0;
    chosen.header.numeric_names = (flags & 2) != 0;
    if ((flags & 4) != 0)
        chosen.header.names = {"x", "y", "x"};
    chosen.request.dialect = chosen.dialect;
    chosen.request.keep_zeros = (flags & 8) == 0;
    if ((flags & 16) != 0)
        chosen.request.missing = missing_words({"", "-99", " ", "NULL", "NA"});
    if ((flags & 32) != 0)
        chosen.forced = all_column_types[in.below(all_column_types.size())];
    chosen.forced_column = in.take<std::uint8_t>();
    if ((flags & 64) != 0)
        chosen.where = in.one_of<std::string>(
            {"x > 1", "x = 'a' or y is missing", "not x < y", "x like 'a%'", "y in (1, 2, 3)",
             "x between '2020-01-01' and '2021-01-01'", "x = true", "x contains 'b'"});
    const auto layout = in.take<std::uint8_t>();
    const std::size_t chunk_bytes = 1 + (layout & 63U);
    // A thread costs as much as a hundred loads: few inputs start some.
    const unsigned threads = layout >= 0xf8 ? 2 : 1;
    chosen.unwanted = in.take<std::uint8_t>();
    chosen.keys = in.take<std::uint8_t>();
    chosen.looked_at = flags & 128U ? in.take<std::uint8_t>() : 0;
    const std::string text(in.rest());
    const auto expect_same = [](const outcome &one, const outcome &whole, const char *how) {
        if (one == whole)
            return;
        std::fprintf(stderr, "%s: %s\nwhole: %s\n", how, one.message.c_str(),
                     whole.message.c_str());
        fuzz::require(false, "the table depends on how the text is read");
    };
    outcome whole;
    try {
        const text_file file(text);
        // It begins as a compressed one does.
        if (file.source().is_packed())
            return 0;
        whole = load(file.source(), chosen, std::size_t{4} << 20, 1);
        expect_same(load(file.source(), chosen, chunk_bytes, threads), whole, "in chunks");
    } catch (const user_error &error) { // likewise, and is damaged
        fuzz::require(error.what()[0] != '\0', "a message is empty");
        return 0;
    }
    // At the same place, and so with the same name.
    const text_file file(compressed(text), 1 + std::size_t{3} * layout);
    const outcome packed = load(file.source(), chosen, chunk_bytes, threads);
    // The header's fault is told before a NUL byte behind the start.
    if (whole.message.find("NUL byte") == std::string::npos)
        expect_same(packed, whole, "compressed");
    return 0;
}
