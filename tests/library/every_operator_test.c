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

enum { rows = 5, groups = 2, most_inputs = 4, most_answers = 10 };

#define NIL NAN /* in a list of numbers */

static const char *const exported_names[] = {
#include "exported_names.inc"
};
enum { number_of_names = sizeof exported_names / sizeof *exported_names };

typedef const int32_t *input;
typedef char *of_one(void *, input);
typedef char *count_of_one(int64_t *, input);
typedef char *number_of_one(double *, input);
typedef char *of_two(void *, input, input);
typedef char *number_of_two(double *, input, input);
typedef char *bat_of_two(int32_t *, input, input);
typedef char *bat_of_three(int32_t *, input, input, input);
typedef char *bat_of_four(int32_t *, input, input, input, input);
typedef char *bats_of_one(int32_t *, int32_t *, input);
typedef char *bats_of_three(int32_t *, int32_t *, input, input, input);
typedef void of_arrays(const uint32_t *, uint64_t, const uint32_t *, uint64_t, int8_t *);

union operator_pointer {
    of_one *one;
    count_of_one *count;
    number_of_one *number;
    of_two *two;
    number_of_two *number_of_two;
    bat_of_two *bat_of_two;
    bat_of_three *bat_of_three;
    bat_of_four *bat_of_four;
    bats_of_one *group;
    bats_of_three *derive;
    of_arrays *arrays;
};

enum shape { one, count, number, two, two_numbers, bat_two, bat_three, bat_four };

/* An operator of the header: its name, and its shape by the type declared there. */
/* clang-format off */
#define OPERATOR(name)                                                                             \
    #name, _Generic(&(name), of_one *: one, count_of_one *: count, number_of_one *: number,        \
                    of_two *: two, number_of_two *: two_numbers,                                   \
                    bat_of_two *: bat_two, bat_of_three *: bat_three, bat_of_four *: bat_four)
/* clang-format on */
/* The same of another shape. */
#define NAME(type, name) _Generic(&(name), type * : #name)

/* ---- what the operators are called with --------------------------------- */

static const double xs[rows] = {6, 2, 2, 10, 2};
static const double ys[rows] = {1, 3, 2, 5, 4};
static const double with_nil[rows] = {6, NIL, 2, 10, 2};
static const double group_of_row[rows] = {0, 1, 0, 1, 0};
static const double group_sizes[groups] = {3, 2};
static const double quartile = 3, percentile = 0.875, rank = 2;

/* The columns by the letters that stand for them; the first ones are xs in every type. */
static const struct {
    char letter;
    int type;
    const double *values;
    BUN count;
} columns[] = {
    {'b', TYPE_bte, xs, rows},           {'s', TYPE_sht, xs, rows},
    {'i', TYPE_int, xs, rows},           {'o', TYPE_oid, xs, rows},
    {'w', TYPE_wrd, xs, rows},           {'l', TYPE_lng, xs, rows},
    {'f', TYPE_flt, xs, rows},           {'d', TYPE_dbl, xs, rows},
    {'y', TYPE_int, ys, rows},           {'n', TYPE_int, with_nil, rows},
    {'g', TYPE_oid, group_of_row, rows}, {'e', TYPE_wrd, group_sizes, groups},
    {'q', TYPE_bte, &quartile, 1},       {'p', TYPE_dbl, &percentile, 1},
    {'k', TYPE_lng, &rank, 1},
};
enum { number_of_columns = sizeof columns / sizeof *columns };

