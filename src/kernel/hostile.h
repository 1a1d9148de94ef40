// Settings chosen to hurt, for the build with VASK_HOSTILE: blocks of two rows, buckets of one,
// thresholds at 1, and equal hashes. Nothing that a host sees depends on them, so every result must
// be what it is.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace vask {

#ifdef VASK_HOSTILE
inline constexpr bool is_hostile = true;
#else
inline constexpr bool is_hostile = false;
#endif

//! A size or a limit: as it is, and in a hostile build.
template <class T>
constexpr T unless_hostile(T usual, T hostile) noexcept {
    return is_hostile ? hostile : usual;
}

//! A hash: in a hostile build all are equal.
template <class T>
[[gnu::always_inline]] constexpr T unless_hostile_hash(T hash) noexcept {
    return is_hostile ? T{0} : hash;
}

enum class grouping_way : std::uint8_t { best, index, table, buckets };

//! The way that the environment variable VASK_HOSTILE_WAY makes every grouping take that can take
//! it.
inline grouping_way forced_way() noexcept {
    if constexpr (!is_hostile)
        return grouping_way::best;
    static const grouping_way way = [] {
        const char *const given = std::getenv("VASK_HOSTILE_WAY");
        const std::string_view name = given == nullptr ? "" : given;
        return name == "index"     ? grouping_way::index
               : name == "table"   ? grouping_way::table
               : name == "buckets" ? grouping_way::buckets
                                   : grouping_way::best;
    }();
    return way;
}

} // namespace vask
