// Columns made of chosen rows of other columns.
#ifndef REFKERNEL_ALGEBRA_ROW_COPIES_H
#define REFKERNEL_ALGEBRA_ROW_COPIES_H

#include "refkernel/columns.h"
#include "vask/refkernel/contract.h"

#include <span>

namespace refkernel::algebra {

//! Fills `to`, an empty column record, with the values of `from` at these positions, in their
//! order; a void column comes out as stored oids. Texts stay where they are: both columns read one
//! heap. Marks are set as far as those of `from` and the order of the positions bear them out.
//! Throws std::bad_alloc.
void copy_rows(column &to, const column &from, const BATinfo &from_info,
               std::span<const BUN> positions);

} // namespace refkernel::algebra

#endif
