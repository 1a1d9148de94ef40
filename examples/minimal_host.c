/*
 * The least kernel: it sums a column of three million rows with the operators'
 * tasks.
 *
 *     cc -std=c11 -rdynamic minimal_host.c -ldl -o minimal_host
 *     ./minimal_host path/to/lib_vask_ops.so
 *
 * Thirteen data symbols (one of them a function whose address is taken) must be
 * there when the library is loaded; of the operations, only those that are
 * called, as long as the process binds lazily: RTLD_LAZY, no LD_BIND_NOW, no
 * linking with -z now. That is how a kernel is brought up operator by operator.
 * Built with -DALL_NAMES the other operations are there, too, and end the
 * process with their own name: then any way of loading works.
 *
 * One column, never freed; a real kernel counts references.
 */
#include "vask/kernel/bat.h"

#include <dlfcn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#ifndef LIBRARY
#define LIBRARY "lib_vask_ops.so"
#endif

/* ---- the 13 symbols that are looked up when the library is loaded --------- */

const int32_t int_nil = INT32_MIN;
const oid oid_nil = 0x80000000;

static int compare_ints(const void *left, const void *right) {
    const int32_t l = *(const int32_t *)left;
    const int32_t r = *(const int32_t *)right;
    return (l > r) - (l < r);
}

/* By type code. A sum looks at no atom; comparisons with nil will. */
BATatom BATatoms[128] = {
    [TYPE_int] = {TYPE_int, sizeof(int32_t), &int_nil, compare_ints, NULL, NULL},
};

/* Record n is BBParr[n >> 16][n & 0xffff]. Number 0 is no BAT. */
static BBPrec records[2];
BBPrec *BBParr[1] = {records};
int32_t BBPsize = 2;

int32_t GDKnr_threads = 4;
int32_t GDKmin_part_size = 16384;
int32_t GDKpart_size_div = 4;
uint32_t GDKdebug = 0;
uint32_t GDKgroup_algo_select_vask_size = 65536;
uint32_t GDKgroup_algo_select_sample_size = 8192;
uint32_t GDKgroup_algo_select_uniqueness_thresh = 8169;

/* The library takes its address as well as calling it. */
void *GDKmalloc(size_t bytes) {
    return malloc(bytes);
}

/* ---- the 6 operations of a sum ------------------------------------------- */

int BBPincref(int32_t id, int logical) {
    (void)logical;
    return id == 1;
}

void BBPreleaseref(int32_t id) {
    (void)id;
}

BAT *BATaccess(BAT *b, int what, int advice, int load) {
    (void)what, (void)advice, (void)load;
    return b;
}

void *GDKzalloc(size_t bytes) {
    return calloc(1, bytes);
}

void GDKfree(void *block) {
    free(block);
}

/* "place:text", which whoever receives it frees. */
char *createException(int kind, const char *function, const char *format, ...) {
    char text[256] = "";
    (void)kind;
    if (format != NULL) {
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(text, sizeof text, format, arguments);
        va_end(arguments);
    }
    char *const message = malloc(strlen(function) + strlen(text) + 2);
    if (message != NULL)
        sprintf(message, "%s:%s", function, text);
    return message;
}

/* ---- everything else ------------------------------------------------------ */

