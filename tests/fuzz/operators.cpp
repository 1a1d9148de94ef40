// Operators on columns whose values, shape and settings come from the bytes of an input; the plain
// references of the tests are the judges.
#include "fuzz_target.h"

#include "aggregates/plain_aggregates.h"
#include "grouping/derive/old_grouping.h"
#include "grouping/plain_groups.h"
#include "statistics/plain_statistics.h"
#include "support/grouped_reference.h"
#include "support/kernel_settings.h"
#include "support/values.h"
#include "vask/embed.h"
#include "vask/ops.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

#include <tbb/global_control.h>

namespace {

using namespace support;
using fuzz::byte_source;
using fuzz::require;
using refkernel::bat;
using refkernel::nil_of;

//! Rows that repeat a few values of the input, in runs or mixed.
template <class T>
std::vector<T> any_values(byte_source &in, BUN rows, bool with_nils) {
    std::vector<T> palette(1 + in.below(in.one_in(4) ? 64 : 12));
    const std::uint64_t kind = in.below(4);
    for (T &value : palette) {
        if (kind == 0)
            value = in.take<T>();
        else
            value = static_cast<T>(in.take<std::int8_t>());
        if constexpr (std::is_floating_point_v<T>)
            if (kind == 2)
                value = in.one_of<T>({T(0.0), T(-0.0), T(1.5), std::numeric_limits<T>::infinity(),
                                      -std::numeric_limits<T>::infinity(),
                                      std::numeric_limits<T>::denorm_min(),
                                      std::numeric_limits<T>::max(), nil_of<T>()});
        if (!with_nils && value == nil_of<T>())
            value = T(3);
    }
    const bool runs = in.one_in(3);
    std::mt19937 random(in.take<std::uint16_t>());
    std::vector<T> values(rows);
    std::size_t at = 0;
    for (T &value : values) {
        if (!runs || random() % 16 == 0)
            at = random() % palette.size();
        value = palette[at];
    }
    return values;
}

template <class T>
bool has_nan(const std::vector<T> &values) {
    return std::any_of(values.begin(), values.end(), [](T v) { return v != v; });
}

std::string told(char *message) {
    return refkernel::take_exception(message).text;
}

//! A slot for a value of any type, which must not be written behind its end.
template <class Result>
class value_slot {
public:
    value_slot() { std::memset(bytes_, mark, sizeof bytes_); }
    template <class Slot>
    Slot *as() {
        return reinterpret_cast<Slot *>(bytes_);
    }
    Result value() const {
        for (std::size_t i = sizeof(Result); i < sizeof bytes_; ++i)
            require(bytes_[i] == mark, "bytes behind the result were written");
        Result found;
        std::memcpy(&found, bytes_, sizeof found);
        return found;
    }

private:
    static constexpr char mark = 0x6e;
    alignas(16) char bytes_[32];
};

template <class Aggregate, class T>
typename Aggregate::result expected(const std::vector<std::vector<BUN>> &parts,
                                    const std::vector<T> &values, bool counts = false) {
    const auto value = plain::result_of<Aggregate>(parts, values);
    if (value)
        return *value;
    return counts ? typename Aggregate::result(0) : nil_of<typename Aggregate::result>();
}

using whole_operator = char *(*)(double *, const std::int32_t *);
constexpr whole_operator moments[] = {vask_stdev,     vask_stdevp, vask_variance,
                                      vask_variancep, vask_skews,  vask_skewp};
using grouped_operator = char *(*)(std::int32_t *, const std::int32_t *, const std::int32_t *,
                                   const std::int32_t *);
constexpr grouped_operator grouped_moments[] = {vask_grp_stdev,    vask_grp_stdevp,
                                                vask_grp_variance, vask_grp_variancep,
                                                vask_grp_skews,    vask_grp_skewp};

template <class T>
void check_whole_column(byte_source &in, const std::vector<T> &values, const bat &column,
                        std::int32_t threads) {
    const auto rows = static_cast<BUN>(values.size());
    const auto parts = rows_by_partition(rows, plain_partitions(rows, threads),
                                         [&](BUN row) { return values[row] != nil_of<T>(); });
    const auto check = [&]<class Aggregate>(std::type_identity<Aggregate>, auto call, auto *slot,
                                            bool counts, const char *name) {
        value_slot<typename Aggregate::result> found;
        const std::string failure =
            told(call(found.template as<std::remove_pointer_t<decltype(slot)>>(), column.slot()));
        require(failure.empty(), failure);
        require(same_value(found.value(), expected<Aggregate>(parts, values, counts)), name);
    };
    check(std::type_identity<plain::sum<T>>(), vask_sum_int, static_cast<void *>(nullptr), false,
          "sum");
    check(std::type_identity<plain::min<T>>(), vask_min_int, static_cast<void *>(nullptr), false,
          "min");
    check(std::type_identity<plain::max<T>>(), vask_max_int, static_cast<void *>(nullptr), false,
          "max");
    check(std::type_identity<plain::count<T>>(), vask_count, static_cast<std::int64_t *>(nullptr),
          true, "count");
    plain_sums sums;
    for (const auto &part : parts) {
        plain_sums own;
        for (const BUN row : part)
            own.add(static_cast<double>(values[row]));
        sums.add(own);
    }
    const std::size_t which = in.below(std::size(moments));
    double moment = 0;
    require(told(moments[which](&moment, column.slot())).empty(), "a moment is refused");
    require(same_value(moment, plain_moments[which].of(sums)), plain_moments[which].name);
}

// A column without nils and NaNs.
template <class T>
void check_order(byte_source &in, const std::vector<T> &values, const bat &column) {
    if (values.empty())
        return;
    const double p = in.one_of({0.0, 0.25, 0.5, 0.9, 1.0, 1.0 / 3});
    const bat parameter = refkernel::make_column(std::vector<double>{p});
    double found = 0;
    require(told(vask_percentile(&found, column.slot(), parameter.slot())).empty(),
            "a percentile is refused");
    require(same_value(found, plain_percentile(values, p)), "percentile");
    require(told(vask_median(&found, column.slot())).empty(), "a median is refused");
    require(same_value(found, plain_percentile(values, 0.5)), "median");
    value_slot<T> mode;
    require(told(vask_mode(mode.template as<void>(), column.slot())).empty(), "a mode is refused");
    require(same_value(mode.value(), plain_mode(values, nil_of<T>())), "mode");
    const lng rank = 1 + static_cast<lng>(in.below(values.size() + 1));
    const bat k = refkernel::make_column(std::vector<lng>{rank});
    value_slot<T> largest;
    require(told(vask_largest(largest.template as<void>(), column.slot(), k.slot())).empty(),
            "a largest is refused");
    require(same_value(largest.value(), plain_largest(values, rank, nil_of<T>())), "largest");
}

template <class T>
void check_grouped(byte_source &in, const std::vector<T> &values, const bat &column,
                   const grouped_inputs &inputs, std::int32_t threads) {
    const auto rows = static_cast<BUN>(values.size());
    const auto groups = inputs.rows_by_group(plain_partitions(rows, threads),
                                             [&](BUN row) { return values[row] != nil_of<T>(); });
    const auto run = [&](grouped_operator call) {
        std::int32_t id = 0;
        const std::string failure =
            told(call(&id, column.slot(), inputs.map.slot(), inputs.extents.slot()));
        require(failure.empty(), failure);
        bat result = bat::adopt(id);
        require(result.count() == groups.size(), "a result has other groups");
        return result;
    };
    const auto check = [&]<class Aggregate>(std::type_identity<Aggregate>, grouped_operator call,
                                            bool counts, const char *name) {
        const bat result = run(call);
        for (std::size_t j = 0; j < groups.size(); ++j)
            require(same_value(result.values<typename Aggregate::result>()[j],
                               expected<Aggregate>(groups[j], values, counts)),
                    name);
    };
    check(std::type_identity<plain::sum<T>>(), vask_grp_sum, false, "grouped sum");
    check(std::type_identity<plain::min<T>>(), vask_grp_min, false, "grouped min");
    check(std::type_identity<plain::max<T>>(), vask_grp_max, false, "grouped max");
    check(std::type_identity<plain::count<T>>(), vask_grp_count, true, "grouped count");
    const std::size_t which = in.below(std::size(grouped_moments));
    const bat moment = run(grouped_moments[which]);
    for (std::size_t j = 0; j < groups.size(); ++j) {
        plain_sums sums;
        for (const auto &part : groups[j]) {
            plain_sums own;
            for (const BUN row : part)
                own.add(static_cast<double>(values[row]));
            sums.add(own);
        }
        require(same_value(moment.values<double>()[j], plain_moments[which].of(sums)),
                plain_moments[which].name);
    }
}

//! Whether a grouping is one of those that hold for a type: by bits, or by number.
template <class Refine>
void require_groups(const plain_groups &found, const Refine &expected_by, bool in_order,
                    const char *what) {
    for (const bool by_number : {false, true}) {
        const plain_groups wanted = expected_by(by_number);
        if (found == wanted || found == in_order_of_id(wanted) ||
            (!in_order && in_order_of_id(found) == in_order_of_id(wanted)))
            return;
    }
    require(false, what);
}

template <class T>
void check_grouping(byte_source &in, const std::vector<T> &values, BUN first) {
    const auto kind = static_cast<heads>(in.below(5));
    const std::vector<oid> oids = head_oids(kind, values.size(), 3, in.take<std::uint8_t>());
    const bat column =
        refkernel::make_column<T>(std::span<const T>(values), head_options(kind, oids, first));
    std::int32_t ids[2] = {int_nil, int_nil};
    const std::string failure = told(VASKgroup(&ids[0], &ids[1], column.slot()));
    if (!failure.empty()) {
        require(has_nan(values), failure); // a NaN has no place in an order
        return;
    }
    const bat ext = bat::adopt(ids[0]);
    const bat map = bat::adopt(ids[1]);
    require_groups(
        read_groups(*map.record(), *ext.record(), column.count()),
        [&](bool by_number) {
            return group_rows(by_number ? keys_by_number(values) : keys_by_bits(values), oids);
        },
        true, "groups");
}

template <class T>
void check_refinement(byte_source &in, std::vector<T> values, std::int32_t threads) {
    layout shape;
    shape.rows = static_cast<BUN>(values.size());
    shape.groups = static_cast<BUN>(1 + in.below(20));
    shape.head = static_cast<heads>(in.below(5));
    shape.map = static_cast<map_kind>(in.below(3));
    shape.dense_histo = in.one_in(2);
    shape.first = in.one_in(2) ? 5 : 0;
    shape.threads = threads;
    shape.seed = in.take<std::uint8_t>();
    const old_grouping old(shape);
    const bat column = refkernel::make_column<T>(std::span<const T>(values),
                                                 head_options(shape.head, old.heads, shape.first));
    std::int32_t ids[2] = {int_nil, int_nil};
    const std::string failure =
        told(VASKderive(&ids[0], &ids[1], old.histo.slot(), old.map.slot(), column.slot()));
    require(failure.empty(), failure);
    const bat histo = bat::adopt(ids[0]);
    const bat map = bat::adopt(ids[1]);
    require_groups(
        read_groups(*map.record(), *histo.record(), shape.rows),
        [&](bool by_number) {
            return refine_plainly(old, by_number ? keys_by_number(values) : keys_by_bits(values));
        },
        false, "refined groups");
    std::int32_t counted = int_nil;
    const std::string refusal =
        told(AggrX3_countDistinct(&counted, column.slot(), old.map.slot(), old.histo.slot()));
    require(refusal.empty(), refusal);
    const bat counts = bat::adopt(counted);
    std::map<oid, std::set<std::pair<std::uint64_t, std::size_t>>> distinct;
    for (BUN row = 0; row < shape.rows; ++row)
        distinct[old.parents[row]].insert(key_by_bits(values[row]));
    require(counts.count() == old.histo.count(), "a distinct count has other groups");
    for (BUN j = 0; j < counts.count(); ++j)
        require(counts.values<wrd>()[j] == static_cast<wrd>(distinct[old.histo.head_oid(j)].size()),
                "distinct count");
}

template <class T>
void check_type(byte_source &in) {
    const std::uint64_t what = in.below(4);
    auto threads = in.one_of<std::int32_t>({1, 2, 3, 8, 256});
    // As many partitions as rows: most of the time goes into the reference's lists of each.
    if (threads == 256 && !in.seldom(4))
        threads = 5;
    const kernel_settings settings(threads);
    const bool many = in.one_in(8);
    auto rows = static_cast<BUN>(in.below(many && in.seldom(4) ? 1200 : 100));
    // Refinement in parallel begins at 8,192 rows.
    if (what == 3 && in.one_in(8) && in.seldom(16))
        rows = 8192 + static_cast<BUN>(in.below(64));
    const BUN first = in.one_in(3) ? 13 : 0;
    if (what == 0) {
        const std::vector<T> values = any_values<T>(in, rows, true);
        const bat column = refkernel::make_column(std::span<const T>(values), {.first = first});
        check_whole_column(in, values, column, threads);
    } else if (what == 1) {
        const std::vector<T> values = any_values<T>(in, rows, false);
        if (!has_nan(values))
            check_order(in, values,
                        refkernel::make_column(std::span<const T>(values),
                                               {.tail = {.nonil = true}, .first = first}));
        check_grouping(in, any_values<T>(in, rows, true), first);
    } else if (what == 2) {
        grouped_shape shape;
        shape.seed = in.take<std::uint16_t>();
        shape.rows = rows;
        shape.groups = static_cast<BUN>(1 + in.below(in.one_in(4) && in.seldom(8) ? 3000 : 20));
        shape.first = first;
        shape.head = static_cast<extents_head>(in.below(6));
        shape.order = static_cast<group_order>(in.below(3));
        shape.unknown_per_mille = in.one_in(4) ? 20 : 0;
        const grouped_inputs inputs(shape);
        const std::vector<T> values = any_values<T>(in, rows, true);
        const bat column = refkernel::make_column(std::span<const T>(values), {.first = first});
        check_grouped(in, values, column, inputs, threads);
    } else if (rows > 0) {
        check_refinement(in, any_values<T>(in, rows, true), threads);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // Read once: samples are taken of small columns, too, and both ways of grouping are gone.
    GDKgroup_algo_select_vask_size = 16;
    GDKgroup_algo_select_sample_size = 1000;
    GDKgroup_algo_select_uniqueness_thresh = 10;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    byte_source in(bytes, size);
    // Few wait for other threads, which takes longer than the work.
    std::optional<tbb::global_control> alone;
    if (!in.seldom(16))
        alone.emplace(tbb::global_control::max_allowed_parallelism, 1);
    const refkernel::checkpoint before;
    switch (in.below(6)) {
        case 0:
            check_type<std::int8_t>(in);
            break;
        case 1:
            check_type<std::int16_t>(in);
            break;
        case 2:
            check_type<std::int32_t>(in);
            break;
        case 3:
            check_type<std::int64_t>(in);
            break;
        case 4:
            check_type<float>(in);
            break;
        default:
            check_type<double>(in);
    }
    const std::string left = before.leaks();
    require(left.empty(), left);
    return 0;
}
