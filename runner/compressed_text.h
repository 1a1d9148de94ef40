// Files compressed by gzip, zstd, bzip2 and xz.
#pragma once

#include "growing_text.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vask::runner {

enum class compression : std::uint8_t { gzip, zstd, bzip2, xz };

//! By the bytes with which a file begins; nothing for any other file.
std::optional<compression> compression_of(std::string_view bytes);

//! A file's name without the ending that tells its compression.
std::string_view without_compression(std::string_view name);

//! Appends what was compressed, of all members or frames if there are several. `name` is that of
//! the file. Throws user_error for a damaged file and one that is cut short.
void decompress(compression kind, std::string_view bytes, const std::string &name,
                growing_text &to);

} // namespace vask::runner
