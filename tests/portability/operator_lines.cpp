// Runs every operator over generated columns and prints a line for each result, down to the bits: a
// build for another processor prints the same lines or is wrong.
//
//   operator_lines hash|sort
//
// The way that grouping takes is settled once in a process, so there is one run for each.
#include "library/any_operator.h"
#include "support/element_types.h"
#include "vask/embed.h"
#include "vask/ops.h"
#include "vask/refkernel/sample.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using namespace support;
using refkernel::bat;

const std::set<std::string> exported_names = {
#include "library/exported_names.inc"
};

//! 64 bits of hash of some bytes (FNV-1a).
class digest {
public:
    void add(const void *bytes, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            value_ ^= static_cast<const unsigned char *>(bytes)[i];
            value_ *= 0x100000001b3;
        }
    }
    [[nodiscard]] unsigned long long value() const { return value_; }

private:
    std::uint64_t value_ = 0xcbf29ce484222325;
};

//! Heads and tails of a column, to the bit; of a NaN only that it is one, as its sign is no result.
std::string digest_of(const bat &b) {
    digest head;
    digest tail;
    for (BUN row = 0; row < b.count(); ++row) {
        const oid id = b.head_oid(row);
        head.add(&id, sizeof id);
    }
    for (BUN row = 0; b.is_void() && row < b.count(); ++row) {
        const oid id = b.tail_oid(row);
        tail.add(&id, sizeof id);
    }
    with_element_of(b.is_void() ? int{TYPE_oid} : b.type(), [&]<class T>(T) {
        for (BUN row = 0; !b.is_void() && row < b.count(); ++row) {
            T value = b.values<T>()[row];
            if constexpr (std::is_floating_point_v<T>)
                value = std::isnan(value) ? std::numeric_limits<T>::quiet_NaN() : value;
            tail.add(&value, sizeof value);
        }
    });
    char text[96];
    std::snprintf(text, sizeof text, "%u rows of type %d, head %016llx, tail %016llx, nils %d",
                  b.count(), b.type(), head.value(), tail.value(), static_cast<int>(b.nils()));
    return text;
}

void print_line(const std::string &name, const std::string &inputs, const std::string &answer) {
    std::printf("%s(%s): %s\n", name.c_str(), inputs.c_str(), answer.c_str());
}

