// The different texts of a range of rows, numbered in the order in which they come.
#pragma once

#include "table/text_key.h"

#include "rows/huge_pages.h"
#include "rows/isa.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace vask::table {

//! Texts are numbered from 1 on; 0 is none. Open addressing with linear probing. A slot is eight
//! bytes, a hash and a number, and the keys lie by number, so that 100,000 texts take 3.6 MB and
//! not the 6 to 12 MB of slots with keys. Slots are in the order of the hashes' leading bits: a
//! larger table is filled from a smaller one front to back, and two are merged the same way.
class text_dictionary {
public:
    using number = std::uint32_t;

    struct slot {
        std::uint32_t hash;
        number word; // 0: free
    };

    //! Texts that are looked up at one go.
    static constexpr unsigned block_texts = 64;

    number size() const noexcept { return size_; }
    const text_key &key(number word) const noexcept { return keys_.get()[word]; }
    std::string_view text(number word) const noexcept {
        return {texts_.get()[word], key(word).length()};
    }

    bool same(const text_key &a, std::string_view a_text, number word) const noexcept {
        return a == key(word) && (a.is_whole_text() || a_text == text(word));
    }

    //! Writes the numbers of `n` texts, at most a block, of keys with their hashes. `text_of(i)`
    //! gives the i-th text.
    template <class TextOf>
    VASK_ALWAYS_INLINE void find_or_add(const text_key *keys, const std::uint32_t *hashes,
                                        unsigned n, const TextOf &text_of, number *numbers) {
        if (slot_count_ == 0)
            grow();
        const std::size_t mask = slot_count_ - 1;
        const slot *slots = slots_.get();
        if (slot_count_ > cached_slots)
            for (unsigned i = 0; i < n; ++i)
                __builtin_prefetch(slots + slot_of(hashes[i]));
        // Words whose hashes are right, most of which are the ones.
        bool long_texts = false;
        for (unsigned i = 0; i < n; ++i) {
            std::size_t at = slot_of(hashes[i]);
            while (slots[at].word != 0 && slots[at].hash != hashes[i])
                at = (at + 1) & mask;
            numbers[i] = slots[at].word;
            __builtin_prefetch(keys_.get() + slots[at].word);
            long_texts |= !keys[i].is_whole_text();
        }
        if (long_texts)
            fetch_long_texts(keys, n, numbers);
        for (unsigned i = 0; i < n; ++i) {
            if (keys_.get()[numbers[i]] == keys[i]) [[likely]]
                if (keys[i].is_whole_text() || text_of(i) == text(numbers[i])) [[likely]]
                    continue;
            numbers[i] = find_or_add(keys[i], hashes[i], text_of(i));
        }
    }

    //! Whether the slots lie in the first-level cache. Then texts are looked up one by one: keys
    //! and hashes stay in registers, and nothing has to be fetched.
    bool is_cached() const noexcept { return slot_count_ <= cached_slots && slot_count_ != 0; }

    //! The same for texts one by one while the slots are cached. `load(i, key)` gives the i-th key
    //! or false; `hash(key)` its hash; `put(i, number)` takes the number. Gives how many were put.
    template <class Load, class Hash, class TextOf, class Put>
    VASK_ALWAYS_INLINE unsigned find_or_add_cached(unsigned n, const Load &load, const Hash &hash,
                                                   const TextOf &text_of, const Put &put) {
        const slot *slots = slots_.get();
        const text_key *keys = keys_.get();
        std::size_t mask = slot_count_ - 1;
        unsigned shift = shift_;
        recent_text *const recent = recent_texts();
        for (unsigned i = 0; i < n; ++i) {
            text_key key;
            if (!load(i, key)) [[unlikely]]
                return i;
            recent_text *const known = recent == nullptr ? nullptr : recent + recent_place(key);
            if (known != nullptr && known->key == key) {
                put(i, known->word);
                continue;
            }
            const std::uint32_t own = hash(key);
            std::size_t at = own >> shift;
            while (slots[at].word != 0 && slots[at].hash != own)
                at = (at + 1) & mask;
            number found = slots[at].word;
            if (!(keys[found] == key) || !key.is_whole_text()) [[unlikely]] {
                found = find_or_add(key, own, text_of(i));
                slots = slots_.get();
                keys = keys_.get();
                mask = slot_count_ - 1;
                shift = shift_;
            }
            // Who came first stays: two texts of one place would take turns.
            if (known != nullptr && known->word == 0 && key.is_whole_text())
                *known = {key, found};
            put(i, found);
        }
        return n;
    }

    //! Calls `body(slot)` for the texts whose hashes begin with the bits `prefix`.
    template <class Body>
    void for_each_of_prefix(std::uint32_t prefix, unsigned prefix_bits, Body body) const {
        if (slot_count_ == 0)
            return;
        const auto bound = [&](std::uint64_t p) {
            return static_cast<std::size_t>((p << 32 >> prefix_bits) >> shift_);
        };
        const slot *slots = slots_.get();
        const std::size_t last = bound(std::uint64_t{prefix} + 1);
        // Texts that found their slots taken lie behind, up to the next free slot.
        for (std::size_t i = bound(prefix), seen = 0; seen < slot_count_; ++i, ++seen) {
            const slot &s = slots[i & (slot_count_ - 1)];
            if (s.word == 0) {
                if (i >= last)
                    return;
            } else if (std::uint64_t{s.hash} << prefix_bits >> 32 == prefix) {
                body(s);
            }
        }
    }

private:
    struct free_block {
        void operator()(void *block) const noexcept { std::free(block); }
    };
    template <class T>
    using block = std::unique_ptr<T, free_block>;

