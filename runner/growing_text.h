// A text whose size is known only at its end.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <span>
#include <utility>

namespace vask::runner {

//! Growing a large block with realloc moves pages instead of copying them, and the part not yet
//! written takes no memory, so the text is never held twice.
class growing_text {
public:
    growing_text() : block_(static_cast<char *>(std::malloc(room_))) {
        if (block_ == nullptr)
            throw std::bad_alloc();
    }
    ~growing_text() { std::free(block_); }
    growing_text(const growing_text &) = delete;
    growing_text &operator=(const growing_text &) = delete;

    //! Where the text goes on, with room for at least so many bytes.
    std::span<char> room(std::size_t least = 1) {
        if (room_ - size_ < least) {
            const std::size_t more = std::max(room_ + room_ / 2, size_ + least);
            void *const grown = std::realloc(block_, more);
            if (grown == nullptr)
                throw std::bad_alloc();
            block_ = static_cast<char *>(grown);
            room_ = more;
        }
        return {block_ + size_, room_ - size_};
    }
    //! So many bytes of the room were written.
    void add(std::size_t bytes) { size_ += bytes; }

    std::size_t size() const { return size_; }
    //! Leaves the block to the caller, to be freed.
    char *release() { return std::exchange(block_, nullptr); }

private:
    std::size_t room_ = std::size_t{1} << 20;
    std::size_t size_ = 0;
    char *block_;
};

} // namespace vask::runner
