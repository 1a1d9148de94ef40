// Groups of texts by content.
#ifndef REFKERNEL_ALGEBRA_TEXT_GROUPS_H
#define REFKERNEL_ALGEBRA_TEXT_GROUPS_H

#include "refkernel/columns.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace refkernel::algebra {

//! Finds the group of a text among those met before. A heap can hold a text in several places;
//! the grouping loops know a place from its offset and ask here once for each.
class text_groups {
public:
    //! The column must stay as it is while the groups are in use.
    text_groups(const BATcol &column, const BATinfo &info)
        : column_(column), first_(info.first), slots_(first_capacity) {}

    //! The group of the row's text; `next`, which it then is from now on, if the text is new.
    //! Groups are numbered from 0 in the order in which they come to be.
    std::uint32_t find(BUN row, std::uint32_t next) {
        const std::string_view text = text_at(column_, first_ + row);
        const auto tag = static_cast<std::uint32_t>(hash_text(text) >> 32);
        slot *s = &slots_[tag & (slots_.size() - 1)];
        while (s->number != 0) {
            if (s->tag == tag && text == texts_[s->number - 1])
                return s->number - 1;
            s = &slots_[static_cast<std::size_t>(s - slots_.data() + 1) & (slots_.size() - 1)];
        }
        *s = {tag, next + 1};
        texts_.push_back(text.data());
        if (2 * texts_.size() > slots_.size())
            grow();
        return next;
    }

    //! Whether two rows hold the same text.
    bool same(BUN a, BUN b) const {
        return std::strcmp(text_at(column_, first_ + a), text_at(column_, first_ + b)) == 0;
    }

private:
    static constexpr std::size_t first_capacity = 256;

    struct slot {
        std::uint32_t tag = 0;    // of the hash
        std::uint32_t number = 0; // of the group, from 1; 0: free
    };

    void grow() {
        std::vector<slot> old(slots_.size() * 4);
        old.swap(slots_);
        for (const slot &s : old) {
            if (s.number != 0) {
                std::size_t place = s.tag & (slots_.size() - 1);
                while (slots_[place].number != 0)
                    place = (place + 1) & (slots_.size() - 1);
                slots_[place] = s;
            }
        }
    }

    const BATcol &column_;
    BUN first_;
    std::vector<slot> slots_;
    std::vector<const char *> texts_; // by group
};

} // namespace refkernel::algebra

#endif
