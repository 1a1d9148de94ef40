// The heap in which a variable-sized column keeps its texts.
#ifndef REFKERNEL_TEXT_HEAP_H
#define REFKERNEL_TEXT_HEAP_H

#include "refkernel/memory.h"
#include "vask/refkernel/text_sharing.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace refkernel {

// Narrow offsets are stored less this bias, so the elements of every heap begin
// at this unit; no stored offset below it can be told in one or two bytes.
inline constexpr std::uint32_t offset_bias = 256;
// Elements lie at multiples of this many bytes, and offsets count in them.
inline constexpr std::size_t heap_unit = 8;

//! 64 bits of hash of a text; `text` may not hold a zero byte.
std::uint64_t hash_text(std::string_view text) noexcept;

/*
 * Zero-terminated texts one behind another, each at a multiple of 8 bytes.
 *
 * Equal texts are found through an open-addressing table of (hash, offset)
 * pairs. It is built when the first text after a pause comes in and can be
 * dropped at any time, since it can be made again from the texts.
 *
 * Thread safety: one thread puts; readers go by vbase, which a put can move.
 */
class text_heap : public BATvheap, public memory::sharing_mark {
public:
    explicit text_heap(text_sharing sharing) noexcept : BATvheap{nullptr}, sharing_(sharing) {}
    text_heap(const text_heap &) = delete;
    text_heap &operator=(const text_heap &) = delete;
    ~text_heap();

    //! Offset of the text in units of 8 bytes; 0 when memory or offsets run out.
    //! A text ends at its first zero byte.
    std::uint32_t put(std::string_view text) noexcept;

    //! put() for many texts at once, whose table misses overlap; false as above.
    bool put_all(const std::string_view *texts, std::size_t count, std::uint32_t *offsets) noexcept;

    //! A heap of its own with the same texts at the same offsets; null when memory runs out.
    [[nodiscard]] std::shared_ptr<text_heap> clone() const noexcept;

    //! Gives the table of equal texts back to the system.
    void drop_index() noexcept;
    void set_sharing(text_sharing sharing) noexcept;

    [[nodiscard]] text_sharing sharing() const noexcept { return sharing_; }
    //! Whether equal texts are known to have equal offsets: each text ever put was looked up first.
    [[nodiscard]] bool holds_each_once() const noexcept { return holds_each_once_; }
    //! The unit at which the next text will lie.
    [[nodiscard]] std::uint32_t end() const noexcept { return static_cast<std::uint32_t>(used_); }
    [[nodiscard]] std::size_t bytes() const noexcept { return used_ * heap_unit; }

private:
    struct slot {
        std::uint32_t tag;    // of the hash
        std::uint32_t offset; // 0: empty
    };

    bool reserve(std::size_t units) noexcept;
    bool index_is_ready() noexcept;
    bool grow_index(std::size_t slots) noexcept;
    bool index_texts(slot *table, std::size_t slots) noexcept;
    std::uint32_t find_or_store(std::string_view text, std::uint32_t tag) noexcept;
    std::uint32_t store(std::string_view text) noexcept;
    [[nodiscard]] bool holds_at(std::uint32_t offset, std::string_view text) const noexcept;

    text_sharing sharing_;
    bool holds_each_once_ = true;
    std::size_t used_ = 0;     // units
    std::size_t capacity_ = 0; // units
    // Plain memory, and not a vector: it asks for huge pages and comes zeroed
    // from the system.
    struct free_memory {
        void operator()(slot *held) const noexcept;
    };
    std::unique_ptr<slot[], free_memory> index_;
    std::size_t slots_ = 0;
    std::size_t indexed_ = 0; // texts in the table
};

} // namespace refkernel

#endif
