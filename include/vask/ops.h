/*
 * lib_vask_ops: multi-core column operators for a column-store kernel.
 *
 * The library is loaded into the kernel's process and finds the kernel's
 * operations, listed in vask/kernel/bat.h, there. A plan looks the operators up by
 * name. Rules that hold for all of them but vaskops_are_indexes_contained, which
 * takes plain arrays and reports nothing:
 *
 * Arguments: pointers only. The first is the result slot, or the first of two;
 * a BAT is given by a pointer to its number.
 *
 * Result: null on success, otherwise an exception string made by the kernel's
 * createException, which the caller owns. A failed call leaves the result slot
 * as it was. A result that the kernel cannot make (BATnew, VIEWcreate or
 * BATsetaccess gives null) is "operation failed", with nothing left behind.
 *
 * Nil: a value is nil when it equals the reserved nil value of the column's
 * type. Floats compare by ordinary equality, so a NaN is a value.
 *
 * Types: the type of the column decides what runs, never the operator's name,
 * where several names stand for one operator.
 *
 * Determinism: results depend on the data and the kernel's settings, and where a
 * sample decides between two ways, on the kernel's sample; never on the timing
 * of tasks or the number of cores.
 *
 * Thread safety: calls may overlap, on the same BATs too, as long as nobody
 * changes those. A call uses the calling thread and the task scheduler's pool.
 *
 * Threads: GDKnr_threads is at least 1. With 0, the operators that cut rows into
 * partitions to merge their results (sums, extremes, counts, moments, statistics
 * of two columns, containment) divide by it, which traps (SIGFPE); grouping,
 * distinct counts, grouped order statistics and the union end in "operation
 * failed" where they would have run tasks.
 *
 * Memory: running out of it where a contract below does not say otherwise ends
 * the call with a C++ exception, or the process, as the kernel expects.
 */
#ifndef VASK_OPS_H
#define VASK_OPS_H

#include "vask/version.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define VASK_EXPORT __attribute__((visibility("default")))
#else
#define VASK_EXPORT
#endif

/*
 * Sum of all values of a column. Seven names for one operator.
 *
 *   tail type        result slot   arithmetic
 *   bte, sht, int    8 bytes, lng  64 bits, wrapping
 *   wrd              8 bytes, wrd  64 bits, wrapping
 *   lng              8 bytes, lng  64 bits, wrapping
 *   flt              4 bytes, flt  single precision throughout
 *   dbl              8 bytes, dbl  double precision
 *
 * Nil: nil rows are skipped; a column without a value, an empty one too, gives
 * the nil of the result type. Values that cancel out give 0.
 * NaN: makes the sum NaN.
 * Overflow: integers wrap without notice, and may wrap onto the nil.
 * Floats: rows are added in order within a partition and partitions in order,
 * so GDKnr_threads and the partition settings can change the last bits.
 * Errors: "Object not found"; "operation failed" for any other tail type, void,
 * oid and user atoms included. Place: "vask_sum_wrapper".
 *
 *   int64_t total;
 *   char *exception = vask_sum_int(&total, &bid);
 */
VASK_EXPORT char *vask_sum_bte(void *result, const int32_t *bid);
VASK_EXPORT char *vask_sum_sht(void *result, const int32_t *bid);
VASK_EXPORT char *vask_sum_int(void *result, const int32_t *bid);
VASK_EXPORT char *vask_sum_wrd(void *result, const int32_t *bid);
VASK_EXPORT char *vask_sum_lng(void *result, const int32_t *bid);
VASK_EXPORT char *vask_sum_flt(void *result, const int32_t *bid);
VASK_EXPORT char *vask_sum_dbl(void *result, const int32_t *bid);

/*
 * Smallest and largest value of a column. Nine names each for one operator; the
 * column's storage decides the result slot's width.
 *
 *   storage          result slot
 *   bte, sht, int    1, 2, 4 bytes
 *   wrd, lng         8 bytes
 *   flt, dbl         4, 8 bytes
 *   void             4 bytes, oid; min is seqbase and max the last oid, or the
 *                    oid nil for a column of nils
 *
 * User atoms are compared as what they are stored as: a timestamp as the signed
 * 64-bit number of its bytes. oid is compared as int, its storage.
 * Nil: nil rows are skipped, by the column's own nil; a column without a value,
 * an empty one too, gives the nil of the storage type.
 * NaN: met first in a partition it stays, later ones are passed over; the same
 * holds for the partitions' results in order. Of -0.0 and 0.0 the first stays.
 * Errors: "Object not found"; "operation failed" for any other storage. Place:
 * "vask_min_max_wrapper".
 */
