// The hash of a grouping key, and where it puts the key.
#ifndef REFKERNEL_ALGEBRA_KEY_HASH_H
#define REFKERNEL_ALGEBRA_KEY_HASH_H

#include <cstdint>

namespace refkernel::algebra {

//! Mixes a key so that the upper bits depend on every bit of it; tables take their places from
//! the top. One multiplication alone would leave the upper half of a key out of most of the
//! result, and that half is the old group when two columns are grouped together. Both factors are
//! odd with irregular bits, the first from the golden ratio.
inline std::uint64_t key_hash(std::uint64_t key) noexcept {
    key *= 0x9e3779b97f4a7c15;
    key ^= key >> 32;
    return key * 0xd1342543de82ef95;
}

} // namespace refkernel::algebra

#endif
