// Every operator through the loaded library, found by name as a kernel finds it, each with an
// answer that is known.
#include "library/any_operator.h"
#include "support/element_types.h"
#include "support/leak_guard.h"
#include "vask/ops.h"

#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <gtest/gtest.h>

namespace {

using namespace support;
using refkernel::bat;
using numbers = std::vector<double>;

constexpr double nil = std::numeric_limits<double>::quiet_NaN(); // in a list of numbers

const std::set<std::string> exported_names = {
#include "exported_names.inc"
};

std::set<std::string> asked_for;

//! A function of the library. It stays loaded: the scheduler's threads outlive the calls.
template <class Function>
Function find(const char *name) {
    static void *const library = dlopen(VASK_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    asked_for.insert(name);
    void *const function = library == nullptr ? nullptr : dlsym(library, name);
    if (function == nullptr)
        throw std::runtime_error(dlerror());
    return std::bit_cast<Function>(function);
}

bat column_of(int type, const numbers &values) {
    return with_element_of(type, [&]<class T>(T) {
        std::vector<T> elements;
        bool nonil = true;
        for (const double v : values) {
            elements.push_back(std::isnan(v) ? refkernel::nil_of<T>() : static_cast<T>(v));
            nonil = nonil && !std::isnan(v);
        }
        return refkernel::make_column(std::span<const T>(elements),
                                      {.type = type, .tail = {.nonil = nonil}});
    });
}

template <class T>
double number_of(T value) {
    return value == refkernel::nil_of<T>() ? nil : static_cast<double>(value);
}

numbers tail_of(const bat &b) {
    return with_element_of(b.type(), [&]<class T>(T) {
        const auto elements = static_cast<const T *>(b->tail->base) + b->info->first;
        numbers found;
        for (BUN row = 0; row < b.count(); ++row)
            found.push_back(number_of(elements[row]));
        return found;
    });
}

numbers head_of(const bat &b) {
    numbers found;
    for (BUN row = 0; row < b.count(); ++row)
        found.push_back(b.head_oid(row));
    return found;
}

void expect_numbers(const numbers &found, const numbers &expected) {
    ASSERT_EQ(found.size(), expected.size());
    for (std::size_t i = 0; i < found.size(); ++i)
        EXPECT_TRUE(std::isnan(expected[i]) ? std::isnan(found[i])
                                            : std::fabs(found[i] - expected[i]) <= 1e-12)
            << found[i] << " and not " << expected[i] << " at " << i;
}

//! A grouping's extents and map, given back by their numbers.
void expect_groups(char *message, const std::array<std::int32_t, 2> &made, const numbers &ids,
                   const numbers &sizes, const numbers &map) {
    ASSERT_EQ(refkernel::take_exception(message), refkernel::operator_failure{});
    const bat extents = bat::adopt(made[0]);
    expect_numbers(head_of(extents), ids);
    expect_numbers(tail_of(extents), sizes);
    expect_numbers(tail_of(bat::adopt(made[1])), map);
}

TEST(Library, EveryOperatorGivesItsKnownAnswer) {
    const leak_guard leaks;
    // The columns by the letters that stand for them; the first ones are xs in every type.
    const numbers xs{6, 2, 2, 10, 2};
    const numbers ys{1, 3, 2, 5, 4};
    std::map<char, bat> named;
    for (const auto &[letter, type] : {std::pair('b', int{TYPE_bte}),
                                       {'s', TYPE_sht},
                                       {'i', TYPE_int},
                                       {'o', TYPE_oid},
                                       {'w', TYPE_wrd},
                                       {'l', TYPE_lng},
                                       {'f', TYPE_flt},
                                       {'d', TYPE_dbl}})
        named[letter] = column_of(type, xs);
    named['y'] = column_of(TYPE_int, ys);
    named['n'] = column_of(TYPE_int, {6, nil, 2, 10, 2});
    named['g'] = column_of(TYPE_oid, {0, 1, 0, 1, 0});
    named['e'] = column_of(TYPE_wrd, {3, 2}); // the sizes of the groups
    named['q'] = column_of(TYPE_bte, {3});
    named['p'] = column_of(TYPE_dbl, {0.875});
    named['k'] = column_of(TYPE_lng, {2});

    struct known_answer {
        const char *name;
        any_operator call;
        std::string inputs;
        int type; // of the answer
        numbers expected;
    };
// An operator by its name, of the type that the header declares.
#define OPERATOR(name) #name, any_operator(find <decltype(&(name))>(#name))
    const known_answer cases[] = {
        {OPERATOR(vask_sum_bte), "b", TYPE_lng, {22}},
        {OPERATOR(vask_sum_sht), "s", TYPE_lng, {22}},
        {OPERATOR(vask_sum_int), "i", TYPE_lng, {22}},
        {OPERATOR(vask_sum_wrd), "w", TYPE_wrd, {22}},
        {OPERATOR(vask_sum_lng), "l", TYPE_lng, {22}},
        {OPERATOR(vask_sum_flt), "f", TYPE_flt, {22}},
        {OPERATOR(vask_sum_dbl), "d", TYPE_dbl, {22}},
        {OPERATOR(vask_min_bte), "b", TYPE_bte, {2}},
        {OPERATOR(vask_min_sht), "s", TYPE_sht, {2}},
        {OPERATOR(vask_min_int), "i", TYPE_int, {2}},
        {OPERATOR(vask_min_oid), "o", TYPE_oid, {2}},
        {OPERATOR(vask_min_wrd), "w", TYPE_wrd, {2}},
        {OPERATOR(vask_min_lng), "l", TYPE_lng, {2}},
        {OPERATOR(vask_min_flt), "f", TYPE_flt, {2}},
        {OPERATOR(vask_min_dbl), "d", TYPE_dbl, {2}},
        {OPERATOR(vask_min_timestamp), "l", TYPE_lng, {2}},
        {OPERATOR(vask_max_bte), "b", TYPE_bte, {10}},
        {OPERATOR(vask_max_sht), "s", TYPE_sht, {10}},
        {OPERATOR(vask_max_int), "i", TYPE_int, {10}},
        {OPERATOR(vask_max_oid), "o", TYPE_oid, {10}},
        {OPERATOR(vask_max_wrd), "w", TYPE_wrd, {10}},
        {OPERATOR(vask_max_lng), "l", TYPE_lng, {10}},
        {OPERATOR(vask_max_flt), "f", TYPE_flt, {10}},
        {OPERATOR(vask_max_dbl), "d", TYPE_dbl, {10}},
        {OPERATOR(vask_max_timestamp), "l", TYPE_lng, {10}},
        {OPERATOR(vask_count), "n", TYPE_lng, {4}},
        {OPERATOR(vask_count_asterisk), "n", TYPE_lng, {5}},
        {OPERATOR(vask_variance), "i", TYPE_dbl, {12.8}},
        {OPERATOR(vask_variancep), "i", TYPE_dbl, {10.24}},
        {OPERATOR(vask_stdev), "i", TYPE_dbl, {3.5777087639996634}},
        {OPERATOR(vask_stdevp), "i", TYPE_dbl, {3.2}},
        {OPERATOR(vask_skews), "i", TYPE_dbl, {1.257788237343631}},
        {OPERATOR(vask_skewp), "i", TYPE_dbl, {0.84375}},
        {OPERATOR(vask_median), "i", TYPE_dbl, {2}},
        {OPERATOR(vask_mode), "s", TYPE_sht, {2}},
        {OPERATOR(vask_quartile), "iq", TYPE_dbl, {6}},
        {OPERATOR(vask_percentile), "ip", TYPE_dbl, {8}},
        {OPERATOR(vask_largest), "ik", TYPE_int, {6}},
        {OPERATOR(vask_covars), "yi", TYPE_dbl, {2}},
        {OPERATOR(vask_covarp), "yi", TYPE_dbl, {1.6}},
        {OPERATOR(vask_correl), "yi", TYPE_dbl, {0.35355339059327373}},
        {OPERATOR(vask_slope), "yi", TYPE_dbl, {0.15625}},
        {OPERATOR(vask_intercept), "yi", TYPE_dbl, {2.3125}},
        {OPERATOR(vask_grp_sum), "ige", TYPE_lng, {10, 12}},
        {OPERATOR(vask_grp_min), "ige", TYPE_int, {2, 2}},
        {OPERATOR(vask_grp_max), "ige", TYPE_int, {6, 10}},
        {OPERATOR(vask_grp_count), "nge", TYPE_wrd, {3, 1}},
        {OPERATOR(vask_grp_count_asterisk), "nge", TYPE_wrd, {3, 1}},
        {OPERATOR(AggrX3_countDistinct), "ige", TYPE_wrd, {2, 2}},
        {OPERATOR(vask_grp_variance), "ige", TYPE_dbl, {16.0 / 3, 32}},
        {OPERATOR(vask_grp_variancep), "ige", TYPE_dbl, {32.0 / 9, 16}},
        {OPERATOR(vask_grp_stdev), "ige", TYPE_dbl, {2.3094010767585030, 5.656854249492381}},
        {OPERATOR(vask_grp_stdevp), "ige", TYPE_dbl, {1.8856180831641267, 4}},
        {OPERATOR(vask_grp_skews), "ige", TYPE_dbl, {1.7320508075688772, nil}},
        {OPERATOR(vask_grp_skewp), "ige", TYPE_dbl, {0.7071067811865476, 0}},
        {OPERATOR(vask_grp_median), "ige", TYPE_dbl, {2, 6}},
        {OPERATOR(vask_grp_mode), "ige", TYPE_int, {2, nil}},
        {OPERATOR(vask_grp_quartile), "iqge", TYPE_dbl, {4, 8}},
        {OPERATOR(vask_grp_percentile), "ipge", TYPE_dbl, {5, 9}},
        {OPERATOR(vask_grp_largest), "ikge", TYPE_int, {2, 2}},
        {OPERATOR(vask_grp_covars), "yige", TYPE_dbl, {-8.0 / 3, 8}},
        {OPERATOR(vask_grp_covarp), "yige", TYPE_dbl, {-16.0 / 9, 4}},
        {OPERATOR(vask_grp_correl), "yige", TYPE_dbl, {-0.7559289460184544, 1}},
        {OPERATOR(vask_grp_slope), "yige", TYPE_dbl, {-0.5, 0.25}},
        {OPERATOR(vask_grp_intercept), "yige", TYPE_dbl, {4, 2.5}},
        {OPERATOR(vaskops_are_bat_indexes_contained), "iy", TYPE_bit, {0, 1, 1, 0, 1}},
        {OPERATOR(vask_coSNNandUnion), "iy", TYPE_int, {6, 2, 2, 10, 2, 1, 3, 2, 5, 4}},
    };
#undef OPERATOR
    for (const known_answer &c : cases) {
        SCOPED_TRACE(c.name);
        columns inputs;
        for (const char letter : c.inputs)
            inputs.push_back(&named.at(letter));
        lng slot = 0;
        ASSERT_EQ(refkernel::take_exception(c.call(&slot, inputs)), refkernel::operator_failure{});
        if (!c.call.gives_column()) {
            with_element_of(c.type, [&]<class T>(T value) {
                std::memcpy(&value, &slot, sizeof value);
                expect_numbers({number_of(value)}, c.expected);
            });
            continue;
        }
        const bat answer = bat::adopt(static_cast<std::int32_t>(slot));
        EXPECT_EQ(answer.type(), c.type);
        expect_numbers(tail_of(answer), c.expected);
        for (BUN row = 0; row < answer.count(); ++row) // the union's are those of both sides
            EXPECT_EQ(answer.head_oid(row), row % xs.size());
    }

    std::array<std::int32_t, 2> made{};
    const auto group = find<decltype(&VASKgroup)>("VASKgroup");
    expect_groups(group(&made[0], &made[1], named['i'].slot()), made, {0, 1, 3}, {1, 3, 1},
                  {0, 1, 1, 3, 1});
    const auto derive = find<decltype(&VASKderive)>("VASKderive");
    expect_groups(
        derive(&made[0], &made[1], named['e'].slot(), named['g'].slot(), named['i'].slot()), made,
        {0, 1, 2, 3}, {1, 1, 2, 1}, {0, 1, 2, 3, 2});

    const auto contained =
        find<decltype(&vaskops_are_indexes_contained)>("vaskops_are_indexes_contained");
    const std::array<std::uint32_t, 5> left{6, 2, 2, 10, 2};
    const std::array<std::uint32_t, 3> right{7, 2, 6};
    std::array<std::int8_t, 5> mask{7, 7, 7, 7, 7};
    contained(left.data(), left.size(), right.data(), right.size(), mask.data());
    EXPECT_EQ(mask, (std::array<std::int8_t, 5>{1, 1, 1, 0, 1}));

    EXPECT_EQ(asked_for, exported_names);
}

} // namespace
