#include "statistics/parameter.h"

#include "kernel/element_types.h"
#include "kernel/frame.h"

#include <cmath>
#include <cstring>

namespace vask {

namespace {

constexpr const char *invalid_parameter = "Invalid input parameter";

//! The first row of the parameter BAT as a record, and its type code. False, with an exception
//! string unless there was no memory for one, when there is none.
bool fetch_parameter(ValRecord *record, bte *type, const std::int32_t *bid, char **exception) {
    BAT *parameter = vask_descriptor(*bid);
    if (parameter == nullptr) {
        *exception = make_exception(order_statistics_place, failure::object_not_found);
        return false;
    }
    *type = parameter->tail->type;
    const bool is_number = is_arithmetic_type(*type);
    char *text = nullptr;
    if (is_number) {
        *record = {0, BATatoms[*type].atom_size, *type};
        const BUN row = 0;
        text = doALGfetch(record, parameter, &row);
    }
    BBPreleaseref(parameter->bat_id);
    if (!is_number) {
        *exception = make_exception(order_statistics_place, failure::unsupported_tail);
        return false;
    }
    if (text == nullptr)
        return true;
    // The kernel's own text may hold any character, so it is no format.
    *exception = createException(0, order_statistics_place, "%s", text);
    GDKfree(text);
    return false;
}

//! Rounds a float record to the whole number next to it; false when that is too far away. An
//! infinity or a NaN has no distance and is left to the conversion.
template <class Float>
bool round_to_whole(ValRecord *record, const void *stored, int type) {
    // What a decimal fraction loses on its way through a float is well below this.
    constexpr dbl largest_distance = 1e-7;

    Float value;
    std::memcpy(&value, stored, sizeof value);
    const auto whole = static_cast<Float>(std::floor(static_cast<dbl>(value) + 0.5));
    if (static_cast<dbl>(std::fabs(value - whole)) > largest_distance)
        return false;
    VALset(record, type, &whole);
    return true;
}

//! The same for a record of any type; one of a whole type is left as it is.
bool round_to_whole(ValRecord *record, int type) {
    if (type != TYPE_dbl && type != TYPE_flt)
        return true;
    // Intended: the record is asked for both widths, and one of the answers used.
    const void *wide = VALget(record);
    const void *narrow = VALget(record);
    return type == TYPE_dbl ? round_to_whole<dbl>(record, wide, type)
                            : round_to_whole<flt>(record, narrow, type);
}

template <class T>
char *read_parameter(T *result, bte *type, const std::int32_t *bid, int target) {
    // What a failure leaves is accepted nowhere, even if there is no memory for its exception.
    *result = nil_of<T>(target);
    ValRecord record;
    char *exception = nullptr;
    if (!fetch_parameter(&record, type, bid, &exception))
        return exception;
    bool good = target == TYPE_dbl || round_to_whole(&record, *type);
    if (good) {
        good = VALconvert(target, &record) != nullptr;
        std::memcpy(result, VALget(&record), sizeof *result);
    }
    if (good && BATatoms[target].atom_cmp(result, BATatoms[target].atom_null) != 0)
        return nullptr;
    *result = nil_of<T>(target);
    return make_exception(order_statistics_place, invalid_parameter);
}

} // namespace

char *vask_read_bte_param(bte *result, bte *type, const std::int32_t *bid) {
    return read_parameter(result, type, bid, TYPE_bte);
}

char *vask_read_lng_param(lng *result, bte *type, const std::int32_t *bid) {
    return read_parameter(result, type, bid, TYPE_lng);
}

char *vask_read_dbl_param(dbl *result, bte *type, const std::int32_t *bid) {
    return read_parameter(result, type, bid, TYPE_dbl);
}

namespace {

//! The value if it can be read and is accepted; else the refusal.
template <class T, class Accept>
bool accept_parameter(T *result, char *(*read)(T *, bte *, const std::int32_t *),
                      const std::int32_t *bid, char **exception, const char *refusal,
                      Accept accept) {
    bte type = 0;
    if (char *const unread = read(result, &type, bid))
        GDKfree(unread);
    else if (accept(*result))
        return true;
    *exception = make_exception(order_statistics_place, refusal);
    return false;
}

} // namespace

bool quartile_param(bte *result, const std::int32_t *bid, char **exception) {
    return accept_parameter(
        result, vask_read_bte_param, bid, exception,
        "Quartile function: Invalid input parameter. Input parameter should be one of the "
        "following: 0, 1, 2, 3 or 4.",
        [](bte quartile) { return quartile >= 0 && quartile <= 4; });
}

bool percentile_param(dbl *result, const std::int32_t *bid, char **exception) {
    return accept_parameter(
        result, vask_read_dbl_param, bid, exception,
        "Percentile function: Invalid input parameter. Input parameter should be between 0 and 1 "
        "(including).",
        // A NaN passes: it is found out where the rank is computed.
        [](dbl share) { return !(0.0 > share) && !(share > 1.0); });
}

bool largest_param(lng *result, const std::int32_t *bid, char **exception) {
    return accept_parameter(
        result, vask_read_lng_param, bid, exception,
        "Largest function: Invalid input parameter. Input parameter should be a positive integer.",
        [](lng rank) { return rank > 0; });
}

} // namespace vask
