#include "refkernel/algebra/row_copies.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <new>

namespace refkernel::algebra {
namespace {

template <class T>
void gather(const column &to, const column &from, std::span<const BUN> positions) {
    const T *const source = elements<T>(from);
    T *const target = elements<T>(to);
    for (std::size_t i = 0; i < positions.size(); ++i)
        target[i] = source[positions[i]];
}

void gather_elements(const column &to, const column &from, const BATinfo &from_info,
                     std::span<const BUN> positions) {
    if (is_void(from)) {
        oid *const target = elements<oid>(to);
        std::ranges::transform(positions, target,
                               [&](BUN p) { return oid_at(from, from_info, p); });
        return;
    }
    switch (from.width) {
        case 1:
            return gather<std::uint8_t>(to, from, positions);
        case 2:
            return gather<std::uint16_t>(to, from, positions);
        case 4:
            return gather<std::uint32_t>(to, from, positions);
        case 8:
            return gather<std::uint64_t>(to, from, positions);
        default:
            for (BUN i = 0; i < positions.size(); ++i) {
                std::memcpy(element_place(to, i), element_place(from, positions[i]),
                            static_cast<std::size_t>(from.width));
            }
    }
}

void set_marks(column &to, const column &from, const BATinfo &from_info,
               std::span<const BUN> positions) {
    const bool ascending = std::ranges::is_sorted(positions);
    const bool each_once =
        std::ranges::adjacent_find(positions, std::greater_equal{}) == positions.end();
    const bool was_ascending = is_void(from) || (from.sorted & ascending_bit) != 0;
    const bool consecutive = each_once && !positions.empty() &&
                             positions.back() - positions.front() + 1 == positions.size();
    to.sorted = was_ascending && ascending ? SORTED_ASCENDING : 0;
    to.key = each_once && from.key != 0 ? key_unique : 0;
    to.nonil = from.nonil;
    // Whether the rows with nils are among those chosen is not known, unless all rows hold nil.
    to.nil = is_void(from) && from.seqbase == oid_nil && !positions.empty();
    if (is_dense(from) && from.seqbase != oid_nil && consecutive) {
        to.dense = 1;
        to.seqbase = oid_at(from, from_info, positions.front());
    }
}

} // namespace

void copy_rows(column &to, const column &from, const BATinfo &from_info,
               std::span<const BUN> positions) {
    const auto count = static_cast<BUN>(positions.size());
    to.type = is_void(from) ? std::int8_t{TYPE_oid} : from.type;
    to.width = is_void(from) ? std::int16_t{sizeof(oid)} : from.width;
    to.shift = is_void(from) ? std::uint8_t{2} : from.shift;
    to.varsized = from.varsized;
    if (from.varsized)
        to.share_heap(from);
    auto memory = memory::allocate_block(std::size_t{count} << to.shift);
    if (memory == nullptr)
        throw std::bad_alloc();
    to.adopt_memory(std::move(memory));
    to.free = std::uint64_t{count} << to.shift;
    gather_elements(to, from, from_info, positions);
    set_marks(to, from, from_info, positions);
}

} // namespace refkernel::algebra
