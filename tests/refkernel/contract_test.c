/* The contract as a C compiler sees it: it compiles as C11 and lies in memory as promised. */
#include "vask/kernel/bat.h"

#include <stddef.h>

_Static_assert(offsetof(BAT, bat_id) == 0 && offsetof(BAT, head) == 8 &&
                   offsetof(BAT, tail) == 16 && offsetof(BAT, state) == 24 &&
                   offsetof(BAT, info) == 32,
               "BAT");
_Static_assert(offsetof(BATcol, width) == 0 && offsetof(BATcol, type) == 2 &&
                   offsetof(BATcol, shift) == 3 && offsetof(BATcol, sorted) == 4 &&
                   offsetof(BATcol, seqbase) == 8 && offsetof(BATcol, free) == 16 &&
                   offsetof(BATcol, base) == 24 && offsetof(BATcol, vheap) == 32 &&
                   offsetof(BATcol, hash) == 40,
               "BATcol");
_Static_assert(sizeof(BBPrec) == 32 && sizeof(BATatom) == 40 && sizeof(ValRecord) == 16, "tables");

/* The bits of the flags byte behind `sorted`, and the access bits of the state word. */
unsigned flags_byte_in_c(unsigned varsized, unsigned key, unsigned dense, unsigned nonil,
                         unsigned nil) {
    BATcol c = {0};
    c.varsized = varsized & 1;
    c.key = key & 3;
    c.dense = dense & 1;
    c.nonil = nonil & 1;
    c.nil = nil & 1;
    return ((const unsigned char *)&c)[5];
}

unsigned access_word_in_c(const BAT *b) {
    unsigned word = 0;
    __builtin_memcpy(&word, b->state, sizeof word);
    return word & 6u;
}
