#include "table/session.h"

#include "table/errors.h"

#include "refkernel/memory.h"
#include "vask/ops.h"
#include "vask/refkernel/errors.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>

namespace vask::table {
namespace {

struct linked_operator {
    std::string_view name;
    void *address;
};

template <class F>
void *address_of(F *function) {
    return reinterpret_cast<void *>(function);
}

#define VASK_LINKED(name)                                                                          \
    linked_operator {                                                                              \
#name, address_of(&(name))                                                                 \
    }

// Those that plans ask for.
const std::array linked{
    VASK_LINKED(AggrX3_countDistinct),
    VASK_LINKED(VASKderive),
    VASK_LINKED(VASKgroup),
    VASK_LINKED(vask_correl),
    VASK_LINKED(vask_covarp),
    VASK_LINKED(vask_covars),
    VASK_LINKED(vask_grp_correl),
    VASK_LINKED(vask_grp_count),
    VASK_LINKED(vask_grp_covarp),
    VASK_LINKED(vask_grp_covars),
    VASK_LINKED(vask_grp_intercept),
    VASK_LINKED(vask_grp_largest),
    VASK_LINKED(vask_grp_max),
    VASK_LINKED(vask_grp_median),
    VASK_LINKED(vask_grp_min),
    VASK_LINKED(vask_grp_mode),
    VASK_LINKED(vask_grp_percentile),
    VASK_LINKED(vask_grp_quartile),
    VASK_LINKED(vask_grp_skewp),
    VASK_LINKED(vask_grp_skews),
    VASK_LINKED(vask_grp_slope),
    VASK_LINKED(vask_grp_stdev),
    VASK_LINKED(vask_grp_stdevp),
    VASK_LINKED(vask_grp_sum),
    VASK_LINKED(vask_grp_variance),
    VASK_LINKED(vask_grp_variancep),
    VASK_LINKED(vask_intercept),
    VASK_LINKED(vask_largest),
    VASK_LINKED(vask_max_bte),
    VASK_LINKED(vask_max_dbl),
    VASK_LINKED(vask_max_flt),
    VASK_LINKED(vask_max_int),
    VASK_LINKED(vask_max_lng),
    VASK_LINKED(vask_max_sht),
    VASK_LINKED(vask_median),
    VASK_LINKED(vask_min_bte),
    VASK_LINKED(vask_min_dbl),
    VASK_LINKED(vask_min_flt),
    VASK_LINKED(vask_min_int),
    VASK_LINKED(vask_min_lng),
    VASK_LINKED(vask_min_sht),
    VASK_LINKED(vask_mode),
    VASK_LINKED(vask_percentile),
    VASK_LINKED(vask_quartile),
    VASK_LINKED(vask_skewp),
    VASK_LINKED(vask_skews),
    VASK_LINKED(vask_slope),
    VASK_LINKED(vask_stdev),
    VASK_LINKED(vask_stdevp),
    VASK_LINKED(vask_sum_bte),
    VASK_LINKED(vask_sum_dbl),
    VASK_LINKED(vask_sum_int),
    VASK_LINKED(vask_sum_lng),
    VASK_LINKED(vask_sum_sht),
    VASK_LINKED(vask_variance),
    VASK_LINKED(vask_variancep),
    VASK_LINKED(vaskops_are_bat_indexes_contained),
};

#undef VASK_LINKED

// The kernel of this library ends no process. What it cannot go on without is memory: for the index
// of a column's oids.
int throw_fatal(const char *) {
    throw std::bad_alloc();
}

struct setting_state {
    std::mutex lock;
    std::condition_variable free;
    int calls = 0;
};

setting_state &state() {
    static setting_state only;
    return only;
}

thread_local int calls_of_this_thread = 0;

} // namespace

const operator_set &linked_operators() {
    static const operator_set operators([](const std::string &name) {
        const auto found = std::find_if(linked.begin(), linked.end(),
                                        [&](const auto &known) { return known.name == name; });
        if (found == linked.end())
            throw std::logic_error("there is no operator " + name);
        return found->address;
    });
    return operators;
}

partition_setting::partition_setting(int partitions) {
    [[maybe_unused]] static const bool prepared = [] {
        refkernel::set_fatal_handler(throw_fatal);
        refkernel::memory::throw_when_out_of_memory();
        return true;
    }();
    std::unique_lock lock(state().lock);
    if (calls_of_this_thread > 0 && GDKnr_threads != partitions)
        fail(VASK_BAD_REQUEST,
             "a callback asks for {} partitions within a call with {}; give both the same number",
             partitions, GDKnr_threads);
    state().free.wait(lock, [&] { return state().calls == 0 || GDKnr_threads == partitions; });
    GDKnr_threads = partitions;
    ++state().calls;
    ++calls_of_this_thread;
}

partition_setting::~partition_setting() {
    const std::scoped_lock lock(state().lock);
    --calls_of_this_thread;
    if (--state().calls == 0)
        state().free.notify_all();
}

teller notes_of(const vask_query &asked) {
    if (asked.note == nullptr)
        return [](const std::string &) {};
    const auto told = std::make_shared<std::set<std::string>>();
    return [told, note = asked.note, context = asked.context](const std::string &text) {
        if (told->insert(text).second)
            note(context, text.c_str());
    };
}

std::function<void(double)> progress_of(const vask_query &asked) {
    if (asked.progress == nullptr)
        return [](double) {};
    return [progress = asked.progress, context = asked.context](double done) {
        if (progress(context, done) != 0)
            fail(VASK_CANCELLED, "the call was cancelled");
    };
}

} // namespace vask::table
