/*
 * The kernel contract: every record, global and operation of the host kernel
 * that the operators rely on.
 *
 * The host keeps each column as a BAT, a two-column table of a head (row
 * identities) and a tail (values). The operators are loaded into the host's
 * process and read these records field by field, so their layout is binary
 * interface: fields stand in the listed order at natural alignment, nothing
 * before or between them. A kernel may append fields of its own to a record.
 *
 * A null result of an operation means failure unless its comment says
 * otherwise. Everything here has C linkage; the header compiles as C11 and as
 * C++20.
 *
 * Thread safety: records, column memory, hash tables and settings may be read
 * from any thread once BATaccess was called. BAThash, BATnew, BATextend,
 * BATgrows, GDKupgradevarheap, GDKerror, GDKfatal and the memory operations
 * are called from tasks; so are BUNfastins, by one task at a time per BAT, the
 * atoms' functions, and THRgetdata with THRprintf when a message
 * is due. Everything else is called only on the thread that entered the
 * library.
 *
 * What a host owes to calls that overlap with each other and with its own work:
 * - BBPsize, the words of a BBPrec and BATcol.hash are read without a lock, as
 *   acquire loads. The host writes them as release stores, once what they lead to
 *   is complete: BBPsize after the new part of BBParr, desc and desc_mirror after
 *   the records, logical_name after the rest of its BBPrec, hash after the
 *   table. A lock around the store alone is not enough.
 * - While a reference is held on a BAT, its desc and desc_mirror stay once they
 *   are set, and its hash once it is built.
 * - Everything else of a BAT that a call was given (rows, marks, column memory,
 *   texts) and the settings are read plainly: nobody changes them until the call
 *   has returned.
 * - VIEWcreate, VIEWcombine, ALIGNsetH, ALIGNsynced and reference counting may
 *   meet on one BAT from several calls, and meet its hash being built.
 * - Memory that a BAT shares with others is freed or moved only when what they
 *   read happened before.
 */
#ifndef VASK_KERNEL_BAT_H
#define VASK_KERNEL_BAT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- element types ------------------------------------------------------ */

typedef int8_t bit;
typedef int8_t bte;
typedef int16_t sht;
typedef uint32_t oid;
typedef int64_t wrd;
typedef int64_t lng;
typedef float flt;
typedef double dbl;

/* Position of a row in column memory; a view's first row can lie above 0. */
typedef uint32_t BUN;

/* "No position": in hash chains, in lookups, and as an unknown-size estimate. */
#define NO_BUN ((BUN)0x7fffffff)

/* Type codes. User atoms have codes above TYPE_str; 5 and 9 are never used. */
enum {
    TYPE_void = 0,
    TYPE_bit = 1,
    TYPE_byte = 2, /* a nameless one-byte type, stored and handled as bte */
    TYPE_bte = 3,
    TYPE_sht = 4,
    TYPE_int = 6,
    TYPE_oid = 7,
    TYPE_wrd = 8,
    TYPE_flt = 10,
    TYPE_dbl = 11,
    TYPE_lng = 12,
    TYPE_str = 13
};

/* ---- column records ----------------------------------------------------- */

/* The variable-sized heap of a text column; elements lie at multiples of 8. */
typedef struct BATvheap {
    char *vbase;
} BATvheap;

/*
 * Hash table over a head of 32-bit oids. The bucket of v is
 * (ror32(v, 7) ^ (((v >> 8) ^ v) >> 13) ^ v) & mask; chains end in NO_BUN.
 */
typedef struct BAThashtable {
    uint32_t mask;
    BUN *buckets; /* first position of each chain */
    BUN *links;   /* links[p] is the position after p in its chain */
} BAThashtable;