VASK_EXPORT char *vask_min_bte(void *result, const int32_t *bid);
VASK_EXPORT char *vask_min_sht(void *result, const int32_t *bid);
VASK_EXPORT char *vask_min_int(void *result, const int32_t *bid);
VASK_EXPORT char *vask_min_oid(void *result, const int32_t *bid);
VASK_EXPORT char *vask_min_wrd(void *result, const int32_t *bid);
VASK_EXPORT char *vask_min_lng(void *result, const int32_t *bid);
VASK_EXPORT char *vask_min_flt(void *result, const int32_t *bid);
VASK_EXPORT char *vask_min_dbl(void *result, const int32_t *bid);
VASK_EXPORT char *vask_min_timestamp(void *result, const int32_t *bid);
VASK_EXPORT char *vask_max_bte(void *result, const int32_t *bid);
VASK_EXPORT char *vask_max_sht(void *result, const int32_t *bid);
VASK_EXPORT char *vask_max_int(void *result, const int32_t *bid);
VASK_EXPORT char *vask_max_oid(void *result, const int32_t *bid);
VASK_EXPORT char *vask_max_wrd(void *result, const int32_t *bid);
VASK_EXPORT char *vask_max_lng(void *result, const int32_t *bid);
VASK_EXPORT char *vask_max_flt(void *result, const int32_t *bid);
VASK_EXPORT char *vask_max_dbl(void *result, const int32_t *bid);
VASK_EXPORT char *vask_max_timestamp(void *result, const int32_t *bid);

/*
 * Number of values of a column, its nil rows left out; 0 for an empty column of
 * any type. Works on void, bte, sht, int, wrd, lng, flt, dbl and str storage. A
 * void column counts all its rows, or none if it is one of nils. A NaN counts.
 * A text is nil when it has the bytes of the nil text.
 * Errors: "Object not found"; "operation failed" for any other storage. Place:
 * "vask_count_wrapper".
 */
VASK_EXPORT char *vask_count(int64_t *result, const int32_t *bid);

/*
 * Number of rows of a column, nils and all, of any type. A BAT that cannot be
 * fetched gives an exception without a message. Place: "vask_count_asterisk".
 */
VASK_EXPORT char *vask_count_asterisk(int64_t *result, const int32_t *bid);

/*
 * Grouped aggregates: one result per group of a grouping.
 *
 * Inputs, by pointers to their BAT numbers:
 *   b  values in the tail.
 *   g  group map: in the tail the oid of each row's group, at the same position
 *      as the row of b. A void tail makes every row a group of its own; b must
 *      then start at position 0 and have as many rows as e.
 *   e  extents: in the head the oid of each group. Must start at position 0.
 *   b and g must be aligned row for row, which is not checked.
 *
 * Result: the number of a new BAT goes to *result. It is a view with the
 * head of e and, in its tail, the result of each group in e's order; the
 * caller owns its reference. A group without a value, also one without rows,
 * gets the nil of the result type and the tail is then marked as holding nils.
 *
 * Unknown groups: a row with a value whose group e does not hold ends the work
 * on its partition: that row and the rest of the partition are left out without
 * notice. Nil rows are never looked up.
 *
 * Errors: "Object not found"; "operation failed" for a type of b that the
 * operator does not have and when the result cannot be made. Place: the
 * operator's wrapper, named below. A hash of e that cannot be built ends the
 * process through GDKfatal.
 *
 *   int32_t extents, map, sums;
 *   char *exception = VASKgroup(&extents, &map, &key);
 *   if (exception == NULL)
 *       exception = vask_grp_sum(&sums, &value, &map, &extents);
 */

