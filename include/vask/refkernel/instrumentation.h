// What tests of operators ask of the kernel: which operations were called and
// how often, in what order, with what arguments; an operation that fails at its
// n-th call; BATaccess brackets that were never closed; bytes never given back.
//
// Everything is off until a `watch` stands. An operation then costs one relaxed
// load and a branch that is never taken.
//
// Thread safety: operations may report from any thread; a watch is made, asked
// and destroyed on one thread, while no operation it should see is running.
#ifndef VASK_REFKERNEL_INSTRUMENTATION_H
#define VASK_REFKERNEL_INSTRUMENTATION_H

#include "vask/refkernel/contract.h"

#include <cstdint>
#include <string>
#include <vector>

namespace refkernel::instrumentation {

//! The operations of the contract, by the names of operation_name().
enum class operation {
    bbp_incref,
    bbp_descriptor,
    bbp_releaseref,
    bbp_keepref,
    bbp_decref,
    bbp_reclaim,
    bat_new,
    bat_setcount,
    bat_extend,
    bat_grows,
    bun_fastins,
    gdk_upgradevarheap,
    bat_seqbase,
    bat_key,
    bat_setaccess,
    bat_copy,
    bat_materialize,
    bat_materializeh,
    bat_sample,
    view_create,
    view_combine,
    align_seth,
    align_synced,
    bat_access,
    bat_hash,
    gdk_malloc,
    gdk_zalloc,
    gdk_calloc,
    gdk_realloc,
    gdk_free,
    create_exception,
    gdk_error,
    gdk_fatal,
    bat_min,
    bat_max,
    do_alg_fetch,
    val_get,
    val_set,
    val_convert,
    bat_join,
    grp_group,
    grp_derive,
    aggr_count3_nils,
    count_of_operations
};

//! The contract's name of an operation, such as "BATnew".
REFKERNEL_API const char *operation_name(operation op);

struct recorded_call {
    operation op;
    std::string text; // as in "BATnew(0, 8, 100)"
};

//! BATaccess calls of one BAT and one set of columns, opened less closed.
struct unpaired_access {
    int32_t bat_id;
    int what;
    std::int64_t open;
};

/*
 * Switches the instrumentation on while it lives. One watch at a time; making a
 * second one throws std::logic_error.
 *
 *     watch kernel;
 *     kernel.fail_at(operation::bat_new, 2);
 *     char *message = VASKgroup(&histogram, &map, &input);
 *     EXPECT_EQ(kernel.bytes_outstanding(), 0);
 */
class REFKERNEL_API watch {
public:
    watch();
    ~watch();
    watch(const watch &) = delete;
    watch &operator=(const watch &) = delete;

    //! Makes the n-th call from now on fail, once; n of 1 is the next call, 0 takes the order back.
    void fail_at(operation op, std::uint64_t nth);
    //! Calls of the operation since the watch began or was last cleared.
    [[nodiscard]] std::uint64_t calls(operation op) const;
    //! Calls that failed because they were told to.
    [[nodiscard]] std::uint64_t failures() const;

    //! Starts or ends the record of calls, which is off at first.
    void record(bool on);
    //! The recorded calls in the order in which they began.
    [[nodiscard]] std::vector<recorded_call> recorded() const;
    //! The same as lines of text.
    [[nodiscard]] std::vector<std::string> recorded_texts() const;

    //! Brackets of BATaccess that are open, or closed once too often.
    [[nodiscard]] std::vector<unpaired_access> unpaired_accesses() const;
    //! Bytes handed out by the GDK operations (and as exception strings) since the watch began.
    [[nodiscard]] std::uint64_t bytes_outstanding() const;

    //! The most that these bytes have been at one time.
    [[nodiscard]] std::uint64_t most_bytes_outstanding() const;

    //! Forgets counts, records, brackets and orders to fail, but no bytes.
    void clear();
};

/*
 * Counts the calls of each operation while it lives and does nothing else, so that
 * what is counted runs at nearly its own speed. In place of a watch: making one
 * while a watch or another counter stands throws std::logic_error.
 */
class REFKERNEL_API call_counter {
public:
    call_counter();
    ~call_counter();
    call_counter(const call_counter &) = delete;
    call_counter &operator=(const call_counter &) = delete;

    [[nodiscard]] std::uint64_t calls(operation op) const;
};

//! Takes a BAT's records out of BBParr, as if it were not in memory, until
//! BBPdescriptor is called for it; the BAT itself stays. False for a number not in use.
REFKERNEL_API bool unload(int32_t id);

//! Makes every BATsetaccess give back another BAT than its argument, as the contract allows.
REFKERNEL_API void replace_on_setaccess(bool on);

//! Makes GRPgroup and GRPderive unload the BATs that they hand out.
REFKERNEL_API void unload_groupings(bool on);

//! Makes BATmaterialize and BATmaterializeh leave the marks and the alignment of a column as they
//! were, against the contract.
REFKERNEL_API void keep_marks_on_materialize(bool on);

} // namespace refkernel::instrumentation

#endif