typedef struct BATcol {
    int16_t width;        /* bytes per stored element; of a text column, per offset: 1, 2 or 4 */
    int8_t type;          /* type code */
    uint8_t shift;        /* log2(width): position p lies at base + (p << shift) */
    uint8_t sorted;       /* bit 0: ascending. Written as 0 or SORTED_ASCENDING */
    uint8_t varsized : 1; /* elements live in vheap, base holds offsets */
    uint8_t key : 2;      /* values are unique; changed only through BATkey */
    uint8_t dense : 1;    /* consecutive oids from seqbase on */
    uint8_t nonil : 1;    /* holds no nil */
    uint8_t nil : 1;      /* holds a nil */
    oid seqbase;          /* first oid of a dense or void column; oid_nil: a void column of nils */
    uint64_t free;        /* bytes in use; a raw append adds width */
    void *base;           /* element memory, position 0 */
    BATvheap *vheap;
    BAThashtable *hash; /* null until BAThash built it */
} BATcol;

enum { SORTED_ASCENDING = 65 };

/* Row range: rows are the positions first .. first + count - 1. */
typedef struct BATinfo {
    BUN first;
    BUN count;
    BUN capacity; /* positions that the column memory holds, counted from 0 */
} BATinfo;

/* Flags word whose second and third bit (mask 6) say who may write. */
typedef struct BATstate {
    uint32_t : 1;
    uint32_t access : 2; /* ACCESS_WRITABLE or ACCESS_READ */
    uint32_t : 29;
} BATstate;

enum { ACCESS_WRITABLE = 0, ACCESS_READ = 1 };

/*
 * bat_id stands first so that a pointer to a BAT can stand for a pointer to
 * its number. The mirror, number -bat_id, is the same data with head and tail
 * exchanged.
 */
typedef struct BAT {
    int32_t bat_id;
    BATcol *head;
    BATcol *tail;
    BATstate *state;
    BATinfo *info;
} BAT;

/* ---- buffer pool -------------------------------------------------------- */

typedef struct BBPrec {
    BAT *desc;                /* cached record of the positive number */
    BAT *desc_mirror;         /* cached record of the negative number */
    const char *logical_name; /* null: slot not in use */
    const char *mirror_name;  /* name of the negative number; null: logical_name serves */
} BBPrec;

extern int32_t BBPsize;  /* numbers of this absolute value or above are out of range */
extern BBPrec *BBParr[]; /* record of number n, in absolute value: BBParr[n >> 16][n & 0xffff] */

/* Takes a reference (logical 0: physical). Non-zero when the BAT is valid. */
int BBPincref(int32_t id, int logical);
/* Loads the BAT into memory. */
BAT *BBPdescriptor(int32_t id);
/* Drops a physical reference. */
void BBPreleaseref(int32_t id);
/* Hands the library's reference to whoever receives the number. The record
 * stays readable until the exported function has returned. */
void BBPkeepref(int32_t id);
/* Drops a physical (logical 0) or logical (1) reference. */
void BBPdecref(int32_t id, int logical);
/* Drops the creator's reference. */
void BBPreclaim(BAT *b);

/* ---- atoms -------------------------------------------------------------- */

typedef struct BATatom {
    int32_t
        atom_storage;  /* code of the type that tells how this one is stored, of the same width */
    int16_t atom_size; /* bytes of a value */
    const void *atom_null; /* the nil */
    int (*atom_cmp)(const void *, const void *);
    /* Called with a value before a raw copy of it; may be null. */
    int (*atom_fix)(const void *value);
    /* Stores a value that is no plain copy; may be null. place receives the
     * offset in units of 8 bytes (a uint32_t) for a variable-sized column, else
     * it is the element's place. Zero means failure. */
    int (*atom_put)(BATvheap *heap, void *place, const void *value, BATcol *column);
} BATatom;

extern BATatom BATatoms[];    /* by type code */
extern const int32_t int_nil; /* also: "no BAT" in a BAT-number variable */
extern const oid oid_nil;

/* ---- making and shaping BATs -------------------------------------------- */

