// Aggregates that stand for several ones, as mean(*), mean(v1:v3), mean(v*) and perc:50,95(x).
#pragma once

#include "csv_header.h"
#include "name_list.h"
#include "source_text.h"

#include <string_view>
#include <vector>

namespace vask::runner {

struct aggregate_choice {
    std::vector<aggregate_call> calls; //!< each of one column and one number of percent
    //! The columns were not named one by one: those that the aggregate does not take are left out.
    bool by_pattern = false;
};

//! What a call stands for; the call itself, if that is one. `keys` are the columns to group by,
//! which a lone asterisk leaves out. Throws user_error for a pattern that no column is like.
aggregate_choice calls_of(const aggregate_call &call, const csv_header &header,
                          const source_text &source, const std::vector<std::size_t> &keys);

//! Whether the call counts the rows: an asterisk is then no pattern.
bool counts_rows(const aggregate_call &call);

} // namespace vask::runner
