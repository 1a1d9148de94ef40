/*
 * Making and shaping BATs inside the kernel. The contract's operations, the
 * algebra and the embedding layer stand on these: a call of the contract's own
 * name is recorded, counted and failed as a call of the operators under test,
 * so the kernel does not make any.
 */
#ifndef REFKERNEL_BATS_H
#define REFKERNEL_BATS_H

#include "refkernel/error_reports.h"
#include "refkernel/pool.h"
#include "vask/refkernel/contract.h"

#include <memory>
#include <new>

namespace refkernel {

//! An entry without a number, with columns of these types and room for
//! `capacity` rows; null for an unknown type and when memory runs out.
std::unique_ptr<bat_entry> make_entry(int head_type, int tail_type, BUN capacity);

//! A BAT with its creator's reference; null as BATnew's.
BAT *new_bat(int head_type, int tail_type, BUN capacity) noexcept;
//! Room for `capacity` rows at least; false when memory runs out.
bool extend(BAT &b, BUN capacity) noexcept;
//! The capacity to ask for when there is none left.
BUN next_capacity(const BAT &b) noexcept;
//! Sets count and the used bytes; false when the rows have no room.
bool set_count(BAT &b, BUN count) noexcept;

//! A view over columns of two BATs (or of one); holds the BATs whose memory it
//! shares. Its rows start at position 0, with the row `first` of each source.
//! Null when memory runs out.
BAT *make_view(BAT *head_source, const column &head, BAT *tail_source, const column &tail,
               BUN head_first, BUN tail_first, BUN count);

//! Records that two heads are aligned row by row. A void head takes over the seqbase of a dense
//! one.
void align_heads(column &mine, column &other) noexcept;
//! Whether row i of one BAT is known to belong to row i of the other.
bool heads_are_aligned(const BAT &a, const BAT &b) noexcept;

//! Runs what may allocate; null instead of an allocation failure, which is
//! recorded in the error buffer under the operation's name.
template <class Make>
BAT *or_null(const char *operation_name, Make make) noexcept {
    try {
        return make();
    } catch (const std::bad_alloc &) {
        record_error("%s: out of memory\n", operation_name);
        return nullptr;
    }
}

} // namespace refkernel

#endif
