/*
 * Every operator through the loaded library, found by name and called from C as a kernel's plan
 * would, each with an answer that is known.
 */
#include "vask_ops.h"

#include "kernel/bat.h"

#include <dlfcn.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { rows = 5, groups = 2, most_answers = 10 };

#define NIL NAN /* in a list of expected numbers */

static const double xs[rows] = {6, 2, 2, 10, 2};
static const double ys[rows] = {1, 3, 2, 5, 4};
static const double with_nil[rows] = {6, NIL, 2, 10, 2};
static const double group_of_row[rows] = {0, 1, 0, 1, 0};
static const double group_sizes[groups] = {3, 2};

/* The operator's name, given as a name of the header with the type declared there. */
#define NAME(type, operator) _Generic(&(operator), type * : #operator)

typedef char *scalar_operator(void *, const int32_t *);
typedef char *count_operator(int64_t *, const int32_t *);
typedef char *statistic(double *, const int32_t *);
typedef char *statistic_with_parameter(double *, const int32_t *, const int32_t *);
typedef char *scalar_operator_with_parameter(void *, const int32_t *, const int32_t *);
typedef char *two_inputs(int32_t *, const int32_t *, const int32_t *);
typedef char *three_inputs(int32_t *, const int32_t *, const int32_t *, const int32_t *);
typedef char *four_inputs(int32_t *, const int32_t *, const int32_t *, const int32_t *,
                          const int32_t *);
typedef char *grouping_operator(int32_t *, int32_t *, const int32_t *);
typedef char *refining_operator(int32_t *, int32_t *, const int32_t *, const int32_t *,
                                const int32_t *);
typedef void array_operator(const uint32_t *, uint64_t, const uint32_t *, uint64_t, int8_t *);

static const char *const exported_names[] = {
#include "exported_names.inc"
};
enum { number_of_names = sizeof exported_names / sizeof *exported_names };

static void *library;
static int called[number_of_names];
static int failures;

static void fail(const char *name, const char *what) {
    fprintf(stderr, "%s: %s\n", name, what);
    ++failures;
}

/* Puts the address of an operator into the function pointer at `place`. */
static const char *find(const char *name, void *place) {
    void *const address = dlsym(library, name);
    if (address == NULL) {
        fail(name, "not found");
        exit(1);
    }
    memcpy(place, &address, sizeof address);
    for (int i = 0; i < number_of_names; ++i)
        if (strcmp(exported_names[i], name) == 0)
            ++called[i];
    return name;
}

/* ---- columns ------------------------------------------------------------ */

static int is_nil(int type, const void *element) {
    return BATatoms[type].atom_cmp(BATatoms[type].atom_null, element) == 0;
}

static void write_element(int type, void *place, double value) {
    if (isnan(value)) {
        memcpy(place, BATatoms[type].atom_null, (size_t)BATatoms[type].atom_size);
        return;
    }
    switch (BATatoms[type].atom_storage) {
        case TYPE_sht:
            *(sht *)place = (sht)value;
            break;
        case TYPE_int:
            *(int32_t *)place = (int32_t)value;
            break;
        case TYPE_lng:
            *(lng *)place = (lng)value;
            break;
        case TYPE_flt:
            *(flt *)place = (flt)value;
            break;
        case TYPE_dbl:
            *(dbl *)place = value;
            break;
        default:
            *(bte *)place = (bte)value;
    }
}

static double read_element(int type, const void *place) {
    if (is_nil(type, place))
        return NIL;
    switch (BATatoms[type].atom_storage) {
        case TYPE_sht:
            return *(const sht *)place;
        case TYPE_int:
            return *(const int32_t *)place;
        case TYPE_lng:
            return (double)*(const lng *)place;
        case TYPE_flt:
            return (double)*(const flt *)place;
        case TYPE_dbl:
            return *(const dbl *)place;
        default:
            return *(const bte *)place;
    }
}

