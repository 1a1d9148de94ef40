#include "worker_pool.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace vask::runner {
namespace {

constexpr auto tick_period = std::chrono::milliseconds(100);

} // namespace

void run_pieces(std::size_t pieces, unsigned threads, const std::function<void(std::size_t)> &work,
                const std::function<void()> &tick) {
    std::atomic<std::size_t> next = 0;
    std::mutex mutex;
    std::condition_variable ended;
    std::size_t running = std::min<std::size_t>(std::max(threads, 1U), pieces);
    std::exception_ptr failure;
    std::size_t failed_piece = pieces;

    const auto worker = [&] {
        std::size_t piece = 0;
        try {
            while ((piece = next++) < pieces)
                work(piece);
        } catch (...) {
            next = pieces;
            const std::scoped_lock lock(mutex);
            if (piece < failed_piece) {
                failed_piece = piece;
                failure = std::current_exception();
            }
        }
        const std::scoped_lock lock(mutex);
        --running;
        ended.notify_one();
    };

    std::vector<std::jthread> workers;
    workers.reserve(running);
    for (std::size_t i = running; i > 0; --i)
        workers.emplace_back(worker);
    {
        std::unique_lock lock(mutex);
        while (!ended.wait_for(lock, tick_period, [&] { return running == 0; }))
            if (tick)
                tick();
    }
    workers.clear();
    if (failure)
        std::rethrow_exception(failure);
}

} // namespace vask::runner