/*
 * Grouped sum. Types, wrapping and rounding are those of the whole-column sum,
 * for each group: bte, sht and int give lng. The result of a group whose values
 * cancel out is 0. Place: "vask_grp_sum_wrapper".
 */
VASK_EXPORT char *vask_grp_sum(int32_t *result, const int32_t *bid, const int32_t *gid,
                               const int32_t *eid);

/*
 * Grouped minimum and maximum, with the storage types, comparisons and NaN rule
 * of the whole-column ones. The result's tail has the type of the storage: the
 * minimum of timestamps is a lng column of their raw values. A void column has
 * no grouped minimum ("operation failed"). Place: "vask_grp_min_max_wrapper".
 */
VASK_EXPORT char *vask_grp_min(int32_t *result, const int32_t *bid, const int32_t *gid,
                               const int32_t *eid);
VASK_EXPORT char *vask_grp_max(int32_t *result, const int32_t *bid, const int32_t *gid,
                               const int32_t *eid);

/*
 * Number of values of each group, nil rows left out, as wrd: two names for one
 * operator, which for vask_grp_count_asterisk too skips nils. A group without a
 * value gets 0, never a nil. Works on bte, sht, int, oid, wrd, lng, flt, dbl and
 * str storage. With void values the result has the right shape and undefined
 * values. Place: "vask_grp_count_wrapper".
 */
VASK_EXPORT char *vask_grp_count(int32_t *result, const int32_t *bid, const int32_t *gid,
                                 const int32_t *eid);
VASK_EXPORT char *vask_grp_count_asterisk(int32_t *result, const int32_t *bid, const int32_t *gid,
                                          const int32_t *eid);

/*
 * Index containment: for each row of `left`, whether its value occurs anywhere
 * in `right`. contained[i] becomes 1 if it does and 0 if not.
 *
 * Inputs: arrays of 32-bit values, compared as bare numbers. `contained` has
 * room for left_count bytes; what it held does not matter. left_count must fit
 * 32 bits.
 * Nil: has no meaning here. A nil is contained when the same number occurs in
 * `right`.
 * Duplicates: in `left`, each row gets its answer; in `right`, they change
 * nothing.
 * Empty input: an empty `left` writes nothing. An empty `right` must be kept
 * away by the caller: its rows are divided by the number of parts, the smaller
 * of right_count and GDKnr_threads, and that division by 0 traps (SIGFPE). So
 * does a GDKnr_threads of 0.
 * Errors: none are reported. Memory comes from the process heap; running out of
 * it throws std::bad_alloc.
 * Method: a set of the smaller side, made by the caller's thread, which tasks
 * look up the rows of the other side in; linear in both.
 */
VASK_EXPORT void vaskops_are_indexes_contained(const uint32_t *left, uint64_t left_count,
                                               const uint32_t *right, uint64_t right_count,
                                               int8_t *contained);

/*
 * The same for two BATs: a new BAT with a tail of type bit, 1 where the tail
 * value of `left` occurs in the tail of `right`, row for row as in `left`.
 *
 * Inputs: tails of 32-bit elements, such as oid or int; their type is not
 * checked. The rows of both must start at position 0: the arrays are read from
 * the start of the column memory, whatever `first` says. The head of `right`
 * plays no part.
 * Result: read-only, marked unsorted and not unique. A void head of `left` gives
 * a void head with the same seqbase, any other a view with the head of `left`.
 * The caller owns the reference.
 * Nil, duplicates, empty input: as above; `right` must not be empty.
 * Errors: "Object not found"; "operation failed" when the result cannot be made.
 * Place: "vaskops_are_bat_indexes_contained".
 */
VASK_EXPORT char *vaskops_are_bat_indexes_contained(int32_t *result, const int32_t *left,
                                                    const int32_t *right);