static const struct {
    const char *name;
    enum shape shape;
    const char *inputs;
    int type; /* of the answer */
    BUN count;
    double expected[most_answers];
} cases[] = {
    {OPERATOR(vask_sum_bte), "b", TYPE_lng, 1, {22}},
    {OPERATOR(vask_sum_sht), "s", TYPE_lng, 1, {22}},
    {OPERATOR(vask_sum_int), "i", TYPE_lng, 1, {22}},
    {OPERATOR(vask_sum_wrd), "w", TYPE_wrd, 1, {22}},
    {OPERATOR(vask_sum_lng), "l", TYPE_lng, 1, {22}},
    {OPERATOR(vask_sum_flt), "f", TYPE_flt, 1, {22}},
    {OPERATOR(vask_sum_dbl), "d", TYPE_dbl, 1, {22}},
    {OPERATOR(vask_min_bte), "b", TYPE_bte, 1, {2}},
    {OPERATOR(vask_min_sht), "s", TYPE_sht, 1, {2}},
    {OPERATOR(vask_min_int), "i", TYPE_int, 1, {2}},
    {OPERATOR(vask_min_oid), "o", TYPE_oid, 1, {2}},
    {OPERATOR(vask_min_wrd), "w", TYPE_wrd, 1, {2}},
    {OPERATOR(vask_min_lng), "l", TYPE_lng, 1, {2}},
    {OPERATOR(vask_min_flt), "f", TYPE_flt, 1, {2}},
    {OPERATOR(vask_min_dbl), "d", TYPE_dbl, 1, {2}},
    {OPERATOR(vask_min_timestamp), "l", TYPE_lng, 1, {2}},
    {OPERATOR(vask_max_bte), "b", TYPE_bte, 1, {10}},
    {OPERATOR(vask_max_sht), "s", TYPE_sht, 1, {10}},
    {OPERATOR(vask_max_int), "i", TYPE_int, 1, {10}},
    {OPERATOR(vask_max_oid), "o", TYPE_oid, 1, {10}},
    {OPERATOR(vask_max_wrd), "w", TYPE_wrd, 1, {10}},
    {OPERATOR(vask_max_lng), "l", TYPE_lng, 1, {10}},
    {OPERATOR(vask_max_flt), "f", TYPE_flt, 1, {10}},
    {OPERATOR(vask_max_dbl), "d", TYPE_dbl, 1, {10}},
    {OPERATOR(vask_max_timestamp), "l", TYPE_lng, 1, {10}},
    {OPERATOR(vask_count), "n", TYPE_lng, 1, {4}},
    {OPERATOR(vask_count_asterisk), "n", TYPE_lng, 1, {5}},
    {OPERATOR(vask_variance), "i", TYPE_dbl, 1, {12.8}},
    {OPERATOR(vask_variancep), "i", TYPE_dbl, 1, {10.24}},
    {OPERATOR(vask_stdev), "i", TYPE_dbl, 1, {3.5777087639996634}},
    {OPERATOR(vask_stdevp), "i", TYPE_dbl, 1, {3.2}},
    {OPERATOR(vask_skews), "i", TYPE_dbl, 1, {1.257788237343631}},
    {OPERATOR(vask_skewp), "i", TYPE_dbl, 1, {0.84375}},
    {OPERATOR(vask_median), "i", TYPE_dbl, 1, {2}},
    {OPERATOR(vask_mode), "s", TYPE_sht, 1, {2}},
    {OPERATOR(vask_quartile), "iq", TYPE_dbl, 1, {6}},
    {OPERATOR(vask_percentile), "ip", TYPE_dbl, 1, {8}},
    {OPERATOR(vask_largest), "ik", TYPE_int, 1, {6}},
    {OPERATOR(vask_covars), "yi", TYPE_dbl, 1, {2}},
    {OPERATOR(vask_covarp), "yi", TYPE_dbl, 1, {1.6}},
    {OPERATOR(vask_correl), "yi", TYPE_dbl, 1, {0.35355339059327373}},
    {OPERATOR(vask_slope), "yi", TYPE_dbl, 1, {0.15625}},
    {OPERATOR(vask_intercept), "yi", TYPE_dbl, 1, {2.3125}},
    {OPERATOR(vask_grp_sum), "ige", TYPE_lng, 2, {10, 12}},
    {OPERATOR(vask_grp_min), "ige", TYPE_int, 2, {2, 2}},
    {OPERATOR(vask_grp_max), "ige", TYPE_int, 2, {6, 10}},
    {OPERATOR(vask_grp_count), "nge", TYPE_wrd, 2, {3, 1}},
    {OPERATOR(vask_grp_count_asterisk), "nge", TYPE_wrd, 2, {3, 1}},
    {OPERATOR(AggrX3_countDistinct), "ige", TYPE_wrd, 2, {2, 2}},
    {OPERATOR(vask_grp_variance), "ige", TYPE_dbl, 2, {16.0 / 3, 32}},
    {OPERATOR(vask_grp_variancep), "ige", TYPE_dbl, 2, {32.0 / 9, 16}},
    {OPERATOR(vask_grp_stdev), "ige", TYPE_dbl, 2, {2.3094010767585030, 5.656854249492381}},
    {OPERATOR(vask_grp_stdevp), "ige", TYPE_dbl, 2, {1.8856180831641267, 4}},
    {OPERATOR(vask_grp_skews), "ige", TYPE_dbl, 2, {1.7320508075688772, NIL}},
    {OPERATOR(vask_grp_skewp), "ige", TYPE_dbl, 2, {0.7071067811865476, 0}},
    {OPERATOR(vask_grp_median), "ige", TYPE_dbl, 2, {2, 6}},
    {OPERATOR(vask_grp_mode), "ige", TYPE_int, 2, {2, NIL}},
    {OPERATOR(vask_grp_quartile), "iqge", TYPE_dbl, 2, {4, 8}},
    {OPERATOR(vask_grp_percentile), "ipge", TYPE_dbl, 2, {5, 9}},
    {OPERATOR(vask_grp_largest), "ikge", TYPE_int, 2, {2, 2}},
    {OPERATOR(vask_grp_covars), "yige", TYPE_dbl, 2, {-8.0 / 3, 8}},
    {OPERATOR(vask_grp_covarp), "yige", TYPE_dbl, 2, {-16.0 / 9, 4}},
    {OPERATOR(vask_grp_correl), "yige", TYPE_dbl, 2, {-0.7559289460184544, 1}},
    {OPERATOR(vask_grp_slope), "yige", TYPE_dbl, 2, {-0.5, 0.25}},
    {OPERATOR(vask_grp_intercept), "yige", TYPE_dbl, 2, {4, 2.5}},
    {OPERATOR(vaskops_are_bat_indexes_contained), "iy", TYPE_bit, 5, {0, 1, 1, 0, 1}},
    {OPERATOR(vask_coSNNandUnion), "iy", TYPE_int, 10, {6, 2, 2, 10, 2, 1, 3, 2, 5, 4}},
};
enum { number_of_cases = sizeof cases / sizeof *cases };

