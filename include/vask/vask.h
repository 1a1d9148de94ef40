/*
 * libvask: exact, reproducible statistics of tables, by groups, on many cores.
 *
 * A program hands over columns in the Arrow C data interface, asks for
 * aggregates by keys, and gets columns back in the same interface. No other
 * library is needed on either side: the records below are the interface.
 *
 *     vask_table *table = NULL;
 *     vask_result *result = NULL;
 *     char *error = NULL;
 *     const char *by[] = {"species"};
 *     vask_aggregate wanted[] = {{.function = "median", .columns = {"mass"}, .as = "mid"}};
 *     vask_query query = {.size = sizeof query, .aggregate_size = sizeof *wanted,
 *                         .by = by, .n_by = 1, .aggregates = wanted, .n_aggregates = 1};
 *     if (vask_table_from_stream(&stream, &table, &error) == VASK_OK &&
 *         vask_run(table, &query, &result, &error) == VASK_OK)
 *         vask_result_stream(result, &out, &error);
 *     else
 *         fprintf(stderr, "%s\n", error);
 *     vask_free_text(error);
 *     vask_result_free(result);
 *     vask_table_free(table);
 *
 * Codes: each function gives VASK_OK or another vask_code. Then *error, unless
 * `error` is null, holds a text for people: what is wrong, where, and what to do.
 * It is freed with vask_free_text. Results are stored on success alone. Nothing
 * throws, nothing ends the process.
 *
 * Ownership: a stream, an array with its schema, and values with a release
 * function are taken over by the call that gets them, also when it fails: what
 * it got is released exactly once, at the latest when the table is freed.
 * Borrowed memory must not change until then.
 *
 * Thread safety: a table may be read by any number of calls at once; adding to
 * it or freeing it wants it alone. Release functions may be called on any
 * thread, but each only once. Calls with different numbers of partitions wait
 * for each other.
 *
 * Determinism: results depend on the data, the query and its number of
 * partitions, never on the machine, the number of cores or timing.
 */
#ifndef VASK_VASK_H
#define VASK_VASK_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define VASK_TABLE_EXPORT __attribute__((visibility("default")))
#else
#define VASK_TABLE_EXPORT
#endif

/* The version of this header's interface: functions and fields are only added. */
#define VASK_TABLE_ABI 0

/* ---- the Arrow C data and stream interfaces, as their ABI is published ---- */

#ifndef ARROW_C_DATA_INTERFACE
#define ARROW_C_DATA_INTERFACE

#define ARROW_FLAG_DICTIONARY_ORDERED 1
#define ARROW_FLAG_NULLABLE 2
#define ARROW_FLAG_MAP_KEYS_SORTED 4

struct ArrowSchema {
    const char *format;
    const char *name;
    const char *metadata;
    int64_t flags;
    int64_t n_children;
    struct ArrowSchema **children;
    struct ArrowSchema *dictionary;
    void (*release)(struct ArrowSchema *);
    void *private_data;
};

struct ArrowArray {
    int64_t length;
    int64_t null_count;
    int64_t offset;
    int64_t n_buffers;
    int64_t n_children;
    const void **buffers;
    struct ArrowArray **children;
    struct ArrowArray *dictionary;
    void (*release)(struct ArrowArray *);
    void *private_data;
};

#endif

#ifndef ARROW_C_STREAM_INTERFACE
#define ARROW_C_STREAM_INTERFACE

struct ArrowArrayStream {
    int (*get_schema)(struct ArrowArrayStream *, struct ArrowSchema *out);
    int (*get_next)(struct ArrowArrayStream *, struct ArrowArray *out);
    const char *(*get_last_error)(struct ArrowArrayStream *);
    void (*release)(struct ArrowArrayStream *);
    void *private_data;
};

#endif

/* ---- codes and flags ------------------------------------------------------- */

enum vask_code {
    VASK_OK = 0,
    VASK_BAD_REQUEST = 1, /* an unknown name, a type that does not go, a parameter out of bounds */
    VASK_BAD_DATA = 2,    /* malformed arrays, a sum beyond 64 bits, a NaN without a place */
    VASK_NO_MEMORY = 3,
    VASK_CANCELLED = 4, /* the progress function said so */
    VASK_FAILED = 5     /* the producer of a stream failed, or this library has a fault */
};