/*
 * Groups the rows of a column by equal tail value.
 *
 * Input: *bid, a column with a void or oid head and any tail.
 * Results, two new BATs, owned by whoever receives the numbers:
 *   *retbid    the map: one row per input row, at its place and under its head
 *              (a void head stays void); tail oid, the id of the row's group
 *   *rethisto  the extents: one row per group; head oid, the group's id, each
 *              once; tail wrd, the number of rows in the group
 * The id of a group is the head value of one of its rows, not a running number:
 * of the first one, and on a dense head of the smallest, which is the same. The
 * extents stand in order of first occurrence; on a dense head that is the order
 * of the ids. The map's tail is marked key when every row is a group.
 *
 * Nil: the rows that are nil are a group.
 * NaN, -0.0: where few distinct values are expected, floats are one group when
 * their bits are the same, so 0.0 and -0.0 are two groups and equal NaNs one.
 * Where many are expected, they are compared as numbers: 0.0 and -0.0 are one
 * group, and a NaN ends in "operation failed".
 * Empty: as the kernel's GRPgroup has it.
 *
 * Which way: a tail marked key and a column of at most
 * GDKgroup_algo_select_vask_size rows go to GRPgroup, its result is the result.
 * So does a column on one thread, unless of texts, flt or dbl. Texts are hashed.
 * Of other columns a sample of GDKgroup_algo_select_sample_size rows is grouped:
 * up to GDKgroup_algo_select_uniqueness_thresh groups, the column is hashed, with
 * more it is sorted if its head is dense and left to GRPgroup if not. Columns
 * whose rows do not begin at position 0 are not hashed but left to GRPgroup. The
 * three settings are read once in the life of the process.
 *
 * Errors, place "group.vask_new": "Object not found"; "operation failed to
 * sample BAT"; "could not allocate space for grp BAT" (or "ext BAT"); "operation
 * failed" for a tail that has no such path (void, and types stored as text but
 * str itself where many groups are expected), for extents that cannot grow, and,
 * where the column would be hashed or sorted, for a GDKnr_threads of 0.
 * Place "group.VASKgroup": "Explicit type required(v)oid head required\n" for
 * any other head, only found out where GRPgroup is not asked; this one leaves the
 * input's reference and both new BATs behind. Allocation failures in between
 * leave as C++ exceptions, with the same behind them.
 * Trace: one line at the start and one at the end with bit 21 of GDKdebug.
 *
 *   int32_t extents, map;
 *   char *exception = VASKgroup(&extents, &map, &bid);
 */
VASK_EXPORT char *VASKgroup(int32_t *rethisto, int32_t *retbid, const int32_t *bid);

/*
 * Refines a grouping by a further column: two rows stay in one group only if
 * they were in one group before and have the same value in the new column.
 *
 * Inputs: the old grouping's extents (head: group id, tail: rows, wrd) and its
 * map (head: row, tail: group id), as VASKgroup and VASKderive make them, and
 * the column: head void or oid, tail bte, sht, int, lng, flt, dbl or str, or an
 * atom stored like one of them. A row of the column belongs to the map's row
 * with the same head oid; the two need not be in the same order.
 *
 * Results: extents in *rethisto and a map in *retbid, in the shape of
 * VASKgroup's. A new group's id is the head oid of its first row in the
 * column. The caller owns a reference on each.
 *
 * Path: fewer than 8192 rows, a kernel of one thread, an empty grouping or one
 * of 0.3 groups per row and more go to the kernel's GRPderive. Otherwise a
 * sample of 1024 rows decides between two parallel paths that agree but in
 * these points:
 *
 *                  few old groups (pairs)      many old groups (buckets)
 *   floats         by comparison: -0.0 is 0.0, by bits: -0.0 is not 0.0,
 *                  a row with a NaN is alone   equal NaNs are together
 *   texts          by their place in the heap  by what they read
 *   extents        in order of first row       in order of oid
 *   unknown group  an old group like any       "operation failed"
 *   no memory      C++ exception               "operation failed"
 *
 * Nil: a value like any other.
 * Errors: "Object not found" (column, map, extents, looked at in this order);
 * "Explicit type required(v)oid head required\n" for the column's head;
 * "dispatcher failed" when the sample cannot be taken or grouped; "operation
 * failed preparing hash"; "could not allocate space for grp BAT" and "... ext
 * BAT"; "operation failed" when a row is not in the map or its group not in the
 * extents (buckets), when the extents cannot grow, or for any other tail type.
 * Place: "group.vask_derive". The column's head is looked at before the map is
 * fetched. The process ends when the hash of the map's head is needed and cannot
 * be built. BATaccess hints are closed only when one of the parallel paths
 * succeeds; "dispatcher failed" can leave the map of the sample behind.
 * Trace: one line at the start and one at the end with bit 21 of GDKdebug.
 */