/* ---- the library and the kernel ----------------------------------------- */

static void *library;
static int called[number_of_names];
static int failures;
static BAT *inputs[number_of_columns];

static void fail(const char *name, const char *what) {
    fprintf(stderr, "%s: %s\n", name, what);
    ++failures;
}

static union operator_pointer find(const char *name) {
    union operator_pointer found;
    void *const address = dlsym(library, name);
    if (address == NULL) {
        fail(name, "not found");
        exit(1);
    }
    memcpy(&found, &address, sizeof address);
    for (int i = 0; i < number_of_names; ++i)
        called[i] += strcmp(exported_names[i], name) == 0;
    return found;
}

static BAT *bat_of(int32_t id) {
    return BBParr[id >> 16][id & 0xffff].desc;
}

static input id_of(char letter) {
    for (int i = 0; i < number_of_columns; ++i)
        if (columns[i].letter == letter)
            return &inputs[i]->bat_id;
    return NULL;
}

static double read_element(int type, const void *place) {
    ValRecord value;
    if (BATatoms[type].atom_cmp(BATatoms[type].atom_null, place) == 0)
        return NIL;
    VALset(&value, type, place);
    return *(const double *)VALconvert(TYPE_dbl, &value);
}

/* A column with a void head from 0 on. */
static BAT *make_column(int type, const double *values, BUN number_of_rows) {
    BAT *b = BATnew(TYPE_void, type, number_of_rows);
    if (b == NULL)
        exit(1);
    b->tail->nonil = 1;
    for (BUN i = 0; i < number_of_rows; ++i) {
        ValRecord value;
        VALset(&value, TYPE_dbl, &values[i]);
        memcpy((char *)b->tail->base + ((size_t)i << b->tail->shift), VALconvert(type, &value),
               (size_t)BATatoms[type].atom_size);
        if (isnan(values[i]))
            b->tail->nonil = 0;
    }
    BATsetcount(b, number_of_rows);
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
                          BUN number_of_rows) {
    if (b->info->count != number_of_rows) {
        fail(name, "wrong number of rows");
        return;
    }
    for (BUN i = 0; i < number_of_rows; ++i) {
        const BUN p = b->info->first + i;
        const char *place = (const char *)c->base + ((size_t)p << c->shift);
        expect_number(name, c->type == TYPE_void ? c->seqbase + i : read_element(c->type, place),
                      expected[i]);
    }
}