/* Writable, count 0, room for capacity rows (0 allowed). */
BAT *BATnew(int head_type, int tail_type, BUN capacity);
/* Sets count and the used bytes of both columns. */
BAT *BATsetcount(BAT *b, BUN count);
/* Grows the column memory; base can change. */
BAT *BATextend(BAT *b, BUN capacity);
/* The capacity to ask of BATextend next. */
BUN BATgrows(BAT *b);
/* Appends one row. */
BAT *BUNfastins(BAT *b, const void *head_value, const void *tail_value);
/* Widens a 1- or 2-byte offset column so that offset fits; base, width and
 * shift change. Non-zero on success. */
int GDKupgradevarheap(BATcol *column, uint32_t offset, int copy_all);
/* Sets seqbase of the head. */
void BATseqbase(BAT *b, oid seqbase);
/* Marks the head unique (1) or not (0). */
BAT *BATkey(BAT *b, int flag);
/* Sets access; the result is the BAT to go on with. It can be another one, which
 * then has taken over the reference. Null when it fails: b is as it was, and so
 * is the reference on it. */
BAT *BATsetaccess(BAT *b, int mode);
/* Full copy with the given column types. */
BAT *BATcopy(BAT *b, int head_type, int tail_type, int writable);
/* Turns void columns into stored ones in place. */
BAT *BATmaterialize(BAT *b);
/* The same for the head alone. The head is written next, without the kernel's
 * knowledge, so marks (sorted, key, dense, nonil) and alignment that it had are
 * gone after this, also when it was stored before. Of a kernel that keeps them
 * the library clears sorted, dense and nonil, but cannot clear key and alignment:
 * later operators would believe them. */
BAT *BATmaterializeh(BAT *b);
/* New BAT of up to n rows of b. */
BAT *BATsample(BAT *b, BUN n);

/* Shares the head of a and the tail of b; holds a reference on b. */
BAT *VIEWcreate(BAT *a, BAT *b);
/* Head and tail are both the head of b. */
BAT *VIEWcombine(BAT *b);
/* Records that a's head is aligned with b's: row i belongs to row i. A void head
 * of a takes over the seqbase of a void or dense head of b, oid_nil too: the
 * library makes the heads of group maps so, which would else begin at 0. */
int ALIGNsetH(BAT *a, BAT *b);
/* Non-zero when row i of a is known to belong to row i of b. */
int ALIGNsynced(BAT *a, BAT *b);

/* Brackets direct reading. what: 2 tail, 3 head and tail; load: 1 before the
 * first read, -1 after the last. */
BAT *BATaccess(BAT *b, int what, int advice, int load);
/* Builds the hash on the head; tolerates concurrent calls on one BAT. */
BAT *BAThash(BAT *b, BUN estimate);

/* ---- memory, errors, tracing -------------------------------------------- */

void *GDKmalloc(size_t bytes);
void *GDKzalloc(size_t bytes);
void *GDKcalloc(size_t count, size_t size);
void *GDKrealloc(void *block, size_t bytes);
void GDKfree(void *block);

/* Builds an exception string, owned by the receiver. format can be null. */
char *createException(int kind, const char *function, const char *format, ...);
/* Records a text in the calling thread's error buffer. */
void GDKerror(const char *format, ...);
/* Ends the process with the message. */
int GDKfatal(const char *format, ...);

typedef struct stream stream;
stream *THRgetdata(int slot); /* slot 0: the thread's output */
int THRprintf(stream *s, const char *format, ...);
lng GDKusec(void); /* monotonic, microseconds */

/* ---- settings, never written by the library ----------------------------- */

/*
 * Nothing checks them. What a value outside its range does:
 *
 *   GDKnr_threads 0       traps (SIGFPE) or ends in "operation failed", see
 *                         vask/ops.h
 *   GDKnr_threads < 0     counts as more threads than rows: aggregates, moments
 *                         and statistics of two columns cut up to 256 partitions,
 *                         other operators one for each row; the sort path of
 *                         grouping ends in "operation failed", refinement is left
 *                         to GRPderive
 *   GDKmin_part_size 0    traps (SIGFPE) in aggregates, moments and statistics of
 *                         two columns, unless the column is empty
 *   GDKmin_part_size < 0  one partition
 *   GDKpart_size_div 0    traps (SIGFPE) in the same operators, on columns of more
 *                         than GDKmin_part_size rows
 *   GDKpart_size_div < 0  no limit besides the threads
 */
