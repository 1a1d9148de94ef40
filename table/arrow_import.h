// From the Arrow C data interface to the columns of a table.
#pragma once

#include "table/column.h"

#include "vask/vask.h"

#include <memory>
#include <string>
#include <vector>

namespace vask::table {

//! Rows that a table can have: row numbers are the kernel's positions.
inline constexpr std::int64_t most_rows = 2'147'483'646;

//! Throws table_error for more rows than a table can have.
void check_rows(std::int64_t rows);

//! Takes over a record, moving it out of the caller's, and releases it once, at the end.
template <class Record>
class released {
public:
    released() = default;
    explicit released(Record *given) noexcept {
        if (given != nullptr) {
            held_ = *given;
            given->release = nullptr;
        }
    }
    released(released &&other) noexcept : released(&other.held_) {}
    released(const released &) = delete;
    released &operator=(const released &) = delete;
    ~released() {
        if (held_.release != nullptr)
            held_.release(&held_);
    }

    Record *get() { return &held_; }
    const Record &operator*() const { return held_; }
    const Record *operator->() const { return &held_; }
    bool is_there() const { return held_.release != nullptr; }

private:
    Record held_{};
};

using column_list = std::vector<std::shared_ptr<const column>>;

struct streamed_columns {
    column_list columns;
    std::int64_t rows = 0;
};

//! All batches of a stream. Throws table_error for a stream that fails, is malformed, or has more
//! rows than a table can have.
streamed_columns columns_of_stream(released<ArrowArrayStream> &stream);

//! One array as a column.
std::shared_ptr<const column>
column_of_array(const std::string &name, const released<ArrowSchema> &schema,
                const std::shared_ptr<const released<ArrowArray>> &array);

} // namespace vask::table
