// The bytes of the input: a file mapped into memory, standard input whole, or compressed ones that
// are decompressed as they are read.
#pragma once

#include "compressed_text.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace vask::runner {

class growing_text;

//! Memory that is mapped to a file, or allocated.
class byte_block {
public:
    byte_block() = default;
    byte_block(void *data, std::size_t size, bool is_mapped) noexcept
        : data_(data), size_(size), is_mapped_(is_mapped) {}
    byte_block(byte_block &&other) noexcept;
    byte_block &operator=(byte_block &&other) noexcept;
    ~byte_block();

    std::string_view bytes() const noexcept { return {static_cast<const char *>(data_), size_}; }
    bool is_mapped() const noexcept { return is_mapped_; }

    //! Has the pages of these bytes read from the file again when they are asked for.
    void release_pages(std::string_view bytes) const noexcept;

private:
    void *data_ = nullptr;
    std::size_t size_ = 0;
    bool is_mapped_ = false;
};

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
    //! So many bytes of a compressed file's text are decompressed for its header and a first guess
    //! at the types. A text that has no more is held.
    static constexpr std::size_t usual_start = std::size_t{1} << 20;

    //! Opens a file, or standard input for "-". A regular file is mapped, also when it is standard
    //! input; anything else is read to its end. What begins as compressed files do is decompressed.
    //! Throws user_error when that fails.
    explicit source_text(const std::string &path, std::size_t start_bytes = usual_start);
    ~source_text();
    source_text(const source_text &) = delete;
    source_text &operator=(const source_text &) = delete;

    //! The name for messages.
    const std::string &name() const noexcept { return name_; }

    //! Whether the text is not in memory, but that of a compressed file. It is best read by a
    //! source_reader then.
    bool is_packed() const noexcept { return packed_.has_value(); }

    //! All bytes, without a leading UTF-8 byte order mark. The text of a compressed file is held in
    //! memory from then on, and the first call for it is to be made by one thread. Throws
    //! user_error if it is damaged.
    std::string_view text() const;

    //! The bytes with which the text begins: all of it, but of a compressed file only some.
    std::string_view start() const noexcept { return text_; }

    //! How many bytes the file has.
    std::size_t file_bytes() const noexcept { return file_.bytes().size(); }

    //! Empties lines that are no records, and makes one separator of each run of blanks outside
    //! quotes. Lines keep their numbers. The text is held in memory from then on.
    void bring_into_form(const text_form &form, char quote);

    //! Tells that these bytes of the text will not be read again soon, so that a mapped file does
    //! not count as memory in use for longer than it is read. They can be read again all the same.
    void release_pages(std::size_t begin, std::size_t end) const noexcept;

    //! Whether a mapped file's bytes may be others than they were when it was opened, and are still
    //! to be read. One that only became longer was added to, behind what is read.
    bool was_changed() const noexcept;

private:
    friend class source_reader;

    void map(int descriptor, std::size_t bytes);
    void read_to_end(int descriptor);
    void decompress_start(std::size_t bytes);
    void hold(growing_text &text) const noexcept;
    void show(std::string_view text) const noexcept;
    void close() noexcept;

    std::string name_;
    int descriptor_ = -1;         // of a mapped file
    std::int64_t changed_at_ = 0; // nanoseconds
    mutable byte_block file_;
    mutable byte_block held_;                   // what was decompressed or brought into form
    mutable std::optional<compression> packed_; // of the file, if not all of it is held
    mutable std::string_view text_;
};

//! Reads a text from its start to its end, that of a compressed file without holding it.
class source_reader {
public:
    //! The source has to live as long, and to stay as it is.
    explicit source_reader(const source_text &source);

    //! Writes what comes next to the front of the room. Gives how many bytes: as many as there is
    //! room for, but at the end of the text. Throws user_error for a damaged file.
    std::size_t read(std::span<char> room);

    //! How many bytes of the file were read.
    std::size_t consumed() const noexcept;

private:
    const source_text &source_;
    std::optional<decompression> packed_;
    std::string first_bytes_;  // decompressed, and not given yet
    std::size_t consumed_ = 0; // of the file, whose pages are released
};

} // namespace vask::runner
