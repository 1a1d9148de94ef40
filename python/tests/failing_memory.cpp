// Preloaded: one allocation of the library fails, the one that is asked for. Those of the
// interpreter and of other libraries are left alone.
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include <link.h>

extern "C" {
void *__libc_malloc(std::size_t bytes);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *held, std::size_t bytes);
void *__libc_memalign(std::size_t alignment, std::size_t bytes);
}

namespace {

constexpr std::int64_t never = std::numeric_limits<std::int64_t>::max();
// How many more succeed before the one that fails.
std::atomic<std::int64_t> left{never};
// Where the library's code lies.
std::atomic<std::uintptr_t> code_begin{0};
std::atomic<std::uintptr_t> code_end{0};

int find_library(dl_phdr_info *info, std::size_t, void *) {
    if (std::strstr(info->dlpi_name, "libvask.so") == nullptr)
        return 0;
    for (int i = 0; i < info->dlpi_phnum; ++i)
        if (info->dlpi_phdr[i].p_type == PT_LOAD && (info->dlpi_phdr[i].p_flags & PF_X) != 0) {
            code_begin = info->dlpi_addr + info->dlpi_phdr[i].p_vaddr;
            code_end = code_begin + info->dlpi_phdr[i].p_memsz;
        }
    return 1;
}

bool fails() {
    return left.load() != never && left.fetch_sub(1) == 0;
}

bool fails_for(const void *caller) {
    const auto place = reinterpret_cast<std::uintptr_t>(caller);
    return place >= code_begin && place < code_end && fails();
}

} // namespace

// After so many more allocations one fails; -1 for none. What is left then: below 0 once it has
// failed.
extern "C" std::int64_t fail_after(std::int64_t allocations) {
    if (code_end == 0)
        dl_iterate_phdr(find_library, nullptr);
    const std::int64_t before = left.exchange(allocations < 0 ? never : allocations);
    return code_end == 0 ? never : before;
}

extern "C" void *malloc(std::size_t bytes) {
    return fails_for(__builtin_return_address(0)) ? nullptr : __libc_malloc(bytes);
}
extern "C" void *calloc(std::size_t count, std::size_t size) {
    return fails_for(__builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}
extern "C" void *realloc(void *held, std::size_t bytes) {
    return fails_for(__builtin_return_address(0)) ? nullptr : __libc_realloc(held, bytes);
}
extern "C" void *aligned_alloc(std::size_t alignment, std::size_t bytes) {
    return fails_for(__builtin_return_address(0)) ? nullptr : __libc_memalign(alignment, bytes);
}

namespace {
void *made(void *memory) {
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}
} // namespace

// Whoever calls these: parts of the C++ library do on behalf of the library.
void *operator new(std::size_t bytes) {
    return made(fails() ? nullptr : __libc_malloc(bytes == 0 ? 1 : bytes));
}
void *operator new[](std::size_t bytes) {
    return made(fails() ? nullptr : __libc_malloc(bytes == 0 ? 1 : bytes));
}
void *operator new(std::size_t bytes, std::align_val_t alignment) {
    return made(fails() ? nullptr : __libc_memalign(static_cast<std::size_t>(alignment), bytes));
}
void operator delete(void *held) noexcept {
    std::free(held);
}
void operator delete[](void *held) noexcept {
    std::free(held);
}
void operator delete(void *held, std::size_t) noexcept {
    std::free(held);
}
void operator delete[](void *held, std::size_t) noexcept {
    std::free(held);
}
void operator delete(void *held, std::align_val_t) noexcept {
    std::free(held);
}
void operator delete(void *held, std::size_t, std::align_val_t) noexcept {
    std::free(held);
}