#ifdef ALL_NAMES
#define NOT_YET(result, name, ...)                                                                 \
    result name(__VA_ARGS__) {                                                                     \
        fprintf(stderr, "not in this kernel: " #name "\n");                                        \
        abort();                                                                                   \
    }
#ifdef __GNUC__
#pragma GCC diagnostic ignored "-Wunused-parameter"
#endif
NOT_YET(BAT *, BBPdescriptor, int32_t id)
NOT_YET(void, BBPkeepref, int32_t id)
NOT_YET(void, BBPdecref, int32_t id, int logical)
NOT_YET(void, BBPreclaim, BAT *b)
NOT_YET(BAT *, BATnew, int head_type, int tail_type, BUN capacity)
NOT_YET(BAT *, BATsetcount, BAT *b, BUN count)
NOT_YET(BAT *, BATextend, BAT *b, BUN capacity)
NOT_YET(BUN, BATgrows, BAT *b)
NOT_YET(BAT *, BUNfastins, BAT *b, const void *head_value, const void *tail_value)
NOT_YET(int, GDKupgradevarheap, BATcol *column, uint32_t offset, int copy_all)
NOT_YET(void, BATseqbase, BAT *b, oid seqbase)
NOT_YET(BAT *, BATkey, BAT *b, int flag)
NOT_YET(BAT *, BATsetaccess, BAT *b, int mode)
NOT_YET(BAT *, BATcopy, BAT *b, int head_type, int tail_type, int writable)
NOT_YET(BAT *, BATmaterialize, BAT *b)
NOT_YET(BAT *, BATmaterializeh, BAT *b)
NOT_YET(BAT *, BATsample, BAT *b, BUN n)
NOT_YET(BAT *, VIEWcreate, BAT *a, BAT *b)
NOT_YET(BAT *, VIEWcombine, BAT *b)
NOT_YET(int, ALIGNsetH, BAT *a, BAT *b)
NOT_YET(int, ALIGNsynced, BAT *a, BAT *b)
NOT_YET(BAT *, BAThash, BAT *b, BUN estimate)
NOT_YET(void *, GDKcalloc, size_t count, size_t size)
NOT_YET(void *, GDKrealloc, void *block, size_t bytes)
NOT_YET(void, GDKerror, const char *format, ...)
NOT_YET(int, GDKfatal, const char *format, ...)
NOT_YET(stream *, THRgetdata, int slot)
NOT_YET(int, THRprintf, stream *s, const char *format, ...)
NOT_YET(lng, GDKusec, void)
NOT_YET(void *, BATmin, BAT *b, void *result)
NOT_YET(void *, BATmax, BAT *b, void *result)
NOT_YET(char *, doALGfetch, ValRecord *result, BAT *b, const BUN *row)
NOT_YET(void *, VALget, ValRecord *v)
NOT_YET(ValRecord *, VALset, ValRecord *v, int type, const void *value)
NOT_YET(const void *, VALconvert, int type, ValRecord *v)
NOT_YET(BAT *, BATjoin, BAT *l, BAT *r, BUN estimate)
NOT_YET(char *, GRPgroup, int32_t *histogram, int32_t *map, const int32_t *input)
NOT_YET(char *, GRPderive, int32_t *histogram, int32_t *map, const int32_t *extents,
        const int32_t *group_map, const int32_t *input)
NOT_YET(char *, AX3aggrX3_count3Nils, int32_t *result, const int32_t *values,
        const int32_t *group_map, const int32_t *extents)
#endif

/* ---- a column, and the sum of it ------------------------------------------ */

enum { ROWS = 3000000 };

int main(int argc, char **argv) {
    int32_t *const values = malloc(ROWS * sizeof *values);
    if (values == NULL)
        return 1;
    for (int32_t i = 0; i < ROWS; ++i)
        values[i] = i;

    /* The head counts from 0 and stores nothing; the tail holds the numbers. */
    BATcol head = {.type = TYPE_void, .sorted = SORTED_ASCENDING, .key = 1, .dense = 1, .nonil = 1};
    BATcol tail = {.width = sizeof *values,
                   .type = TYPE_int,
                   .shift = 2,
                   .nonil = 1,
                   .free = ROWS * sizeof *values,
                   .base = values};
    BATstate state = {.access = ACCESS_READ};
    BATinfo info = {.first = 0, .count = ROWS, .capacity = ROWS};
    BAT bat = {.bat_id = 1, .head = &head, .tail = &tail, .state = &state, .info = &info};
    BAT mirror = {.bat_id = -1, .head = &tail, .tail = &head, .state = &state, .info = &info};
    records[1] = (BBPrec){.desc = &bat, .desc_mirror = &mirror, .logical_name = "numbers"};

    void *const library = dlopen(argc > 1 ? argv[1] : LIBRARY, RTLD_LAZY | RTLD_LOCAL);
    char *(*sum_int)(void *, const int32_t *) = NULL;
    if (library != NULL)
        *(void **)&sum_int = dlsym(library, "vask_sum_int");
    if (sum_int == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    const int32_t numbers = 1;
    int64_t sum = 0;
    char *const exception = sum_int(&sum, &numbers);
    if (exception != NULL) {
        fprintf(stderr, "%s\n", exception);
        GDKfree(exception);
        return 1;
    }
    printf("%lld\n", (long long)sum);
    /* The library stays loaded: the scheduler's threads may still be in it. */
    free(values);
    return 0;
}
