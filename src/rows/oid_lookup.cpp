#include "rows/oid_lookup.h"

#include "kernel/frame.h"

#include <algorithm>

namespace vask {

namespace {

//! The hash of b's head, built if there is none; null when it cannot be.
const BAThashtable *head_hash(BAT &b) {
    // Another task may be building it.
    if (published(b.head->hash) == nullptr && BAThash(&b, 0) == nullptr) {
        GDKfatal("HASHfnd_oid: hash build failed on %s.\n", vask_bat_name(b.bat_id));
        return nullptr;
    }
    return published(b.head->hash);
}

constexpr BUN empty_bucket = NO_BUN;

//! How many oids there are from one on: a head that counts on behind the last holds none of those
//! that it would begin anew with.
std::uint64_t oids_from(oid v) noexcept {
    return (std::uint64_t{1} << 32) - v;
}

} // namespace

oid_lookup::oid_lookup(BAT &b)
    : head_(*b.head, b),
      nil_(oid_nil),
      count_(static_cast<BUN>(std::min<std::uint64_t>(b.info->count, oids_from(head_.seqbase)))),
      dense_(is_dense(*b.head) && b.head->seqbase != oid_nil) {
    if (dense_)
        return;
    if (const BAThashtable *hash = head_hash(b)) {
        mask_ = hash->mask;
        buckets_ = hash->buckets;
        links_ = hash->links;
    } else {
        buckets_ = &empty_bucket;
    }
}

} // namespace vask
