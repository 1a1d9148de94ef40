// Progress of a long load, shown to a person who waits.
#pragma once

#include <chrono>
#include <cstdint>

namespace vask::runner {

//! Draws on standard error, only when that is a terminal and only after a second; silent otherwise.
class progress_bar {
public:
    explicit progress_bar(std::uint64_t total);
    //! Removes what was drawn.
    ~progress_bar();
    progress_bar(const progress_bar &) = delete;
    progress_bar &operator=(const progress_bar &) = delete;

    void draw(std::uint64_t done);

private:
    std::uint64_t total_;
    std::chrono::steady_clock::time_point begin_;
    bool on_terminal_;
    bool drawn_ = false;
};

} // namespace vask::runner
