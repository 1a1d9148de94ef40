// The two BATs that a serial grouping gives back.
#ifndef REFKERNEL_ALGEBRA_GROUP_RESULT_H
#define REFKERNEL_ALGEBRA_GROUP_RESULT_H

#include "refkernel/algebra/serial_rows.h"
#include "refkernel/bats.h"

#include <cstdint>
#include <memory>

namespace refkernel::algebra {

//! Map and histogram of a grouping of the rows of one BAT, from empty to handed over.
class group_result {
public:
    //! A map under the head of b: a void head again, a stored one shared or, while b can still be
    //! written, copied. Throws std::bad_alloc.
    explicit group_result(BAT &b);

    //! One place per row of b.
    oid *map() noexcept { return elements<oid>(map_->tail); }
    //! Makes the histogram and gives its rows. Called once.
    extents_rows make_extents(BUN groups);
    //! Keeps the groups for whose ids `kept(id)` is true; some of the rows are then in none.
    template <class Kept>
    void keep_groups(Kept kept) {
        oid *const heads = ids();
        wrd *const counts = elements<wrd>(histogram_->tail);
        BUN left = 0;
        for (BUN group = 0; group < groups(); ++group)
            if (kept(heads[group])) {
                heads[left] = heads[group];
                counts[left++] = counts[group];
            }
        set_groups(left);
    }

    BUN groups() const noexcept { return histogram_->info.count; }
    oid *ids() const noexcept { return elements<oid>(histogram_->head); }

    //! Sets the marks and hands both over: both numbers are stored, or none. `rows_together`: the
    //! rows of a group are known to lie next to each other.
    void hand_over(bool rows_together, std::int32_t *histogram, std::int32_t *map);

private:
    void set_groups(BUN groups) noexcept;
    void mark_histogram() noexcept;
    void mark_map(bool rows_together) noexcept;

    BAT &input_;
    std::unique_ptr<bat_entry> map_;
    std::unique_ptr<bat_entry> histogram_;
    bool every_row_has_a_group_ = true;
};

} // namespace refkernel::algebra

#endif
