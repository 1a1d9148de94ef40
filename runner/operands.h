// Loaded columns in the form in which an operator can take them.
#pragma once

#include "table_loader.h"

#include "vask/embed.h"

#include <cstdint>
#include <functional>

namespace vask::runner {

//! The column as values to tell apart by their bits: a float column with a NaN or a -0.0 in it as
//! integers of the same width, in which all NaNs are one value and -0.0 is 0.0; any other column as
//! it stands. Grouping would take each NaN for a value of its own, or never end with it.
refkernel::bat distinct_values(const table_column &column);

//! The column's values as dbl, the missing ones as its nil. An operator adds up flt in flt, which
//! holds 24 bits: one by one, 2e7 ones come to 16,777,216.
refkernel::bat as_doubles(const table_column &column);

//! How many values of a flt or dbl column are NaN; 0 for another type.
std::uint64_t count_nan(const table_column &column);

//! The values without the missing ones, free of nils by its marks: in the column's type, a
//! timestamp as its microseconds, since the order statistics take no user atoms.
refkernel::bat present_numbers(const table_column &column);

//! The rows of a group map that go with present_numbers(column), aligned with `values`, which is
//! its result.
refkernel::bat map_of_present(const table_column &column, const refkernel::bat &map,
                              const refkernel::bat &values);

//! A column as its distances, as dbl, from a value of its group, the centre. Sums of squares of
//! values that lie far from 0 and close to each other lose all their digits; those of distances do
//! not, and moments, covariance, correlation and slope are the same.
struct centred_column {
    refkernel::bat distances;
    //! The centre of a group by its id; of whole columns, by 0. NaN for a group without values. The
    //! column must outlive the function.
    std::function<double(oid group)> centre;
};

//! `map` is null for whole columns.
centred_column centred(const table_column &column, const refkernel::bat *map);

} // namespace vask::runner