/* A column with a void head from 0 on. */
static BAT *column(int type, const double *values, BUN count) {
    BAT *b = BATnew(TYPE_void, type, count);
    if (b == NULL)
        exit(1);
    b->tail->nonil = 1;
    for (BUN i = 0; i < count; ++i) {
        write_element(type, (char *)b->tail->base + ((size_t)i << b->tail->shift), values[i]);
        if (isnan(values[i]))
            b->tail->nonil = 0;
    }
    BATsetcount(b, count);
    BATseqbase(b, 0);
    return b;
}

/* ---- answers ------------------------------------------------------------ */

/* An operator must have succeeded. */
static int succeeded(const char *name, char *exception) {
    if (exception != NULL)
        fail(name, exception);
    return exception == NULL;
}

static void expect_number(const char *name, double found, double expected) {
    char text[80];
    const int right = isnan(expected) ? isnan(found) : fabs(found - expected) <= 1e-12;
    snprintf(text, sizeof text, "%.17g and not %.17g", found, expected);
    if (!right)
        fail(name, text);
}

static void expect_column(const char *name, const BAT *b, const BATcol *c, const double *expected,
                          BUN count) {
    if (b->info->count != count) {
        fail(name, "wrong number of rows");
        return;
    }
    for (BUN i = 0; i < count; ++i) {
        const BUN p = b->info->first + i;
        const char *place = (const char *)c->base + ((size_t)p << c->shift);
        expect_number(name, c->type == TYPE_void ? c->seqbase + i : read_element(c->type, place),
                      expected[i]);
    }
}

static BAT *bat_of(int32_t id) {
    return BBParr[id >> 16][id & 0xffff].desc;
}

/* A new BAT with these values; it is given back. */
static void expect_result(const char *name, char *exception, int32_t id, int type,
                          const double *expected, BUN count) {
    if (!succeeded(name, exception))
        return;
    const BAT *b = bat_of(id);
    if (b->tail->type != type)
        fail(name, "wrong type");
    expect_column(name, b, b->tail, expected, count);
    BBPdecref(id, 1);
}

/* ---- families ----------------------------------------------------------- */

static void check_sums_and_extremes(void) {
    static const struct {
        const char *name;
        int type, result_type;
        double expected;
    } cases[] = {
        {NAME(scalar_operator, vask_sum_bte), TYPE_bte, TYPE_lng, 22},
        {NAME(scalar_operator, vask_sum_sht), TYPE_sht, TYPE_lng, 22},
        {NAME(scalar_operator, vask_sum_int), TYPE_int, TYPE_lng, 22},
        {NAME(scalar_operator, vask_sum_wrd), TYPE_wrd, TYPE_wrd, 22},
        {NAME(scalar_operator, vask_sum_lng), TYPE_lng, TYPE_lng, 22},
        {NAME(scalar_operator, vask_sum_flt), TYPE_flt, TYPE_flt, 22},
        {NAME(scalar_operator, vask_sum_dbl), TYPE_dbl, TYPE_dbl, 22},
        {NAME(scalar_operator, vask_min_bte), TYPE_bte, TYPE_bte, 2},
        {NAME(scalar_operator, vask_min_sht), TYPE_sht, TYPE_sht, 2},
        {NAME(scalar_operator, vask_min_int), TYPE_int, TYPE_int, 2},
        {NAME(scalar_operator, vask_min_oid), TYPE_oid, TYPE_oid, 2},
        {NAME(scalar_operator, vask_min_wrd), TYPE_wrd, TYPE_wrd, 2},
        {NAME(scalar_operator, vask_min_lng), TYPE_lng, TYPE_lng, 2},
        {NAME(scalar_operator, vask_min_flt), TYPE_flt, TYPE_flt, 2},
        {NAME(scalar_operator, vask_min_dbl), TYPE_dbl, TYPE_dbl, 2},
        {NAME(scalar_operator, vask_min_timestamp), TYPE_lng, TYPE_lng, 2},
        {NAME(scalar_operator, vask_max_bte), TYPE_bte, TYPE_bte, 10},
        {NAME(scalar_operator, vask_max_sht), TYPE_sht, TYPE_sht, 10},
        {NAME(scalar_operator, vask_max_int), TYPE_int, TYPE_int, 10},
        {NAME(scalar_operator, vask_max_oid), TYPE_oid, TYPE_oid, 10},
        {NAME(scalar_operator, vask_max_wrd), TYPE_wrd, TYPE_wrd, 10},
        {NAME(scalar_operator, vask_max_lng), TYPE_lng, TYPE_lng, 10},
        {NAME(scalar_operator, vask_max_flt), TYPE_flt, TYPE_flt, 10},
        {NAME(scalar_operator, vask_max_dbl), TYPE_dbl, TYPE_dbl, 10},
        {NAME(scalar_operator, vask_max_timestamp), TYPE_lng, TYPE_lng, 10},
        {NAME(scalar_operator, vask_mode), TYPE_sht, TYPE_sht, 2},
    };
    for (size_t i = 0; i < sizeof cases / sizeof *cases; ++i) {
        scalar_operator *call;
        const char *name = find(cases[i].name, &call);
        BAT *b = column(cases[i].type, xs, rows);
        lng result = 0;
        if (succeeded(name, call(&result, &b->bat_id)))
            expect_number(name, read_element(cases[i].result_type, &result), cases[i].expected);
        BBPreclaim(b);
    }
}

