// Calls that overlap on the same columns: each gives the answer that it gives alone. Under the
// thread sanitizer this also shows that neither the operators nor the kernel beneath them race.
// VASK_STRESS_SECONDS sets how long the last test goes on.
#include "kernel/cancelled.h"
#include "kernel/hostile.h"
#include "library/any_operator.h"
#include "support/kernel_settings.h"
#include "support/leak_guard.h"
#include "support/values.h"
#include "vask/ops.h"
#include "vask/refkernel/instrumentation.h"
#include "vask/refkernel/reference_account.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <tbb/task_group.h>

namespace {

using namespace support;
using refkernel::bat;

//! Columns by the letters that stand for them in the table of operators.
using table = std::map<char, bat>;

constexpr BUN rows = 10'000;
constexpr BUN many_rows = 70'000; // grouping asks its sample only above 65,536 rows
constexpr BUN groups = 300;

template <class T>
bat drawn_column(std::mt19937 &random, int nil_percent) {
    return refkernel::make_column(draw_values<T>(random, rows, nil_percent, spread::far),
                                  {.tail = {.nonil = nil_percent == 0}});
}

//! The columns that all calls share.
class inputs {
public:
    inputs() {
        lasting_['s'] = drawn_column<std::int16_t>(random_, 0);
        lasting_['l'] = drawn_column<std::int64_t>(random_, 0);
        lasting_['f'] = drawn_column<float>(random_, 0);
        lasting_['d'] = drawn_column<double>(random_, 0);
        lasting_['I'] = drawn_column<std::int32_t>(random_, 20);
        lasting_['D'] = drawn_column<double>(random_, 1);

        std::vector<std::int32_t> few(many_rows);
        std::ranges::generate(few, [&] { return static_cast<std::int32_t>(random_() % 50); });
        lasting_['k'] = refkernel::make_column(std::move(few));
        std::vector<std::int32_t> unique(many_rows);
        // Where all hashes are equal, so many different ones would take minutes.
        constexpr BUN rows_of_a_value = vask::unless_hostile<BUN>(1, 20);
        for (BUN row = 0; row < many_rows; ++row)
            unique[row] = static_cast<std::int32_t>(row / rows_of_a_value);
        std::shuffle(unique.begin(), unique.end(), random_);
        lasting_['u'] = refkernel::make_column(std::move(unique));
        refkernel::text_builder texts;
        for (BUN row = 0; row < many_rows; ++row)
            texts.append("text " + std::to_string(random_() % 100));
        lasting_['t'] = texts.finish();

        lasting_['q'] = refkernel::make_column(std::vector<std::int8_t>{1});
        lasting_['p'] = refkernel::make_column(std::vector<double>{0.3});
        lasting_['r'] = refkernel::make_column(std::vector<std::int64_t>{4});

        ints_ = draw_values<std::int32_t>(random_, rows, 0, spread::far);
        ids_.resize(groups);
        for (BUN group = 0; group < groups; ++group)
            ids_[group] = group * 7 + 3;
        std::shuffle(ids_.begin(), ids_.end(), random_);
        map_.resize(rows);
        std::ranges::generate(map_, [&] { return ids_[random_() % groups]; });
    }

