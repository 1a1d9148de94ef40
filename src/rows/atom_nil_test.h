// The nil test of the kernel's own making: a call of the type's comparison per element.
#pragma once

#include "kernel/column.h"
#include "rows/isa.h"
#include "vask/kernel/bat.h"

namespace vask {

//! Whether the kernel says of both columns' types that a nil is what equals atom_null as a plain
//! number, so that nobody needs to ask it about each element. Not for one-byte types but bte:
//! beside them operators read other columns by their first byte.
inline bool have_plain_nils(const BATcol &a, const BATcol &b) noexcept {
#if defined(__GNUC__)
    if (&GDKplain_nils == nullptr)
        return false;
    const auto is_plain = [](const BATcol &c) {
        return c.type >= TYPE_bte && c.type <= TYPE_lng && (GDKplain_nils >> c.type & 1) != 0;
    };
    return is_plain(a) && is_plain(b);
#else
    return false;
#endif
}

//! Whether the element at a position is nil, as the column's type itself compares: the comparison
//! sees every element that is asked for, once, so callers ask for no more than they need. A plain
//! value for row loops. The column must store its elements.
struct atom_nil_test {
    const char *base;
    const void *nil;
    int (*compare)(const void *, const void *);
    std::uint8_t shift;

    explicit atom_nil_test(const BATcol &column) noexcept
        : base(static_cast<const char *>(column.base)),
          nil(BATatoms[column.type].atom_null),
          compare(BATatoms[column.type].atom_cmp),
          shift(column.shift) {}

    VASK_ALWAYS_INLINE bool operator()(BUN p) const {
        return compare(nil, base + (std::size_t{p} << shift)) == 0;
    }
};

//! The rows of two columns at which neither is nil; the second is not looked at where the first is.
struct paired_atom_nil_test {
    atom_nil_test first;
    atom_nil_test second;

    paired_atom_nil_test(const BATcol &a, const BATcol &b) noexcept : first(a), second(b) {}

    VASK_ALWAYS_INLINE bool both_values(BUN p) const { return !first(p) && !second(p); }
};

} // namespace vask