static void check_counts(void) {
    static const struct {
        const char *name;
        int64_t expected;
    } cases[] = {{NAME(count_operator, vask_count), 4},
                 {NAME(count_operator, vask_count_asterisk), 5}};
    BAT *b = column(TYPE_int, with_nil, rows);
    for (size_t i = 0; i < sizeof cases / sizeof *cases; ++i) {
        count_operator *call;
        const char *name = find(cases[i].name, &call);
        int64_t result = 0;
        if (succeeded(name, call(&result, &b->bat_id)))
            expect_number(name, (double)result, (double)cases[i].expected);
    }
    BBPreclaim(b);
}

static void check_statistics_of_one_column(const BAT *x) {
    static const struct {
        const char *name;
        double expected;
    } cases[] = {
        {NAME(statistic, vask_variance), 12.8},
        {NAME(statistic, vask_variancep), 10.24},
        {NAME(statistic, vask_stdev), 3.5777087639996634},
        {NAME(statistic, vask_stdevp), 3.2},
        {NAME(statistic, vask_skews), 1.257788237343631},
        {NAME(statistic, vask_skewp), 0.84375},
        {NAME(statistic, vask_median), 2},
    };
    double result = 0;
    for (size_t i = 0; i < sizeof cases / sizeof *cases; ++i) {
        statistic *call;
        const char *name = find(cases[i].name, &call);
        if (succeeded(name, call(&result, &x->bat_id)))
            expect_number(name, result, cases[i].expected);
    }
}

/* Whole-column and grouped forms take the same parameters. */
static void check_statistics_with_parameters(const BAT *x, const BAT *g, const BAT *e) {
    static const struct {
        const char *name, *grouped_name;
        int type, result_type;
        double parameter, expected, grouped[groups];
    } cases[] = {
        {NAME(statistic_with_parameter, vask_quartile),
         NAME(four_inputs, vask_grp_quartile),
         TYPE_bte,
         TYPE_dbl,
         3,
         6,
         {4, 8}},
        {NAME(statistic_with_parameter, vask_percentile),
         NAME(four_inputs, vask_grp_percentile),
         TYPE_dbl,
         TYPE_dbl,
         0.875,
         8,
         {5, 9}},
        {NAME(scalar_operator_with_parameter, vask_largest),
         NAME(four_inputs, vask_grp_largest),
         TYPE_lng,
         TYPE_int,
         2,
         6,
         {2, 2}},
    };
    for (size_t i = 0; i < sizeof cases / sizeof *cases; ++i) {
        BAT *parameter = column(cases[i].type, &cases[i].parameter, 1);
        char *exception = NULL;
        dbl result = 0;
        const char *name = cases[i].name;
        if (cases[i].result_type == TYPE_dbl) {
            statistic_with_parameter *call;
            find(name, &call);
            exception = call(&result, &x->bat_id, &parameter->bat_id);
        } else {
            scalar_operator_with_parameter *call;
            find(name, &call);
            exception = call(&result, &x->bat_id, &parameter->bat_id);
        }
        if (succeeded(name, exception))
            expect_number(name, read_element(cases[i].result_type, &result), cases[i].expected);

        four_inputs *call;
        name = find(cases[i].grouped_name, &call);
        int32_t id = 0;
        exception = call(&id, &x->bat_id, &parameter->bat_id, &g->bat_id, &e->bat_id);
        expect_result(name, exception, id, cases[i].result_type, cases[i].grouped, groups);
        BBPreclaim(parameter);
    }
}