    //! All columns, some of them new ones that nobody has hashed or aligned with yet. Only a hash
    //! leads into the extents and into one of the two maps.
    table make() const {
        table made;
        for (const auto &[letter, column] : lasting_)
            made[letter] = bat::share(column.id());
        made['i'] = refkernel::make_column<std::int32_t>(ints_, {.tail = {.nonil = true}});
        made['e'] =
            refkernel::make_column(std::vector<std::int64_t>(groups, 1),
                                   {.type = TYPE_wrd, .stored_head = true, .head_oids = ids_});
        made['g'] = refkernel::make_column<oid>(map_);
        made['h'] = refkernel::make_column<oid>(map_, {.stored_head = true});
        ALIGNsetH(made['g'].record(), made['h'].record());
        return made;
    }

private:
    std::mt19937 random_{99};
    table lasting_;
    std::vector<std::int32_t> ints_;
    std::vector<oid> ids_;
    std::vector<oid> map_;
};

template <class T>
void append_bytes(std::string &bytes, const T &value) {
    bytes.append(reinterpret_cast<const char *>(&value), sizeof value);
}

//! The values of a head or of a tail of numbers, and what is said of them.
void append_column(std::string &bytes, const BATcol &c, const BATinfo &info) {
    for (const int mark : {int{c.type}, int{c.sorted}, int{c.nonil}, int{c.nil}})
        append_bytes(bytes, mark);
    if (c.type == TYPE_void)
        append_bytes(bytes, c.seqbase);
    else
        bytes.append(static_cast<const char *>(c.base) + (std::size_t{info.first} << c.shift),
                     std::size_t{info.count} << c.shift);
}

std::string bytes_of(const bat &column) {
    const BAT &b = *column.record();
    std::string bytes;
    append_bytes(bytes, b.info->count);
    append_column(bytes, *b.head, *b.info);
    append_column(bytes, *b.tail, *b.info);
    return bytes;
}

//! Two slots, for operators with two results.
using two_numbers = std::array<std::int32_t, 2>;

char *group(two_numbers *made, const std::int32_t *column) {
    return VASKgroup(&(*made)[0], &(*made)[1], column);
}

char *derive(two_numbers *made, const std::int32_t *extents, const std::int32_t *map,
             const std::int32_t *column) {
    return VASKderive(&(*made)[0], &(*made)[1], extents, map, column);
}

struct operation {
    const char *name;
    any_operator call;
    std::string inputs;
    bool gives_two_columns = false;

