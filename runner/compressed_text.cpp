#include "compressed_text.h"

#include "user_error.h"

#include <algorithm>
#include <array>
#include <limits>
#include <memory>
#include <new>
#include <span>
#include <utility>

#include <bzlib.h>
#include <lzma.h>
#include <zstd.h>
#ifdef VASK_GZIP_BY_ISAL
#include <isa-l/igzip_lib.h>
#else
#include <zlib.h>
#endif

namespace vask::runner {
namespace {

enum class progress : std::uint8_t { going_on, ended };

} // namespace

//! decode() takes bytes from the front of `in` and gives others to the front of `out`; both lose
//! what was used.
class frame_decoder {
public:
    frame_decoder() = default;
    virtual ~frame_decoder() = default;
    frame_decoder(const frame_decoder &) = delete;
    frame_decoder &operator=(const frame_decoder &) = delete;
    virtual progress decode(std::string_view &in, std::span<char> &out) = 0;
};

namespace {

std::string_view name_of(compression kind) {
    switch (kind) {
        case compression::gzip:
            return "gzip";
        case compression::zstd:
            return "zstd";
        case compression::bzip2:
            return "bzip2";
        case compression::xz:
            break;
    }
    return "xz";
}

//! What a library says of bytes that cannot be decoded.
struct damage {
    std::string what;
};

//! What one call of a library takes and gives: some have sizes of 32 bits.
constexpr std::size_t most_at_once = std::size_t{1} << 30;

// The libraries' streams have members of one meaning and different types.
template <class Stream>
void give(Stream &stream, std::string_view in, std::span<char> out) {
    stream.next_in = reinterpret_cast<decltype(stream.next_in)>(const_cast<char *>(in.data()));
    stream.next_out = reinterpret_cast<decltype(stream.next_out)>(out.data());
    stream.avail_in = static_cast<decltype(stream.avail_in)>(std::min(in.size(), most_at_once));
    stream.avail_out = static_cast<decltype(stream.avail_out)>(std::min(out.size(), most_at_once));
}
template <class Stream>
void take(const Stream &stream, std::string_view &in, std::span<char> &out) {
    in.remove_prefix(std::min(in.size(), most_at_once) - stream.avail_in);
    out = out.subspan(std::min(out.size(), most_at_once) - stream.avail_out);
}

#ifdef VASK_GZIP_BY_ISAL

//! Two to three times as fast as zlib.
class gzip_decoder final : public frame_decoder {
public:
    gzip_decoder() : stream_(std::make_unique_for_overwrite<inflate_state>()) {
        ::isal_inflate_init(stream_.get());
        stream_->crc_flag = ISAL_GZIP;
    }

    progress decode(std::string_view &in, std::span<char> &out) override {
        give(*stream_, in, out);
        const int result = ::isal_inflate(stream_.get());
        take(*stream_, in, out);
        if (result < 0)
            throw damage{meaning_of(result)};
        return stream_->block_state == ISAL_BLOCK_FINISH ? progress::ended : progress::going_on;
    }

private:
    static std::string meaning_of(int result) {
        switch (result) {
            case ISAL_INVALID_WRAPPER:
            case ISAL_UNSUPPORTED_METHOD:
                return "a wrong header";
            case ISAL_INCORRECT_CHECKSUM:
                return "a wrong checksum";
            default:
                return "wrong data";
        }
    }

    // Of 80 KB.
    std::unique_ptr<inflate_state> stream_;
};

#else

class gzip_decoder final : public frame_decoder {
public:
    gzip_decoder() {
        constexpr int of_gzip = 16; // beside the size of the window
        if (::inflateInit2(&stream_, MAX_WBITS + of_gzip) != Z_OK)
            throw std::bad_alloc();
    }
    ~gzip_decoder() override { ::inflateEnd(&stream_); }

    progress decode(std::string_view &in, std::span<char> &out) override {
        give(stream_, in, out);
        const int result = ::inflate(&stream_, Z_NO_FLUSH);
        take(stream_, in, out);
        switch (result) {
            case Z_STREAM_END:
                return progress::ended;
            case Z_OK:
            case Z_BUF_ERROR: // nothing to do without more bytes
                return progress::going_on;
            case Z_MEM_ERROR:
                throw std::bad_alloc();
            default:
                throw damage{stream_.msg == nullptr ? "wrong data" : stream_.msg};
        }
    }

private:
    z_stream stream_{};
};

#endif

class zstd_decoder final : public frame_decoder {
public:
    zstd_decoder() : context_(::ZSTD_createDCtx()) {
        if (context_ == nullptr)
            throw std::bad_alloc();
        // Files of --long have windows up to this size.
        ::ZSTD_DCtx_setParameter(context_.get(), ZSTD_d_windowLogMax, 31);
    }

    progress decode(std::string_view &in, std::span<char> &out) override {
        ZSTD_inBuffer from{in.data(), in.size(), 0};
        ZSTD_outBuffer to{out.data(), out.size(), 0};
        const std::size_t result = ::ZSTD_decompressStream(context_.get(), &to, &from);
        in.remove_prefix(from.pos);
        out = out.subspan(to.pos);
        if (::ZSTD_isError(result) != 0)
            throw damage{::ZSTD_getErrorName(result)};
        return result == 0 ? progress::ended : progress::going_on;
    }

private:
    struct closer {
        void operator()(ZSTD_DCtx *context) const { ::ZSTD_freeDCtx(context); }
    };
    std::unique_ptr<ZSTD_DCtx, closer> context_;
};

class bzip2_decoder final : public frame_decoder {
public:
    bzip2_decoder() {
        if (::BZ2_bzDecompressInit(&stream_, 0, 0) != BZ_OK)
            throw std::bad_alloc();
    }
    ~bzip2_decoder() override { ::BZ2_bzDecompressEnd(&stream_); }

