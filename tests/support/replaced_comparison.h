// The comparison of a type, replaced for the length of a test case.
#pragma once

#include "vask/kernel/bat.h"

namespace support {

class replaced_comparison {
public:
    using comparison = int (*)(const void *, const void *);

    replaced_comparison(int type, comparison replacement)
        : type_(type), original_(BATatoms[type].atom_cmp) {
        BATatoms[type].atom_cmp = replacement;
    }
    replaced_comparison(const replaced_comparison &) = delete;
    replaced_comparison &operator=(const replaced_comparison &) = delete;
    ~replaced_comparison() { BATatoms[type_].atom_cmp = original_; }

private:
    int type_;
    comparison original_;
};

} // namespace support
