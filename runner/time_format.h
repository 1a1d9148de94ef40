// How a file writes dates and times.
#pragma once

#include "vask/kernel/bat.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vask::runner {

//! The order and the marks of a date, such as DD.MM.YYYY. ISO's YYYY-MM-DD is read beside each that
//! it cannot be taken for.
class date_format {
public:
    date_format() = default; //!< ISO alone

    /*
     * Reads a pattern of year, month and day, once each, with marks between them:
     *   YYYY, YY, %Y, %y      year; of two digits, 69 to 99 are of the last century
     *   MM, M, MMM, %m, %b    month: two digits, one or two, the first three letters of its name
     *   DD, D, %d             day: two digits, one or two
     * Of %m and %d one digit is enough, too, but two are printed. Letters may be small ones.
     * Nothing for another text. A time behind the date is passed over, as times have one form.
     */
    static std::optional<date_format> parse(std::string_view pattern);

    bool is_iso() const noexcept { return pieces_.empty(); }
    //! Whether a date in the format may look like one in ISO's, as with YYYY-DD-MM.
    bool looks_iso() const;
    //! Takes a date in this format off the front of a text. Without one, the text may be shorter,
    //! too.
    std::optional<std::chrono::year_month_day> take(std::string_view &text) const;
    void append(std::string &out, std::chrono::year_month_day date) const;

private:
    enum class part : std::uint8_t { mark, year, short_year, month, month_name, day };
    struct piece {
        part what;
        char mark = '\0';
        bool one_digit = false; //!< is enough where there is no other
        bool padded = true;     //!< is printed with two digits
    };
    static std::optional<piece> take_piece(std::string_view &pattern);
    bool is_whole() const;

    std::vector<piece> pieces_;
};

//! The spelling of a time, besides its digits.
struct time_style {
    bool in_format = false; //!< the date is in the format of the file, not in ISO's
    char separator = '\0';  //!< between date and time; NUL: there is no time
    bool seconds = false;
    std::uint8_t fraction = 0;  //!< digits behind the point of a second
    char zone = '\0';           //!< Z, + or -; NUL: there is none
    std::uint8_t zone_form = 0; //!< characters behind the sign: 2, 4 or, with a colon, 5
    std::int16_t minutes = 0;   //!< that the time is ahead of UTC

    bool operator==(const time_style &) const = default;
    bool is_date() const noexcept { return separator == '\0'; }
};

struct written_time {
    lng microseconds = 0; //!< since 1970-01-01 00:00:00 of UTC, or of no zone
    time_style style;
};

/*
 * Reads a whole cell: a date, perhaps a blank or T and HH:MM[:SS[.ffffff]], and behind that perhaps
 * Z or an offset from UTC as in +01:00, +0100 or +01, which is taken off. Digits of a second behind
 * the sixth are zeros. Nothing for any other cell.
 */
std::optional<written_time> read_time(std::string_view cell, const date_format &dates = {});

inline constexpr lng microseconds_of_day = lng{24} * 3600 * lng{1'000'000};

inline bool is_midnight(lng microseconds) {
    return microseconds % microseconds_of_day == 0;
}

//! Appends a time in this style.
void append_time(std::string &out, lng microseconds, const time_style &style,
                 const date_format &dates);

//! How the times of a column are written.
class time_spellings {
public:
    //! Adds one, in the order of the file.
    void add(std::string_view cell, const written_time &time, const date_format &dates) {
        if (!style_)
            begin(cell, time.style);
        else if (time.style != *style_ && !other_) [[unlikely]]
            other_ = cell;
        if (time.style.in_format && !other_)
            compare(cell, time, dates);
        (time.style.zone == '\0' ? without_zone_ : with_zone_) = true;
        if (time.style.minutes != 0 && !shifted_) [[unlikely]]
            shifted_ = cell;
    }
    //! Adds those of a later part of the file.
    void add(const time_spellings &later);

    //! The style of all; nothing where there are several, or no time.
    std::optional<time_style> style() const { return other_ ? std::nullopt : style_; }
    //! The first one in another style than the first of all.
    const std::optional<std::string> &other() const { return other_; }
    //! The first one with an offset other than 0.
    const std::optional<std::string> &shifted() const { return shifted_; }
    //! Whether some have a zone, and others none.
    bool zones_differ() const { return with_zone_ && without_zone_; }

private:
    void begin(std::string_view cell, const time_style &style);
    void compare(std::string_view cell, const written_time &time, const date_format &dates);

    std::optional<time_style> style_;
    std::string first_;
    std::optional<std::string> other_;
    std::optional<std::string> shifted_;
    bool with_zone_ = false;
    bool without_zone_ = false;
};

//! What a cell looks like for people who think that it is a date, and what to do; nothing for other
//! cells. A sentence to be put behind another, from a blank on.
std::string date_hint(std::string_view cell);

} // namespace vask::runner