    progress decode(std::string_view &in, std::span<char> &out) override {
        give(stream_, in, out);
        const int result = ::BZ2_bzDecompress(&stream_);
        take(stream_, in, out);
        switch (result) {
            case BZ_STREAM_END:
                return progress::ended;
            case BZ_OK:
                return progress::going_on;
            case BZ_MEM_ERROR:
                throw std::bad_alloc();
            default:
                throw damage{"a block with wrong data"};
        }
    }

private:
    bz_stream stream_{};
};

class xz_decoder final : public frame_decoder {
public:
    xz_decoder() {
        constexpr std::uint64_t no_limit = std::numeric_limits<std::uint64_t>::max();
        if (::lzma_stream_decoder(&stream_, no_limit, 0) != LZMA_OK)
            throw std::bad_alloc();
    }
    ~xz_decoder() override { ::lzma_end(&stream_); }

    progress decode(std::string_view &in, std::span<char> &out) override {
        give(stream_, in, out);
        const lzma_ret result = ::lzma_code(&stream_, LZMA_RUN);
        take(stream_, in, out);
        switch (result) {
            case LZMA_STREAM_END:
                return progress::ended;
            case LZMA_OK:
            case LZMA_BUF_ERROR: // nothing to do without more bytes
                return progress::going_on;
            case LZMA_MEM_ERROR:
                throw std::bad_alloc();
            case LZMA_OPTIONS_ERROR:
                throw damage{"a form of compression that the library does not know"};
            default:
                throw damage{"wrong data"};
        }
    }

private:
    lzma_stream stream_ = LZMA_STREAM_INIT;
};

std::unique_ptr<frame_decoder> decoder_of(compression kind) {
    switch (kind) {
        case compression::gzip:
            return std::make_unique<gzip_decoder>();
        case compression::zstd:
            return std::make_unique<zstd_decoder>();
        case compression::bzip2:
            return std::make_unique<bzip2_decoder>();
        case compression::xz:
            break;
    }
    return std::make_unique<xz_decoder>();
}

struct magic_bytes {
    compression kind;
    std::string_view bytes;
};

constexpr std::array magics{magic_bytes{compression::gzip, "\x1F\x8B"},
                            magic_bytes{compression::zstd, "\x28\xB5\x2F\xFD"},
                            magic_bytes{compression::xz, std::string_view("\xFD\x37zXZ\0", 6)}};

// "BZh", the size of blocks, and then the mark of a block, or of the end of a file without one.
bool is_bzip2(std::string_view bytes) {
    constexpr std::string_view block = "1AY&SY";
    constexpr std::string_view end = "\x17\x72\x45\x38\x50\x90";
    return bytes.size() > 3 && bytes.starts_with("BZh") && bytes[3] >= '1' && bytes[3] <= '9' &&
           (bytes.substr(4).starts_with(block) || bytes.substr(4).starts_with(end));
}

} // namespace

// A frame that zstd's decoder passes over: some programs write one in front or at the end.
bool is_skippable_frame(std::string_view bytes) {
    constexpr unsigned char kinds = 0xF0; // of the first byte's bits
    return bytes.size() > 3 && (static_cast<unsigned char>(bytes[0]) & kinds) == 0x50 &&
           bytes.substr(1).starts_with("\x2A\x4D\x18");
}

std::optional<compression> compression_of(std::string_view bytes) {
    for (const auto &[kind, magic] : magics)
        if (bytes.starts_with(magic))
            return kind;
    if (is_skippable_frame(bytes))
        return compression::zstd;
    if (is_bzip2(bytes))
        return compression::bzip2;
    return std::nullopt;
}

std::string_view without_compression(std::string_view name) {
    for (const std::string_view ending : {".gz", ".zst", ".bz2", ".xz"})
        if (name.ends_with(ending))
            return name.substr(0, name.size() - ending.size());
    return name;
}

decompression::decompression(compression kind, std::string_view bytes, std::string name)
    : kind_(kind), name_(std::move(name)), left_(bytes), size_(bytes.size()) {}

decompression::~decompression() = default;

// Makes the decoder of the next frame; false where there is none.
bool decompression::next_frame() {
    if (consumed() != 0) {
        // Zeros may fill a file up, as to the blocks of a tape.
        left_.remove_prefix(std::min(left_.find_first_not_of('\0'), left_.size()));
        if (!left_.empty() && compression_of(left_) != kind_)
            fail("{}: the file is damaged: behind {} bytes of its text stand {} bytes that {} did "
                 "not write; get it once more",
                 name_, given_, left_.size(), name_of(kind_));
    }
    if (left_.empty())
        return false;
    frame_ = decoder_of(kind_);
    return true;
}

std::size_t decompression::read(std::span<char> room) {
    std::span<char> left = room;
    while (!left.empty() && (frame_ != nullptr || next_frame())) {
        const std::size_t room_before = left.size();
        progress state{};
        try {
            state = frame_->decode(left_, left);
        } catch (const damage &found) {
            fail("{}: the file is damaged behind {} bytes of its text ({} says: {}); get it "
                 "once more",
                 name_, given_, name_of(kind_), found.what);
        }
        given_ += room_before - left.size();
        if (state == progress::ended)
            frame_.reset();
        else if (left_.empty() && !left.empty()) // and nothing is left in the decoder, either
            fail("{}: the file is cut short: what {} wrote ends in the middle, behind {} bytes of "
                 "its text; get it once more",
                 name_, name_of(kind_), given_);
    }
    return room.size() - left.size();
}

} // namespace vask::runner
