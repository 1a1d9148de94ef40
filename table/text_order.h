// Texts in the order of their bytes.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace vask::table {

//! The places of different texts in ascending order of the texts.
std::vector<std::int32_t> order_of_texts(std::span<const std::string_view> texts);

} // namespace vask::table