VASK_EXPORT char *VASKderive(int32_t *rethisto, int32_t *retbid, const int32_t *ct_histoid,
                             const int32_t *ct_mapid, const int32_t *bid);

/*
 * Number of different values in each group.
 *
 * Inputs: the values *bid, with an ascending head for the parallel path; the
 * group map *gid, as VASKgroup and VASKderive make it; the extents *eid. Unlike
 * the other grouped operators, a row of the values belongs to the map's row with
 * the same head, wherever that stands; a row without one is skipped.
 * Result: a new BAT, owned by whoever receives the number, with the head of the
 * extents and a tail of type wrd, marked free of nils. A group without values has
 * 0.
 * Nil: is a value like any other, however many rows have it.
 * NaN, -0.0: floats are told apart by their bits, so 0.0 and -0.0 are two values
 * and equal NaNs one.
 * Texts: equal when they read the same.
 * Which way: the kernel's GRPderive and AX3aggrX3_count3Nils (whose result is the
 * result) with more than 1,000,000 groups, when the head of the values or of the
 * map is not ascending, or with fewer than 300 different values in a sample of
 * 1024 rows; otherwise the pairs of a group and a value, or for integers that lie
 * close together a bit for each pair there can be, are counted in parallel. That
 * path takes tails stored as bit, 2, bte, sht, int, lng, flt, dbl and str.
 * Errors, place "aggr.countd": "operation failed" for everything, such as a BAT
 * that is not there, a type without a path, a group that is not in the extents,
 * and memory that runs out. The kernel operators' exceptions are passed on.
 */
VASK_EXPORT char *AggrX3_countDistinct(int32_t *result, const int32_t *bid, const int32_t *gid,
                                       const int32_t *eid);

/*
 * Filtered union: of two columns whose rows belong together by position, the
 * rows at which both tails hold a value; first all their `left` values, then all
 * their `right` values, each with the head of its own row.
 *
 * Inputs: tails of type bit, 2, bte, sht, int, wrd, lng, flt or dbl; heads void
 * or oid; equal counts. Rows are paired by position and read at the positions of
 * `left`, so both must have the same first row.
 * Result: twice as many rows as survive, read-only, both halves in row order, in
 * a stored oid head and a tail of one type: that of both if it is the same; dbl
 * for lng beside flt or dbl; else the one with the larger code, in the order bit,
 * 2, bte, sht, int, wrd, flt, dbl, lng. Marked free of nils and unsorted. The
 * caller owns the reference.
 * Values: integers are extended with their sign; to a float they become the
 * nearest one, so large values can lose their last digits, an int beside a flt
 * too. NaN and
 * -0.0 are values and stay.
 * Nil: what the type's own comparison calls equal to its nil; a nil on either
 * side drops the row from both halves.
 * Empty input, no surviving row: an empty result of the same type.
 * Errors: "Object not found"; "Unsupported tail type"; "Unsupported head type";
 * "Size of BATs is unequal"; "operation failed" when the result cannot be made,
 * when memory runs out, for a storage without a class, when GDKnr_threads is 0
 * with rows present, and when during the call a column changes so that more rows
 * survive than were counted. With fewer, the rest of the result is undefined.
 * Place: "vask_ops.coSNNandUnion". Rows that change in number during the call
 * leave the result's BAT behind.
 * Partitions: GDKnr_threads of them, whatever the smallest partition size says.
 */
VASK_EXPORT char *vask_coSNNandUnion(int32_t *result, const int32_t *left, const int32_t *right);