struct operation {
    const char *name;
    any_operator call;
};
#define OPERATOR(name)                                                                             \
    { #name, any_operator(name) }

//! Calls an operator and prints what it answers.
void run(const operation &op, const std::string &described, const columns &inputs) {
    if (op.call.gives_column()) {
        std::int32_t id = int_nil;
        if (char *const failure = op.call(&id, inputs)) {
            print_line(op.name, described, refkernel::take_exception(failure).text);
            return;
        }
        print_line(op.name, described, digest_of(bat::adopt(id)));
        return;
    }
    unsigned long long slot = 0;
    char text[32];
    if (char *const failure = op.call(&slot, inputs)) {
        print_line(op.name, described, refkernel::take_exception(failure).text);
        return;
    }
    std::snprintf(text, sizeof text, "%016llx", slot);
    print_line(op.name, described, text);
}

const std::vector<operation> whole_column = {
    OPERATOR(vask_sum_bte),       OPERATOR(vask_sum_sht), OPERATOR(vask_sum_int),
    OPERATOR(vask_sum_wrd),       OPERATOR(vask_sum_lng), OPERATOR(vask_sum_flt),
    OPERATOR(vask_sum_dbl),       OPERATOR(vask_min_bte), OPERATOR(vask_min_sht),
    OPERATOR(vask_min_int),       OPERATOR(vask_min_oid), OPERATOR(vask_min_wrd),
    OPERATOR(vask_min_lng),       OPERATOR(vask_min_flt), OPERATOR(vask_min_dbl),
    OPERATOR(vask_min_timestamp), OPERATOR(vask_max_bte), OPERATOR(vask_max_sht),
    OPERATOR(vask_max_int),       OPERATOR(vask_max_oid), OPERATOR(vask_max_wrd),
    OPERATOR(vask_max_lng),       OPERATOR(vask_max_flt), OPERATOR(vask_max_dbl),
    OPERATOR(vask_max_timestamp), OPERATOR(vask_count),   OPERATOR(vask_count_asterisk),
    OPERATOR(vask_stdev),         OPERATOR(vask_stdevp),  OPERATOR(vask_variance),
    OPERATOR(vask_variancep),     OPERATOR(vask_skews),   OPERATOR(vask_skewp),
    OPERATOR(vask_median),        OPERATOR(vask_mode)};
// With a parameter each: 3, 0.9, 2.
const std::vector<operation> with_parameter = {OPERATOR(vask_quartile), OPERATOR(vask_percentile),
                                               OPERATOR(vask_largest)};
const std::vector<operation> grouped_with_parameter = {
    OPERATOR(vask_grp_quartile), OPERATOR(vask_grp_percentile), OPERATOR(vask_grp_largest)};
const std::vector<operation> two_columns = {OPERATOR(vask_covars),    OPERATOR(vask_covarp),
                                            OPERATOR(vask_correl),    OPERATOR(vask_slope),
                                            OPERATOR(vask_intercept), OPERATOR(vask_coSNNandUnion)};
const std::vector<operation> grouped = {OPERATOR(vask_grp_sum),
                                        OPERATOR(vask_grp_min),
                                        OPERATOR(vask_grp_max),
                                        OPERATOR(vask_grp_count),
                                        OPERATOR(vask_grp_count_asterisk),
                                        OPERATOR(AggrX3_countDistinct),
                                        OPERATOR(vask_grp_stdev),
                                        OPERATOR(vask_grp_stdevp),
                                        OPERATOR(vask_grp_variance),
                                        OPERATOR(vask_grp_variancep),
                                        OPERATOR(vask_grp_skews),
                                        OPERATOR(vask_grp_skewp),
                                        OPERATOR(vask_grp_median),
                                        OPERATOR(vask_grp_mode)};
const std::vector<operation> grouped_two_columns = {
    OPERATOR(vask_grp_covars), OPERATOR(vask_grp_covarp), OPERATOR(vask_grp_correl),
    OPERATOR(vask_grp_slope), OPERATOR(vask_grp_intercept)};
const operation containment = OPERATOR(vaskops_are_bat_indexes_contained);

struct shape {
    std::size_t rows;
    std::uint32_t different;
    double nil_share;
    [[nodiscard]] std::string text() const {
        return std::to_string(rows) + " rows, " + std::to_string(different) + " values, " +
               std::to_string(static_cast<int>(nil_share * 100)) + "% nil";
    }
};

//! The same numbers on every machine: the standard's distributions are not.
template <class T>
bat generated(const shape &s, int type, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<T> values(s.rows);
    for (T &value : values) {
        const bool is_nil = static_cast<double>(random()) < s.nil_share * 4294967296.0;
        const auto number = static_cast<std::int64_t>(random() % s.different) - s.different / 3;
        if (is_nil)
            value = refkernel::nil_of<T>();
        else if constexpr (std::is_floating_point_v<T>)
            value = static_cast<T>(static_cast<double>(number) * 0.3); // rounds in every sum
        else
            value = static_cast<T>(number);
    }
    return refkernel::make_column(std::move(values), {.type = type});
}

bat generated_texts(const shape &s, std::uint32_t seed) {
    std::mt19937 random(seed);
    refkernel::text_builder texts;
    for (std::size_t i = 0; i < s.rows; ++i) {
        const std::uint32_t number = static_cast<std::uint32_t>(random()) % s.different;
        if (static_cast<double>(random()) < s.nil_share * 4294967296.0)
            texts.append_nil();
        else
            texts.append("text " + std::to_string(number * 7919));
    }
    return texts.finish();
}

struct groups {
    bat extents;
    bat map;
};

groups print_grouping(const char *name, const std::string &described, char *failure,
                      std::int32_t extents, std::int32_t map) {
    if (failure != nullptr) {
        print_line(name, described, refkernel::take_exception(failure).text);
        return {};
    }
    groups made{bat::adopt(extents), bat::adopt(map)};
    print_line(name, described, "extents " + digest_of(made.extents));
    print_line(name, described, "map " + digest_of(made.map));
    return made;
}

groups run_group(const std::string &described, const bat &column) {
    std::int32_t extents = int_nil;
    std::int32_t map = int_nil;
    char *const failure = VASKgroup(&extents, &map, column.slot());
    return print_grouping("VASKgroup", described, failure, extents, map);
}

void run_derive(const std::string &described, const groups &coarse, const bat &column) {
    std::int32_t extents = int_nil;
    std::int32_t map = int_nil;
    char *const failure =
        VASKderive(&extents, &map, coarse.extents.slot(), coarse.map.slot(), column.slot());
    print_grouping("VASKderive", described, failure, extents, map);
}

void run_containment_of_arrays(const shape &s) {
    std::mt19937 random(5);
    std::vector<std::uint32_t> left(s.rows);
    std::vector<std::uint32_t> right(s.rows / 2 + 1);
    for (auto *const side : {&left, &right})
        for (std::uint32_t &index : *side)
            index = static_cast<std::uint32_t>(random()) % (s.different * 2);
    std::vector<std::int8_t> mask(s.rows + 1);
    vaskops_are_indexes_contained(left.data(), left.size(), right.data(), right.size(),
                                  mask.data());
    digest bits;
    bits.add(mask.data(), mask.size());
    char text[32];
    std::snprintf(text, sizeof text, "%016llx", bits.value());
    print_line("vaskops_are_indexes_contained", s.text(), text);
}

void run_shape(const shape &s) {
    const bat quartile = refkernel::scalar(3);
    const bat percentile = refkernel::scalar(0.9);
    const bat rank = refkernel::scalar(2);
    const bat *const parameters[] = {&quartile, &percentile, &rank};

    const shape few{s.rows, s.different < 8 ? s.different : 8, 0};
    const bat keys = generated<std::int32_t>(few, TYPE_int, 3);
    const groups by_key = run_group("int, " + few.text(), keys);
    const groups by_text = run_group("str, " + s.text(), generated_texts(s, 4));
    run_derive("str by int, " + s.text(), by_key, generated_texts(s, 6));
    run_containment_of_arrays(s);

    const bat doubles = generated<double>(s, TYPE_dbl, 9);
    for (const int type :
         std::initializer_list<int>{TYPE_bit, TYPE_bte, TYPE_sht, TYPE_int, TYPE_oid, TYPE_wrd,
                                    TYPE_lng, TYPE_flt, TYPE_dbl, refkernel::type_timestamp}) {
        with_element_of(type, [&]<class T>(T) {
            const std::string what = std::string(refkernel::type_name(type)) + ", " + s.text();
            const bat b = generated<T>(s, type, 1);
            const bat other = generated<T>(s, type, 2);
            for (const operation &op : whole_column)
                run(op, what, {&b});
            for (std::size_t i = 0; i < with_parameter.size(); ++i)
                run(with_parameter[i], what, {&b, parameters[i]});
            for (const operation &op : two_columns)
                for (const bat *const second : {&other, &doubles})
                    run(op, what + (second == &doubles ? " and dbl" : ""), {&b, second});
            if (sizeof(T) == sizeof(std::uint32_t) && s.rows > 0) // others it may not be asked
                run(containment, what, {&b, &other});
            run_group(what, b);
            if (!by_key.map)
                return;
            run_derive(what + " by int", by_key, b);
            for (const groups *const by : {&by_key, &by_text}) {
                const std::string grouped_what = what + (by == &by_key ? " by int" : " by str");
                for (const operation &op : grouped)
                    run(op, grouped_what, {&b, &by->map, &by->extents});
                for (std::size_t i = 0; i < grouped_with_parameter.size(); ++i)
                    run(grouped_with_parameter[i], grouped_what,
                        {&b, parameters[i], &by->map, &by->extents});
                for (const operation &op : grouped_two_columns)
                    run(op, grouped_what, {&b, &other, &by->map, &by->extents});
            }
        });
    }
}

//! Every exported name has to stand in a table above.
bool covers_every_operator() {
    std::set<std::string> missing = exported_names;
    for (const auto *const table : {&whole_column, &with_parameter, &grouped_with_parameter,
                                    &two_columns, &grouped, &grouped_two_columns})
        for (const operation &op : *table)
            missing.erase(op.name);
    for (const char *const name :
         {"VASKgroup", "VASKderive", containment.name, "vaskops_are_indexes_contained"})
        missing.erase(name);
    for (const std::string &name : missing)
        std::fprintf(stderr, "no line for %s\n", name.c_str());
    return missing.empty();
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2 || !covers_every_operator())
        return 2;
    refkernel::fix_sample_seed(1);
    GDKnr_threads = 4;
    GDKmin_part_size = 100;
    GDKgroup_algo_select_vask_size = 50;
    // Hardly a sample has more groups than 8000, and each one more than none.
    GDKgroup_algo_select_uniqueness_thresh = std::string(argv[1]) == "sort" ? 0 : 8000;
    for (const shape &s : {shape{0, 1, 0},
                           {1, 1, 0},
                           {37, 5, 0.2},
                           {3000, 20, 0},
                           {3000, 20, 0.3},
                           {20000, 100, 0.01},
                           {20000, 100000, 0}})
        run_shape(s);
    return 0;
}
