// One pass of the CSV library over a text, its fields and records handed to a handler.
#pragma once

#include <cstddef>
#include <exception>
#include <new>
#include <string_view>

#include <csv.h>

namespace vask::runner {

struct csv_dialect {
    char separator = ',';
    //! Off: quotes are ordinary characters, as in many tab-separated files.
    bool quotes = true;

    //! The byte that opens and closes a quoted field. Inputs with NUL bytes are refused before they
    //! are parsed, so NUL stands for "none".
    char quote() const noexcept { return quotes ? '"' : '\0'; }
};

/*
 * Parses blocks of text into a handler with these members:
 *   void field(std::string_view)  the next field, unquoted, without the spaces around it
 *   void record()                 the end of a record; blank lines are no records
 *   bool stopped() const          true to have the rest of the text ignored
 * Quoting is strict: a quote inside an unquoted field is malformed. That makes the number of quotes
 * before a place tell whether it lies inside a field, which lets files be split for parallel
 * parsing.
 */
template <class Handler>
class csv_parser {
public:
    csv_parser(const csv_dialect &dialect, Handler &handler) : handler_(handler) {
        // The CSV library documents no other failure of csv_init than wrong arguments.
        csv_init(&parser_, CSV_STRICT | CSV_STRICT_FINI);
        csv_set_delim(&parser_, static_cast<unsigned char>(dialect.separator));
        csv_set_quote(&parser_, static_cast<unsigned char>(dialect.quote()));
        csv_set_blk_size(&parser_, field_buffer_step);
    }
    ~csv_parser() { csv_free(&parser_); }
    csv_parser(const csv_parser &) = delete;
    csv_parser &operator=(const csv_parser &) = delete;

    //! Parses on; the result is how many bytes were well-formed, all of them when the handler
    //! stopped.
    std::size_t feed(std::string_view text) {
        for (std::size_t done = 0; done < text.size(); done += block_bytes) {
            if (handler_.stopped())
                break;
            const std::string_view block = text.substr(done, block_bytes);
            const std::size_t good =
                csv_parse(&parser_, block.data(), block.size(), on_field, on_record, this);
            if (failure_)
                std::rethrow_exception(failure_);
            if (good == block.size())
                continue;
            if (csv_error(&parser_) != CSV_EPARSE)
                throw std::bad_alloc();
            return handler_.stopped() ? text.size() : done + good;
        }
        return text.size();
    }

    //! Ends the last record if no newline did. False: inside a quoted field.
    bool finish() {
        if (handler_.stopped())
            return true;
        const bool good = csv_fini(&parser_, on_field, on_record, this) == 0;
        if (failure_)
            std::rethrow_exception(failure_);
        if (!good && csv_error(&parser_) != CSV_EPARSE)
            throw std::bad_alloc();
        return good;
    }

private:
    // The library cannot be told to stop inside a block; small blocks end soon.
    static constexpr std::size_t block_bytes = std::size_t{64} << 10;
    static constexpr std::size_t field_buffer_step = 4096;

    // An exception must not pass through the library's frames: it is kept until they have returned.
    template <class Call>
    void guarded(Call call) {
        if (failure_)
            return;
        try {
            call();
        } catch (...) {
            failure_ = std::current_exception();
        }
    }

    static void on_field(void *text, std::size_t size, void *parser) {
        auto &self = *static_cast<csv_parser *>(parser);
        self.guarded([&] { self.handler_.field({static_cast<const char *>(text), size}); });
    }
    static void on_record(int, void *parser) {
        auto &self = *static_cast<csv_parser *>(parser);
        self.guarded([&] { self.handler_.record(); });
    }

    Handler &handler_;
    std::exception_ptr failure_;
    ::csv_parser parser_{};
};

} // namespace vask::runner