/*
 * Statistics of one column. What holds for all of them:
 *
 * Types: bit, bte, sht, int, oid, wrd, lng, flt and dbl are let in, user atoms
 * are not. A column runs by its type's storage: oid as a signed 32-bit integer,
 * wrd as lng. The moments, median, quartile and percentile compute in dbl from
 * values converted to dbl (a lng is rounded); largest and mode answer with a
 * value of the column.
 *
 * Parameters are BATs, whose first row is the value: bte, sht, int, wrd, lng,
 * flt or dbl, not nil. A float given as an integer must be whole to within 1e-7.
 *
 * Group forms: the values b, the group map g (the oid of each row's group in
 * the tail) and the extents e (the groups' oids in the head), as a grouping
 * makes them. The result is the number of a new BAT, handed over to the caller:
 * the head of e, one answer per group in the tail, in the row order of e.
 *
 * Errors: "Object not found"; "Unsupported tail type" for a column not let in,
 * a void column of nils too; "operation failed" for a void column of oids (by the
 * moments of a whole column only if it has rows), and as said below.
 *
 * Random numbers: median, quartile, percentile and largest draw from rand() of
 * the process, so a host that counts on its own sequence notices; no result
 * depends on what is drawn.
 */

/*
 * Standard deviation, variance and skewness, as a sample and (name ending in p)
 * as a population.
 *
 *   variance   (n·S2 − S1²) / (n·(n − 1)), of a population (n·S2 − S1²) / n²
 *   stdev      its square root
 *   skews      m3 / m2^1.5 · √(n·(n − 1)) / (n − 2), skewp without the factor;
 *              m2, m3 the central moments
 *
 * They come from the power sums S1, S2, S3 of one pass. Where a large mean
 * makes n·S2 − S1² negative by cancellation, variance and stdev are 0; where
 * n times it stays below 1e-7, the skewness is nil.
 * Nil: nil rows are skipped. The result is the nil of dbl below 2 values (1 for
 * the population, of skewness 3 and 2), and for an empty column.
 * NaN: makes the result NaN.
 * Floats: rows are added in order within a partition and partitions in order,
 * so GDKnr_threads and the partition settings can change the last bits.
 * Errors: place "vask_1_arg_statistical_func".
 *
 *   double sd;
 *   char *exception = vask_stdev(&sd, &bid);
 */
VASK_EXPORT char *vask_stdev(double *result, const int32_t *bid);
VASK_EXPORT char *vask_stdevp(double *result, const int32_t *bid);
VASK_EXPORT char *vask_variance(double *result, const int32_t *bid);
VASK_EXPORT char *vask_variancep(double *result, const int32_t *bid);
VASK_EXPORT char *vask_skews(double *result, const int32_t *bid);
VASK_EXPORT char *vask_skewp(double *result, const int32_t *bid);

/*
 * The same per group. g is read at the positions of b; e has to start at
 * position 0.
 *
 * Unknown group: a row whose group is not in e ends its partition without a
 * word; what the partition added up to then counts.
 * Map: a g with a void tail makes every row a group of its own. Its answer is 0
 * for the population variance and deviation of a value, otherwise nil; the
 * result's tail then says nonil all the same. b, g and e have equally many rows.
 * Errors: also "operation failed" when the result cannot be made. Place:
 * "vask_grp_1_arg_statistical_func".
 */
VASK_EXPORT char *vask_grp_stdev(int32_t *result, const int32_t *b, const int32_t *g,
                                 const int32_t *e);
VASK_EXPORT char *vask_grp_stdevp(int32_t *result, const int32_t *b, const int32_t *g,
                                  const int32_t *e);
VASK_EXPORT char *vask_grp_variance(int32_t *result, const int32_t *b, const int32_t *g,
                                    const int32_t *e);
VASK_EXPORT char *vask_grp_variancep(int32_t *result, const int32_t *b, const int32_t *g,
                                     const int32_t *e);
VASK_EXPORT char *vask_grp_skews(int32_t *result, const int32_t *b, const int32_t *g,
                                 const int32_t *e);
VASK_EXPORT char *vask_grp_skewp(int32_t *result, const int32_t *b, const int32_t *g,
                                 const int32_t *e);

