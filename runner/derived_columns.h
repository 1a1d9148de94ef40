// Columns that are worked out from others, as in --let 'revenue = price * qty'.
#pragma once

#include "expression.h"
#include "options.h"
#include "table_loader.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace vask::runner {

class derived_columns {
public:
    /*
     * Reads the definitions, each of which can use the ones before it, and adds their names to the
     * header's. Columns are found among the header's names; those that are not of the file, from
     * `file_columns` on, can be used, too. Throws user_error.
     */
    derived_columns(const std::vector<std::string> &definitions, csv_header &header,
                    const source_text &source, const date_format &dates = {});

    //! What a name stands for in a condition on rows of the file, which has so many columns and, at
    //! a place behind them, perhaps one with the files' names.
    meaning in_condition(const std::string &name, const csv_header &header,
                         const source_text &source, std::size_t file_columns,
                         std::optional<std::size_t> file_place) const;

    //! Of columns that are needed, those of definitions among them: adds what these use.
    void add_used(std::vector<bool> &needed) const;

    //! Adds a column for each definition behind those that are loaded, without values for one that
    //! is not needed. Throws user_error where the columns' types or values do not allow it: of
    //! several faults, for the first row's.
    void compute(loaded_table &data, const std::vector<bool> &needed, unsigned threads) const;

private:
    std::size_t first_place_; // of the definitions, among the header's names
    std::vector<definition> definitions_;
};

} // namespace vask::runner