    //! The answer as bytes, so that answers of every kind compare.
    std::string answer(const table &from) const {
        columns given;
        for (const char letter : inputs)
            given.push_back(&from.at(letter));
        alignas(lng) two_numbers slot{};
        const auto failure = refkernel::take_exception(call(&slot, given));
        if (failure != refkernel::operator_failure{})
            return "failed: " + failure.text;
        std::string bytes;
        if (gives_two_columns)
            bytes = bytes_of(bat::adopt(slot[0])) + bytes_of(bat::adopt(slot[1]));
        else if (call.gives_column())
            bytes = bytes_of(bat::adopt(slot[0]));
        else
            append_bytes(bytes, slot);
        return bytes;
    }
};

std::vector<operation> all_operations() {
    std::vector<operation> all;
#define OPERATOR(name) #name, any_operator(name)
    const auto add = [&](const char *name, const any_operator &call, const std::string &inputs) {
        all.push_back({name, call, inputs});
    };
    for (const char *inputs : {"k", "u", "t", "g"})
        all.push_back({OPERATOR(group), inputs, true});
    for (const char *inputs : {"egs", "egi", "ehI", "egg"})
        all.push_back({OPERATOR(derive), inputs, true});
    for (const std::string values : {"s", "i", "l", "f", "d", "I", "D"}) {
        add(OPERATOR(vask_grp_sum), values + "ge");
        add(OPERATOR(vask_grp_max), values + "ge");
        add(OPERATOR(vask_grp_count), values + "ge");
        add(OPERATOR(vask_grp_stdev), values + "ge");
        add(OPERATOR(vask_grp_skewp), values + "ge");
        add(OPERATOR(AggrX3_countDistinct), values + "ge");
        add(OPERATOR(vask_sum_int), values);
        add(OPERATOR(vask_min_int), values);
        add(OPERATOR(vask_count), values);
        add(OPERATOR(vask_variance), values);
    }
    for (const std::string values : {"s", "i", "l", "f", "d"}) { // of columns without nils only
        add(OPERATOR(vask_median), values);
        add(OPERATOR(vask_quartile), values + "q");
        add(OPERATOR(vask_mode), values);
        add(OPERATOR(vask_grp_median), values + "he");
        add(OPERATOR(vask_grp_percentile), values + "pge");
        add(OPERATOR(vask_grp_largest), values + "rge");
        add(OPERATOR(vask_grp_mode), values + "ge");
    }
    add(OPERATOR(vask_grp_correl), "DIge");
    add(OPERATOR(vask_grp_slope), "fsge");
    add(OPERATOR(vask_covars), "Id");
    add(OPERATOR(vask_intercept), "fi");
    add(OPERATOR(vask_count), "t");
    add(OPERATOR(vaskops_are_bat_indexes_contained), "gi");
    add(OPERATOR(vask_coSNNandUnion), "iD");
#undef OPERATOR
    return all;
}

// The threads of a round run operators of their own choice, on extents and maps that are new: their
// first users load the columns and build the hashes while others make views of them, and the last
// one frees them.
TEST(ConcurrentCalls, GiveTheAnswersTheyGiveAlone) {
    constexpr std::uint32_t rounds = 32;
    constexpr std::uint32_t threads = 8;
    constexpr std::size_t calls = 16;
    const leak_guard leaks;
    const kernel_settings settings(4, 1000);
    const inputs all_inputs;
    const std::vector<operation> operations = all_operations();
    std::vector<std::string> alone;
    for (const operation &op : operations) {
        alone.push_back(op.answer(all_inputs.make()));
        ASSERT_FALSE(alone.back().starts_with("failed")) << op.name << ": " << alone.back();
    }
    std::atomic<int> wrong = 0;
    for (std::uint32_t round = 0; round < rounds; ++round) {
        std::vector<table> shared(threads);
        for (const auto &[letter, column] : all_inputs.make()) {
            for (table &mine : shared)
                mine[letter] = bat::share(column.id());
            refkernel::instrumentation::unload(column.id());
        }
        std::barrier start(threads);
        std::vector<std::jthread> running;
        for (std::uint32_t thread = 0; thread < threads; ++thread)
            running.emplace_back([&, thread, mine = std::move(shared[thread])]() mutable {
                std::mt19937 random(round * threads + thread);
                start.arrive_and_wait();
                for (std::size_t call = 0; call < calls; ++call) {
                    const std::size_t which = random() % operations.size();
                    const operation &op = operations[which];
                    if (random() % 4 == 0) // somebody else's query asks for a column
                        BBPdescriptor(mine.at(op.inputs[0]).id());
                    if (op.answer(mine) != alone[which] && wrong++ < 10)
                        ADD_FAILURE() << op.name << " of " << op.inputs << " in thread " << thread
                                      << " of round " << round;
                }
                mine.clear();
            });
    }
    EXPECT_EQ(wrong, 0);
}

// An operator whose caller cancels it, at times spread over its run, gives its answer or none. What
// it held when the exception passed it is the caller's to give back; nothing else is lost.
TEST(ConcurrentCalls, AreCancelledAtAnyTime) {
    using clock = std::chrono::steady_clock;
    constexpr int times = 6;
    const leak_guard leaks;
    const kernel_settings settings(4, 1000);
    const inputs all_inputs;
    int cancelled = 0;
    for (const operation &op : all_operations()) {
        const auto begin = clock::now();
        const std::string alone = op.answer(all_inputs.make());
        const auto whole = clock::now() - begin;
        const table columns = all_inputs.make();
        for (int i = 0; i < times; ++i) {
            const leak_guard of_this_call(op.name);
            tbb::task_group_context around(tbb::task_group_context::isolated);
            tbb::task_group work(around);
            refkernel::reference_account references;
            std::barrier start(2);
            const std::jthread canceller([&] {
                start.arrive_and_wait();
                const auto end = clock::now() + whole * i / times;
                while (clock::now() < end)
                    std::this_thread::yield();
                around.cancel_group_execution();
            });
            std::string answer;
            bool thrown = true;
            const auto status = work.run_and_wait([&] {
                start.arrive_and_wait();
                try {
                    answer = op.answer(columns);
                    thrown = false;
                } catch (const vask::work_cancelled &) {
                    references.give_back();
                }
            });
            if (!thrown && !answer.starts_with("failed")) {
                EXPECT_EQ(answer, alone) << op.name << " of " << op.inputs;
            } else {
                EXPECT_EQ(status, tbb::canceled) << op.name << " of " << op.inputs << answer;
                ++cancelled;
            }
        }
    }
    EXPECT_GT(cancelled, 10);
}

// The pool gets new numbers, for which it grows, while every thread fetches.
TEST(ConcurrentCalls, FindTheirColumnsWhileThePoolGrows) {
    constexpr std::int32_t last_numbers = 100; // that are left when the fetching begins
    const leak_guard leaks;
    const bat column = refkernel::make_void_column(7);
    const std::int32_t size = BBPsize;
    std::vector<bat> held;
    const auto hold_one_more = [&held] { held.push_back(refkernel::make_void_column(1)); };
    do
        hold_one_more();
    while (held.back().id() < size - last_numbers);

    std::atomic<bool> grown = false;
    std::vector<std::jthread> running;
    for (int thread = 0; thread < 8; ++thread)
        running.emplace_back([&] {
            do {
                lng counted = 0;
                EXPECT_EQ(vask_count_asterisk(&counted, column.slot()), nullptr);
                EXPECT_EQ(counted, 7);
            } while (!grown.load(std::memory_order_relaxed));
        });
    while (held.back().id() <= size)
        hold_one_more();
    grown.store(true, std::memory_order_relaxed);
}

std::chrono::seconds stress_time() {
    const char *const given = std::getenv("VASK_STRESS_SECONDS");
    return std::chrono::seconds(given == nullptr ? 2 : std::strtol(given, nullptr, 10));
}

// All operators from eight threads on columns that all share, each of which its last user drops,
// while other threads make columns, so that the pool grows, and take records out of it, so that
// they are loaded again.
TEST(ConcurrentCalls, HoldWhileThePoolGrowsAndColumnsAreUnloaded) {
    constexpr std::uint32_t threads = 8;
    constexpr std::size_t calls = 24;
    const auto end = std::chrono::steady_clock::now() + stress_time();
    const leak_guard leaks;
    const kernel_settings settings(4, 1000);
    const inputs all_inputs;
    const std::vector<operation> operations = all_operations();
    std::vector<std::string> alone;
    for (const operation &op : operations)
        alone.push_back(op.answer(all_inputs.make()));
    std::atomic<int> wrong = 0;
    std::atomic<std::uint64_t> answers = 0;
    std::vector<bat> standing; // of the thread that makes the pool grow
    for (std::uint32_t round = 0; round == 0 || std::chrono::steady_clock::now() < end; ++round) {
        std::vector<table> shared(threads);
        std::vector<std::int32_t> numbers;
        for (const auto &[letter, column] : all_inputs.make()) {
            for (table &mine : shared)
                mine[letter] = bat::share(column.id());
            numbers.push_back(column.id());
        }
        std::atomic<std::uint32_t> busy = threads;
        std::barrier start(threads + 2);
        std::vector<std::jthread> running;
        for (std::uint32_t thread = 0; thread < threads; ++thread)
            running.emplace_back([&, thread, mine = std::move(shared[thread])]() mutable {
                std::mt19937 random(round * threads + thread);
                start.arrive_and_wait();
                for (std::size_t call = 0; call < calls; ++call) {
                    const std::size_t which = random() % operations.size();
                    const operation &op = operations[which];
                    if (op.answer(mine) != alone[which] && wrong++ < 10)
                        ADD_FAILURE() << op.name << " of " << op.inputs << " in thread " << thread
                                      << " of round " << round;
                    ++answers;
                }
                mine.clear();
                --busy;
            });
        running.emplace_back([&] {
            start.arrive_and_wait();
            while (busy != 0) {
                standing.push_back(refkernel::make_void_column(3));
                if (standing.size() > 3000)
                    standing.clear();
                std::this_thread::yield();
            }
        });
        running.emplace_back([&] {
            std::mt19937 random(round);
            start.arrive_and_wait();
            while (busy != 0) {
                refkernel::instrumentation::unload(numbers[random() % numbers.size()]);
                std::this_thread::yield();
            }
        });
    }
    standing.clear();
    EXPECT_EQ(wrong, 0);
    RecordProperty("answers", std::to_string(answers));
}

} // namespace
