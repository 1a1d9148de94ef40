// The bytes of the input: a file mapped into memory, or standard input read whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vask::runner {

class source_text {
public:
    //! Opens a file, or standard input for "-". A regular file is mapped, also when it is standard
    //! input; anything else is read to its end. Throws user_error when that fails.
    explicit source_text(const std::string &path);
    ~source_text();
    source_text(const source_text &) = delete;
    source_text &operator=(const source_text &) = delete;

    //! The name for messages.
    const std::string &name() const noexcept { return name_; }
    //! All bytes, without a leading UTF-8 byte order mark.
    std::string_view text() const noexcept { return text_; }

    //! Tells that these bytes will not be read again soon, so that a mapped file does not count as
    //! memory in use for longer than it is read. They can be read again all the same.
    void release_pages(std::size_t begin, std::size_t end) const noexcept;

    //! Whether a mapped file's bytes may be others than they were when it was opened. One that only
    //! became longer was added to, behind what is read.
    bool was_changed() const noexcept;

private:
    void map(int descriptor, std::size_t bytes);
    void read_to_end(int descriptor);

    std::string name_;
    std::string_view text_;
    int descriptor_ = -1;         // of a mapped file
    std::int64_t changed_at_ = 0; // nanoseconds
    void *block_ = nullptr;
    std::size_t mapped_bytes_ = 0; // 0: block_ is allocated
};

} // namespace vask::runner
