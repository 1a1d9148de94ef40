// Files compressed by gzip, zstd, bzip2 and xz.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace vask::runner {

enum class compression : std::uint8_t { gzip, zstd, bzip2, xz };

//! By the bytes with which a file begins; nothing for any other file.
std::optional<compression> compression_of(std::string_view bytes);

//! A file's name without the ending that tells its compression.
std::string_view without_compression(std::string_view name);

//! Decodes one member or frame of a file, by the library of its format.
class frame_decoder;

//! The text of a compressed file from its start to its end: that of all members or frames, if there
//! are several. Used by one thread at a time.
class decompression {
public:
    //! The bytes have to live as long. `name` is that of the file.
    decompression(compression kind, std::string_view bytes, std::string name);
    ~decompression();
    decompression(const decompression &) = delete;
    decompression &operator=(const decompression &) = delete;

    //! Writes what comes next to the front of the room. Gives how many bytes: as many as there is
    //! room for, but at the end of the text. Throws user_error for a damaged file and one that is
    //! cut short.
    std::size_t read(std::span<char> room);

    //! How many of the file's bytes are decoded.
    std::size_t consumed() const noexcept { return size_ - left_.size(); }

private:
    bool next_frame();

    compression kind_;
    std::string name_;
    std::string_view left_;
    std::size_t size_;
    std::uint64_t given_ = 0;              // bytes of text
    std::unique_ptr<frame_decoder> frame_; // null between frames
};

} // namespace vask::runner
