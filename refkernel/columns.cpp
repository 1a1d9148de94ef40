#include "refkernel/columns.h"

#include "refkernel/instrumented.h"
#include "vask/refkernel/atoms.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace refkernel {

void release_hash(BAThashtable *table) noexcept {
    auto *shared = static_cast<hash_table *>(table);
    if (shared != nullptr && shared->holders.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        shared->~hash_table();
        std::free(shared);
    }
}

void column::drop_hash() noexcept {
    release_hash(std::exchange(hash, nullptr));
}

void column::share(const column &source, BUN first, bool same_rows) noexcept {
    drop_hash();
    // Not the hash, which another thread may be publishing.
    std::memcpy(static_cast<BATcol *>(this), static_cast<const BATcol *>(&source),
                offsetof(BATcol, hash));
    set_alignment(same_rows ? source.alignment_number() : 0);
    if (is_void(*this)) {
        return;
    }
    memory = source.memory;
    memory->mark_shared();
    if (source.heap != nullptr) {
        share_heap(source);
    }
    const std::size_t skipped = std::size_t{first} << shift;
    base = static_cast<char *>(source.base) + skipped;
    free = source.free - std::min<std::uint64_t>(source.free, skipped);
    // The chains hold the positions of the source's rows, all of them.
    BAThashtable *table = published_hash(source);
    if (table != nullptr && first == 0 && same_rows) {
        hash = table;
        static_cast<hash_table *>(table)->holders.fetch_add(1, std::memory_order_relaxed);
    }
}

void column::share_heap(const column &source) noexcept {
    source.heap->mark_shared();
    adopt_heap(source.heap);
}

void column::adopt_memory(std::shared_ptr<memory::block> taken) noexcept {
    memory = std::move(taken);
    base = memory->base;
}

void column::adopt_heap(std::shared_ptr<text_heap> taken) noexcept {
    heap = std::move(taken);
    vheap = heap.get();
}

void set_void_marks(BATcol &c) noexcept {
    const bool nils = c.seqbase == oid_nil;
    c.sorted = SORTED_ASCENDING;
    c.dense = !nils;
    c.key = nils ? 0 : key_unique;
    c.nonil = !nils;
    c.nil = nils;
}

void make_void(column &c, oid seqbase) noexcept {
    c.type = TYPE_void;
    c.width = 0;
    c.shift = 0;
    c.seqbase = seqbase;
    set_void_marks(c);
}

bool make_column_memory(column &c, int type, BUN capacity) noexcept {
    if (type == TYPE_void) {
        make_void(c, 0);
        return true;
    }
    c.type = static_cast<std::int8_t>(type);
    c.seqbase = 0;
    if (is_varsized(type)) {
        c.varsized = 1;
        c.width = 1;
        try {
            c.adopt_heap(std::make_shared<text_heap>(text_sharing::once));
        } catch (const std::bad_alloc &) {
            return false;
        }
    } else {
        c.width = BATatoms[type].atom_size;
    }
    c.shift = static_cast<std::uint8_t>(std::countr_zero(static_cast<unsigned>(c.width)));
    auto memory = memory::allocate_block(std::size_t{capacity} << c.shift);
    if (memory == nullptr) {
        return false;
    }
    c.adopt_memory(std::move(memory));
    return true;
}

bool grow_column(column &c, BUN capacity) noexcept {
    const std::size_t bytes = std::size_t{capacity} << c.shift;
    if (is_void(c)) {
        return true;
    }
    const auto skipped =
        static_cast<std::size_t>(static_cast<char *>(c.base) - static_cast<char *>(c.memory->base));
    if (!c.memory->was_shared()) {
        if (bytes <= c.memory->bytes - skipped) {
            return true;
        }
        if (skipped == 0 && c.memory->grow(bytes)) {
            c.base = c.memory->base;
            return true;
        }
    }
    auto grown = memory::allocate_block(bytes);
    if (grown == nullptr) {
        return false;
    }
    if (const std::size_t used = std::min<std::size_t>(c.free, bytes); used > 0) {
        std::memcpy(grown->base, c.base, used);
    }
    c.adopt_memory(std::move(grown));
    return true;
}

bool materialize_column(column &c, const BATinfo &info) noexcept {
    const BATcol before = c;
    if (is_void(c)) {
        column stored;
        if (!make_column_memory(stored, TYPE_oid,
                                std::max(info.capacity, info.first + info.count))) {
            return false;
        }
        for (BUN p = info.first; p < info.first + info.count; ++p) {
            elements<oid>(stored)[p] = oid_at(c, info, p);
        }
        stored.free = std::uint64_t{info.first + info.count} << stored.shift;
        stored.seqbase = c.seqbase;
        c.drop_hash();
        static_cast<BATcol &>(c) = stored;
        c.adopt_memory(std::move(stored.memory));
    }
    if (instrumentation::keeps_marks_on_materialize()) {
        c.sorted = before.sorted;
        c.dense = before.dense;
        c.key = before.key;
        c.nonil = before.nonil;
        c.nil = before.nil;
        return true;
    }
    // Whoever asks for stored values is about to write them, and the kernel
    // will not see what: neither marks nor alignment can be kept.
    c.sorted = 0;
    c.dense = 0;
    c.key = 0;
    c.nonil = 0;
    c.nil = 0;
    c.set_alignment(0);
    return true;
}

text_heap *own_heap(column &c) noexcept {
    if (c.heap->was_shared()) {
        auto cloned = c.heap->clone();
        if (cloned == nullptr) {
            return nullptr;
        }
        c.adopt_heap(std::move(cloned));
    }
    return c.heap.get();
}

} // namespace refkernel
