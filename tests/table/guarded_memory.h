// Memory with nothing readable or writable behind it.
#pragma once

#include <cstddef>
#include <cstring>
#include <new>
#include <span>

#include <sys/mman.h>
#include <unistd.h>

namespace support {

//! A copy of some values whose last byte is the last of a page; the next page cannot be touched,
//! nor can the one before the first. A step outside ends the test program, in any build.
template <class T>
class guarded_memory {
public:
    explicit guarded_memory(std::span<const T> values) : guarded_memory(values.size()) {
        if (!values.empty())
            std::memcpy(data_, values.data(), values.size_bytes());
    }
    explicit guarded_memory(std::size_t n) : size_(n) {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const std::size_t inner = (n * sizeof(T) + page - 1) / page * page;
        mapped_ = inner + 2 * page;
        void *block = mmap(nullptr, mapped_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (block == MAP_FAILED)
            throw std::bad_alloc();
        block_ = static_cast<std::byte *>(block);
        if (inner > 0 && mprotect(block_ + page, inner, PROT_READ | PROT_WRITE) != 0)
            throw std::bad_alloc();
        data_ = reinterpret_cast<T *>(block_ + page + inner - n * sizeof(T));
    }
    guarded_memory(const guarded_memory &) = delete;
    guarded_memory &operator=(const guarded_memory &) = delete;
    ~guarded_memory() { munmap(block_, mapped_); }

    T *data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }
    T &operator[](std::size_t i) const noexcept { return data_[i]; }

private:
    std::size_t size_;
    std::size_t mapped_ = 0;
    std::byte *block_ = nullptr;
    T *data_ = nullptr;
};

} // namespace support
