#include "refkernel/algebra/value_span.h"
#include "refkernel/columns.h"
#include "refkernel/instrumented.h"

#include <cstring>
#include <type_traits>

namespace refkernel::algebra {
namespace {

enum class extreme { least, greatest };

// The row of the extreme, of a column of any type, by the type's own order. NO_BUN if all are nil.
BUN extreme_row(const BATcol &c, const BATinfo &info, extreme which) {
    const BATatom &atom = BATatoms[c.type];
    const void *best = nullptr;
    BUN best_row = NO_BUN;
    for (BUN p = info.first; p < info.first + info.count; ++p) {
        const void *value =
            c.varsized ? static_cast<const void *>(text_at(c, p)) : element_place(c, p);
        if (atom.atom_cmp(atom.atom_null, value) == 0)
            continue;
        const int order = best == nullptr ? 0 : atom.atom_cmp(value, best);
        if (best == nullptr || (which == extreme::least ? order < 0 : order > 0)) {
            best = value;
            best_row = p;
        }
    }
    return best_row;
}

// An ascending column has the extreme at its end, after the nils that may stand there.
BUN extreme_row_of_ascending(const BATcol &c, const BATinfo &info, extreme which) {
    oid scratch = 0;
    for (BUN i = 0; i < info.count; ++i) {
        const BUN p = info.first + (which == extreme::least ? i : info.count - 1 - i);
        if (!is_nil_value(c, value_at(c, info, p, scratch)))
            return p;
    }
    return NO_BUN;
}

template <class T>
void *store_extreme_number(const BATcol &c, const BATinfo &info, extreme which, void *result) {
    T nil;
    std::memcpy(&nil, BATatoms[c.type].atom_null, sizeof nil);
    const auto span = span_of<T>(elements<const T>(c) + info.first, info.count, nil);
    const T found = span.empty() ? nil : which == extreme::least ? span.least : span.greatest;
    std::memcpy(result, &found, sizeof found);
    return result;
}

// The value at the row, or the nil: an element as it stands, an oid, or a pointer to a text.
void *store_row(const BATcol &c, const BATinfo &info, BUN row, void *result) {
    const void *nil = BATatoms[c.type].atom_null;
    if (c.varsized) {
        const void *text = row == NO_BUN ? nil : text_at(c, row);
        std::memcpy(result, &text, sizeof text);
        return result;
    }
    oid scratch = 0;
    const std::size_t width = is_void(c) ? sizeof(oid) : static_cast<std::size_t>(c.width);
    std::memcpy(result, row == NO_BUN ? nil : value_at(c, info, row, scratch), width);
    return result;
}

void *store_extreme(const BAT &b, extreme which, void *result) {
    const BATcol &c = *b.tail;
    const BATinfo &info = *b.info;
    if (is_void(c) || (c.sorted & ascending_bit) != 0)
        return store_row(c, info, extreme_row_of_ascending(c, info, which), result);
    switch (BATatoms[c.type].atom_storage) {
        case TYPE_bit:
        case TYPE_byte:
        case TYPE_bte:
            return store_extreme_number<bte>(c, info, which, result);
        case TYPE_sht:
            return store_extreme_number<sht>(c, info, which, result);
        case TYPE_int:
            return store_extreme_number<std::int32_t>(c, info, which, result);
        case TYPE_lng:
            return store_extreme_number<lng>(c, info, which, result);
        default:
            return store_row(c, info, extreme_row(c, info, which), result);
    }
}

} // namespace
} // namespace refkernel::algebra

using refkernel::algebra::extreme;
using refkernel::instrumentation::enter;
using refkernel::instrumentation::operation;

void *BATmin(BAT *b, void *result) {
    return enter(operation::bat_min, b)
               ? nullptr
               : refkernel::algebra::store_extreme(*b, extreme::least, result);
}

void *BATmax(BAT *b, void *result) {
    return enter(operation::bat_max, b)
               ? nullptr
               : refkernel::algebra::store_extreme(*b, extreme::greatest, result);
}