static void check_grouped_operators(const BAT *g, const BAT *e) {
    static const struct {
        const char *name;
        const double *values;
        int result_type;
        double expected[groups];
    } cases[] = {
        {NAME(three_inputs, vask_grp_sum), xs, TYPE_lng, {10, 12}},
        {NAME(three_inputs, vask_grp_min), xs, TYPE_int, {2, 2}},
        {NAME(three_inputs, vask_grp_max), xs, TYPE_int, {6, 10}},
        {NAME(three_inputs, vask_grp_count), with_nil, TYPE_wrd, {3, 1}},
        {NAME(three_inputs, vask_grp_count_asterisk), with_nil, TYPE_wrd, {3, 1}},
        {NAME(three_inputs, AggrX3_countDistinct), xs, TYPE_wrd, {2, 2}},
        {NAME(three_inputs, vask_grp_variance), xs, TYPE_dbl, {16.0 / 3, 32}},
        {NAME(three_inputs, vask_grp_variancep), xs, TYPE_dbl, {32.0 / 9, 16}},
        {NAME(three_inputs, vask_grp_stdev), xs, TYPE_dbl, {2.3094010767585030, 5.656854249492381}},
        {NAME(three_inputs, vask_grp_stdevp), xs, TYPE_dbl, {1.8856180831641267, 4}},
        {NAME(three_inputs, vask_grp_skews), xs, TYPE_dbl, {1.7320508075688772, NIL}},
        {NAME(three_inputs, vask_grp_skewp), xs, TYPE_dbl, {0.7071067811865476, 0}},
        {NAME(three_inputs, vask_grp_median), xs, TYPE_dbl, {2, 6}},
        {NAME(three_inputs, vask_grp_mode), xs, TYPE_int, {2, NIL}},
    };
    for (size_t i = 0; i < sizeof cases / sizeof *cases; ++i) {
        three_inputs *call;
        const char *name = find(cases[i].name, &call);
        BAT *b = column(TYPE_int, cases[i].values, rows);
        int32_t id = 0;
        char *exception = call(&id, &b->bat_id, &g->bat_id, &e->bat_id);
        expect_result(name, exception, id, cases[i].result_type, cases[i].expected, groups);
        BBPreclaim(b);
    }
}

static void check_statistics_of_two_columns(const BAT *x, const BAT *y, const BAT *g,
                                            const BAT *e) {
    static const struct {
        const char *name, *grouped_name;
        double expected, grouped[groups];
    } cases[] = {
        {NAME(statistic_with_parameter, vask_covars),
         NAME(four_inputs, vask_grp_covars),
         2,
         {-8.0 / 3, 8}},
        {NAME(statistic_with_parameter, vask_covarp),
         NAME(four_inputs, vask_grp_covarp),
         1.6,
         {-16.0 / 9, 4}},
        {NAME(statistic_with_parameter, vask_correl),
         NAME(four_inputs, vask_grp_correl),
         0.35355339059327373,
         {-0.7559289460184544, 1}},
        {NAME(statistic_with_parameter, vask_slope),
         NAME(four_inputs, vask_grp_slope),
         0.15625,
         {-0.5, 0.25}},
        {NAME(statistic_with_parameter, vask_intercept),
         NAME(four_inputs, vask_grp_intercept),
         2.3125,
         {4, 2.5}},
    };
    for (size_t i = 0; i < sizeof cases / sizeof *cases; ++i) {
        statistic_with_parameter *call;
        const char *name = find(cases[i].name, &call);
        double result = 0;
        if (succeeded(name, call(&result, &y->bat_id, &x->bat_id)))
            expect_number(name, result, cases[i].expected);

        four_inputs *grouped;
        name = find(cases[i].grouped_name, &grouped);
        int32_t id = 0;
        char *exception = grouped(&id, &y->bat_id, &x->bat_id, &g->bat_id, &e->bat_id);
        expect_result(name, exception, id, TYPE_dbl, cases[i].grouped, groups);
    }
}

