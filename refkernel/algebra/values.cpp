// Single values: fetched from a column, held in a record, converted.
#include "refkernel/columns.h"
#include "refkernel/error_reports.h"
#include "refkernel/instrumented.h"
#include "vask/refkernel/atoms.h"
#include "vask/refkernel/nil.h"

#include <cmath>
#include <concepts>
#include <cstring>
#include <limits>
#include <optional>
#include <type_traits>
#include <utility>

namespace refkernel::algebra {
namespace {

// In the low bytes of the record's word; a text as a pointer to it.
void hold(ValRecord &record, int type, const void *value) {
    record.vtype = type;
    record.val = 0;
    if (is_varsized(type)) {
        record.val = reinterpret_cast<std::uintptr_t>(value);
        record.len = static_cast<std::int32_t>(std::strlen(static_cast<const char *>(value)) + 1);
    } else {
        record.len = BATatoms[type].atom_size;
        std::memcpy(&record.val, value, static_cast<std::size_t>(record.len));
    }
}

void *held(ValRecord &record) {
    return is_varsized(record.vtype) ? reinterpret_cast<void *>(record.val) : &record.val;
}

// Calls `f` with the C++ type of a numeric type; false for any other.
template <class F>
bool visit_number(int type, F f) {
    if (type == TYPE_oid)
        return f(std::type_identity<oid>{});
    switch (BATatoms[type].atom_storage) {
        case TYPE_bit:
        case TYPE_byte:
        case TYPE_bte:
            return f(std::type_identity<bte>{});
        case TYPE_sht:
            return f(std::type_identity<sht>{});
        case TYPE_int:
            return f(std::type_identity<std::int32_t>{});
        case TYPE_lng:
            return f(std::type_identity<lng>{});
        case TYPE_flt:
            return f(std::type_identity<flt>{});
        case TYPE_dbl:
            return f(std::type_identity<dbl>{});
        default:
            return false;
    }
}

// Towards zero into an integer type, to the nearest into a floating-point type; nothing when the
// value is not within the target's limits. Infinities fit floating-point types.
template <class To, class From>
std::optional<To> fitted(From value) {
    if constexpr (std::integral<From> && std::integral<To>) {
        return std::in_range<To>(value) ? std::optional(static_cast<To>(value)) : std::nullopt;
    } else if constexpr (std::integral<To>) {
        // Both ends are powers of two, or zero, and so exact in either format. A NaN is not
        // between them.
        constexpr auto low = static_cast<From>(std::numeric_limits<To>::lowest());
        constexpr To half = std::numeric_limits<To>::max() / 2 + 1;
        constexpr auto end = From{2} * static_cast<From>(half);
        const From whole = std::trunc(value);
        return whole >= low && whole < end ? std::optional(static_cast<To>(whole)) : std::nullopt;
    } else if constexpr (std::integral<From>) {
        return static_cast<To>(value);
    } else {
        if (std::isnan(value) ||
            (std::isfinite(value) && std::abs(dbl{value}) > dbl{std::numeric_limits<To>::max()}))
            return std::nullopt;
        return static_cast<To>(value);
    }
}

// The nil of the target for a nil, and for a value that does not fit. Into a truth value all but
// zero is true.
template <class From>
bool hold_converted(ValRecord &record, int type, std::optional<From> value) {
    return visit_number(type, [&]<class To>(std::type_identity<To>) {
        To made;
        std::memcpy(&made, BATatoms[type].atom_null, sizeof made);
        if (value && type == TYPE_bit)
            made = static_cast<To>(*value != From{0});
        else if (value)
            made = fitted<To>(*value).value_or(made);
        hold(record, type, &made);
        return true;
    });
}

bool convert(int type, ValRecord &record) {
    return visit_number(record.vtype, [&]<class From>(std::type_identity<From>) {
        // Both of these hold every value of the types that go through them.
        using wide = std::conditional_t<std::integral<From>, lng, dbl>;
        From value;
        std::memcpy(&value, &record.val, sizeof value);
        const BATatom &from = BATatoms[record.vtype];
        const bool is_nil = from.atom_cmp(from.atom_null, &value) == 0;
        return hold_converted(record, type, is_nil ? std::nullopt : std::optional<wide>(value));
    });
}

} // namespace
} // namespace refkernel::algebra

using refkernel::instrumentation::enter;
using refkernel::instrumentation::operation;
namespace algebra = refkernel::algebra;

void *VALget(ValRecord *v) {
    enter(operation::val_get);
    return algebra::held(*v);
}

ValRecord *VALset(ValRecord *v, int type, const void *value) {
    enter(operation::val_set, type);
    algebra::hold(*v, type, value);
    return v;
}

const void *VALconvert(int type, ValRecord *v) {
    if (enter(operation::val_convert, type))
        return nullptr;
    if (v->vtype != type && !algebra::convert(type, *v))
        return nullptr;
    return algebra::held(*v);
}

char *doALGfetch(ValRecord *result, BAT *b, const BUN *row) {
    constexpr const char *place = "algebra.fetch";
    if (enter(operation::do_alg_fetch, b, *row))
        return refkernel::make_exception(place, "operation failed");
    if (*row >= b->info->count)
        return refkernel::make_exception(place, "position out of range");
    const BATcol &tail = *b->tail;
    oid scratch = 0;
    algebra::hold(*result, refkernel::is_void(tail) ? int{TYPE_oid} : int{tail.type},
                  refkernel::value_at(tail, *b->info, b->info->first + *row, scratch));
    return nullptr;
}
