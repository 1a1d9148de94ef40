#include "refkernel/memory.h"

#include "refkernel/block_reserve.h"
#include "refkernel/instrumented.h"
#include "refkernel/poison.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <malloc.h>
#include <mutex>
#include <new>
#include <sys/mman.h>
#include <unordered_map>

namespace refkernel::memory {
namespace {

constexpr std::size_t cache_line = 64;
constexpr std::size_t huge_page = std::size_t{2} << 20;
// glibc serves a block this large by its own mapping, whatever it has been through, and grows it by
// remapping, without a copy and without holding both sizes at once. A smaller one it may copy, and
// then into small pages, each with a fault of its own.
constexpr std::size_t remap_threshold = std::size_t{32} << 20;

constexpr std::size_t whole_lines(std::size_t bytes) {
    return (bytes + cache_line - 1) / cache_line * cache_line;
}

//! What `ask` gives; if that is nothing, it is asked again with the reserve's memory given back.
template <class Ask>
void *from_system(const Ask &ask) noexcept {
    void *given = ask();
    return given != nullptr || !free_spare_blocks() ? given : ask();
}

void *aligned_from_system(std::size_t bytes) noexcept {
    return from_system([bytes] { return std::aligned_alloc(cache_line, whole_lines(bytes)); });
}

void *zeroed_from_system(std::size_t bytes) noexcept {
    return from_system([bytes] { return std::calloc(1, bytes); });
}

void *resized_by_system(void *held, std::size_t bytes) noexcept {
    return from_system([=] { return std::realloc(held, bytes); });
}

//! From the system; base is null when memory runs out.
spare_block fresh_block(std::size_t bytes) noexcept {
    const std::size_t rounded = whole_lines(std::max<std::size_t>(bytes, 1));
    void *base = aligned_from_system(rounded);
    advise_huge_pages(base, rounded);
    return {base, rounded};
}

struct allocated_block final : block {
    std::size_t capacity = 0; // bytes that base has; a spare block has some more

    ~allocated_block() override {
        poison_behind(base, capacity, capacity);
        give_spare_block({base, capacity});
    }

    bool grow(std::size_t new_bytes) noexcept override {
        if (new_bytes <= capacity) {
            bytes = std::max(bytes, new_bytes);
            poison_behind(base, bytes, capacity);
            return true;
        }
        if (bytes >= remap_threshold) {
            poison_behind(base, capacity, capacity);
            void *grown = resized_by_system(base, new_bytes);
            if (grown == nullptr) {
                poison_behind(base, bytes, capacity);
                return false;
            }
            advise_huge_pages(grown, new_bytes);
            hold({grown, new_bytes}, new_bytes);
            return true;
        }
        spare_block larger = take_spare_block_to_grow_in(new_bytes);
        if (larger.base == nullptr)
            larger = fresh_block(new_bytes);
        if (larger.base == nullptr)
            return false;
        std::memcpy(larger.base, base, bytes);
        poison_behind(base, capacity, capacity);
        give_spare_block({base, capacity});
        hold(larger, new_bytes);
        return true;
    }

