// Keys that lie close together, numbered by their distance from the least one.
#pragma once

#include "rows/isa.h"
#include "vask/kernel/bat.h"

#include <cstdint>
#include <type_traits>

namespace vask {

//! The places least .. least + span, and behind them one for all other keys: the nil, if any.
template <class Key>
struct key_window {
    Key least;
    std::uint32_t span;

    std::uint32_t places() const noexcept { return span + 2; }

    VASK_ALWAYS_INLINE std::uint32_t place_of(Key key) const noexcept {
        // Narrow keys wrap at their own width, so that the nil lands behind the values.
        const wide distance = static_cast<Key>(key - least);
        const wide last = wide{span} + 1;
        return static_cast<std::uint32_t>(distance < last ? distance : last);
    }

    //! Places of the rows row .. row + n - 1.
    template <class Keys>
    void number(const Keys &keys, BUN row, BUN n, std::uint32_t *places) const {
        with_best_instruction_set([ =, *this ]() __attribute__((always_inline)) {
            number_by(*this, keys, row, n, places);
        });
    }

private:
    //! All by value: the loop's bounds and the window must be locals, which no store can change.
    template <class Keys>
    VASK_ALWAYS_INLINE static void number_by(key_window window, Keys keys, BUN row, BUN n,
                                             std::uint32_t *places) noexcept {
        for (std::size_t i = 0; i < n; ++i)
            places[i] = window.place_of(keys.key(row, i));
    }

    using wide = std::conditional_t<sizeof(Key) == 8, std::uint64_t, std::uint32_t>;
};

} // namespace vask
