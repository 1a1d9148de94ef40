// Bringing the texts of a column, parsed chunk by chunk, into the kernel in row order.
#pragma once

#include "vask/embed.h"

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

namespace vask::runner {

//! Takes the chunks of one text column in any order and appends them in theirs. A chunk that comes
//! too early is kept until those before it are there, so no thread waits for another's parsing.
class text_merger {
public:
    explicit text_merger(std::size_t rows) { builder_.reserve(rows); }

    //! The texts of chunk number `chunk`, and the memory in which they lie. Thread-safe.
    void add(std::size_t chunk, std::vector<std::string_view> texts,
             std::shared_ptr<const char[]> memory);

    //! The column, once all chunks were added.
    refkernel::bat finish() { return builder_.finish(); }

private:
    struct early_chunk {
        std::vector<std::string_view> texts;
        std::shared_ptr<const char[]> memory;
    };

    std::mutex mutex_;
    std::size_t next_ = 0;
    std::map<std::size_t, early_chunk> early_;
    refkernel::text_builder builder_;
};

} // namespace vask::runner
