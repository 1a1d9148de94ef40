// The table of types.
#include "vask/embed.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

namespace {

using namespace refkernel;

int compare(int type, const void *a, const void *b) {
    return BATatoms[type].atom_cmp(a, b);
}

TEST(Atoms, HaveTheStorageAndSizeThatOperatorsRelyOn) {
    struct row {
        int type, storage, size;
    };
    for (const auto &[type, storage, size] : std::vector<row>{{TYPE_void, 0, 0},
                                                              {TYPE_bit, 1, 1},
                                                              {TYPE_byte, 2, 1},
                                                              {TYPE_bte, 3, 1},
                                                              {TYPE_sht, 4, 2},
                                                              {TYPE_int, 6, 4},
                                                              {TYPE_oid, 6, 4},
                                                              {TYPE_wrd, 12, 8},
                                                              {TYPE_flt, 10, 4},
                                                              {TYPE_dbl, 11, 8},
                                                              {TYPE_lng, 12, 8},
                                                              {TYPE_str, 13, 4},
                                                              {type_timestamp, 12, 8},
                                                              {type_tag, 13, 4}}) {
        const BATatom &atom = BATatoms[type];
        EXPECT_EQ(atom.atom_storage, storage) << type_name(type);
        EXPECT_EQ(atom.atom_size, size) << type_name(type);
        EXPECT_EQ(compare(type, atom.atom_null, atom.atom_null), 0) << type_name(type);
        EXPECT_EQ(atom.atom_put != nullptr, storage == TYPE_str) << type_name(type);
    }
    EXPECT_FALSE(is_type(5) || is_type(9) || is_type(-1) || is_type(200));
    EXPECT_EQ(*static_cast<const int32_t *>(BATatoms[TYPE_int].atom_null), int_nil);
    EXPECT_EQ(*static_cast<const oid *>(BATatoms[TYPE_oid].atom_null), oid_nil);
    EXPECT_EQ(*static_cast<const oid *>(BATatoms[TYPE_void].atom_null), oid_nil);
}

template <class T>
void expect_total_order(int type, const std::vector<T> &ascending) {
    for (std::size_t i = 0; i < ascending.size(); ++i) {
        for (std::size_t j = 0; j < ascending.size(); ++j) {
            const int order = compare(type, &ascending[i], &ascending[j]);
            EXPECT_EQ((order > 0) - (order < 0), (i > j) - (i < j))
                << type_name(type) << " " << ascending[i] << " " << ascending[j];
        }
    }
}

TEST(Atoms, CompareWithTheNilBelowAndNanAboveAllValues) {
    constexpr auto nan = std::numeric_limits<double>::quiet_NaN();
    constexpr auto inf = std::numeric_limits<double>::infinity();
    expect_total_order<std::int8_t>(TYPE_bte, {nil_of<std::int8_t>(), -127, 0, 127});
    expect_total_order<std::int16_t>(TYPE_sht, {nil_of<std::int16_t>(), -5, 0, 32767});
    expect_total_order<std::int32_t>(TYPE_int, {int_nil, -5, 0, 1 << 30});
    expect_total_order<std::int64_t>(TYPE_wrd, {nil_of<std::int64_t>(), -5, 0, 1LL << 40});
    expect_total_order<oid>(TYPE_oid, {oid_nil, 0, 1, 0x7fffffff});
    expect_total_order<double>(TYPE_dbl, {nil_of<double>(), -1e300, 0, 1e-300, inf, nan});
    expect_total_order<float>(TYPE_flt, {nil_of<float>(), -1, 1, static_cast<float>(nan)});
    const double zero = 0.0;
    const double negative_zero = -0.0;
    EXPECT_EQ(compare(TYPE_dbl, &zero, &negative_zero), 0);
    const char *texts[] = {"\x80", "", "a", "ab", "b", "\xc3\xa9"};
    for (int i = 0; i < 6; ++i) {
        for (int j = 0; j < 6; ++j) {
            const int order = compare(TYPE_str, texts[i], texts[j]);
            EXPECT_EQ((order > 0) - (order < 0), (i > j) - (i < j)) << i << " " << j;
        }
    }
}

int fixed_values = 0;

TEST(Atoms, OfUsersHaveANilOfTheirOwn) {
    fixed_values = 0; // of an earlier run in this process
    const std::int32_t nil = 42;
    const user_atom answer{"answer", TYPE_int, std::string(reinterpret_cast<const char *>(&nil), 4),
                           [](const void *) { return ++fixed_values; }};
    const int type = register_atom(answer);
    EXPECT_GT(type, TYPE_str);
    EXPECT_EQ(register_atom(answer), type) << "registered once";
    EXPECT_EQ(type_name(type), "answer");
    const column_options options{.type = type, .writable = true};
    const bat b = make_column<std::int32_t>(std::vector{42, int_nil, 7}, options);
    EXPECT_TRUE(b.is_nil(0) && !b.is_nil(1) && !b.is_nil(2));
    const oid next = 3;
    BUNfastins(b.record(), &next, &nil);
    EXPECT_TRUE(b.is_nil(3) && b->tail->nil);
    EXPECT_EQ(fixed_values, 1);

    const int word = register_atom({"word", TYPE_str, "none", nullptr});
    text_builder builder({.type = word});
    builder.append_nil();
    builder.append("\x80");
    const bat texts = builder.finish();
    EXPECT_TRUE(texts.is_nil(0) && !texts.is_nil(1));
    EXPECT_EQ(texts.text(0), "none");

    EXPECT_THROW(register_atom({"bad", TYPE_int, "123", nullptr}), std::invalid_argument);
    EXPECT_THROW(register_atom({"bad", TYPE_void, {}, nullptr}), std::invalid_argument);
    EXPECT_THROW(register_atom({"bad", 5, {}, nullptr}), std::invalid_argument);
}

} // namespace
