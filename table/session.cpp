#include "table/session.h"

#include "table/errors.h"

#include "kernel/cancelled.h"
#include "refkernel/memory.h"
#include "vask/ops.h"
#include "vask/refkernel/errors.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <tbb/task_arena.h>
#include <tbb/task_group.h>

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
};

#undef VASK_LINKED

// The kernel of this library ends no process. What it cannot go on without is memory: for the index
// of a column's oids.
int throw_fatal(const char *) {
    throw std::bad_alloc();
}

// Between two questions of a long call.
constexpr std::chrono::milliseconds patience{50};

struct setting_state {
    std::mutex lock;
    std::condition_variable changed;
    int calls = 0;
    std::deque<const partition_setting *> waiting;
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

partition_setting::partition_setting(int partitions, const std::function<void()> &meanwhile) {
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
    if (calls_of_this_thread == 0) {
        state().waiting.push_back(this);
        const auto leave = [&] {
            std::erase(state().waiting, this);
            state().changed.notify_all();
        };
        const auto is_next = [&] {
            return state().waiting.front() == this &&
                   (state().calls == 0 || GDKnr_threads == partitions);
        };
        while (!state().changed.wait_for(lock, patience, is_next)) {
            lock.unlock();
            try {
                meanwhile();
            } catch (...) {
                lock.lock();
                leave();
                throw;
            }
            lock.lock();
        }
        leave();
    }
    GDKnr_threads = partitions;
    ++state().calls;
    ++calls_of_this_thread;
}

partition_setting::~partition_setting() {
    const std::scoped_lock lock(state().lock);
    --calls_of_this_thread;
    if (--state().calls == 0)
        state().changed.notify_all();
}

namespace {

// Below so many rows each step is over before anybody would miss an answer.
constexpr std::int64_t rows_of_a_long_call = std::int64_t{1} << 18;

[[noreturn]] void fail_as_cancelled() {
    fail(VASK_CANCELLED, "the call was cancelled");
}

teller told_once(std::function<void(const std::string &)> tell) {
    const auto told = std::make_shared<std::set<std::string>>();
    return [told, tell = std::move(tell)](const std::string &text) {
        if (told->insert(text).second)
            tell(text);
    };
}

// What the functions of a query are told on the thread that called.
class caller {
public:
    explicit caller(const vask_query &asked) : asked_(asked) {}

    void note(const std::string &text) const {
        if (asked_.note != nullptr)
            asked_.note(asked_.context, text.c_str());
    }

    void progress(double done) const {
        if (asked_.progress != nullptr && asked_.progress(asked_.context, done) != 0)
            fail_as_cancelled();
    }

private:
    const vask_query &asked_;
};

/*
 * Work on a thread of its own. The scheduler has no way to ask a thread that takes part in the work
 * now and then, so the caller's does not.
 */
class watched_work {
public:
    explicit watched_work(const std::function<void(const query_context &)> &work) : work_(work) {}
    watched_work(const watched_work &) = delete;
    watched_work &operator=(const watched_work &) = delete;

    ~watched_work() {
        if (thread_.joinable()) {
            around_.cancel_group_execution();
            thread_.join();
        }
    }

    //! Throws system_error where there is no thread to be had.
    void start() {
        thread_ = std::thread([this] { run(); });
    }

    //! Hands on notes and progress until the work is done; throws what that throws.
    void watch(const caller &to) {
        double last_told = -1;
        bool finished = false;
        while (!finished) {
            std::vector<std::string> notes;
            double done = 0;
            {
                std::unique_lock lock(mutex_);
                news_.wait_for(lock, patience,
                               [&] { return finished_ || !notes_.empty() || done_ > last_told; });
                notes.swap(notes_);
                done = done_;
                finished = finished_;
            }
            for (const std::string &each : notes)
                to.note(each);
            // The last share is told once, unless the work has failed before.
            if (!finished || (failure_ == nullptr && done > last_told))
                to.progress(done);
            last_told = done;
        }
        thread_.join();
        if (failure_ != nullptr)
            std::rethrow_exception(failure_);
    }

private:
    void run() {
        try {
            arena_.execute([this] {
                tbb::task_group tasks(around_);
                tasks.run_and_wait([this] {
                    work_({linked_operators(), told_once([this](const std::string &text) {
                               const std::scoped_lock lock(mutex_);
                               notes_.push_back(text);
                               news_.notify_one();
                           }),
                           [this](double done) {
                               end_if_cancelled();
                               const std::scoped_lock lock(mutex_);
                               done_ = done;
                               news_.notify_one();
                           }});
                });
            });
        } catch (...) {
            failure_ = std::current_exception();
        }
        const std::scoped_lock lock(mutex_);
        finished_ = true;
        news_.notify_one();
    }

    const std::function<void(const query_context &)> &work_;
    tbb::task_arena arena_{tbb::this_task_arena::max_concurrency()}; // no more threads than here
    tbb::task_group_context around_{tbb::task_group_context::isolated};
    std::mutex mutex_;
    std::condition_variable news_;
    std::vector<std::string> notes_;
    double done_ = 0;
    bool finished_ = false;
    std::exception_ptr failure_; // before finished_ is set the work's own
    std::thread thread_;
};

} // namespace

void run_call(const vask_query &asked, std::int64_t rows,
              const std::function<void(const query_context &)> &work) {
    const caller to(asked);
    const partition_setting setting(asked.partitions, [&] { to.progress(0); });
    if (asked.progress != nullptr && rows >= rows_of_a_long_call) {
        watched_work watched(work);
        bool started = true;
        try {
            watched.start();
        } catch (const std::system_error &) {
            started = false; // no more threads: asked between steps alone
        }
        if (started) {
            watched.watch(to);
            return;
        }
    }
    work({linked_operators(), told_once([&](const std::string &text) { to.note(text); }),
          [&](double done) { to.progress(done); }});
}

} // namespace vask::table
