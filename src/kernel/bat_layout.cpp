// The records of the contract are binary interface: their layout is checked when the library is
// built. Bit fields have no offset; they fill the byte or word between their neighbours.
#include "vask/kernel/bat.h"

#include <cstddef>

namespace {

static_assert(offsetof(BAT, bat_id) == 0 && offsetof(BAT, head) == 8 && offsetof(BAT, tail) == 16 &&
              offsetof(BAT, state) == 24 && offsetof(BAT, info) == 32 && sizeof(BAT) == 40);

static_assert(offsetof(BATcol, width) == 0 && offsetof(BATcol, type) == 2 &&
              offsetof(BATcol, shift) == 3 && offsetof(BATcol, sorted) == 4 &&
              offsetof(BATcol, seqbase) == 8 && offsetof(BATcol, free) == 16 &&
              offsetof(BATcol, base) == 24 && offsetof(BATcol, vheap) == 32 &&
              offsetof(BATcol, hash) == 40 && sizeof(BATcol) == 48);

static_assert(offsetof(BATinfo, first) == 0 && offsetof(BATinfo, count) == 4 &&
              offsetof(BATinfo, capacity) == 8 && sizeof(BATinfo) == 12);

static_assert(sizeof(BATstate) == 4);

static_assert(offsetof(BATvheap, vbase) == 0 && sizeof(BATvheap) == 8);

static_assert(offsetof(BAThashtable, mask) == 0 && offsetof(BAThashtable, buckets) == 8 &&
              offsetof(BAThashtable, links) == 16 && sizeof(BAThashtable) == 24);

static_assert(offsetof(BBPrec, desc) == 0 && offsetof(BBPrec, desc_mirror) == 8 &&
              offsetof(BBPrec, logical_name) == 16 && offsetof(BBPrec, mirror_name) == 24 &&
              sizeof(BBPrec) == 32);

static_assert(offsetof(BATatom, atom_storage) == 0 && offsetof(BATatom, atom_size) == 4 &&
              offsetof(BATatom, atom_null) == 8 && offsetof(BATatom, atom_cmp) == 16 &&
              offsetof(BATatom, atom_fix) == 24 && offsetof(BATatom, atom_put) == 32 &&
              sizeof(BATatom) == 40);

static_assert(offsetof(ValRecord, val) == 0 && offsetof(ValRecord, len) == 8 &&
              offsetof(ValRecord, vtype) == 12 && sizeof(ValRecord) == 16);

} // namespace