/*
 * Nulls: aggregates skip them, which is the rule for all; a group without a
 * value gets a null, and 0 of the counts and of nothing else. Where a function
 * differs (size, count_nulls, first_row count rows), vask_functions says so.
 * Pairs count where both columns have a value. Nulls of a key are a group of
 * their own.
 */
enum vask_flag {
    /* One null among a group's values makes the aggregate null, counts excepted. */
    VASK_KEEP_NULLS = 1,
    /* A NaN counts as null, in values and in keys. Else a NaN is a value: it makes
     * sums and moments NaN, all NaNs are one key, and functions that put values in
     * order refuse it. */
    VASK_NAN_IS_NULL = 2,
    /* Sums of integers are decimal128 with 38 digits. Else int64, and a sum that
     * leaves it is VASK_BAD_DATA with the name of the group. */
    VASK_WIDE_SUMS = 4,
    /* Groups in ascending order of their keys, in turn, nulls last. Else in the
     * order of their first rows. */
    VASK_SORT_GROUPS = 8,
    /* Rows with a null among their keys are left out. */
    VASK_DROP_NULL_KEYS = 16,
    /* A NaN counts as null in keys, and stays a value elsewhere. */
    VASK_NAN_KEY_IS_NULL = 32,
    /* The columns that the call reads are checked in full before: that texts are UTF-8,
     * offsets under nulls too, dictionary indices and all entries, the bytes that views
     * repeat, the number of nulls against the bits. A fault is VASK_BAD_DATA with its
     * row. Without the flag no check is left out that keeps reads within what the arrays
     * say they have, and texts are bytes of any kind. */
    VASK_VALIDATE = 64
};

/* ---- tables ------------------------------------------------------------------ */

/* Columns of equal length with names. At most 2,147,483,646 rows: for more, cut
 * the rows, aggregate each part with vask_partial, and vask_merge the states. */
typedef struct vask_table vask_table;

/*
 * All batches of a stream of records (format "+s"), joined. Types:
 *
 *   c C s S i I l L f g b          integers, floats, booleans
 *   u U vu z Z vz                  texts and binaries, 32 or 64 bit offsets, views
 *   tdD tdm tts ttm ttu ttn        dates, times of day
 *   tss: tsm: tsu: tsn: tD*        timestamps with their zone, durations
 *   d:p,s                          decimals of 128 bits whose digits 64 bits hold
 *   n                              nulls
 *   dictionaries of these, with any integer index
 *
 * Any offset, any length of batches, nulls by bitmap or none. Another type is
 * refused when a query uses its column, not before, and so is a decimal with a
 * negative scale. The least integer of a timestamp or a duration is no time: it
 * counts as null, as NumPy has it.
 */
VASK_TABLE_EXPORT int vask_table_from_stream(struct ArrowArrayStream *stream, vask_table **table,
                                             char **error);

/* A table without columns. */
VASK_TABLE_EXPORT int vask_table_new(vask_table **table, char **error);

/* Adds a column from one array; takes over both records. `name` null: the schema's. */
VASK_TABLE_EXPORT int vask_table_add_arrow(vask_table *table, const char *name,
                                           struct ArrowSchema *schema, struct ArrowArray *array,
                                           char **error);

/*
 * Adds a column of fixed width from bare memory: `rows` values of the type that
 * `format` names as above, and validity bits (1: a value) from bit `first_bit`
 * on, or null for none. `release`, unless it is null, is called with `owner` once
 * the memory is no longer needed.
 */
VASK_TABLE_EXPORT int vask_table_add_values(vask_table *table, const char *name, const char *format,
                                            int64_t rows, const void *values,
                                            const uint8_t *validity, int64_t first_bit,
                                            void (*release)(void *owner), void *owner,
                                            char **error);

/* Rows of a table; -1 for a table without columns. */
VASK_TABLE_EXPORT int64_t vask_table_rows(const vask_table *table);

/* Null is allowed, here and in the other functions that free. */
VASK_TABLE_EXPORT void vask_table_free(vask_table *table);