static void check_grouping(const BAT *x, const BAT *g, const BAT *e) {
    static const double first_rows[] = {0, 1, 3};
    static const double sizes[] = {1, 3, 1};
    static const double map_of_x[] = {0, 1, 1, 3, 1};
    static const double refined_rows[] = {0, 1, 2, 3};
    static const double refined_sizes[] = {1, 1, 2, 1};
    static const double refined_map[] = {0, 1, 2, 3, 2};
    int32_t extents = 0;
    int32_t map = 0;

    grouping_operator *group;
    const char *name = find(NAME(grouping_operator, VASKgroup), &group);
    if (succeeded(name, group(&extents, &map, &x->bat_id))) {
        expect_column(name, bat_of(extents), bat_of(extents)->head, first_rows, 3);
        expect_result(name, NULL, extents, TYPE_wrd, sizes, 3);
        expect_result(name, NULL, map, TYPE_oid, map_of_x, rows);
    }
    refining_operator *derive;
    name = find(NAME(refining_operator, VASKderive), &derive);
    if (succeeded(name, derive(&extents, &map, &e->bat_id, &g->bat_id, &x->bat_id))) {
        expect_column(name, bat_of(extents), bat_of(extents)->head, refined_rows, 4);
        expect_result(name, NULL, extents, TYPE_wrd, refined_sizes, 4);
        expect_result(name, NULL, map, TYPE_oid, refined_map, rows);
    }
}

static void check_sets(const BAT *x, const BAT *y) {
    static const uint32_t left[rows] = {6, 2, 2, 10, 2};
    static const uint32_t right[] = {7, 2, 6};
    static const int8_t contained[rows] = {1, 1, 1, 0, 1};
    static const double in_y[rows] = {0, 1, 1, 0, 1};
    static const double both[most_answers] = {6, 2, 2, 10, 2, 1, 3, 2, 5, 4};
    static const double both_rows[most_answers] = {0, 1, 2, 3, 4, 0, 1, 2, 3, 4};
    int8_t mask[rows] = {7, 7, 7, 7, 7};
    int32_t id = 0;

    array_operator *arrays;
    const char *name = find(NAME(array_operator, vaskops_are_indexes_contained), &arrays);
    arrays(left, rows, right, 3, mask);
    if (memcmp(mask, contained, sizeof mask) != 0)
        fail(name, "wrong mask");

    two_inputs *call;
    name = find(NAME(two_inputs, vaskops_are_bat_indexes_contained), &call);
    char *exception = call(&id, &x->bat_id, &y->bat_id);
    expect_result(name, exception, id, TYPE_bit, in_y, rows);

    name = find(NAME(two_inputs, vask_coSNNandUnion), &call);
    exception = call(&id, &x->bat_id, &y->bat_id);
    if (exception == NULL)
        expect_column(name, bat_of(id), bat_of(id)->head, both_rows, most_answers);
    expect_result(name, exception, id, TYPE_int, both, most_answers);
}

int main(int argc, char **argv) {
    library = argc == 2 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : NULL;
    if (library == NULL) {
        fprintf(stderr, "cannot load the library: %s\n", argc == 2 ? dlerror() : "which?");
        return 1;
    }
    BAT *x = column(TYPE_int, xs, rows);
    BAT *y = column(TYPE_int, ys, rows);
    BAT *g = column(TYPE_oid, group_of_row, rows);
    BAT *e = column(TYPE_wrd, group_sizes, groups);
    check_sums_and_extremes();
    check_counts();
    check_statistics_of_one_column(x);
    check_statistics_with_parameters(x, g, e);
    check_grouped_operators(g, e);
    check_statistics_of_two_columns(x, y, g, e);
    check_grouping(x, g, e);
    check_sets(x, y);
    for (int i = 0; i < number_of_names; ++i)
        if (!called[i])
            fail(exported_names[i], "never called");
    BBPreclaim(x);
    BBPreclaim(y);
    BBPreclaim(g);
    BBPreclaim(e);
    return failures != 0;
}
