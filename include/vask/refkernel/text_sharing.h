// Whether rows of the same text share one element of the heap.
#ifndef VASK_REFKERNEL_TEXT_SHARING_H
#define VASK_REFKERNEL_TEXT_SHARING_H

#include "vask/refkernel/contract.h"

#include <cstdint>

namespace refkernel {

//! How a heap keeps equal texts.
enum class text_sharing : std::uint8_t {
    once, // one element for all rows of the same text
    anew  // an element of its own for each row
};

} // namespace refkernel

#endif
