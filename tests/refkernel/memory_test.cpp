// Memory that the kernel keeps for the next block.
#include "vask/kernel/bat.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <fstream>

#include <sys/resource.h>
#include <unistd.h>

namespace {

constexpr std::size_t mib = std::size_t{1} << 20;

// What the process has mapped, which RLIMIT_AS bounds.
std::size_t mapped_bytes() {
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

// Under a limit that leaves room for nothing large: two blocks of 64 MiB that came back, neither of
// which is enough for what is asked.
[[noreturn]] void ask_for_more_than_a_kept_block() {
    void *first = GDKmalloc(64 * mib);
    void *second = GDKmalloc(64 * mib);
    GDKfree(first);
    GDKfree(second);
    const rlimit limit{mapped_bytes() + 8 * mib, RLIM_INFINITY};
    if (::setrlimit(RLIMIT_AS, &limit) != 0)
        std::_Exit(2);
    std::_Exit(GDKmalloc(112 * mib) != nullptr && GDKzalloc(256 * mib) == nullptr ? 0 : 1);
}

TEST(Memory, KeptBlocksGoBackWhereTheSystemHasNoOther) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's own memory does not fit a limit";
#endif
    EXPECT_EXIT(ask_for_more_than_a_kept_block(), testing::ExitedWithCode(0), "");
}

} // namespace