extern int32_t GDKnr_threads;    /* at least 1 */
extern int32_t GDKmin_part_size; /* rows; at least 1 */
extern int32_t GDKpart_size_div; /* partitions allowed per thread; at least 1 */
extern uint32_t GDKdebug;        /* DEBUG_ bits below; others mean nothing */
/*
 * Any value will do. The library reads them once, when it first groups.
 *
 *   vask_size          of so many rows or fewer, GRPgroup groups a column; 0: of
 *                      none but an empty one
 *   sample_size        rows asked of BATsample; of a sample without rows the
 *                      column is taken to have few groups
 *   uniqueness_thresh  up to so many groups in the sample are few. From
 *                      sample_size on no column is sorted; with 0 every one with a
 *                      dense head whose sample has a row
 */
extern uint32_t GDKgroup_algo_select_vask_size;
extern uint32_t GDKgroup_algo_select_sample_size;
extern uint32_t GDKgroup_algo_select_uniqueness_thresh;

/*
 * What the library prints on THRgetdata(0), which it else leaves alone:
 *
 *   RANGE_ERROR   a BAT number that is not in the pool
 *   GROUP_TIMING  the arguments, results and time of grouping operators
 *   PLAN          lines that begin with "#plan: ": the path that an operator takes and
 *                 why, and into how many partitions or ranges it cuts its rows
 */
enum { DEBUG_RANGE_ERROR = 1 << 1, DEBUG_GROUP_TIMING = 1 << 21, DEBUG_PLAN = 1 << 22 };

/*
 * Optional: a kernel may leave it out, and nothing changes. Bit t says of the type with code t that
 * a value is nil exactly when it equals atom_null as a plain number of its storage (a NaN equals
 * nothing). Operators that ask atom_cmp about each element then compare in line: correlation, the
 * covariances and the union.
 */
#if defined(__GNUC__)
extern uint64_t GDKplain_nils __attribute__((weak));
#endif

/* ---- the kernel's own algebra ------------------------------------------- */

typedef struct ValRecord {
    uint64_t val;  /* the value, or a pointer to it */
    int32_t len;   /* bytes of the value */
    int32_t vtype; /* type code */
} ValRecord;

/* Smallest and largest tail value that is no nil; the nil if there is none. */
void *BATmin(BAT *b, void *result);
void *BATmax(BAT *b, void *result);
/* Fetches the tail value of a row; *row counts from 0 at b's first row, whatever
 * position that has. The caller has set len and vtype. Null or an exception
 * string. */
char *doALGfetch(ValRecord *result, BAT *b, const BUN *row);
void *VALget(ValRecord *v);
ValRecord *VALset(ValRecord *v, int type, const void *value);
/* Converts in place; a value that does not fit becomes the type's nil. */
const void *VALconvert(int type, ValRecord *v);
/* Equi-join of l's tail with r's head: l's head and r's tail. */
BAT *BATjoin(BAT *l, BAT *r, BUN estimate);

/*
 * Serial grouping and refinement. Outputs keep int_nil when the call fails;
 * null or an exception string. The histogram has the group's oid in its head
 * and the row count in its tail; the map has one row per input row with the
 * group's oid in its tail.
 */
char *GRPgroup(int32_t *histogram, int32_t *map, const int32_t *input);
char *GRPderive(int32_t *histogram, int32_t *map, const int32_t *extents, const int32_t *group_map,
                const int32_t *input);
/* Serial grouped count: the rows of values, by the group of their head oid in
 * the map. Every row counts, one with a nil like any other. */
char *AX3aggrX3_count3Nils(int32_t *result, const int32_t *values, const int32_t *group_map,
                           const int32_t *extents);

#ifdef __cplusplus
}
#endif

#endif
