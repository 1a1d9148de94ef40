// Parts of dates and times.
#pragma once

#include "expression.h"

#include <chrono>

namespace vask::runner {

//! A timestamp's day and time of day.
struct calendar_time {
    explicit calendar_time(lng value)
        : time(std::chrono::microseconds(value)),
          day(std::chrono::floor<std::chrono::days>(time)),
          date(day),
          clock(std::chrono::floor<std::chrono::seconds>(time) - day) {}

    std::chrono::sys_time<std::chrono::microseconds> time;
    std::chrono::sys_days day;
    std::chrono::year_month_day date;
    std::chrono::hh_mm_ss<std::chrono::seconds> clock;

    unsigned quarter() const { return (static_cast<unsigned>(date.month()) - 1) / 3; }
};

//! A part of a time as a number: Monday is weekday 1, Sunday 7. Not of weeks.
lng part_of(const calendar_time &t, time_unit unit);
//! The time at which the unit that a time lies in began. Not of weekdays.
lng truncated(const calendar_time &t, time_unit unit);

} // namespace vask::runner