    static constexpr std::size_t first_slots = 512;
    // Slots that lie in the first-level cache need no prefetch.
    static constexpr std::size_t cached_slots = 4096;
    // A small table grows by four, a large one by two.
    static constexpr std::size_t small_table = std::size_t{1} << 16;
    static constexpr std::size_t most_slots = std::size_t{1} << 32;
    // In the key of the number 0, which is no text's key.
    static constexpr std::uint64_t no_length = 0x80;
    //! Texts of which a table of `slots` slots is full.
    static constexpr std::size_t room(std::size_t slots) noexcept { return slots / 8 * 5; }

    //! Of few texts most are found at one look, by a cheaper hash, where an early text of that hash
    //! is: ten words of five bytes take 2.6 CPU ns a row, and 3.9 without.
    struct recent_text {
        text_key key;
        number word; // 0: none
    };
    static constexpr unsigned recent_bits = 12;
    static constexpr number most_recent_texts = 256;

    VASK_ALWAYS_INLINE static std::size_t recent_place(text_key key) noexcept {
        constexpr std::uint64_t odd = 0x9e3779b97f4a7c15;
        return (key.low ^ std::rotl(key.high, 24)) * odd >> (64 - recent_bits);
    }

    //! Null where texts are many.
    recent_text *recent_texts() {
        if (size_ > most_recent_texts)
            return nullptr;
        if (recent_ == nullptr) {
            constexpr std::size_t places = std::size_t{1} << recent_bits;
            recent_ = std::make_unique<recent_text[]>(places);
            std::fill_n(recent_.get(), places, recent_text{{0, no_length << 56}, 0});
        }
        return recent_.get();
    }

    VASK_ALWAYS_INLINE std::size_t slot_of(std::uint32_t hash) const noexcept {
        return hash >> shift_;
    }

    //! Asks for the texts that have to be compared: 100,000 words of 20 bytes take 38 CPU ns a row,
    //! and 59 without.
    VASK_ALWAYS_INLINE void fetch_long_texts(const text_key *keys, unsigned n,
                                             const number *numbers) const noexcept {
        for (unsigned i = 0; i < n; ++i)
            __builtin_prefetch(texts_.get() + numbers[i]);
        for (unsigned i = 0; i < n; ++i)
            if (!keys[i].is_whole_text() && keys[i] == keys_.get()[numbers[i]])
                __builtin_prefetch(texts_.get()[numbers[i]]);
    }

    __attribute__((noinline)) number find_or_add(const text_key &key, std::uint32_t hash,
                                                 std::string_view text) {
        if (size_ == room(slot_count_))
            grow();
        const std::size_t mask = slot_count_ - 1;
        slot *slots = slots_.get();
        std::size_t at = slot_of(hash);
        for (; slots[at].word != 0; at = (at + 1) & mask)
            if (slots[at].hash == hash && same(key, text, slots[at].word))
                return slots[at].word;
        slots[at] = {hash, ++size_};
        keys_.get()[size_] = key;
        texts_.get()[size_] = text.data();
        return size_;
    }

    template <class T>
    static void reallocate(block<T> &array, std::size_t n) {
        void *moved_to = std::realloc(static_cast<void *>(array.get()), n * sizeof(T));
        if (moved_to == nullptr)
            throw std::bad_alloc();
        static_cast<void>(array.release());
        array.reset(static_cast<T *>(moved_to));
        advise_huge_pages(moved_to, n * sizeof(T));
    }

    __attribute__((noinline)) void grow() {
        const std::size_t n = slot_count_ == 0            ? first_slots
                              : slot_count_ < small_table ? slot_count_ * 4
                                                          : slot_count_ * 2;
        if (n > most_slots)
            throw std::bad_alloc();
        // Pages are given when they are first touched.
        reallocate(keys_, room(n) + 1);
        reallocate(texts_, room(n) + 1);
        keys_.get()[0] = {0, no_length << 56};
        block<slot> grown(static_cast<slot *>(std::calloc(n, sizeof(slot))));
        if (grown == nullptr)
            throw std::bad_alloc();
        advise_huge_pages(grown.get(), n * sizeof(slot));
        const unsigned shift = 32 - static_cast<unsigned>(std::bit_width(n - 1));
        for (std::size_t i = 0; i < slot_count_; ++i) {
            const slot s = slots_.get()[i];
            if (s.word == 0)
                continue;
            std::size_t at = s.hash >> shift;
            while (grown.get()[at].word != 0)
                at = (at + 1) & (n - 1);
            grown.get()[at] = s;
        }
        slots_ = std::move(grown);
        slot_count_ = n;
        shift_ = shift;
    }

    number size_ = 0;
    unsigned shift_ = 32;
    std::size_t slot_count_ = 0;
    block<slot> slots_;
    block<text_key> keys_;      // by number, from 1 on
    block<const char *> texts_; // where they were met first
    std::unique_ptr<recent_text[]> recent_;
};

} // namespace vask::table
