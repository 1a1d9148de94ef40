// The comparison of a type, replaced for the length of a test case.
#pragma once

#include "vask/kernel/bat.h"

#include <cstdint>

namespace support {

class replaced_comparison {
public:
    using comparison = int (*)(const void *, const void *);

    replaced_comparison(int type, comparison replacement)
        : type_(type), original_(BATatoms[type].atom_cmp) {
        BATatoms[type].atom_cmp = replacement;
        GDKplain_nils &= ~(std::uint64_t{1} << type); // so that it is asked
    }
    replaced_comparison(const replaced_comparison &) = delete;
    replaced_comparison &operator=(const replaced_comparison &) = delete;
    ~replaced_comparison() {
        BATatoms[type_].atom_cmp = original_;
        GDKplain_nils = plain_nils_;
    }

private:
    int type_;
    comparison original_;
    std::uint64_t plain_nils_ = GDKplain_nils;
};

} // namespace support
