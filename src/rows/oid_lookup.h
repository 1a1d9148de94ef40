// Where an oid stands in the head of a BAT: by arithmetic when the head is dense, else by the
// kernel's hash, which is built when it is first needed.
#pragma once

#include "kernel/column.h"
#include "rows/isa.h"
#include "vask/kernel/bat.h"

#include <bit>

namespace vask {

//! The kernel's hash of an oid, to be cut down by the mask of a table.
VASK_ALWAYS_INLINE std::uint32_t oid_hash(oid v) noexcept {
    return std::rotr(v, 7) ^ (((v >> 8) ^ v) >> 13) ^ v;
}

//! Finds oids in a BAT's head. A plain value: row loops copy it into a local, and find() calls
//! nothing. The BAT must stay as it is while lookups of it are in use.
class oid_lookup {
public:
    //! Looks at the head, and builds its hash if the head is not dense and has none. So it is made
    //! where the first oid is to be looked up and not before: the kernel sees the build. Several
    //! tasks may do this on one BAT. A build that fails ends the process through GDKfatal; should
    //! that return, nothing is ever found.
    explicit oid_lookup(BAT &b);

    //! The position of v in the head, `first` included, or NO_BUN.
    VASK_ALWAYS_INLINE BUN find(oid v) const noexcept {
        if (dense_)
            return v - head_.seqbase < count_ && v != nil_ ? v - head_.seqbase + head_.first
                                                           : NO_BUN;
        BUN p = buckets_[oid_hash(v) & mask_];
        while (p != NO_BUN && head_[p] != v)
            p = links_[p];
        return p;
    }

    //! Whether find() is arithmetic.
    bool dense() const noexcept { return dense_; }

    //! False when the hash could not be built.
    bool built() const noexcept { return dense_ || links_ != nullptr; }

private:
    oid_reader head_;
    oid nil_;
    BUN count_; // of a dense head, no more than there are oids from its seqbase on
    bool dense_;
    std::uint32_t mask_ = 0;
    const BUN *buckets_ = nullptr;
    const BUN *links_ = nullptr;
};

//! The slot of a group: the position of its id in the head of the extents, or NO_BUN for a group
//! that they do not hold. The extents are looked up themselves, or through a table made of them.
template <class Lookup>
VASK_ALWAYS_INLINE BUN vask_group_slot(const Lookup &extents, oid gid) noexcept {
    return extents.find(gid);
}

} // namespace vask
