// A file of the request: its text, its header and its columns once they are loaded.
#pragma once

#include "csv_header.h"
#include "explain.h"
#include "options.h"
#include "source_text.h"
#include "table_loader.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace vask::runner {

class input_file {
public:
    //! Opens a file and reads its header. The separator follows from the options or from the name
    //! of this file. Throws user_error.
    input_file(const std::string &path, const options &request, const header_rules &rules);

    //! Has another file read behind this one. Throws user_error if its header is not the same.
    void append(const std::string &path, const options &request, const header_rules &rules);

    const source_text &source() const noexcept { return source_; }
    const csv_header &header() const noexcept { return header_; }
    //! How the columns were read; before load(), without any column.
    const load_request &loading() const noexcept { return loading_; }

    //! A column with the name of the file that each row comes from.
    table_column file_names(const loaded_table &loaded) const;

    //! Has only the rows loaded that the filter keeps.
    void keep_rows(std::shared_ptr<const row_filter> filter) {
        loading_.filter = std::move(filter);
    }

    //! Loads the columns at these places in the file. Types that were asked for by name hold for
    //! columns of this file; without `keep_zeros`, leading zeros mean nothing in the others. Of
    //! `keys`, it is found out whether they are printed as they were read. Throws user_error.
    loaded_table load(const std::vector<bool> &wanted,
                      const std::vector<std::pair<std::string, column_type>> &types,
                      const explain_log &explain, bool keep_zeros = true,
                      const std::vector<bool> &keys = {});

private:
    source_text source_;
    std::vector<std::unique_ptr<source_text>> further_;
    load_request loading_;
    csv_header header_;
};

} // namespace vask::runner
