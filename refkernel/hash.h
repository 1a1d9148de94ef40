// Bucket functions of the hash that BAThash builds.
#ifndef REFKERNEL_HASH_H
#define REFKERNEL_HASH_H

#include "refkernel/columns.h"
#include "vask/refkernel/contract.h"

#include <bit>
#include <cstdint>

namespace refkernel {

//! Hash of 32-bit values, before the mask. Operators walk the chains by it, so
//! it is part of the contract.
constexpr std::uint32_t hash_oid(std::uint32_t v) noexcept {
    return std::rotr(v, 7) ^ (((v >> 8) ^ v) >> 13) ^ v;
}

//! Hash of any value of the column, in the form that value_at() gives; hash_oid
//! for four-byte types.
std::uint32_t hash_value(const BATcol &c, const void *value) noexcept;

//! The hash over the head of b; made if there is none, null when memory runs
//! out. May be called from several threads at once.
BAThashtable *ensure_hash(BAT &b, BUN estimate) noexcept;

} // namespace refkernel

#endif
