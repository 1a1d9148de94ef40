// Numbering a column's values by small codes, for refinement by counting.
//
// Codes is a plain struct, of which every range of rows has a copy, with
//   number(row, n, codes)   the codes of the rows row .. row + n - 1
//   count()                 one more than the greatest code given so far
//   one_for_all             whether every value has one code, the same in all ranges; if not, then
//   resolver                brings the codes together: find(codes, code, next) gives the one of the
//                           code's value for all ranges, `next` if the value is new
#pragma once

#include "rows/column_keys.h"
#include "rows/gdk_vector.h"
#include "rows/key_memo.h"
#include "rows/key_window.h"
#include "rows/text_codes.h"

#include <cstdint>

namespace vask {

//! Keys that lie close together, by their distance from the least.
template <class Keys>
struct window_codes {
    static constexpr bool one_for_all = true;

    Keys keys;
    key_window<typename Keys::key_type> window;

    std::uint32_t count() const noexcept { return window.places(); }
    void number(BUN row, BUN n, std::uint32_t *codes) const { window.number(keys, row, n, codes); }
};

//! Texts, numbered beforehand.
struct shared_text_codes {
    static constexpr bool one_for_all = true;

    const text_codes *texts;

    std::uint32_t count() const noexcept { return texts->count(); }
    void number(BUN row, BUN n, std::uint32_t *codes) const { texts->number(row, n, codes); }
};

//! Texts by where they lie in the heap, which a text may do several times.
template <class Offset>
struct place_codes {
    static constexpr bool one_for_all = false;

    offset_keys<Offset> keys;
    key_window<Offset> window;

    std::uint32_t count() const noexcept { return window.places(); }
    void number(BUN row, BUN n, std::uint32_t *codes) const { window.number(keys, row, n, codes); }

    class resolver {
    public:
        explicit resolver(const place_codes &codes) : met_(codes.count()) {}

        std::uint32_t find(const place_codes &codes, std::uint32_t code, std::uint32_t next) {
            return met_.find(text_at(codes.keys.texts, codes.window.least + code), next);
        }

    private:
        met_texts met_;
    };
};

//! Keys of any kind, in the order in which a range meets them.
template <class Keys>
struct memo_codes {
    using key_type = typename Keys::key_type;
    static constexpr bool one_for_all = false;

    Keys keys;
    key_memo<key_type> memo{};
    gdk_vector<key_type> met{};

    std::uint32_t count() const noexcept { return static_cast<std::uint32_t>(met.size()); }

    void number(BUN row, BUN n, std::uint32_t *codes) {
        if (memo.recall(keys, row, n, codes))
            return;
        for (BUN i = 0; i < n; ++i)
            if (codes[i] == unknown_number)
                codes[i] = code_of(keys.key(row, i));
    }

    std::uint32_t code_of(key_type key) {
        std::uint32_t code = memo.recall(key);
        if (code == unknown_number) {
            code = count();
            met.push_back(key);
            memo.remember(key, code);
        }
        return code;
    }

    class resolver {
    public:
        explicit resolver(const memo_codes &) {}

        std::uint32_t find(const memo_codes &codes, std::uint32_t code, std::uint32_t next) {
            const key_type key = codes.met[code];
            const std::uint32_t known = memo_.recall(key);
            if (known != unknown_number)
                return known;
            memo_.remember(key, next);
            return next;
        }

    private:
        key_memo<key_type> memo_;
    };
};

} // namespace vask
