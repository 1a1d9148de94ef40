#include "refkernel/block_reserve.h"

#include "refkernel/memory.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <mutex>
#include <unistd.h>
#include <utility>

namespace refkernel::memory {
namespace {

// What a query on 1e7 rows with a few columns to work on takes; above that, the share of the
// zeroing in the work falls. Asked of the system once.
std::size_t reserve_bytes() noexcept {
    static const std::size_t bound = [] {
        constexpr std::size_t most = std::size_t{512} << 20;
        constexpr std::size_t share_of_machine = 16;
        const auto machine = static_cast<std::size_t>(std::max(0L, ::sysconf(_SC_PHYS_PAGES))) *
                             static_cast<std::size_t>(std::max(0L, ::sysconf(_SC_PAGESIZE)));
        return std::min(most, machine / share_of_machine);
    }();
    return bound;
}
constexpr std::size_t reserve_blocks = 16;
// Of a block that is taken, at most a fifth goes unused.
constexpr std::size_t slack_divisor = 4;
// A column that grows row by row copies itself into every block on its way.
constexpr std::size_t growth_factor = 4;

// A block that is kept would hide from the address sanitizer that it was given back.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool keeps_blocks = false;
#else
constexpr bool keeps_blocks = true;
#endif
#elif defined(__SANITIZE_ADDRESS__)
constexpr bool keeps_blocks = false;
#else
constexpr bool keeps_blocks = true;
#endif

struct block_reserve {
    std::mutex lock;
    std::array<spare_block, reserve_blocks> blocks; // the oldest first
    std::size_t count = 0;
    std::size_t bytes = 0;

    spare_block remove(std::size_t at) noexcept {
        const spare_block removed = blocks[at];
        std::move(blocks.begin() + at + 1, blocks.begin() + count, blocks.begin() + at);
        --count;
        bytes -= removed.bytes;
        return removed;
    }
};

// Never destroyed: columns in static storage may outlive every other static.
block_reserve &the_reserve() {
    static block_reserve &made = *new block_reserve;
    return made;
}

bool is_worth_keeping(std::size_t bytes) noexcept {
    return keeps_blocks && bytes >= huge_page_threshold && bytes <= reserve_bytes();
}

spare_block take(std::size_t bytes, std::size_t most_bytes) noexcept {
    if (!is_worth_keeping(bytes))
        return {};
    block_reserve &reserve = the_reserve();
    const std::lock_guard guard(reserve.lock);
    std::size_t best = reserve.count;
    for (std::size_t i = 0; i < reserve.count; ++i) {
        const std::size_t size = reserve.blocks[i].bytes;
        if (size >= bytes && size <= most_bytes &&
            (best == reserve.count || size < reserve.blocks[best].bytes))
            best = i;
    }
    return best == reserve.count ? spare_block{} : reserve.remove(best);
}

} // namespace

spare_block take_spare_block(std::size_t bytes) noexcept {
    return take(bytes, bytes + bytes / slack_divisor);
}

spare_block take_spare_block_to_grow_in(std::size_t bytes) noexcept {
    return take(bytes, growth_factor * bytes);
}

void give_spare_block(spare_block given) noexcept {
    if (!is_worth_keeping(given.bytes)) {
        std::free(given.base);
        return;
    }
    std::array<void *, reserve_blocks> driven_out;
    std::size_t out = 0;
    {
        block_reserve &reserve = the_reserve();
        const std::lock_guard guard(reserve.lock);
        while (reserve.count == reserve_blocks || reserve.bytes + given.bytes > reserve_bytes())
            driven_out[out++] = reserve.remove(0).base;
        reserve.blocks[reserve.count++] = given;
        reserve.bytes += given.bytes;
    }
    std::for_each_n(driven_out.begin(), out, [](void *base) { std::free(base); });
}

bool free_spare_blocks() noexcept {
    std::array<spare_block, reserve_blocks> kept;
    std::size_t count = 0;
    {
        block_reserve &reserve = the_reserve();
        const std::lock_guard guard(reserve.lock);
        std::copy_n(reserve.blocks.begin(), reserve.count, kept.begin());
        count = std::exchange(reserve.count, 0);
        reserve.bytes = 0;
    }
    std::for_each_n(kept.begin(), count, [](const spare_block &each) { std::free(each.base); });
    return count > 0;
}

} // namespace refkernel::memory