/*
 * Median, quartile q (0 to 4) and percentile p (0 to 1): the value at position
 * p·(n − 1) of the sorted values, counted from 0, interpolated linearly between
 * the values at the whole positions around it. The median has p = 1/2, a
 * quartile p = q/4.
 *
 * Nil: nils are not skipped. A column with rows has to be marked nonil; without
 * the mark the call ends in "operation failed", and with a wrong one the nils
 * are ordinary numbers. An empty column gives the nil of dbl.
 * NaN: outside all numbers, above or below by its sign; interpolated with, it
 * gives NaN. The order is that of IEEE 754, so -0.0 lies below 0.0.
 * Errors, place "statistics.func": also, for a parameter that is refused,
 * "Quartile function: Invalid input parameter. Input parameter should be one of
 * the following: 0, 1, 2, 3 or 4." and "Percentile function: Invalid input
 * parameter. Input parameter should be between 0 and 1 (including)."; a NaN
 * percentile is an "operation failed". A parameter that cannot be read is refused
 * like one that is out of range.
 * Memory: 8 bytes per row. Running out of it throws std::bad_alloc, and the
 * call's references are lost.
 *
 *   int32_t q = ...;  // a BAT with the value 3 in its first row
 *   double upper_quartile;
 *   char *exception = vask_quartile(&upper_quartile, &bid, &q);
 */
VASK_EXPORT char *vask_median(double *result, const int32_t *bid);
VASK_EXPORT char *vask_quartile(double *result, const int32_t *bid, const int32_t *q);
VASK_EXPORT char *vask_percentile(double *result, const int32_t *bid, const int32_t *p);

/*
 * The k-th largest value, counting duplicates, k from 1 on, and the most
 * frequent value. The result slot takes a value of the column's own type.
 *
 * Nil: as for the median; an empty column gives the nil of its type. So do
 * fewer than k values, and a column in which no value occurs twice, which has
 * no mode. Of several most frequent values the smallest is the mode.
 * NaN: ordered as for the median; never a mode. -0.0 and 0.0 are one value to
 * the mode, given as -0.0 if that is among them.
 * Errors, place "statistics.func": also "Largest function: Invalid input
 * parameter. Input parameter should be a positive integer.". A column of a type
 * without a storage class, such as void or str, is answered with the bare text
 * "statistics.func": this is no exception string and not to be freed.
 * Memory: as the median, at the column's width; the mode as much again, if it can
 * be had.
 */
VASK_EXPORT char *vask_largest(void *result, const int32_t *bid, const int32_t *k);
VASK_EXPORT char *vask_mode(void *result, const int32_t *bid);

/*
 * The same per group.
 *
 * Map: rows of b and g belong together by position if the kernel knows their
 * heads to be aligned; otherwise b's head is looked up in g's, whatever the
 * order of the rows. A void tail of g holds the oids that it counts.
 * Unknown group: a row that is not in g, or whose group is not in e, makes the
 * call an "operation failed". So does running out of memory, and a b that is
 * not marked nonil even if it is empty.
 * Result: read-only; median, quartile and percentile of type dbl, largest and
 * mode of b's. A group without rows has the nil; then the tail is marked nil.
 * Errors: as the whole-column forms.
 * Memory: a copy of the values, 8 bytes per row and 4 per group and thread; in
 * each task a copy of the values of the groups that it works on.
 */
VASK_EXPORT char *vask_grp_median(int32_t *result, const int32_t *b, const int32_t *g,
                                  const int32_t *e);
VASK_EXPORT char *vask_grp_quartile(int32_t *result, const int32_t *b, const int32_t *q,
                                    const int32_t *g, const int32_t *e);
VASK_EXPORT char *vask_grp_percentile(int32_t *result, const int32_t *b, const int32_t *p,
                                      const int32_t *g, const int32_t *e);
VASK_EXPORT char *vask_grp_largest(int32_t *result, const int32_t *b, const int32_t *k,
                                   const int32_t *g, const int32_t *e);
VASK_EXPORT char *vask_grp_mode(int32_t *result, const int32_t *b, const int32_t *g,
                                const int32_t *e);

