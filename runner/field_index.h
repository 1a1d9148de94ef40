// Where the fields of plain records end: records without quotes, all with the same number of
// fields.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace vask::runner {

//! Whether the CSV library takes a byte at a field's end for no part of the field. The separator,
//! which may be one of them, is never in a field.
inline bool is_blank(char c) noexcept {
    return c == ' ' || c == '\t';
}

/*
 * An index of separators and line ends, found by comparing blocks of 64 bytes at a time. It takes
 * what the bulk of files is made of and leaves everything else to the CSV library: quotes, blank
 * lines, another number of fields than there are columns, and lines that end in a lone "\r".
 */
class field_index {
public:
    explicit field_index(std::size_t columns) : columns_(columns) {}

    //! Indexes whole records, the last one perhaps without its line end. False where they are not
    //! plain; the index is of no use then. `quote` is NUL where quotes mean nothing. The text has
    //! to live as long as the index is used.
    bool build(std::string_view text, char separator, char quote);

    std::size_t records() const noexcept { return records_; }

    //! A field without the blanks around it.
    std::string_view field(std::size_t record, std::size_t column) const noexcept {
        const std::uint32_t *const at = ends_.get() + record * columns_ + column;
        const char *begin = text_ + static_cast<std::uint32_t>(at[0] + 1);
        const char *end = text_ + at[1];
        if (has_returns_ && column + 1 == columns_ && end > begin && end[-1] == '\r')
            --end;
        if (begin != end && (is_blank(*begin) || is_blank(end[-1]))) [[unlikely]] {
            while (begin != end && is_blank(*begin))
                ++begin;
            while (begin != end && is_blank(end[-1]))
                --end;
        }
        return {begin, static_cast<std::size_t>(end - begin)};
    }

private:
    bool find_ends(std::string_view text, char separator, char quote);
    bool has_blank_line() const noexcept;

    std::size_t columns_;
    const char *text_ = nullptr;
    std::size_t records_ = 0;
    std::size_t found_ = 0;     // ends
    std::size_t line_ends_ = 0; // of them
    bool has_returns_ = false;  // lines end in "\r\n"
    std::size_t room_ = 0;      // in ends_
    //! The place of the byte behind each field, after that of the byte before the first one.
    std::unique_ptr<std::uint32_t[]> ends_;
};

} // namespace vask::runner
