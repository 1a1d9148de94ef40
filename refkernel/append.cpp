// Appending rows one at a time.
#include "refkernel/bats.h"
#include "refkernel/error_reports.h"
#include "refkernel/instrumented.h"
#include "refkernel/pool.h"
#include "vask/refkernel/atoms.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

using refkernel::instrumentation::enter;
using refkernel::instrumentation::operation;

namespace refkernel {
namespace {

bool widen_offsets(column &c, std::uint32_t offset, bool copy_all) noexcept {
    column wide;
    wide.width = c.width;
    while (!offset_fits(wide, offset)) {
        wide.width = static_cast<std::int16_t>(wide.width * 2);
        wide.shift = static_cast<std::uint8_t>(wide.width / 2);
    }
    if (wide.width == c.width) {
        return true;
    }
    const auto skipped =
        static_cast<std::size_t>(static_cast<char *>(c.base) - static_cast<char *>(c.memory->base));
    const std::size_t capacity = (c.memory->bytes - skipped) >> c.shift;
    auto memory = memory::allocate_block(capacity << wide.shift);
    if (memory == nullptr) {
        return false;
    }
    wide.base = memory->base;
    const std::size_t rows =
        copy_all ? capacity : std::min<std::size_t>(c.free >> c.shift, capacity);
    for (BUN p = 0; p < rows; ++p) {
        set_offset(wide, p, offset_at(c, p));
    }
    c.free = c.free >> c.shift << wide.shift;
    c.width = wide.width;
    c.shift = wide.shift;
    c.adopt_memory(std::move(memory));
    return true;
}

// One value as the bits of an integer of its width, without a call.
template <class Bits>
Bits bits_of(const void *value) noexcept {
    Bits bits;
    std::memcpy(&bits, value, sizeof bits);
    return bits;
}

template <class Bits>
bool copy_and_test_nil(void *place, const void *value, const BATatom &atom) noexcept {
    const Bits bits = bits_of<Bits>(value);
    std::memcpy(place, &bits, sizeof bits);
    return bits == bits_of<Bits>(atom.atom_null);
}

// Copies a fixed-width value; whether its bits are the nil's. The widths that extents have come
// first.
[[gnu::always_inline]] inline bool copy_bits(const BATcol &c, void *place,
                                             const void *value) noexcept {
    const BATatom &atom = BATatoms[c.type];
    if (c.width == 8) {
        return copy_and_test_nil<std::uint64_t>(place, value, atom);
    }
    if (c.width == 4) {
        return copy_and_test_nil<std::uint32_t>(place, value, atom);
    }
    return c.width == 2 ? copy_and_test_nil<std::uint16_t>(place, value, atom)
                        : copy_and_test_nil<std::uint8_t>(place, value, atom);
}

// The kernel's own types have a nil that no other bits are equal to; a user atom is asked.
bool copy_value(const BATcol &c, void *place, const void *value) noexcept {
    const bool nil = copy_bits(c, place, value);
    return c.type <= TYPE_str ? nil : is_nil_value(c, value);
}

// Marks stay only as far as the new row bears them out. They are dropped, not
// set: an empty column bears none either.
void update_marks(column &c, const BATinfo &info, BUN position, const void *value,
                  bool nil) noexcept {
    if (nil) {
        c.nil = 1;
        c.nonil = 0;
    }
    if (c.dense != 0 && *static_cast<const oid *>(value) != c.seqbase + info.count) {
        c.dense = 0;
    }
    if (info.count == 0 || (c.sorted == 0 && c.key == 0)) {
        return;
    }
    oid scratch = 0;
    const int order = BATatoms[c.type].atom_cmp(value_at(c, info, position - 1, scratch), value);
    if (order > 0) {
        c.sorted = 0;
    }
    if (order >= 0 || c.sorted == 0) {
        c.key = 0;
    }
}

// Room is there; false when the heap runs out.
bool store_value(column &c, const BATinfo &info, BUN position, const void *value) noexcept {
    const BATatom &atom = BATatoms[c.type];
    c.free += static_cast<std::uint64_t>(c.width);
    if (c.varsized) {
        update_marks(c, info, position, value, is_nil_value(c, value));
        std::uint32_t offset = 0;
        if (atom.atom_put(c.vheap, &offset, value, &c) == 0 || !widen_offsets(c, offset, false)) {
            return false;
        }
        set_offset(c, position, offset);
        return true;
    }
    if (atom.atom_fix != nullptr) {
        atom.atom_fix(value);
    }
    update_marks(c, info, position, value, copy_value(c, element_place(c, position), value));
    return true;
}

// A void column takes only the oid that follows; it is stored from here on if
// another one comes.
bool prepare_void(column &c, const BATinfo &info, const void *value) noexcept {
    oid wanted = 0;
    std::memcpy(&wanted, value, sizeof wanted);
    if (info.count == 0) {
        c.seqbase = wanted;
        set_void_marks(c);
        return true;
    }
    return wanted == oid_at(c, info, info.first + info.count) || materialize_column(c, info);
}

bool append_to_any(column &c, const BATinfo &info, const void *value) noexcept {
    if (is_void(c) && !prepare_void(c, info, value)) {
        return false;
    }
    c.drop_hash();
    c.set_alignment(0);
    return is_void(c) || store_value(c, info, info.first + info.count, value);
}

// The bits of a record's first word that say what is known of the column and how it is stored.
std::uint64_t marks_word(const BATcol &c) noexcept {
    static_assert(offsetof(BATcol, seqbase) == sizeof(std::uint64_t));
    std::uint64_t word;
    std::memcpy(&word, &c, sizeof word);
    return word;
}

const std::uint64_t known_marks = [] {
    BATcol c{};
    c.sorted = 0xff;
    c.varsized = 1;
    c.key = 3;
    c.dense = 1;
    return marks_word(c);
}();

// Stored numbers and oids that nothing is known of but their nils, as a column is after BATnew.
[[gnu::always_inline]] inline bool is_plain(const column &c) noexcept {
    return (marks_word(c) & known_marks) == 0 && c.hash == nullptr && c.alignment_number() == 0 &&
           static_cast<std::uint8_t>(c.type - 1) < TYPE_str - 1 &&
           BATatoms[c.type].atom_fix == nullptr;
}

[[gnu::always_inline]] inline void append_plain(column &c, BUN position,
                                                const void *value) noexcept {
    if (copy_bits(c, element_place(c, position), value)) [[unlikely]] {
        c.nil = 1;
        c.nonil = 0;
    }
    c.free += static_cast<std::uint64_t>(c.width);
}

bool append_value(column &c, const BATinfo &info, const void *value) noexcept {
    if (!is_plain(c))
        return append_to_any(c, info, value);
    append_plain(c, info.first + info.count, value);
    return true;
}

[[gnu::noinline]] BAT *append_row(BAT &b, const void *head_value, const void *tail_value) noexcept {
    BATinfo &info = *b.info;
    const BUN position = info.first + info.count;
    if (position >= max_rows || info.count >= max_rows) {
        record_error("bunfastins: bat too large\n");
        return nullptr;
    }
    if (position + 1 > info.capacity && !extend(b, next_capacity(b))) {
        return nullptr;
    }
    if (!append_value(column_of(b.head), info, head_value) ||
        !append_value(column_of(b.tail), info, tail_value)) {
        record_error("BUNfastins: out of memory\n");
        return nullptr;
    }
    ++info.count;
    return &b;
}

[[gnu::noinline]] BAT *append_watched(BAT &b, const void *head_value,
                                      const void *tail_value) noexcept {
    return enter(operation::bun_fastins, &b) ? nullptr : append_row(b, head_value, tail_value);
}

} // namespace
} // namespace refkernel

int GDKupgradevarheap(BATcol *column, uint32_t offset, int copy_all) {
    if (enter(operation::gdk_upgradevarheap, column->width, offset, copy_all)) {
        return 0;
    }
    return refkernel::widen_offsets(refkernel::column_of(column), offset, copy_all != 0);
}

// Row by row this is a fifth of what a refinement into many groups takes, so rows of plain columns
// are appended before anything else is looked at.
BAT *BUNfastins(BAT *b, const void *head_value, const void *tail_value) {
    if (refkernel::instrumentation::watching.load(std::memory_order_relaxed)) [[unlikely]]
        return refkernel::append_watched(*b, head_value, tail_value);
    BATinfo &info = *b->info;
    const BUN position = info.first + info.count;
    refkernel::column &head = refkernel::column_of(b->head);
    refkernel::column &tail = refkernel::column_of(b->tail);
    if (position < std::min(info.capacity, refkernel::max_rows) && refkernel::is_plain(head) &&
        refkernel::is_plain(tail)) [[likely]] {
        refkernel::append_plain(head, position, head_value);
        refkernel::append_plain(tail, position, tail_value);
        ++info.count;
        return b;
    }
    return refkernel::append_row(*b, head_value, tail_value);
}
