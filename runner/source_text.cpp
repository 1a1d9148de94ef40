#include "source_text.h"

#include "field_index.h"
#include "growing_text.h"
#include "record_chunks.h"
#include "user_error.h"

#include <algorithm>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vask::runner {
namespace {

constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

class open_file {
public:
    explicit open_file(const std::string &path)
        : descriptor_(path == "-" ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
    ~open_file() {
        if (descriptor_ > STDIN_FILENO)
            ::close(descriptor_);
    }
    int keep() noexcept { return std::exchange(descriptor_, -1); }
    open_file(const open_file &) = delete;
    open_file &operator=(const open_file &) = delete;

    int descriptor() const noexcept { return descriptor_; }

private:
    int descriptor_;
};

// A mapped page that has no bytes in the file any more cannot be read: nothing can go on from
// there, and only the calls that a signal handler may make can tell of it.
extern "C" void end_without_page(int) {
    constexpr std::string_view message =
        "vask: an input file became shorter while it was read, or its disk failed; try again when "
        "nothing writes to it\n";
    static_cast<void>(::write(STDERR_FILENO, message.data(), message.size()) == 0);
    ::_exit(1);
}

std::int64_t changed_at(const struct stat &status) {
    return std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec;
}

} // namespace

source_text::source_text(const std::string &path, std::size_t start_bytes)
    : name_(path == "-" ? "standard input" : path) {
    open_file file(path);
    struct stat status {};
    if (file.descriptor() < 0 || ::fstat(file.descriptor(), &status) != 0)
        fail(
            "{}: cannot open the file: {}; check its name and that you may read it, and put a list "
            "with blanks in it in quotes",
            name_, std::strerror(errno));
    if (S_ISDIR(status.st_mode))
        fail("{}: is a directory; name a file, or - for standard input", name_);
    // A file that is standard input may already have been read in part.
    const bool from_start = path != "-" || ::lseek(file.descriptor(), 0, SEEK_CUR) == 0;
    if (S_ISREG(status.st_mode) && status.st_size > 0 && from_start) {
        map(file.descriptor(), static_cast<std::size_t>(status.st_size));
        descriptor_ = file.keep();
        changed_at_ = changed_at(status);
    } else
        read_to_end(file.descriptor());
    try {
        decompress_start(start_bytes);
    } catch (...) { // nobody destroys what was not made
        close();
        throw;
    }
}

source_text::~source_text() {
    close();
}

void source_text::close() noexcept {
    if (descriptor_ > STDIN_FILENO)
        ::close(descriptor_);
}

void source_text::map(int descriptor, std::size_t bytes) {
    void *const address = ::mmap(nullptr, bytes, PROT_READ, MAP_PRIVATE, descriptor, 0);
    if (address == MAP_FAILED && errno == ENOMEM)
        throw std::bad_alloc();
    if (address == MAP_FAILED)
        fail("{}: cannot map the file: {}", name_, std::strerror(errno));
    ::madvise(address, bytes, MADV_SEQUENTIAL);
    std::signal(SIGBUS, end_without_page);
    file_ = byte_block(address, bytes, true);
}

void source_text::show(std::string_view text) const noexcept {
    if (text.starts_with(byte_order_mark))
        text.remove_prefix(byte_order_mark.size());
    text_ = text;
}

void source_text::hold(growing_text &text) const noexcept {
    const std::size_t size = text.size();
    held_ = byte_block(text.release(), size, false);
    show(held_.bytes());
    if (!packed_ && !file_.is_mapped()) // nothing will be read from it again
        file_ = byte_block();
}

void source_text::read_to_end(int descriptor) {
    growing_text text;
    for (;;) {
        const std::span<char> room = text.room();
        const ssize_t got = ::read(descriptor, room.data(), room.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            fail("{}: cannot read: {}", name_, std::strerror(errno));
        if (got == 0)
            break;
        text.add(static_cast<std::size_t>(got));
    }
    const std::size_t size = text.size();
    file_ = byte_block(text.release(), size, false);
}

void source_text::decompress_start(std::size_t bytes) {
    packed_ = compression_of(file_.bytes());
    if (!packed_) {
        show(file_.bytes());
        return;
    }
    decompression packed(*packed_, file_.bytes(), name_);
    growing_text start;
    const std::size_t got = packed.read(start.room(bytes).first(bytes));
    start.add(got);
    // The next byte tells whether that was all.
    char next = 0;
    if (got < bytes || packed.read({&next, 1}) == 0)
        packed_.reset();
    hold(start);
}

std::string_view source_text::text() const {
    if (!packed_)
        return text_;
    growing_text text;
    source_reader reader(*this);
    for (;;) {
        const std::span<char> room = text.room();
        const std::size_t got = reader.read(room);
        text.add(got);
        if (got < room.size())
            break;
    }
    packed_.reset();
    hold(text);
    return text_;
}

source_reader::source_reader(const source_text &source) : source_(source) {
    if (!source.packed_)
        return;
    packed_.emplace(*source.packed_, source.file_.bytes(), source.name_);
    first_bytes_.resize(byte_order_mark.size());
    first_bytes_.resize(packed_->read(first_bytes_));
    if (first_bytes_ == byte_order_mark)
        first_bytes_.clear();
}

std::size_t source_reader::read(std::span<char> room) {
    if (!packed_) {
        const std::size_t got = std::min(room.size(), source_.text_.size() - consumed_);
        std::memcpy(room.data(), source_.text_.data() + consumed_, got);
        source_.release_pages(consumed_, consumed_ + got);
        consumed_ += got;
        return got;
    }
    const std::size_t first = first_bytes_.copy(room.data(), room.size());
    first_bytes_.erase(0, first);
    const std::size_t got = first + packed_->read(room.subspan(first));
    source_.file_.release_pages(
        source_.file_.bytes().substr(consumed_, packed_->consumed() - consumed_));
    consumed_ = packed_->consumed();
    return got;
}

std::size_t source_reader::consumed() const noexcept {
    return consumed_;
}

namespace {

// A line's fields with one separator between them, which are written over the line's bytes.
char *join_blank_runs(std::string_view line, bool &quoted, char quote, char *to) {
    bool separate = false; // a run of blanks lies before the next byte
    bool begun = quoted;
    for (const char c : line) {
        quoted ^= quote != '\0' && c == quote;
        if (!quoted && is_blank(c)) {
            separate = begun;
            continue;
        }
        if (separate && c != '\n' && c != '\r')
            *to++ = blank_run_separator;
        separate = false;
        begun = true;
        *to++ = c;
    }
    return to;
}

} // namespace

void source_text::bring_into_form(const text_form &form, char quote) {
    if (form.is_plain())
        return;
    const std::string_view original = this->text();
    growing_text text;
    std::size_t line_number = 0;
    bool quoted = false;
    for (std::size_t at = 0; at < original.size(); ++line_number) {
        const std::size_t end = end_of_line(original, at);
        const std::string_view line = original.substr(at, end - at);
        const std::size_t content = std::min(line.find_first_of("\r\n"), line.size());
        const bool is_record = line_number >= form.skipped_lines &&
                               (quoted || !form.comment || !line.starts_with(*form.comment));
        const std::string_view kept = line.substr(is_record ? 0 : content);
        char *const to = text.room(kept.size() + 1).data();
        if (form.blank_runs) {
            text.add(static_cast<std::size_t>(join_blank_runs(kept, quoted, quote, to) - to));
        } else {
            if (quote != '\0')
                quoted ^= std::count(kept.begin(), kept.end(), quote) % 2 != 0;
            std::copy(kept.begin(), kept.end(), to);
            text.add(kept.size());
        }
        at = end;
    }
    hold(text);
}

bool source_text::was_changed() const noexcept {
    struct stat status {};
    const bool is_held = !packed_ && !held_.bytes().empty();
    if (descriptor_ < 0 || is_held || ::fstat(descriptor_, &status) != 0)
        return false;
    const auto size = static_cast<std::size_t>(status.st_size);
    return size < file_bytes() || (size == file_bytes() && changed_at(status) != changed_at_);
}

void source_text::release_pages(std::size_t begin, std::size_t end) const noexcept {
    if (held_.bytes().empty() && begin < end)
        file_.release_pages(text_.substr(begin, end - begin));
}

byte_block::byte_block(byte_block &&other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      is_mapped_(other.is_mapped_) {}

byte_block &byte_block::operator=(byte_block &&other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(is_mapped_, other.is_mapped_);
    return *this;
}

byte_block::~byte_block() {
    if (is_mapped_ && data_ != nullptr)
        ::munmap(data_, size_);
    else
        std::free(data_);
}

void byte_block::release_pages(std::string_view bytes) const noexcept {
    if (!is_mapped_ || bytes.empty())
        return;
    const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    const auto begin = reinterpret_cast<std::uintptr_t>(bytes.data());
    const std::uintptr_t first = (begin + page - 1) / page * page;
    const std::uintptr_t last = (begin + bytes.size()) / page * page;
    if (first < last)
        ::madvise(reinterpret_cast<void *>(first), last - first, MADV_DONTNEED);
}

} // namespace vask::runner
