// Grouping and refinement as one would write them down, and a look at whether marks tell the truth.
#pragma once

#include "grouping/plain_groups.h"
#include "vask/embed.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace refkernel::reference {

//! The oid or the bytes of a value in a head or tail; a text without its end.
inline std::string value_bytes(const BATcol &c, const BATinfo &info, BUN row) {
    const BUN position = info.first + row;
    if (c.type == TYPE_void) {
        const oid value = c.seqbase == oid_nil ? oid_nil : c.seqbase + row;
        return {reinterpret_cast<const char *>(&value), sizeof value};
    }
    const char *element = static_cast<const char *>(c.base) + (std::size_t{position} << c.shift);
    if (!c.varsized)
        return {element, static_cast<std::size_t>(c.width)};
    std::uint32_t offset = 0;
    for (int byte = 0; byte < c.width; ++byte)
        offset |= std::uint32_t{static_cast<unsigned char>(element[byte])} << (8 * byte);
    return c.vheap->vbase + 8 * std::size_t{offset + (c.width < 4 ? 256U : 0U)};
}

//! Groups rows by the pair of their old group and their value. Rows with the nil as old group are
//! in no group.
inline support::plain_groups group(const bat &b, const std::vector<oid> &old_groups) {
    std::vector<std::pair<oid, std::string>> keys;
    std::vector<oid> heads;
    for (BUN row = 0; row < b.count(); ++row)
        if (old_groups[row] != oid_nil) {
            keys.emplace_back(old_groups[row], value_bytes(*b->tail, *b->info, row));
            heads.push_back(b.head_oid(row));
        }
    support::plain_groups made = support::group_rows(keys, heads);
    std::vector<oid> map;
    for (auto next = made.map.begin(); const oid old : old_groups)
        map.push_back(old == oid_nil ? oid_nil : *next++);
    made.map = std::move(map);
    return made;
}

inline support::plain_groups group(const bat &b) {
    return group(b, std::vector<oid>(b.count(), 0));
}

//! The result of an operator.
inline support::plain_groups read(const bat &histogram, const bat &map) {
    support::plain_groups found;
    for (BUN row = 0; row < map.count(); ++row)
        found.map.push_back(map.tail_oid(row));
    for (BUN row = 0; row < histogram.count(); ++row)
        found.extents.emplace_back(histogram.head_oid(row), histogram.values<wrd>()[row]);
    return found;
}

//! The first mark of a column that does not hold, or nothing.
inline std::string false_mark(const BATcol &c, const BATinfo &info) {
    const BATatom &atom = BATatoms[c.type];
    bool ascending = true;
    bool nil = false;
    bool dense = true;
    std::unordered_map<std::string, int> values;
    std::string last;
    for (BUN row = 0; row < info.count; ++row) {
        const std::string value = value_bytes(c, info, row);
        nil = nil || atom.atom_cmp(atom.atom_null, value.data()) == 0;
        ascending = ascending && (row == 0 || atom.atom_cmp(last.data(), value.data()) <= 0);
        const oid consecutive = c.seqbase + row;
        dense = dense &&
                value.compare(0, sizeof consecutive, reinterpret_cast<const char *>(&consecutive),
                              sizeof consecutive) == 0;
        if (c.key != 0)
            ++values[value];
        last = value;
    }
    if ((c.sorted & 1) != 0 && !ascending)
        return "sorted";
    if (c.key != 0 && values.size() != info.count)
        return "key";
    if (c.dense && !dense)
        return "dense";
    if (c.nil && !nil && info.count > 0)
        return "nil";
    return c.nonil && nil ? "nonil" : "";
}

inline std::string false_mark(const bat &b) {
    const std::string head = false_mark(*b->head, *b->info);
    return head.empty() ? false_mark(*b->tail, *b->info) : head + " of the head";
}

} // namespace refkernel::reference
