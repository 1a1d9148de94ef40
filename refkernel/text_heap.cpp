#include "refkernel/text_heap.h"

#include "refkernel/memory.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

namespace refkernel {
namespace {

constexpr std::size_t initial_units = 512;
constexpr std::size_t initial_slots = 256;
// The table grows before more than 5/8 of its slots are taken: linear probing
// then looks at two slots on average.
constexpr std::size_t load_numerator = 5;
constexpr std::size_t load_denominator = 8;
// Texts of a batch whose misses overlap; a core keeps about this many in flight.
constexpr std::size_t batch_texts = 16;

__extension__ using uint128 = unsigned __int128;

// High and low half of a full product, folded: each input bit reaches every
// output bit, at the price of one multiplication per 8 bytes.
std::uint64_t fold_product(std::uint64_t a, std::uint64_t b) noexcept {
    const uint128 product = uint128{a} * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

template <class Word>
std::uint64_t load(const char *from) noexcept {
    Word word;
    std::memcpy(&word, from, sizeof word);
    return word;
}

std::size_t units_of(std::size_t length) noexcept {
    return length / heap_unit + 1;
}

bool has_room(std::size_t entries, std::size_t slots) noexcept {
    return entries * load_denominator <= slots * load_numerator;
}

template <class Slot>
void insert(Slot *table, std::size_t slots, Slot entry) noexcept {
    std::size_t at = entry.tag & (slots - 1);
    while (table[at].offset != 0) {
        at = (at + 1) & (slots - 1);
    }
    table[at] = entry;
}

std::string_view until_zero_byte(std::string_view text) noexcept {
    const void *zero = text.empty() ? nullptr : std::memchr(text.data(), 0, text.size());
    return zero == nullptr ? text
                           : text.substr(0, static_cast<std::size_t>(
                                                static_cast<const char *>(zero) - text.data()));
}

} // namespace

std::uint64_t hash_text(std::string_view text) noexcept {
    constexpr std::uint64_t odd1 = 0x9e3779b97f4a7c15; // 2^64 / golden ratio
    constexpr std::uint64_t odd2 = 0xd6e8feb86659fd93;
    const char *at = text.data();
    std::size_t left = text.size();
    std::uint64_t hash = fold_product(left ^ odd1, odd2);
    for (; left > heap_unit; left -= heap_unit, at += heap_unit) {
        hash = fold_product(load<std::uint64_t>(at) ^ hash, odd2);
    }
    // The last 1 to 8 bytes, without a read beyond them: two overlapping words.
    std::uint64_t last = 0;
    if (left == heap_unit) {
        last = load<std::uint64_t>(at);
    } else if (left >= 4) {
        last = load<std::uint32_t>(at) << 32 | load<std::uint32_t>(at + left - 4);
    } else if (left > 0) {
        last = load<std::uint8_t>(at) << 16 | load<std::uint8_t>(at + left / 2) << 8 |
               load<std::uint8_t>(at + left - 1);
    }
    return fold_product(last ^ hash, odd1);
}

void text_heap::free_memory::operator()(slot *held) const noexcept {
    std::free(held);
}

text_heap::~text_heap() {
    std::free(vbase);
}

void text_heap::drop_index() noexcept {
    index_.reset();
    slots_ = 0;
    indexed_ = 0;
}

void text_heap::set_sharing(text_sharing sharing) noexcept {
    if (sharing != sharing_) {
        drop_index();
        sharing_ = sharing;
    }
}

bool text_heap::reserve(std::size_t units) noexcept {
    if (vbase != nullptr && units <= capacity_ - used_) {
        return true;
    }
    const std::size_t needed = std::max<std::size_t>(used_, offset_bias) + units;
    // The last unit must have a number that fits an offset.
    if (units > std::numeric_limits<std::uint32_t>::max() ||
        needed > std::numeric_limits<std::uint32_t>::max()) {
        return false;
    }
    const std::size_t capacity = std::max({needed, capacity_ + capacity_ / 2, initial_units});
    char *grown = static_cast<char *>(std::realloc(vbase, capacity * heap_unit));
    if (grown == nullptr) {
        return false;
    }
    memory::advise_huge_pages(grown, capacity * heap_unit);
    if (vbase == nullptr) {
        std::memset(grown, 0, offset_bias * heap_unit);
        used_ = offset_bias;
    }
    vbase = grown;
    capacity_ = capacity;
    return true;
}

// A first entry for each text of the heap; false when the table is too small.
bool text_heap::index_texts(slot *table, std::size_t slots) noexcept {
    std::size_t entered = 0;
    for (std::size_t unit = offset_bias; unit < used_;) {
        if (!has_room(entered + 1, slots)) {
            return false;
        }
        const std::string_view text(vbase + unit * heap_unit);
        insert(table, slots,
               slot{static_cast<std::uint32_t>(hash_text(text) >> 32),
                    static_cast<std::uint32_t>(unit)});
        ++entered;
        unit += units_of(text.size());
    }
    indexed_ = entered;
    return true;
}

bool text_heap::grow_index(std::size_t slots) noexcept {
    const std::size_t bytes = slots * sizeof(slot);
    std::unique_ptr<slot[], free_memory> grown(
        static_cast<slot *>(std::calloc(slots, sizeof(slot))));
    if (grown == nullptr) {
        return false;
    }
    memory::advise_huge_pages(grown.get(), bytes);
    if (index_ == nullptr) {
        if (!index_texts(grown.get(), slots)) {
            return grow_index(slots * 2);
        }
    } else {
        // In slot order: both halves of the new table are then filled in order too.
        for (std::size_t i = 0; i < slots_; ++i) {
            if (index_[i].offset != 0) {
                insert(grown.get(), slots, index_[i]);
            }
        }
    }
    index_ = std::move(grown);
    slots_ = slots;
    return true;
}

// Room for a batch more.
bool text_heap::index_is_ready() noexcept {
    return has_room(indexed_ + batch_texts, slots_) ||
           grow_index(std::max(initial_slots, slots_ * 2));
}

std::uint32_t text_heap::store(std::string_view text) noexcept {
    const std::size_t units = units_of(text.size());
    if (!reserve(units)) [[unlikely]] {
        return 0;
    }
    char *place = vbase + used_ * heap_unit;
    // The zero byte and the padding, before the text covers the rest.
    std::memset(place + (units - 1) * heap_unit, 0, heap_unit);
    if (!text.empty()) {
        std::memcpy(place, text.data(), text.size());
    }
    const auto offset = static_cast<std::uint32_t>(used_);
    used_ += units;
    return offset;
}

bool text_heap::holds_at(std::uint32_t offset, std::string_view text) const noexcept {
    // An element too near the end of the heap is a shorter text.
    if (units_of(text.size()) > used_ - offset) {
        return false;
    }
    const char *element = vbase + std::size_t{offset} * heap_unit;
    return element[text.size()] == 0 &&
           (text.empty() || std::memcmp(element, text.data(), text.size()) == 0);
}

std::uint32_t text_heap::find_or_store(std::string_view text, std::uint32_t tag) noexcept {
    const std::size_t mask = slots_ - 1;
    std::size_t at = tag & mask;
    for (; index_[at].offset != 0; at = (at + 1) & mask) {
        if (index_[at].tag == tag && holds_at(index_[at].offset, text)) {
            return index_[at].offset;
        }
    }
    const std::uint32_t offset = store(text);
    if (offset != 0) {
        index_[at] = {tag, offset};
        ++indexed_;
    }
    return offset;
}

std::uint32_t text_heap::put(std::string_view text) noexcept {
    text = until_zero_byte(text);
    if (sharing_ == text_sharing::anew) {
        holds_each_once_ = false;
        return store(text);
    }
    if (!index_is_ready()) [[unlikely]] {
        return 0;
    }
    return find_or_store(text, static_cast<std::uint32_t>(hash_text(text) >> 32));
}

bool text_heap::put_all(const std::string_view *texts, std::size_t count,
                        std::uint32_t *offsets) noexcept {
    if (sharing_ == text_sharing::anew) {
        holds_each_once_ = false;
        return std::all_of(texts, texts + count, [&](std::string_view text) {
            return (*offsets++ = store(until_zero_byte(text))) != 0;
        });
    }
    std::array<std::string_view, batch_texts> batch;
    std::array<std::uint32_t, batch_texts> tags;
    for (std::size_t done = 0; done < count;) {
        const std::size_t n = std::min(batch_texts, count - done);
        if (!index_is_ready()) [[unlikely]] {
            return false;
        }
        const std::size_t mask = slots_ - 1;
        for (std::size_t i = 0; i < n; ++i) {
            batch[i] = until_zero_byte(texts[done + i]);
            tags[i] = static_cast<std::uint32_t>(hash_text(batch[i]) >> 32);
            __builtin_prefetch(&index_[tags[i] & mask]);
        }
        for (std::size_t i = 0; i < n; ++i) {
            const slot &first = index_[tags[i] & mask];
            if (first.tag == tags[i]) {
                __builtin_prefetch(vbase + std::size_t{first.offset} * heap_unit);
            }
        }
        for (std::size_t i = 0; i < n; ++i, ++done) {
            offsets[done] = find_or_store(batch[i], tags[i]);
            if (offsets[done] == 0) [[unlikely]] {
                return false;
            }
        }
    }
    return true;
}

std::shared_ptr<text_heap> text_heap::clone() const noexcept {
    try {
        auto copy = std::make_shared<text_heap>(sharing_);
        copy->holds_each_once_ = holds_each_once_;
        if (vbase != nullptr) {
            if (!copy->reserve(used_ - offset_bias)) {
                return nullptr;
            }
            std::memcpy(copy->vbase, vbase, used_ * heap_unit);
            copy->used_ = used_;
        }
        return copy;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

} // namespace refkernel
