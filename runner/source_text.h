// The bytes of the input: a file mapped into memory, or standard input and compressed files whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vask::runner {

class growing_text;

//! Lines of a file that are no records, and separators that are written in several ways.
struct text_form {
    std::size_t skipped_lines = 0; //!< at the start of the file
    std::optional<char> comment{}; //!< lines that begin with it are none of the table's
    bool blank_runs = false;       //!< fields have any number of blanks between them

    bool is_plain() const noexcept { return skipped_lines == 0 && !comment && !blank_runs; }
};

//! What stands for a run of blanks after source_text::bring_into_form().
inline constexpr char blank_run_separator = '\t';

class source_text {
public:
    //! Opens a file, or standard input for "-". A regular file is mapped, also when it is standard
    //! input; anything else is read to its end. What begins as compressed files do is decompressed.
    //! Throws user_error when that fails.
    explicit source_text(const std::string &path);
    ~source_text();
    source_text(const source_text &) = delete;
    source_text &operator=(const source_text &) = delete;

    //! The name for messages.
    const std::string &name() const noexcept { return name_; }
    //! All bytes, without a leading UTF-8 byte order mark.
    std::string_view text() const noexcept { return text_; }

    //! Empties lines that are no records, and makes one separator of each run of blanks outside
    //! quotes. Lines keep their numbers. The text is held in memory from then on.
    void bring_into_form(const text_form &form, char quote);

    //! Tells that these bytes will not be read again soon, so that a mapped file does not count as
    //! memory in use for longer than it is read. They can be read again all the same.
    void release_pages(std::size_t begin, std::size_t end) const noexcept;

    //! Whether a mapped file's bytes may be others than they were when it was opened. One that only
    //! became longer was added to, behind what is read.
    bool was_changed() const noexcept;

private:
    void map(int descriptor, std::size_t bytes);
    void read_to_end(int descriptor);
    void decompress();
    void hold(growing_text &text) noexcept;
    void free_block() noexcept;
    void close() noexcept;

    std::string name_;
    std::string_view text_;
    int descriptor_ = -1;         // of a mapped file
    std::int64_t changed_at_ = 0; // nanoseconds
    void *block_ = nullptr;
    std::size_t mapped_bytes_ = 0; // 0: block_ is allocated
};

} // namespace vask::runner
