// Control of the random samples that BATsample takes.
#ifndef VASK_REFKERNEL_SAMPLE_H
#define VASK_REFKERNEL_SAMPLE_H

#include "vask/refkernel/contract.h"

#include <cstdint>

namespace refkernel {

//! From now on a sample depends on nothing but the seed, the rows of the column and the rows asked
//! for: every thread and every repetition takes the same one. May be called from any thread.
REFKERNEL_API void fix_sample_seed(std::uint64_t seed);

//! Back to samples that differ from call to call, as they do at first.
REFKERNEL_API void randomise_samples();

} // namespace refkernel

#endif
