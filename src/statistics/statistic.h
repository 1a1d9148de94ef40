// What all statistics have in common besides the operator frame: which of them is asked for, which
// columns are let in, and the nil that stands for "no result".
#pragma once

#include "kernel/column.h"
#include "kernel/element_types.h"
#include "vask/kernel/bat.h"

#include <cstdint>

namespace vask {

//! The statistics that are told apart by a number: the moments of one column and all of two
//! columns.
enum class stat_kind : std::uint8_t {
    covars = 0,
    covarp = 1,
    correl = 2,
    skews = 3,
    skewp = 4,
    stdev = 5,
    stdevp = 6,
    variance = 7,
    variancep = 8,
    slope = 9,
    intercept = 10,
};

//! Whether a column may be given to a statistic at all. This is decided by its own type, so a user
//! atom is refused whatever it is stored as; which body runs is decided by the storage afterwards
//! (visit_storage_class). A void column with real oids is let in although it has no storage class:
//! it is refused one step later, with another message, and that is intended.
inline bool is_admitted(const BATcol &tail) noexcept {
    if (tail.type == TYPE_void)
        return tail.seqbase != oid_nil;
    return is_stored_as_number(tail.type) || tail.type == TYPE_oid;
}

//! What a statistic of doubles answers when there is nothing to answer.
inline dbl dbl_nil() noexcept {
    return nil_of<dbl>(TYPE_dbl);
}

} // namespace vask
