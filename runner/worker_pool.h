// Numbered pieces of work on several threads.
#pragma once

#include <cstddef>
#include <functional>

namespace vask::runner {

//! Calls `work(i)` for every i below `pieces`, each on one of up to `threads` threads. Pieces are
//! started in ascending order, so when piece i fails, all pieces before it still run. Returns when
//! all threads have ended; the exception of the lowest piece that threw is then rethrown. The
//! caller waits and calls `tick` about ten times a second.
void run_pieces(std::size_t pieces, unsigned threads, const std::function<void(std::size_t)> &work,
                const std::function<void()> &tick = {});

} // namespace vask::runner
