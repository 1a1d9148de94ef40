// Where an oid stands in the head of a BAT.
#ifndef REFKERNEL_ALGEBRA_HEAD_LOOKUP_H
#define REFKERNEL_ALGEBRA_HEAD_LOOKUP_H

#include "refkernel/columns.h"
#include "refkernel/hash.h"
#include "vask/refkernel/contract.h"

#include <algorithm>
#include <bit>
#include <new>

namespace refkernel::algebra {

//! Finds rows by their head: by arithmetic in a dense head, by bisection when the head is
//! ascending and only few rows are to be found, else by the kernel's hash. The nil is in no head.
//! The BAT must stay as it is while lookups of it are in use.
class head_lookup {
public:
    //! Throws std::bad_alloc when a hash is needed and cannot be built.
    head_lookup(BAT &b, BUN expected_lookups)
        : head_(*b.head), info_(*b.info), first_(info_.first), count_(info_.count) {
        if (is_dense(head_)) {
            way_ = head_.seqbase == oid_nil ? way::nowhere : way::arithmetic;
        } else if ((head_.sorted & ascending_bit) != 0 && published_hash(head_) == nullptr &&
                   expected_lookups < count_ / steps_of_bisection) {
            way_ = way::bisection;
        } else {
            way_ = way::hash;
            hash_ = ensure_hash(b, 0);
            if (hash_ == nullptr)
                throw std::bad_alloc();
        }
    }

    //! The first position of v, or NO_BUN.
    BUN find(oid v) const noexcept {
        if (v == oid_nil)
            return NO_BUN;
        switch (way_) {
            case way::arithmetic:
                return v - head_.seqbase < count_ ? first_ + (v - head_.seqbase) : NO_BUN;
            case way::bisection:
                return bisect(v);
            case way::hash:
                return walk(hash_->buckets[hash_oid(v) & hash_->mask], v);
            default:
                return NO_BUN;
        }
    }

    //! The next position after one found that holds the same value, or NO_BUN.
    BUN find_next(BUN position, oid v) const noexcept {
        if (way_ == way::hash)
            return walk(hash_->links[position], v);
        const BUN next = position + 1;
        return way_ == way::bisection && next < first_ + count_ && elements<oid>(head_)[next] == v
                   ? next
                   : NO_BUN;
    }

private:
    enum class way { nowhere, arithmetic, bisection, hash };

    // Building the hash costs about as much per row as one step of a bisection in memory.
    static constexpr BUN steps_of_bisection = 32;

    BUN walk(BUN position, oid v) const noexcept {
        while (position != NO_BUN && oid_at(head_, info_, position) != v)
            position = hash_->links[position];
        return position;
    }

    BUN bisect(oid v) const noexcept {
        // The order of oids is that of their bits as int.
        const auto *begin = elements<std::int32_t>(head_) + first_;
        const auto wanted = static_cast<std::int32_t>(v);
        const auto *found = std::lower_bound(begin, begin + count_, wanted);
        return found != begin + count_ && *found == wanted
                   ? first_ + static_cast<BUN>(found - begin)
                   : NO_BUN;
    }

    const BATcol &head_;
    const BATinfo &info_;
    BUN first_;
    BUN count_;
    way way_ = way::nowhere;
    const BAThashtable *hash_ = nullptr;
};

} // namespace refkernel::algebra

#endif
