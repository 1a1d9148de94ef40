// Text columns for embedders.
#include "refkernel/column_making.h"
#include "refkernel/pool.h"
#include "vask/embed.h"

#include <algorithm>
#include <new>
#include <utility>

namespace refkernel {
namespace {

template <class Offset>
std::shared_ptr<memory::block> narrowed(std::span<const std::uint32_t> offsets, BUN first) {
    auto memory = rows_behind(first, offsets.size(), sizeof(Offset));
    Offset *out = static_cast<Offset *>(memory->base) + first;
    constexpr std::uint32_t bias = sizeof(Offset) < sizeof(std::uint32_t) ? offset_bias : 0;
    std::transform(offsets.begin(), offsets.end(), out,
                   [](std::uint32_t offset) { return static_cast<Offset>(offset - bias); });
    return memory;
}

} // namespace

text_builder::text_builder(const text_options &options)
    : options_(options),
      heap_(std::make_shared<text_heap>(options.sharing)),
      staging_(std::make_unique<char[]>(staging_bytes)) {
    if (!is_type(options.type) || !is_varsized(options.type)) {
        throw kernel_error("the column's type is not stored as text");
    }
    if (options.offset_width != 1 && options.offset_width != 2 && options.offset_width != 4) {
        throw kernel_error("an offset has 1, 2 or 4 bytes");
    }
}

void text_builder::put(std::span<const std::string_view> texts) {
    const std::size_t before = offsets_.size();
    offsets_.resize(before + texts.size());
    if (!heap_->put_all(texts.data(), texts.size(), offsets_.data() + before)) {
        offsets_.resize(before);
        throw std::bad_alloc();
    }
    for (const std::string_view text : texts) {
        if (!text.empty() && text.front() == str_nil_text.front()) [[unlikely]] {
            has_nil_ = has_nil_ || text == nil_bytes(options_.type);
        }
    }
}

void text_builder::flush() {
    const std::size_t waiting = std::exchange(pending_, 0);
    staged_ = 0;
    put(std::span(pending_texts_).first(waiting));
}

void text_builder::append(std::string_view text) {
    if (pending_ == batch_texts || text.size() > staging_bytes - staged_) {
        flush();
        if (text.size() > staging_bytes) {
            put({&text, 1});
            return;
        }
    }
    char *copy = staging_.get() + staged_;
    std::copy(text.begin(), text.end(), copy);
    staged_ += text.size();
    pending_texts_[pending_++] = {copy, text.size()};
}

void text_builder::append_nil() {
    append(nil_bytes(options_.type));
}

void text_builder::append_all(std::span<const std::string_view> texts) {
    flush();
    put(texts);
}

bat text_builder::finish(const column_options &options) {
    flush();
    auto made = entry_with_head(offsets_.size(), options);
    int width = options_.offset_width;
    const std::uint32_t last = std::max(heap_->end(), offset_bias + 1) - 1 - offset_bias;
    while (width < 4 && last >> (8 * width) != 0) {
        width *= 2;
    }
    std::shared_ptr<memory::block> memory;
    if (width == 1) {
        memory = narrowed<std::uint8_t>(offsets_, options.first);
    } else if (width == 2) {
        memory = narrowed<std::uint16_t>(offsets_, options.first);
    } else if (options.first != 0 || offsets_.empty()) {
        memory = narrowed<std::uint32_t>(offsets_, options.first);
    } else {
        memory = std::make_shared<memory::vector_block<std::uint32_t>>(std::move(offsets_));
    }
    set_tail(*made, options_.type, static_cast<std::size_t>(width), std::move(memory), options);
    made->tail.varsized = 1;
    made->tail.nil = has_nil_;
    made->tail.nonil = !has_nil_;
    // Made again if the column ever grows.
    heap_->drop_index();
    made->tail.adopt_heap(std::exchange(heap_, std::make_shared<text_heap>(options_.sharing)));
    offsets_ = {};
    has_nil_ = false;
    return insert(std::move(made));
}

bat make_text_column(std::span<const std::optional<std::string_view>> texts,
                     const column_options &options, const text_options &text) {
    text_builder builder(text);
    builder.reserve(texts.size());
    for (const auto &each : texts) {
        each ? builder.append(*each) : builder.append_nil();
    }
    return builder.finish(options);
}

bat make_text_column(std::span<const std::string_view> texts, const column_options &options,
                     const text_options &text) {
    text_builder builder(text);
    builder.append_all(texts);
    return builder.finish(options);
}

bat make_dictionary_column(std::span<const std::string_view> words,
                           std::span<const std::int32_t> codes, const column_options &options,
                           const text_options &text) {
    text_builder builder(text);
    builder.append_all(words);
    builder.append_nil();
    builder.pick_rows(codes, words);
    return builder.finish(options);
}

void text_builder::pick_rows(std::span<const std::int32_t> codes,
                             std::span<const std::string_view> words) {
    flush();
    const std::vector<std::uint32_t> offsets = std::exchange(offsets_, {});
    const std::string_view nil = nil_bytes(options_.type);
    const bool a_word_is_nil = std::ranges::find(words, nil) != words.end();
    has_nil_ = false;
    offsets_.reserve(codes.size());
    for (const std::int32_t code : codes) {
        if (code == no_word) {
            offsets_.push_back(offsets.back());
            has_nil_ = true;
            continue;
        }
        const auto word = static_cast<std::size_t>(code);
        if (word >= words.size()) { // a negative one, too
            throw kernel_error("a code has no word");
        }
        offsets_.push_back(offsets[word]);
        has_nil_ = has_nil_ || (a_word_is_nil && words[word] == nil);
    }
}

} // namespace refkernel