    void hold(spare_block memory, std::size_t used) noexcept {
        base = memory.base;
        bytes = used;
        capacity = memory.bytes;
        // What was allocated beyond what was asked for is no memory of a column.
        poison_behind(base, bytes, capacity);
    }
};

// A block over what `allocate` gives, which may be null.
template <class Allocate>
std::shared_ptr<block> new_block(std::size_t bytes, Allocate allocate) noexcept {
    try {
        auto made = std::make_shared<allocated_block>();
        const spare_block memory = allocate();
        if (memory.base == nullptr) {
            return nullptr;
        }
        made->hold(memory, bytes);
        return made;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

// An exact account needs the size of a block when it comes back. A table beside
// the blocks costs nothing while it is off, unlike a size written before each.
// It is cut by address so that tasks seldom meet on one lock.
struct account_shard {
    std::mutex lock;
    std::unordered_map<void *, std::size_t> blocks;
};

std::atomic<bool> account_on{false};
std::array<account_shard, 64> account;
std::atomic<std::uint64_t> account_bytes{0};
std::atomic<std::uint64_t> most_account_bytes{0};

account_shard &shard_of(void *held) {
    return account[(reinterpret_cast<std::uintptr_t>(held) >> 4) % account.size()];
}

void enter_account(void *held, std::size_t bytes) noexcept {
    if (held == nullptr || !account_on.load(std::memory_order_relaxed) ||
        instrumentation::own_work::stands()) [[likely]] {
        return;
    }
    const std::uint64_t now = account_bytes.fetch_add(bytes, std::memory_order_relaxed) + bytes;
    std::uint64_t most = most_account_bytes.load(std::memory_order_relaxed);
    while (most < now &&
           !most_account_bytes.compare_exchange_weak(most, now, std::memory_order_relaxed)) {
    }
    account_shard &shard = shard_of(held);
    const std::lock_guard guard(shard.lock);
    shard.blocks.insert_or_assign(held, bytes);
}

constexpr std::size_t not_in_account = std::numeric_limits<std::size_t>::max();

// The bytes that the account had for the block.
std::size_t leave_account(void *held) noexcept {
    if (held == nullptr || !account_on.load(std::memory_order_relaxed)) [[likely]] {
        return not_in_account;
    }
    account_shard &shard = shard_of(held);
    const std::lock_guard guard(shard.lock);
    const auto found = shard.blocks.find(held);
    if (found == shard.blocks.end()) {
        return not_in_account;
    }
    const std::size_t bytes = found->second;
    shard.blocks.erase(found);
    account_bytes.fetch_sub(bytes, std::memory_order_relaxed);
    return bytes;
}

template <class Visit>
std::uint64_t sum_account(Visit visit) noexcept {
    std::uint64_t sum = 0;
    for (account_shard &shard : account) {
        const std::lock_guard guard(shard.lock);
        for (const auto &[held, bytes] : shard.blocks) {
            sum += visit(bytes);
        }
    }
    return sum;
}

void clear_account() noexcept {
    for (account_shard &shard : account) {
        const std::lock_guard guard(shard.lock);
        shard.blocks.clear();
    }
    account_bytes.store(0, std::memory_order_relaxed);
    most_account_bytes.store(0, std::memory_order_relaxed);
}

std::atomic<bool> throws_when_out{false};

} // namespace

void throw_when_out_of_memory() noexcept {
    throws_when_out.store(true, std::memory_order_relaxed);
}

void advise_huge_pages(void *base, std::size_t bytes) noexcept {
    if (base == nullptr || bytes < huge_page_threshold) {
        return;
    }
    const auto address = reinterpret_cast<std::uintptr_t>(base);
    const std::uintptr_t begin = (address + huge_page - 1) / huge_page * huge_page;
    const std::uintptr_t end = (address + bytes) / huge_page * huge_page;
    if (begin < end) {
        // Advice only: a system without huge pages refuses, and nothing is lost.
        (void)madvise(reinterpret_cast<void *>(begin), end - begin, MADV_HUGEPAGE);
    }
}

bool block::grow(std::size_t) noexcept {
    return false;
}

std::shared_ptr<block> allocate_block(std::size_t bytes) noexcept {
    if (bytes > std::numeric_limits<std::size_t>::max() / 2) {
        return nullptr;
    }
    return new_block(bytes, [bytes]() -> spare_block {
        const spare_block spare = take_spare_block(bytes);
        return spare.base != nullptr ? spare : fresh_block(bytes);
    });
}

std::shared_ptr<block> allocate_zeroed_block(std::size_t bytes) noexcept {
    return new_block(bytes, [bytes]() -> spare_block {
        void *fresh = zeroed_from_system(std::max(bytes, cache_line));
        advise_huge_pages(fresh, bytes);
        return {fresh, bytes};
    });
}

namespace {

struct borrowed_block final : block {
    std::function<void()> release;

    ~borrowed_block() override {
        if (release) {
            release();
        }
    }
};

} // namespace

std::shared_ptr<block> borrow(const void *lent, std::size_t bytes, std::function<void()> release) {
    std::shared_ptr<borrowed_block> made;
    try {
        made = std::make_shared<borrowed_block>();
    } catch (...) {
        if (release) {
            release();
        }
        throw;
    }
    made->base = const_cast<void *>(lent);
    made->bytes = bytes;
    made->release = std::move(release);
    made->mark_shared();
    return made;
}

void *allocate(std::size_t bytes) noexcept {
    void *made = take_spare_block(bytes).base;
    if (made == nullptr) {
        made = bytes < huge_page_threshold
                   ? from_system([bytes] { return std::malloc(bytes == 0 ? 1 : bytes); })
                   : aligned_from_system(bytes);
        advise_huge_pages(made, bytes);
    }
    enter_account(made, bytes);
    return made;
}

void *allocate_zeroed(std::size_t bytes) noexcept {
    void *made = zeroed_from_system(bytes == 0 ? 1 : bytes);
    advise_huge_pages(made, bytes);
    enter_account(made, bytes);
    return made;
}

void *reallocate(void *held, std::size_t bytes) noexcept {
    // Left before the call: another thread may be given the old address at once.
    const std::size_t old_bytes = leave_account(held);
    void *made = resized_by_system(held, bytes == 0 ? 1 : bytes);
    if (made == nullptr) {
        if (old_bytes != not_in_account) {
            enter_account(held, old_bytes);
        }
        return nullptr;
    }
    advise_huge_pages(made, bytes);
    enter_account(made, bytes);
    return made;
}

void release(void *held) noexcept {
    leave_account(held);
    const std::size_t bytes = malloc_usable_size(held);
    // Columns, which take their memory from the reserve as well, begin at whole lines.
    if (bytes >= huge_page_threshold && reinterpret_cast<std::uintptr_t>(held) % cache_line == 0) {
        give_spare_block({held, bytes});
    } else {
        std::free(held);
    }
}

void start_account() noexcept {
    clear_account();
    account_on.store(true, std::memory_order_relaxed);
}

void stop_account() noexcept {
    account_on.store(false, std::memory_order_relaxed);
    clear_account();
}

std::uint64_t bytes_outstanding() noexcept {
    return sum_account([](std::size_t bytes) { return bytes; });
}

std::uint64_t most_bytes_outstanding() noexcept {
    return most_account_bytes.load(std::memory_order_relaxed);
}

std::uint64_t blocks_outstanding() noexcept {
    return sum_account([](std::size_t) { return std::size_t{1}; });
}

} // namespace refkernel::memory

using refkernel::instrumentation::enter;
using refkernel::instrumentation::operation;
namespace memory = refkernel::memory;

namespace {

void *checked(void *made) {
    if (made == nullptr && memory::throws_when_out.load(std::memory_order_relaxed)) [[unlikely]] {
        throw std::bad_alloc();
    }
    return made;
}

} // namespace

void *GDKmalloc(size_t bytes) {
    return checked(enter(operation::gdk_malloc, bytes) ? nullptr : memory::allocate(bytes));
}

void *GDKzalloc(size_t bytes) {
    return checked(enter(operation::gdk_zalloc, bytes) ? nullptr : memory::allocate_zeroed(bytes));
}

void *GDKcalloc(size_t count, size_t size) {
    if (enter(operation::gdk_calloc, count, size) ||
        (size != 0 && count > std::numeric_limits<size_t>::max() / size)) {
        return checked(nullptr);
    }
    return checked(memory::allocate_zeroed(count * size));
}

void *GDKrealloc(void *block, size_t bytes) {
    return checked(enter(operation::gdk_realloc, bytes) ? nullptr
                                                        : memory::reallocate(block, bytes));
}

void GDKfree(void *block) {
    enter(operation::gdk_free);
    memory::release(block);
}
