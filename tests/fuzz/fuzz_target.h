// What the fuzz targets share: choices that are read from the bytes of an input, and how a target
// says that it found a fault.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>

//! Takes one input. A fault ends the process, here or in a sanitizer.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size);
//! Called once, before the first input.
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace fuzz {

inline void require(bool holds, std::string_view what) {
    if (holds)
        return;
    std::fprintf(stderr, "fuzz target: %.*s\n", static_cast<int>(what.size()), what.data());
    std::abort();
}

//! An input read from its front. What lies behind its end reads as 0, so every input is complete.
class byte_source {
public:
    byte_source(const std::uint8_t *bytes, std::size_t size)
        : bytes_(bytes),
          left_(size),
          hash_(std::hash<std::string_view>()({reinterpret_cast<const char *>(bytes), size})) {}

    bool empty() const { return left_ == 0; }

    template <class T>
    T take() {
        static_assert(std::is_trivially_copyable_v<T>);
        T value{};
        take_into(&value, sizeof value);
        return value;
    }
    void take_into(void *to, std::size_t size) {
        const std::size_t here = std::min(size, left_);
        if (here > 0)
            std::memcpy(to, bytes_, here);
        if (here < size)
            std::memset(static_cast<char *>(to) + here, 0, size - here);
        bytes_ += here;
        left_ -= here;
    }

    std::uint64_t below(std::uint64_t n) {
        return n <= 256 ? take<std::uint8_t>() % n : take<std::uint32_t>() % n;
    }
    bool one_in(std::uint64_t n) { return below(n) == 1; }
    //! For what is costly. All bytes decide it together: what is made of a costly input, of which
    //! a fuzzer that looks for coverage keeps many, is seldom costly again.
    bool seldom(std::uint64_t n) {
        const bool is = hash_ % n == 0;
        hash_ /= n;
        return is;
    }
    template <class T>
    T one_of(std::initializer_list<T> all) {
        return all.begin()[below(all.size())];
    }

    std::string text(std::size_t most) {
        std::string taken(std::min(most, left_), '\0');
        take_into(taken.data(), taken.size());
        return taken;
    }
    std::string rest() { return text(left_); }

private:
    const std::uint8_t *bytes_;
    std::size_t left_;
    std::size_t hash_;
};

} // namespace fuzz
