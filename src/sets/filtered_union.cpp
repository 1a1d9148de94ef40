#include "kernel/element_types.h"
#include "kernel/frame.h"
#include "kernel/shared_mark.h"
#include "rows/atom_nil_test.h"
#include "rows/gdk_vector.h"
#include "rows/row_conversion.h"
#include "rows/row_ranges.h"
#include "vask/ops.h"

#include <algorithm>
#include <exception>
#include <numeric>
#include <optional>

namespace vask {

namespace {

namespace union_failure {
constexpr const char *unsupported_head = "Unsupported head type";
constexpr const char *unequal_sizes = "Size of BATs is unequal";
} // namespace union_failure

bool is_union_head(int type) noexcept {
    return type == TYPE_void || type == TYPE_oid;
}

//! The type that holds the values of both: the larger code, but lng, which has the largest, gives
//! way to dbl beside a float. wrd does not: beside flt it becomes flt.
int union_type(int a, int b) noexcept {
    const auto [smaller, larger] = std::minmax(a, b);
    const bool beside_float = smaller == TYPE_flt || smaller == TYPE_dbl;
    return larger == TYPE_lng && beside_float ? int{TYPE_dbl} : larger;
}

//! What both passes know. The vectors have an element per partition.
struct union_plan {
    BAT *left = nullptr;
    BAT *right = nullptr;
    std::uint32_t total = 0; // surviving rows
    gdk_vector<std::uint32_t> partition_counts;
    gdk_vector<std::uint32_t> partition_offsets;
};

//! Runs `task(part, range)`, which gives false for a failure, on every partition that was planned:
//! as many as the kernel has threads, down to one row each. The rows are read at the positions of
//! the left side in both. False if a task failed or threw, when there are rows but no threads, or
//! when a column or the kernel's threads have changed so that there would be other partitions. A
//! task that fails stops no other.
template <class Task>
bool run_union_pass(const union_plan &plan, int columns, Task task) {
    const std::size_t parts = plan.partition_counts.size();
    if (vask_range_count(*plan.left) != parts)
        return false;
    if (parts == 0)
        return plan.left->info->count == 0;
    shared_mark failed;
    BATaccess(plan.left, columns, 0, 1);
    BATaccess(plan.right, columns, 0, 1);
    run_partitions(partition_plan(*plan.left, parts), [&](std::uint64_t part, vask_row_range r) {
        bool done = false;
        try {
            done = task(part, r);
        } catch (...) { // NOLINT(bugprone-empty-catch): nothing but the failure is reported
        }
        if (!done)
            failed.set();
    });
    BATaccess(plan.left, columns, 0, -1);
    BATaccess(plan.right, columns, 0, -1);
    return !failed.is_set();
}

//! The rows at which neither column is nil, for columns whose nils are plain numbers.
template <class A, class B>
struct paired_plain_nil_test {
    const A *first;
    const B *second;
    A first_nil;
    B second_nil;

    paired_plain_nil_test(const BATcol &a, const BATcol &b) noexcept
        : first(rows_of<const A>(a)),
          second(rows_of<const B>(b)),
          first_nil(nil_of<A>(a.type)),
          second_nil(nil_of<B>(b.type)) {}

    VASK_ALWAYS_INLINE bool both_values(BUN p) const noexcept {
        return (first[p] != first_nil) & (second[p] != second_nil);
    }
};

//! Calls `f` with the test that finds the rows without a nil.
template <class F>
auto visit_nil_test(const BATcol &a, const BATcol &b, F f) {
    using result = decltype(f(paired_atom_nil_test(a, b)));
    const auto otherwise = [&] { return f(paired_atom_nil_test(a, b)); };
    if (!have_plain_nils(a, b))
        return otherwise();
    std::optional<result> made;
    visit_arithmetic_type(a.type, false, [&]<class A>(std::type_identity<A>) {
        return visit_arithmetic_type(b.type, false, [&]<class B>(std::type_identity<B>) {
            made = f(paired_plain_nil_test<A, B>(a, b));
            return true;
        });
    });
    return made ? *made : otherwise();
}

std::uint32_t count_both_non_nil(const BAT &left, const BAT &right, vask_row_range r) {
    return visit_nil_test(*left.tail, *right.tail, [r](const auto &test) {
        return with_best_instruction_set([=]() __attribute__((always_inline)) {
            std::uint32_t count = 0;
            for (BUN p = r.begin; p < r.end; ++p)
                count += test.both_values(p);
            return count;
        });
    });
}

//! Counts the surviving rows of each partition, and where each one's place in the result begins.
bool count_survivors(union_plan &plan) {
    tell_ranges(*plan.left);
    try {
        const std::uint32_t parts = vask_range_count(*plan.left);
        plan.partition_counts = gdk_vector<std::uint32_t>(parts);
        plan.partition_offsets = gdk_vector<std::uint32_t>(parts);
    } catch (const std::exception &) {
        return false;
    }
    const bool counted = run_union_pass(plan, 2, [&plan](std::uint64_t part, vask_row_range r) {
        plan.partition_counts[part] = count_both_non_nil(*plan.left, *plan.right, r);
        return true;
    });
    if (counted)
        for (std::size_t part = 0; part < plan.partition_counts.size(); ++part) {
            plan.partition_offsets[part] = plan.total;
            plan.total += plan.partition_counts[part];
        }
    return counted;
}

//! The oids of a head in the selected rows.
void copy_oids(const oid_reader &head, row_selection rows, oid *out) noexcept {
    if (rows.positions != nullptr) {
        for (BUN i = 0; i < rows.n; ++i)
            out[i] = head[rows.positions[i]];
    } else if (head.stored != nullptr) {
        std::copy_n(head.stored + rows.first, rows.n, out);
    } else if (head.seqbase == oid_nil) {
        std::fill_n(out, rows.n, oid_nil);
    } else {
        std::iota(out, out + rows.n, head[rows.first]);
    }
}

//! One side's half of the result: where its rows come from and where they go.
template <class R>
struct union_half {
    const BATcol &column;
    row_converter<R> convert;
    oid_reader head;
    R *tail_out;
    oid *head_out;