/* ---- queries ------------------------------------------------------------------ */

/* `parameter` is for functions that take one, and 0 or NaN for the others. `as`
 * null: function(column). */
typedef struct vask_aggregate {
    const char *function;
    const char *columns[2]; /* null where the function takes fewer */
    double parameter;
    const char *as;
} vask_aggregate;

typedef struct vask_query {
    size_t size;           /* sizeof(vask_query) of the caller */
    size_t aggregate_size; /* sizeof(vask_aggregate) of the caller */
    const char *const *by; /* columns whose values make the groups; none: one group of all rows */
    size_t n_by;
    const vask_aggregate *aggregates;
    size_t n_aggregates; /* 0: the groups alone */
    unsigned flags;      /* vask_flag */
    int partitions;      /* 1 to 256; 0: VASK_DEFAULT_PARTITIONS */
    /* Called on the calling thread, between steps and within long ones about every
     * 50 ms, with the share that is done; anything but 0 cancels: the call ends
     * soon, with VASK_CANCELLED and no result. May be null. */
    int (*progress)(void *context, double done);
    /* Told once each: what was copied, converted or left out, and which way was
     * taken. It must not call this library. May be null. */
    void (*note)(void *context, const char *text);
    void *context;
} vask_query;

/* The default, the same on every machine: floating-point sums add rows in order
 * within a partition, and partitions in order. */
enum { VASK_DEFAULT_PARTITIONS = 8 };

/*
 * The functions: a line for each, with tabs between name, columns, parameter,
 * types of values, type of the result, and what it gives.
 */
VASK_TABLE_EXPORT const char *vask_functions(void);

typedef struct vask_result vask_result;

/*
 * A row for each group: the columns of `by`, then one for each aggregate. Without
 * `by` one row, also of an empty table.
 */
VASK_TABLE_EXPORT int vask_run(const vask_table *table, const vask_query *query,
                               vask_result **result, char **error);

/*
 * The states of a query's aggregates on a part of the rows, by key, as a table
 * that is to be merged with those of the other parts. Refused for functions whose
 * state has no fixed size (those that put values in order): bring all rows of a
 * key together and run there.
 */
VASK_TABLE_EXPORT int vask_partial(const vask_table *part, const vask_query *query,
                                   vask_result **states, char **error);

/*
 * Brings states together, in the order given: states again, or with `finish` the
 * query's result. Keys in order of their first occurrence in the parts.
 */
VASK_TABLE_EXPORT int vask_merge(const vask_table *const *states, size_t n_states,
                                 const vask_query *query, int finish, vask_result **result,
                                 char **error);

/*
 * The group of each row under the query's keys: its row in the query's result,
 * from 0. `codes` has room for the table's rows. A row that VASK_DROP_NULL_KEYS
 * leaves out gets -1. The query's aggregates do not count. What
 * `codes` holds after a failure is not said.
 */
VASK_TABLE_EXPORT int vask_group_codes(const vask_table *table, const vask_query *query,
                                       int32_t *codes, int64_t *groups, char **error);

/*
 * Whether each value of a column occurs among those of another: one column of
 * booleans, called `contained`. Numbers compare by value whatever their types,
 * texts with texts; nulls are never contained and are null in the result. Of the
 * query, which may be null, only partitions and progress count.
 */
VASK_TABLE_EXPORT int vask_is_in(const vask_table *table, const char *column,
                                 const vask_table *others, const char *other_column,
                                 const vask_query *query, vask_result **result, char **error);

VASK_TABLE_EXPORT int64_t vask_result_rows(const vask_result *result);

/*
 * The result as a stream of one batch. It shares the result's memory, which lives
 * until both are gone; may be called again.
 */
VASK_TABLE_EXPORT int vask_result_stream(const vask_result *result, struct ArrowArrayStream *out,
                                         char **error);

VASK_TABLE_EXPORT void vask_result_free(vask_result *result);
VASK_TABLE_EXPORT void vask_free_text(char *text);

/* The library's version, as in "0.2.0". */
VASK_TABLE_EXPORT const char *vask_version(void);

#ifdef __cplusplus
}
#endif

#endif
