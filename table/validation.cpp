#include "table/validation.h"

#include "table/element_types.h"
#include "table/parallel.h"
#include "table/validity.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <limits>
#include <string_view>
#include <type_traits>

namespace vask::table {
namespace {

struct text_view {
    static constexpr std::int32_t longest_inside = 12;

    std::int32_t length;
    char prefix[4]; // of a text of up to 12 bytes, its first ones
    std::int32_t buffer;
    std::int32_t offset;
};

// The least of all rows for which `is_bad` holds, -1 if there is none.
template <class Test>
std::int64_t first_bad_row(std::int64_t rows, const Test &is_bad) {
    constexpr std::int64_t none = std::numeric_limits<std::int64_t>::max();
    std::atomic<std::int64_t> bad{none};
    for_rows(static_cast<std::size_t>(rows), [&](std::size_t begin, std::size_t end) {
        for (auto row = static_cast<std::int64_t>(begin); row < static_cast<std::int64_t>(end);
             ++row) {
            if (!is_bad(row))
                continue;
            std::int64_t first = bad.load(std::memory_order_relaxed);
            while (row < first &&
                   !bad.compare_exchange_weak(first, row, std::memory_order_relaxed)) {
            }
            return;
        }
    });
    return bad == none ? -1 : bad.load();
}

void check_null_count(const told_nulls &told, const std::string &name) {
    if (told.count < 0)
        return;
    const std::int64_t found =
        told.bits == nullptr ? 0 : told.rows - count_bits(told.bits, told.first_bit, told.rows);
    if (found != told.count)
        fail(VASK_BAD_DATA, "column '{}': a batch is said to have {} nulls and has {}", shown(name),
             told.count, found);
}

// Nulls have offsets, too.
template <class Offset>
void check_all_offsets(const piece &p, const std::string &name) {
    const Offset *const offsets = values_of<Offset>(p);
    if (offsets[0] < 0)
        fail(VASK_BAD_DATA, "column '{}': the first offset of a batch is negative", shown(name));
    if (p.bytes == nullptr && offsets[p.rows] != offsets[0])
        fail(VASK_BAD_DATA, "column '{}': the buffer of its texts is missing", shown(name));
    const std::int64_t bad =
        first_bad_row(p.rows, [&](std::int64_t row) { return offsets[row] > offsets[row + 1]; });
    if (bad >= 0)
        fail(VASK_BAD_DATA, "column '{}': the offsets of row {} of a batch go backwards",
             shown(name), bad);
}

// What consumers may compare instead of whole texts.
void check_view_bytes(const piece &p, const std::string &name) {
    const auto *const views = values_of<text_view>(p);
    const std::int64_t bad = first_bad_row(p.rows, [&](std::int64_t row) {
        if (!is_value(p, row))
            return false;
        const text_view &view = views[row];
        if (view.length > text_view::longest_inside) {
            const auto *const bytes = static_cast<const char *>(p.view_buffers[view.buffer]);
            return std::memcmp(bytes + view.offset, view.prefix, sizeof view.prefix) != 0;
        }
        const char *const inside = reinterpret_cast<const char *>(&view) + sizeof view.length;
        return std::any_of(inside + view.length, inside + text_view::longest_inside,
                           [](char byte) { return byte != 0; });
    });
    if (bad >= 0)
        fail(VASK_BAD_DATA,
             "column '{}': the view of row {} of a batch has other bytes than its text",
             shown(name), bad);
}

template <class Offset>
std::string_view text_at(const piece &p, std::int64_t row) {
    const Offset *const offsets = values_of<Offset>(p);
    if (offsets[row] == offsets[row + 1])
        return {};
    return {p.bytes + offsets[row], static_cast<std::size_t>(offsets[row + 1] - offsets[row])};
}

std::string_view text_in_view(const piece &p, std::int64_t row) {
    const text_view &view = values_of<text_view>(p)[row];
    const auto length = static_cast<std::size_t>(view.length);
    if (view.length <= text_view::longest_inside)
        return {reinterpret_cast<const char *>(&view) + sizeof view.length, length};
    return {static_cast<const char *>(p.view_buffers[view.buffer]) + view.offset, length};
}

// Neither overlong forms nor surrogates, and nothing beyond U+10FFFF.
bool is_utf8(std::string_view text) {
    const auto *at = reinterpret_cast<const unsigned char *>(text.data());
    const auto *const end = at + text.size();
    while (at < end) {
        std::uint64_t word = 0;
        if (end - at >= std::ptrdiff_t{sizeof word}) {
            std::memcpy(&word, at, sizeof word);
            if ((word & 0x8080808080808080) == 0) {
                at += sizeof word;
                continue;
            }
        }
        const unsigned first = *at++;
        if (first < 0x80)
            continue;
        // The second byte's bounds keep out what the first one leaves open.
        const int more = first >= 0xc2 && first <= 0xdf   ? 1
                         : (first & 0xf0) == 0xe0         ? 2
                         : first >= 0xf0 && first <= 0xf4 ? 3
                                                          : 0;
        if (more == 0 || end - at < more)
            return false;
        const unsigned low = first == 0xe0 ? 0xa0 : first == 0xf0 ? 0x90 : 0x80;
        const unsigned high = first == 0xed ? 0x9f : first == 0xf4 ? 0x8f : 0xbf;
        if (*at < low || *at > high)
            return false;
        for (int i = 1; i < more; ++i)
            if ((at[i] & 0xc0) != 0x80)
                return false;
        at += more;
    }
    return true;
}

template <class TextAt>
void check_utf8(const piece &p, const std::string &name, const TextAt &text_at_row) {
    const std::int64_t bad = first_bad_row(p.rows, [&](std::int64_t row) {
        return is_value(p, row) && !is_utf8(text_at_row(p, row));
    });
    if (bad >= 0)
        fail(VASK_BAD_DATA, "column '{}': row {} of a batch is no UTF-8; cast the column to binary",
             shown(name), bad);
}

void validate_texts(const piece &p, bool is_utf8_column, const std::string &name) {
    const bool narrow = p.text_format == 'u' || p.text_format == 'z';
    if (p.text_format == 'v') {
        check_views(p, name);
        check_view_bytes(p, name);
    } else if (narrow) {
        check_all_offsets<std::int32_t>(p, name);
    } else {
        check_all_offsets<std::int64_t>(p, name);
    }
    if (!is_utf8_column)
        return;
    if (p.text_format == 'v')
        check_utf8(p, name, text_in_view);
    else if (narrow)
        check_utf8(p, name, text_at<std::int32_t>);
    else
        check_utf8(p, name, text_at<std::int64_t>);
}

} // namespace

void check_views(const piece &p, const std::string &name) {
    const auto *const views = values_of<text_view>(p);
    const std::int64_t bad = first_bad_row(p.rows, [&](std::int64_t row) {
        const text_view &view = views[row];
        const bool is_bad = view.length < 0 ||
                            (view.length > text_view::longest_inside &&
                             (view.buffer < 0 || view.buffer >= p.n_view_buffers ||
                              view.offset < 0 || p.view_buffers[view.buffer] == nullptr ||
                              std::int64_t{view.offset} + view.length > p.view_sizes[view.buffer]));
        return is_bad && is_value(p, row);
    });
    if (bad >= 0)
        fail(VASK_BAD_DATA, "column '{}': the view of row {} of a batch leaves its buffers",
             shown(name), bad);
}

void validate(const piece &p, const value_type &type, const std::string &name) {
    check_null_count(p.nulls, name);
    if (p.rows == 0 && p.dictionary == nullptr)
        return;
    if (p.dictionary == nullptr) {
        if (is_text(type.of))
            validate_texts(p, type.of == kind::text, name);
        return;
    }
    visit_elements(p.index, [&]<class Index>(std::type_identity<Index>) {
        if constexpr (std::is_integral_v<Index>) {
            const Index *const indices = values_of<Index>(p);
            const std::int64_t entries = p.dictionary->rows;
            const std::int64_t bad = first_bad_row(p.rows, [&](std::int64_t row) {
                return is_value(p, row) && (std::cmp_less(indices[row], 0) ||
                                            std::cmp_greater_equal(indices[row], entries));
            });
            if (bad >= 0)
                entry_of(indices, bad, entries, name);
        }
    });
    validate(*p.dictionary, type, name);
}

} // namespace vask::table
