#include "time_format.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

#include <fmt/format.h>

namespace vask::runner {
namespace {

using std::chrono::microseconds;
using std::chrono::year_month_day;

constexpr std::array<std::string_view, 12> months{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}
char small(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

// Takes `digits` digits off the front of `text`; less than 0 when they are not there.
int take_digits(std::string_view &text, std::size_t digits) {
    if (text.size() < digits)
        return -1;
    int value = 0;
    for (const char c : text.substr(0, digits)) {
        if (!is_digit(c))
            return -1;
        value = value * 10 + (c - '0');
    }
    text.remove_prefix(digits);
    return value;
}

bool take_char(std::string_view &text, char c) {
    if (!text.starts_with(c))
        return false;
    text.remove_prefix(1);
    return true;
}

bool takes_word(std::string_view &text, std::string_view word) {
    if (text.size() < word.size() ||
        !std::equal(word.begin(), word.end(), text.begin(),
                    [](char a, char b) { return small(a) == small(b); }))
        return false;
    text.remove_prefix(word.size());
    return true;
}

std::optional<year_month_day> valid(int year, int month, int day) {
    if (year < 0 || month < 0 || day < 0)
        return std::nullopt;
    const year_month_day date{std::chrono::year(year),
                              std::chrono::month(static_cast<unsigned>(month)),
                              std::chrono::day(static_cast<unsigned>(day))};
    return date.ok() ? std::optional(date) : std::nullopt;
}

std::optional<year_month_day> take_iso_date(std::string_view &text) {
    const int year = take_digits(text, 4);
    if (year < 0 || !take_char(text, '-'))
        return std::nullopt;
    const int month = take_digits(text, 2);
    if (month < 0 || !take_char(text, '-'))
        return std::nullopt;
    return valid(year, month, take_digits(text, 2));
}

// Years before 0 and behind 9999 come about where times are worked with, and by offsets.
void append_year(std::string &out, year_month_day date) {
    const int year = static_cast<int>(date.year());
    fmt::format_to(std::back_inserter(out), "{}{:04}", year < 0 ? "-" : "",
                   year < 0 ? -year : year);
}

void append_iso_date(std::string &out, year_month_day date) {
    append_year(out, date);
    fmt::format_to(std::back_inserter(out), "-{:02}-{:02}", static_cast<unsigned>(date.month()),
                   static_cast<unsigned>(date.day()));
}

constexpr std::size_t kept_digits = 6; // a second's, as values are whole microseconds

// The digits behind the point of a second. What values cannot keep is refused.
std::optional<microseconds> take_fraction(std::string_view &text, time_style &style) {
    std::size_t digits = 0;
    while (digits < text.size() && is_digit(text[digits]))
        ++digits;
    constexpr std::size_t most_digits = 18;
    if (digits == 0 || digits > most_digits)
        return std::nullopt;
    style.fraction = static_cast<std::uint8_t>(digits);
    int value = take_digits(text, std::min(digits, kept_digits));
    for (std::size_t i = digits; i < kept_digits; ++i)
        value *= 10;
    for (std::size_t i = kept_digits; i < digits; ++i)
        if (!take_char(text, '0'))
            return std::nullopt;
    return microseconds(value);
}

std::optional<microseconds> take_time_of_day(std::string_view &text, time_style &style) {
    const int hours = take_digits(text, 2);
    if (hours < 0 || hours > 23 || !take_char(text, ':'))
        return std::nullopt;
    const int minutes = take_digits(text, 2);
    if (minutes < 0 || minutes > 59)
        return std::nullopt;
    const microseconds time = std::chrono::hours(hours) + std::chrono::minutes(minutes);
    if (!take_char(text, ':'))
        return time;
    const int seconds = take_digits(text, 2);
    if (seconds < 0 || seconds > 59)
        return std::nullopt;
    style.seconds = true;
    if (!take_char(text, '.'))
        return time + std::chrono::seconds(seconds);
    const auto fraction = take_fraction(text, style);
    if (!fraction)
        return std::nullopt;
    return time + std::chrono::seconds(seconds) + *fraction;
}

// Z, or +hh:mm, +hhmm, +hh. Whether there is nothing behind it, or nothing at all.
bool take_zone(std::string_view text, time_style &style) {
    if (text.empty())
        return true;
    style.zone = text.front();
    text.remove_prefix(1);
    style.zone_form = static_cast<std::uint8_t>(std::min<std::size_t>(text.size(), 6));
    if (style.zone == 'Z')
        return text.empty();
    if (style.zone != '+' && style.zone != '-')
        return false;
    const int hours = take_digits(text, 2);
    int minutes = 0;
    if (!text.empty()) {
        take_char(text, ':');
        minutes = take_digits(text, 2);
    }
    if (hours < 0 || hours > 23 || minutes < 0 || minutes > 59 || !text.empty())
        return false;
    const int ahead = hours * 60 + minutes;
    style.minutes = static_cast<std::int16_t>(style.zone == '-' ? -ahead : ahead);
    return true;
}

} // namespace

// ---- dates --------------------------------------------------------------------------------------

std::optional<date_format::piece> date_format::take_piece(std::string_view &pattern) {
    struct name {
        std::string_view text;
        piece stands_for;
    };
    // Longer names before those that they begin with.
    static constexpr std::array<name, 12> names{{{"YYYY", {part::year}},
                                                 {"YY", {part::short_year}},
                                                 {"MMM", {part::month_name}},
                                                 {"MM", {part::month}},
                                                 {"M", {part::month, '\0', true, false}},
                                                 {"DD", {part::day}},
                                                 {"D", {part::day, '\0', true, false}},
                                                 {"%m", {part::month, '\0', true}},
                                                 {"%b", {part::month_name}},
                                                 {"%d", {part::day, '\0', true}},
                                                 {"%Y", {part::year}},
                                                 {"%y", {part::short_year}}}};
    for (const name &each : names) {
        // Behind a percent sign, Y and y differ.
        const bool is_sign = each.text.front() == '%';
        if (is_sign ? pattern.starts_with(each.text) : takes_word(pattern, each.text)) {
            pattern.remove_prefix(is_sign ? each.text.size() : 0);
            return each.stands_for;
        }
    }
    const char c = pattern.front();
    if (is_digit(c) || (small(c) >= 'a' && small(c) <= 'z') || c == '%')
        return std::nullopt;
    pattern.remove_prefix(1);
    return piece{part::mark, c};
}

bool date_format::looks_iso() const {
    return pieces_.size() > 1 && pieces_[0].what == part::year && pieces_[1].mark == '-';
}

bool date_format::is_whole() const {
    const auto count = [this](part one, part other) {
        return std::count_if(pieces_.begin(), pieces_.end(), [&](const piece &each) {
            return each.what == one || each.what == other;
        });
    };
    // What may have one digit or two ends at a mark.
    bool ends_known = true;
    for (std::size_t i = 0; i + 1 < pieces_.size(); ++i)
        ends_known = ends_known && (!pieces_[i].one_digit || pieces_[i + 1].what == part::mark);
    return ends_known && count(part::year, part::short_year) == 1 &&
           count(part::month, part::month_name) == 1 && count(part::day, part::day) == 1;
}

std::optional<date_format> date_format::parse(std::string_view pattern) {
    for (const std::string_view time : {"HH:MM:SS", "%H:%M:%S", "%T", "HH:MM", "%H:%M", "%R"}) {
        const std::size_t date = pattern.size() - std::min(pattern.size(), time.size() + 1);
        std::string_view end = pattern.substr(date);
        if ((take_char(end, ' ') || take_char(end, 'T')) && takes_word(end, time) && end.empty()) {
            pattern = pattern.substr(0, date);
            break;
        }
    }
    date_format result;
    while (!pattern.empty()) {
        const auto next = take_piece(pattern);
        if (!next)
            return std::nullopt;
        result.pieces_.push_back(*next);
    }
    return result.is_whole() ? std::optional(std::move(result)) : std::nullopt;
}

std::optional<year_month_day> date_format::take(std::string_view &text) const {
    int year = -1;
    int month = -1;
    int day = -1;
    const auto number = [&](const piece &of) {
        const bool two = !of.one_digit || (text.size() > 1 && is_digit(text[1]));
        return take_digits(text, two ? 2 : 1);
    };
    for (const piece &each : pieces_)
        switch (each.what) {
            case part::mark:
                if (!take_char(text, each.mark))
                    return std::nullopt;
                break;
            case part::year:
                year = take_digits(text, 4);
                break;
            case part::short_year:
                year = take_digits(text, 2);
                // As POSIX has it.
                year += year < 0 ? 0 : year < 69 ? 2000 : 1900;
                break;
            case part::month:
                month = number(each);
                break;
            case part::month_name: {
                const auto *const found =
                    std::find_if(months.begin(), months.end(),
                                 [&text](std::string_view name) { return takes_word(text, name); });
                if (found == months.end())
                    return std::nullopt;
                month = static_cast<int>(found - months.begin()) + 1;
                break;
            }
            case part::day:
                day = number(each);
        }
    return valid(year, month, day);
}

void date_format::append(std::string &out, year_month_day date) const {
    const auto to = std::back_inserter(out);
    const auto month = static_cast<unsigned>(date.month());
    for (const piece &each : pieces_)
        switch (each.what) {
            case part::mark:
                out += each.mark;
                break;
            case part::year:
                append_year(out, date);
                break;
            case part::short_year:
                fmt::format_to(to, "{:02}", static_cast<int>(date.year()) % 100);
                break;
            case part::month:
                fmt::format_to(to, "{:0{}}", month, each.padded ? 2 : 1);
                break;
            case part::month_name:
                out += months[month - 1];
                break;
            case part::day:
                fmt::format_to(to, "{:0{}}", static_cast<unsigned>(date.day()),
                               each.padded ? 2 : 1);
        }
}

// ---- times --------------------------------------------------------------------------------------

std::optional<written_time> read_time(std::string_view cell, const date_format &dates) {
    written_time result;
    std::string_view rest = cell;
    std::optional<year_month_day> date;
    if (!dates.is_iso()) {
        date = dates.take(rest);
        result.style.in_format = date.has_value();
    }
    if (!date && !dates.looks_iso()) {
        rest = cell;
        date = take_iso_date(rest);
    }
    if (!date)
        return std::nullopt;
    microseconds time = std::chrono::sys_days(*date).time_since_epoch();
    if (!rest.empty()) {
        result.style.separator = rest.front();
        if (!take_char(rest, ' ') && !take_char(rest, 'T'))
            return std::nullopt;
        const auto time_of_day = take_time_of_day(rest, result.style);
        if (!time_of_day || !take_zone(rest, result.style))
            return std::nullopt;
        time += *time_of_day - std::chrono::minutes(result.style.minutes);
    }
    result.microseconds = time.count();
    return result;
}

void append_time(std::string &out, lng value, const time_style &style, const date_format &dates) {
    const microseconds since = microseconds(value) + std::chrono::minutes(style.minutes);
    const std::chrono::sys_time<microseconds> time{since};
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const year_month_day date(day);
    const auto to = std::back_inserter(out);
    if (style.in_format)
        dates.append(out, date);
    else
        append_iso_date(out, date);
    if (style.is_date())
        return;
    const std::chrono::hh_mm_ss clock(time - day);
    out += style.separator;
    fmt::format_to(to, "{:02}:{:02}", clock.hours().count(), clock.minutes().count());
    if (style.seconds)
        fmt::format_to(to, ":{:02}", clock.seconds().count());
    if (style.fraction > 0) {
        const std::string digits = fmt::format("{:06}", clock.subseconds().count());
        out += '.';
        for (std::size_t i = 0; i < style.fraction; ++i)
            out += i < digits.size() ? digits[i] : '0';
    }
    if (style.zone == '\0')
        return;
    out += style.zone;
    const int ahead = style.minutes < 0 ? -style.minutes : style.minutes;
    if (style.zone_form >= 2)
        fmt::format_to(to, "{:02}", ahead / 60);
    if (style.zone_form > 2)
        fmt::format_to(to, "{}{:02}", style.zone_form == 5 ? ":" : "", ahead % 60);
}

// ---- times of a column --------------------------------------------------------------------------

void time_spellings::begin(std::string_view cell, const time_style &style) {
    style_ = style;
    first_ = cell;
}

// A date in a format may have zeros and small letters that it is not printed with.
void time_spellings::compare(std::string_view cell, const written_time &time,
                             const date_format &dates) {
    std::string printed;
    append_time(printed, time.microseconds, time.style, dates);
    if (printed != cell)
        other_ = cell;
}

void time_spellings::add(const time_spellings &later) {
    if (!style_) {
        style_ = later.style_;
        first_ = later.first_;
    } else if (later.style_ && *later.style_ != *style_ && !other_) {
        other_ = later.first_;
    }
    if (!other_)
        other_ = later.other_;
    if (!shifted_)
        shifted_ = later.shifted_;
    with_zone_ = with_zone_ || later.with_zone_;
    without_zone_ = without_zone_ || later.without_zone_;
}

std::string date_hint(std::string_view cell) {
    if (read_time(cell))
        return {};
    std::string known;
    const auto try_pattern = [&](std::string_view pattern) {
        const bool reads = read_time(cell, *date_format::parse(pattern)).has_value();
        if (reads)
            known += fmt::format("{}{}", known.empty() ? "" : " or ", pattern);
        return reads;
    };
    // Each with two digits and with one.
    constexpr std::array<std::pair<std::string_view, std::string_view>, 11> patterns{
        {{"DD.MM.YYYY", "D.M.YYYY"},
         {"MM/DD/YYYY", "M/D/YYYY"},
         {"DD/MM/YYYY", "D/M/YYYY"},
         {"DD-MM-YYYY", "D-M-YYYY"},
         {"YYYY/MM/DD", "YYYY/M/D"},
         {"YYYY.MM.DD", "YYYY.M.D"},
         {"DD MMM YYYY", "D MMM YYYY"},
         {"DD-MMM-YYYY", "D-MMM-YYYY"},
         {"DD.MM.YY", "D.M.YY"},
         {"MM/DD/YY", "M/D/YY"},
         {"DD/MM/YY", "D/M/YY"}}};
    for (const auto &[two, one] : patterns)
        if (!try_pattern(two))
            try_pattern(one);
    return known.empty() ? known
                         : fmt::format(" It looks like a date: --date-format {} reads it.", known);
}

} // namespace vask::runner
