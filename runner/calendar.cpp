#include "calendar.h"

namespace vask::runner {

lng part_of(const calendar_time &t, time_unit unit) {
    switch (unit) {
        case time_unit::year:
            return static_cast<int>(t.date.year());
        case time_unit::quarter:
            return t.quarter() + 1;
        case time_unit::month:
            return static_cast<unsigned>(t.date.month());
        case time_unit::day:
            return static_cast<unsigned>(t.date.day());
        case time_unit::hour:
            return t.clock.hours().count();
        case time_unit::minute:
            return t.clock.minutes().count();
        case time_unit::second:
            return t.clock.seconds().count();
        case time_unit::week:
        case time_unit::weekday:
            break;
    }
    return std::chrono::weekday(t.day).iso_encoding();
}

lng truncated(const calendar_time &t, time_unit unit) {
    using namespace std::chrono;
    const auto at = [](auto time) {
        return lng{sys_time<microseconds>(time).time_since_epoch().count()};
    };
    switch (unit) {
        case time_unit::year:
            return at(sys_days(t.date.year() / January / 1));
        case time_unit::quarter:
            return at(sys_days(t.date.year() / month(t.quarter() * 3 + 1) / 1));
        case time_unit::month:
            return at(sys_days(t.date.year() / t.date.month() / 1));
        case time_unit::week:
            return at(t.day - (weekday(t.day) - Monday));
        case time_unit::hour:
            return at(floor<hours>(t.time));
        case time_unit::minute:
            return at(floor<minutes>(t.time));
        case time_unit::second:
            return at(floor<seconds>(t.time));
        case time_unit::day:
        case time_unit::weekday:
            break;
    }
    return at(t.day);
}

} // namespace vask::runner
