// The path of every operator: inputs by number, a partition plan, tasks, a result, a failure
// text. An operator supplies what happens to a row and how partial results are merged.
#pragma once

#include "kernel/cancelled.h"
#include "kernel/column.h"
#include "rows/row_ranges.h"
#include "vask/kernel/bat.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_group.h>

namespace vask {

// ---- failures ---------------------------------------------------------------------------------

namespace failure {
inline constexpr const char *object_not_found = "Object not found";
inline constexpr const char *operation_failed = "operation failed";
inline constexpr const char *unsupported_tail = "Unsupported tail type";
} // namespace failure

//! An exception string, owned by whoever called the exported function. `text` can be null.
inline char *make_exception(const char *place, const char *text) {
    return createException(0, place, text);
}

//! Prints "#plan: TEXT\n" where DEBUG_PLAN asks for it: how a call goes about its rows, and why.
//! Called on the entering thread only.
[[gnu::format(printf, 1, 2)]] void tell_plan(const char *format, ...);

// ---- words that other threads write -----------------------------------------------------------

//! A word of the kernel's that another thread may be storing, to publish what it leads to: a
//! descriptor, a name, the pool's size, a hash.
template <class T>
T published(const T &word) noexcept {
    // Nothing is written; C++20 has no atomic_ref to a constant.
    return std::atomic_ref(const_cast<T &>(word)).load(std::memory_order_acquire);
}

// ---- inputs -----------------------------------------------------------------------------------

//! The BAT of a number, with one physical reference that the caller owes BBPreleaseref; null when
//! the number is 0, int_nil, out of range or not in use, or the BAT cannot be loaded. An unknown
//! number is traced when DEBUG_RANGE_ERROR is set. Called on the entering thread only.
BAT *vask_descriptor(std::int32_t id);

//! The name of a BAT's number for a message, a negative number's own if it has one; the empty text
//! when the number is not good.
const char *vask_bat_name(std::int32_t id);

//! Puts the number of a new BAT into a result slot, together with the library's reference to it.
inline void hand_over(std::int32_t *result, const BAT &b) {
    *result = b.bat_id;
    BBPkeepref(b.bat_id);
}

//! The same data with head and tail exchanged, without a reference of its own.
BAT *mirror_of(const BAT &b) noexcept;

//! The BATs of an operator's inputs, fetched in order and released in the same order. A fetch that
//! fails ends the fetching. Nothing is released on destruction: an exception that passes an
//! operator loses its references, which the kernel knows and accounts for.
template <std::size_t N>
class input_bats {
public:
    template <class... Ids>
    explicit input_bats(const Ids *...ids) {
        static_assert(sizeof...(Ids) == N);
        (fetch(*ids) && ...);
    }

    bool complete() const noexcept { return fetched_ == N; }
    BAT *operator[](std::size_t i) const noexcept { return bats_[i]; }

    //! Drops the reference of every BAT that was fetched.
    void release() const {
        for (std::size_t i = 0; i < fetched_; ++i)
            BBPreleaseref(bats_[i]->bat_id);
    }

private:
    bool fetch(std::int32_t id) {
        bats_[fetched_] = vask_descriptor(id);
        if (bats_[fetched_] == nullptr)
            return false;
        ++fetched_;
        return true;
    }

    std::array<BAT *, N> bats_{};
    std::size_t fetched_ = 0;
};

template <class... Ids>
input_bats(const Ids *...) -> input_bats<sizeof...(Ids)>;

//! What a family's wrapper does around its body: `body(inputs)` gives null or a failure text, the
//! inputs are released, and a text becomes an exception string under the wrapper's name.
template <std::size_t N, class Body>
char *run_wrapper(const char *name, const input_bats<N> &inputs, Body body) {
    const char *text = inputs.complete() ? body(inputs) : failure::object_not_found;
    inputs.release();
    return text == nullptr ? nullptr : make_exception(name, text);
}

// ---- partitions -------------------------------------------------------------------------------

// Enough for every machine the design was made for, and a bound on what the grouped operators
// allocate per group.
inline constexpr std::uint64_t max_partitions = 256;

//! How many partitions a column of `rows` rows gets under the kernel's settings, which are read
//! afresh: at least 1, at most max_partitions, never more than threads. 0 only if GDKnr_threads or
//! GDKpart_size_div is 0, under which the kernel must not run an aggregate: the plan then divides
//! by it. Tells the plan.
std::uint64_t partition_count(BUN rows);

//! Contiguous partitions of a BAT's rows. The remainder of the division falls wholly on the last.
struct partition_plan {
    std::uint64_t nparts;
    BUN part_size;
    BUN part_base;
    BUN end;

