#include "refkernel/hash.h"

#include "refkernel/error_reports.h"
#include "refkernel/instrumented.h"
#include "refkernel/memory.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace refkernel {
namespace {

constexpr std::uint64_t smallest_table = 16;

// Record, buckets and links in one block, so that one free gives all back.
hash_table *allocate_table(std::uint64_t buckets, std::uint64_t positions) noexcept {
    const std::size_t bytes = sizeof(hash_table) + (buckets + positions) * sizeof(BUN);
    void *block = std::malloc(bytes);
    if (block == nullptr) {
        return nullptr;
    }
    memory::advise_huge_pages(block, bytes);
    auto *made = new (block) hash_table;
    made->mask = static_cast<std::uint32_t>(buckets - 1);
    made->buckets = reinterpret_cast<BUN *>(made + 1);
    made->links = made->buckets + buckets;
    std::fill_n(made->buckets, buckets, NO_BUN);
    return made;
}

// From the last row to the first, so that a chain leads to the first of equal
// values first.
template <class HashAt>
void link_rows(hash_table &table, const BATinfo &info, HashAt hash_at) noexcept {
    for (BUN p = info.first + info.count; p-- > info.first;) {
        BUN &bucket = table.buckets[hash_at(p) & table.mask];
        table.links[p] = bucket;
        bucket = p;
    }
}

void fill_table(hash_table &table, const BATcol &c, const BATinfo &info) noexcept {
    if (is_void(c)) {
        // A void column of nils has no stored value that a walk of the chains
        // could compare, and nobody looks for a nil: its chains stay empty.
        if (c.seqbase != oid_nil) {
            link_rows(table, info, [&](BUN p) { return hash_oid(oid_at(c, info, p)); });
        }
    } else if (c.width == sizeof(std::uint32_t) && !c.varsized) {
        const auto *values = elements<std::uint32_t>(c);
        link_rows(table, info, [=](BUN p) { return hash_oid(values[p]); });
    } else {
        link_rows(table, info, [&](BUN p) {
            oid scratch = 0;
            return hash_value(c, value_at(c, info, p, scratch));
        });
    }
}

} // namespace

std::uint32_t hash_value(const BATcol &c, const void *value) noexcept {
    std::uint64_t bits = 0;
    if (c.varsized) {
        bits = hash_text(static_cast<const char *>(value));
    } else {
        std::memcpy(&bits, value, is_void(c) ? sizeof(oid) : static_cast<std::size_t>(c.width));
    }
    // The upper half of a four-byte value is 0.
    return hash_oid(static_cast<std::uint32_t>(bits) ^ static_cast<std::uint32_t>(bits >> 32));
}

BAThashtable *ensure_hash(BAT &b, BUN estimate) noexcept {
    if (BAThashtable *standing = published_hash(*b.head); standing != nullptr) {
        return standing;
    }
    const std::uint64_t rows = std::max(b.info->count, estimate == NO_BUN ? 0 : estimate);
    hash_table *made = allocate_table(std::bit_ceil(std::max(rows, smallest_table)),
                                      std::uint64_t{b.info->first} + b.info->count);
    if (made == nullptr) {
        record_error("BAThash: out of memory\n");
        return nullptr;
    }
    fill_table(*made, *b.head, *b.info);
    // Whoever sees the pointer sees the finished table. The thread that comes
    // second drops its own and goes on with the first one's.
    BAThashtable *standing = nullptr;
    if (!std::atomic_ref(b.head->hash)
             .compare_exchange_strong(standing, made, std::memory_order_acq_rel)) {
        release_hash(made);
        return standing;
    }
    return made;
}

} // namespace refkernel

using refkernel::instrumentation::enter;
using refkernel::instrumentation::operation;

BAT *BAThash(BAT *b, BUN estimate) {
    if (enter(operation::bat_hash, b, estimate)) {
        return nullptr;
    }
    return refkernel::ensure_hash(*b, estimate) == nullptr ? nullptr : b;
}