/*
 * Statistics of two columns whose rows belong together by position: covariance
 * of a sample and (covarp) of a population, Pearson's correlation, and slope and
 * intercept of the least-squares line of a as a function of b.
 *
 *   covars     (n·Sab − Sa·Sb) / ((n − 1)·n), covarp (n·Sab − Sa·Sb) / n²
 *   correl     (n·Sab − Sa·Sb) / √D, cut to −1 .. 1, with
 *              D = (n·Saa − Sa²)·(n·Sbb − Sb²), multiplied out
 *   slope      (n·Sab − Sa·Sb) / D, intercept (Sbb·Sa − Sab·Sb) / D, with
 *              D = n·Sbb − Sb²
 *
 * n counts the rows at which both columns have a value; S are the sums of their
 * values and products, in dbl, from one pass.
 *
 * Inputs: equally many rows, paired by position and read at the positions of a
 * (of b for slope and intercept), so both should have the same first position;
 * heads are not looked at. Types are those of the statistics of one column, in
 * any pair but these: beside a first column of type bit or 2 (b is the first of
 * slope and intercept) the other one is read by the first byte of its elements,
 * whatever its type; beside a first column of type bte, one of type bit or 2 is
 * an "operation failed".
 * Nil: a row with a nil on either side is dropped whole. covars, covarp and
 * correl ask the type's own comparison (atom_cmp, called once per row and
 * column, the second only where the first has a value), slope and intercept
 * compare as numbers, of the byte that is read. The result is the nil of dbl for
 * empty columns, below 1 row (covars 2), and where D is below 1e-7 (of slope and
 * intercept, in absolute value): for a constant column, but also for values that
 * lie very close together, as the threshold does not scale with them.
 * NaN: makes the result NaN, unless it is nil by the above.
 * Overflow: integers become doubles before they are multiplied; sums that leave
 * the range of doubles give infinities or NaN.
 * Floats: rows are added in order within a partition and partitions in order,
 * so GDKnr_threads and the partition settings can change the last bits. Large
 * means cancel digits.
 * Errors, place "vask_2_args_statistical_func": "Object not found"; "Unsupported
 * tail type"; "BAT parameters should be of equal length"; "operation failed" for
 * a void column of oids that has rows, and for the pair above.
 *
 *   double r;
 *   char *exception = vask_correl(&r, &a, &b);
 */
VASK_EXPORT char *vask_covars(double *result, const int32_t *a, const int32_t *b);
VASK_EXPORT char *vask_covarp(double *result, const int32_t *a, const int32_t *b);
VASK_EXPORT char *vask_correl(double *result, const int32_t *a, const int32_t *b);
VASK_EXPORT char *vask_slope(double *result, const int32_t *a, const int32_t *b);
VASK_EXPORT char *vask_intercept(double *result, const int32_t *a, const int32_t *b);

/*
 * The same per group. g is read at the positions of the columns and not checked
 * for its length; e has to start at position 0.
 *
 * Result: the number of a new BAT, owned by whoever receives it: the head of e
 * and a tail of type dbl, in the row order of e. A group without enough pairs,
 * also one without rows, has the nil; the tail is then marked as holding nils.
 * Unknown group: a row with two values whose group is not in e ends its
 * partition without a word; what the partition added up to then counts. Dropped
 * rows are not looked up.
 * Map: a g with a void tail makes every row a group of its own. Its answer is 0
 * for covarp of two values (a nil is here found by comparing as numbers),
 * otherwise nil; the result's tail then says nonil all the same. The columns, g
 * and e have equally many rows, and rows count from position 0.
 * Memory: 8 bytes for each sum and n, per group and partition.
 * Errors, place "vask_grp_2_args_statistical_func": as above, also for empty
 * columns; and "operation failed" when the result cannot be made. A hash of e
 * that cannot be built ends the process through GDKfatal.
 */
VASK_EXPORT char *vask_grp_covars(int32_t *result, const int32_t *a, const int32_t *b,
                                  const int32_t *g, const int32_t *e);
VASK_EXPORT char *vask_grp_covarp(int32_t *result, const int32_t *a, const int32_t *b,
                                  const int32_t *g, const int32_t *e);
VASK_EXPORT char *vask_grp_correl(int32_t *result, const int32_t *a, const int32_t *b,
                                  const int32_t *g, const int32_t *e);
VASK_EXPORT char *vask_grp_slope(int32_t *result, const int32_t *a, const int32_t *b,
                                 const int32_t *g, const int32_t *e);
VASK_EXPORT char *vask_grp_intercept(int32_t *result, const int32_t *a, const int32_t *b,
                                     const int32_t *g, const int32_t *e);

#ifdef __cplusplus
}
#endif

#endif