/* A new BAT with these values; it is given back. */
static void expect_bat(const char *name, int32_t id, int type, const double *expected,
                       BUN number_of_rows) {
    const BAT *b = bat_of(id);
    if (b->tail->type != type)
        fail(name, "wrong type");
    expect_column(name, b, b->tail, expected, number_of_rows);
    BBPdecref(id, 1);
}

union answer {
    lng value; /* of any type that is no wider */
    int64_t count;
    double number;
    int32_t id;
};

static char *call(const char *name, enum shape shape, union answer *to, const input *in) {
    const union operator_pointer f = find(name);
    switch (shape) {
        case one:
            return f.one(to, in[0]);
        case count:
            return f.count(&to->count, in[0]);
        case number:
            return f.number(&to->number, in[0]);
        case two:
            return f.two(to, in[0], in[1]);
        case two_numbers:
            return f.number_of_two(&to->number, in[0], in[1]);
        case bat_two:
            return f.bat_of_two(&to->id, in[0], in[1]);
        case bat_three:
            return f.bat_of_three(&to->id, in[0], in[1], in[2]);
        default:
            return f.bat_of_four(&to->id, in[0], in[1], in[2], in[3]);
    }
}

static void check_case(int i) {
    static const double both_rows[] = {0, 1, 2, 3, 4, 0, 1, 2, 3, 4};
    const char *name = cases[i].name;
    input in[most_inputs] = {NULL};
    union answer answer = {0};
    for (int n = 0; cases[i].inputs[n] != '\0'; ++n)
        in[n] = id_of(cases[i].inputs[n]);
    if (!succeeded(name, call(name, cases[i].shape, &answer, in)))
        return;
    if (cases[i].shape < bat_two) {
        expect_number(name, read_element(cases[i].type, &answer), cases[i].expected[0]);
        return;
    }
    if (cases[i].count == most_answers)
        expect_column(name, bat_of(answer.id), bat_of(answer.id)->head, both_rows, most_answers);
    expect_bat(name, answer.id, cases[i].type, cases[i].expected, cases[i].count);
}

static void expect_groups(const char *name, int32_t extents, int32_t map, const double *first_rows,
                          const double *sizes, BUN number_of_groups, const double *map_of_rows) {
    expect_column(name, bat_of(extents), bat_of(extents)->head, first_rows, number_of_groups);
    expect_bat(name, extents, TYPE_wrd, sizes, number_of_groups);
    expect_bat(name, map, TYPE_oid, map_of_rows, rows);
}

static void check_grouping(void) {
    int32_t extents = 0;
    int32_t map = 0;
    const char *name = NAME(bats_of_one, VASKgroup);
    if (succeeded(name, find(name).group(&extents, &map, id_of('i'))))
        expect_groups(name, extents, map, (const double[]){0, 1, 3}, (const double[]){1, 3, 1}, 3,
                      (const double[]){0, 1, 1, 3, 1});
    name = NAME(bats_of_three, VASKderive);
    if (succeeded(name, find(name).derive(&extents, &map, id_of('e'), id_of('g'), id_of('i'))))
        expect_groups(name, extents, map, (const double[]){0, 1, 2, 3},
                      (const double[]){1, 1, 2, 1}, 4, (const double[]){0, 1, 2, 3, 2});
}

static void check_arrays(void) {
    static const uint32_t left[rows] = {6, 2, 2, 10, 2};
    static const uint32_t right[] = {7, 2, 6};
    static const int8_t contained[rows] = {1, 1, 1, 0, 1};
    int8_t mask[rows] = {7, 7, 7, 7, 7};
    const char *name = NAME(of_arrays, vaskops_are_indexes_contained);
    find(name).arrays(left, rows, right, 3, mask);
    if (memcmp(mask, contained, sizeof mask) != 0)
        fail(name, "wrong mask");
}

int main(int argc, char **argv) {
    library = argc == 2 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : NULL;
    if (library == NULL) {
        fprintf(stderr, "cannot load the library: %s\n", argc == 2 ? dlerror() : "which?");
        return 1;
    }
    for (int i = 0; i < number_of_columns; ++i)
        inputs[i] = make_column(columns[i].type, columns[i].values, columns[i].count);
    for (int i = 0; i < number_of_cases; ++i)
        check_case(i);
    check_grouping();
    check_arrays();
    for (int i = 0; i < number_of_names; ++i)
        if (!called[i])
            fail(exported_names[i], "never called");
    for (int i = 0; i < number_of_columns; ++i)
        BBPreclaim(inputs[i]);
    return failures != 0;
}