    union_half(const BAT &source, const BAT &result, std::uint32_t offset)
        : column(*source.tail),
          convert(converter_from<R>(storage_of(column))),
          head(*source.head, source),
          tail_out(rows_of<R>(*result.tail) + offset),
          head_out(rows_of<oid>(*result.head) + offset) {}

    void write(row_selection rows) {
        convert(column, rows, tail_out);
        copy_oids(head, rows, head_out);
        tail_out += rows.n;
        head_out += rows.n;
    }
};

//! Writes the surviving rows of a partition to its ranges in both halves of the result. False when
//! there are more of them than were counted, that is, when a column has changed since: nothing is
//! written beyond the partition's own ranges. Also false without a class for a column.
template <class R>
bool fill_union(const union_plan &plan, std::uint64_t part, const BAT &result, vask_row_range r) {
    union_half<R> left(*plan.left, result, plan.partition_offsets[part]);
    union_half<R> right(*plan.right, result, plan.partition_offsets[part] + plan.total);
    if (left.convert == nullptr || right.convert == nullptr)
        return false;

    return visit_nil_test(*plan.left->tail, *plan.right->tail, [&](const auto &test) {
        constexpr BUN block_rows = 1024;
        BUN positions[block_rows];
        std::uint32_t expected = plan.partition_counts[part];
        for (BUN p = r.begin; p < r.end;) {
            // The search for survivors ends with one too many.
            const BUN wanted = std::min(block_rows, expected + 1);
            BUN n = 0;
            for (; p < r.end && n < wanted; ++p) {
                positions[n] = p;
                n += test.both_values(p);
            }
            const auto rows = row_selection::of(positions, std::min(n, expected));
            left.write(rows);
            right.write(rows);
            if (n > expected)
                return false;
            expected -= n;
        }
        return true;
    });
}

//! The types of the three columns are looked up once per partition.
bool fill_result(const union_plan &plan, const BAT &result) {
    return run_union_pass(plan, 3, [&](std::uint64_t part, vask_row_range r) {
        return visit_storage_class(
            storage_of(*result.tail), false,
            [&]<class R>(std::type_identity<R>) { return fill_union<R>(plan, part, result, r); });
    });
}

//! Null or a failure text.
const char *make_union(union_plan &plan, std::int32_t *result) {
    BAT *left = plan.left;
    BAT *right = plan.right;
    if (!is_stored_as_number(left->tail->type) || !is_stored_as_number(right->tail->type))
        return failure::unsupported_tail;
    if (!is_union_head(left->head->type) || !is_union_head(right->head->type))
        return union_failure::unsupported_head;
    if (left->info->count != right->info->count)
        return union_failure::unequal_sizes;
    if (!count_survivors(plan))
        return failure::operation_failed;

    const BUN rows = plan.total * 2;
    BAT *both = BATnew(left->head->type, union_type(left->tail->type, right->tail->type), rows);
    if (both == nullptr)
        return failure::operation_failed;
    BATsetcount(both, rows);
    freeze(*both);
    ALIGNsetH(both, left);
    // Tasks write the head: even below a void one of the left side it has to be stored.
    BATmaterializeh(both);
    // A kernel that keeps the marks of the head it had would have later operators believe them.
    mark_unordered(*both->head);
    mark_nonil_unsorted(*both->tail);
    // A result that could not be filled is not given back. That is intended: what a failed call
    // leaves behind belongs to nobody, and the kernel's accounting expects it so.
    if (!fill_result(plan, *both))
        return failure::operation_failed;
    return hand_over_sealed(result, both) ? nullptr : failure::operation_failed;
}

} // namespace

} // namespace vask

char *vask_coSNNandUnion(int32_t *result, const int32_t *left, const int32_t *right) {
    using namespace vask;
    union_plan plan;
    return run_wrapper("vask_ops.coSNNandUnion", input_bats(left, right), [&](const auto &inputs) {
        plan.left = inputs[0];
        plan.right = inputs[1];
        return make_union(plan, result);
    });
}
