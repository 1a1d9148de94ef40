// The instruction sets that row loops are compiled for, by turns.
#pragma once

#include "rows/isa.h"

#include <cstdint>

namespace support {

//! Limits the row loops to one of the sets for the length of a test case.
struct instruction_set_of_turn {
    explicit instruction_set_of_turn(std::uint64_t turn) {
        vask::limit_instruction_set(static_cast<vask::instruction_set>(turn % 3));
    }
    instruction_set_of_turn(const instruction_set_of_turn &) = delete;
    instruction_set_of_turn &operator=(const instruction_set_of_turn &) = delete;
    ~instruction_set_of_turn() { vask::limit_instruction_set(vask::widest_instruction_set()); }
};

} // namespace support