    partition_plan(const BAT &b, std::uint64_t parts)
        : nparts(parts),
          part_size(static_cast<BUN>(b.info->count / parts)),
          part_base(b.info->first),
          end(end_position(b)) {}

    vask_row_range partition(std::uint64_t part) const noexcept {
        const auto i = static_cast<BUN>(part);
        return {part_base + i * part_size,
                part + 1 == nparts ? end : part_base + (i + 1) * part_size};
    }
};

// ---- tasks ------------------------------------------------------------------------------------

//! A set of tasks on the scheduler's pool, started in the order of the calls to spawn. The caller
//! takes part in the work while it waits. An exception in a task is rethrown from wait; a set that
//! is destroyed with tasks outstanding cancels them and waits first.
class task_set {
public:
    task_set()
        : context_(tbb::task_group_context::bound, tbb::task_group_context::concurrent_wait),
          group_(context_) {}

    template <class Task>
    void spawn(Task task) {
        group_.run(std::move(task));
    }

    void wait() {
        group_.wait();
        end_if_cancelled();
    }

    //! Tasks that have not begun will not; those that have are still to be waited for.
    void cancel() { group_.cancel(); }

private:
    tbb::task_group_context context_;
    tbb::task_group group_;
};

//! Runs `task(part, range)` for every partition of the plan, each as a task with a copy of its own
//! of everything that `task` holds, and waits for all.
template <class Task>
void run_partitions(const partition_plan &plan, const Task &task) {
    task_set tasks;
    for (std::uint64_t part = 0; part < plan.nparts; ++part)
        tasks.spawn([task, part, range = plan.partition(part)] { task(part, range); });
    tasks.wait();
}

//! Runs `body(vask_row_range)` over the rows 0 .. rows - 1, cut as the scheduler sees fit. For
//! loops without a merge, in which every row writes an element of its own.
template <class Body>
void run_row_loop(BUN rows, const Body &body) {
    tbb::task_group_context context(tbb::task_group_context::bound);
    tbb::parallel_for(
        tbb::blocked_range<BUN>(0, rows, 1),
        [&body](const tbb::blocked_range<BUN> &r) {
            body(vask_row_range{r.begin(), r.end()});
        },
        tbb::auto_partitioner{}, context);
    end_if_cancelled();
}

//! A zero-filled array on the kernel's memory. The aggregates do not test it: running out of
//! memory there faults at the first write, which the kernel takes as fatal.
template <class T>
T *zeroed_array(std::size_t n) {
    return static_cast<T *>(GDKzalloc(n * sizeof(T)));
}

// ---- results ----------------------------------------------------------------------------------

//! Stores a scalar result through its slot, at the width of T.
template <class T>
void store_result(void *slot, T value) noexcept {
    *static_cast<T *>(slot) = value;
}

//! Makes a writable BAT read-only without a kernel call, as a view's source has to be.
void freeze(BAT &b) noexcept;

//! Makes a BAT read-only through the kernel unless its access word already forbids writing; the
//! result is the BAT to go on with. Null if the kernel fails: b then is still the caller's.
BAT *seal(BAT *b);

//! Seals a result and puts its number into the result slot. False, and the BAT is given up, if it
//! cannot be sealed.
bool hand_over_sealed(std::int32_t *result, BAT *b);

//! Marks a column as one without nils and in no order, as every result starts out.
void mark_nonil_unsorted(BATcol &column) noexcept;

//! Drops what is said of the order of a column whose values are written anew. Not its key mark,
//! which only the kernel changes.
void mark_unordered(BATcol &column) noexcept;

//! Marks a column as one with nils.
void mark_nil(BATcol &column) noexcept;

//! Where a grouped result is marked free of nils and in no order: in the view, once it is aligned,
//! or in the new BAT, from which the view takes the marks over. The kernel can tell which.
enum class marked { in_view, before_view };

//! Turns a new BAT of one tail element per group into the result: its tail under the head of the
//! extents `e`. `*result` becomes the view; the new BAT's reference goes to it. Null when the view
//! cannot be made.
void vask_grp_result_view(BAT **result, BAT *e, marked place = marked::in_view);

} // namespace vask
