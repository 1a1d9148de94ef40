// The texts of a column as small numbers.
#pragma once

#include "kernel/bat.h"
#include "kernel/column.h"
#include "rows/gdk_vector.h"
#include "rows/isa.h"
#include "rows/key_hash.h"

#include <cstdint>
#include <optional>

namespace vask {

//! The lowest and the highest offset of a column as they are stored: of narrow ones, less the bias.
struct offset_range {
    std::uint32_t least = 0xffffffff;
    std::uint32_t most = 0;

    std::size_t places() const noexcept { return std::size_t{most} - least + 1; }
};

//! Reads b's tail, unless its offsets are so narrow that it need not. b has rows.
offset_range scan_offsets(const BAT &b);

//! The text of a stored offset.
inline str text_at(const text_reader &texts, std::uint32_t stored) noexcept {
    return texts.at_offset(texts.width < 4 ? stored + narrow_offset_bias : stored);
}

//! Different texts that were met.
class met_texts {
public:
    //! For so many texts. Throws like gdk_vector.
    explicit met_texts(std::size_t most);

    //! The code that a text was met with: `next` if it is new.
    std::uint32_t find(str text, std::uint32_t next);

private:
    struct slot {
        str text;
        std::uint32_t hash;
        std::uint32_t code;
    };

    gdk_vector<slot> slots_;
};

//! A number for each text of a column, the same for texts that read the same, wherever they lie: so
//! a text is hashed and compared once, and not once for every row. Can be read from any number of
//! tasks.
class text_codes {
public:
    //! Reads b's tail; `range` is that of its offsets. Nothing when it would take more than it
    //! saves: when there are many different texts, or when they lie far apart. Throws like
    //! gdk_vector.
    static std::optional<text_codes> make(const BAT &b, offset_range range);

    //! One more than the greatest code.
    std::uint32_t count() const noexcept { return count_; }

    //! Codes of the texts of the rows row .. row + n - 1.
    void number(BUN row, BUN n, std::uint32_t *codes) const;

    VASK_ALWAYS_INLINE std::uint32_t operator[](BUN row) const noexcept {
        return codes_[stored(row) - least_];
    }

private:
    std::uint32_t stored(BUN row) const noexcept {
        return texts_.width < 4 ? texts_.offset(row) - narrow_offset_bias : texts_.offset(row);
    }

    text_codes(const BATcol &tail, std::uint32_t least, std::size_t places);

    void mark_seen(const BAT &b);
    bool number_seen(std::size_t most);

    text_reader texts_;
    std::uint32_t least_;             // the lowest stored offset
    gdk_vector<std::uint32_t> codes_; // by distance from it
    std::uint32_t count_ = 0;
};

} // namespace vask
