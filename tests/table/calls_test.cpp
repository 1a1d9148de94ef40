// Calls of the C interface that overlap, go on for long or are cancelled.
#include "src/kernel/hostile.h"
#include "tests/table/literal_cells.h"

#include <random>
#include <thread>

#include <tbb/global_control.h>

namespace vask_test {
namespace {

table_data large_table(std::size_t rows) {
    table_data made{{{"k", "i", {}}, {"t", "u", {}}, {"v", "g", {}}, {"w", "l", {}}}};
    std::uint64_t state = 7;
    for (std::size_t row = 0; row < rows; ++row) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        const std::uint64_t drawn = state >> 33;
        made.columns[0].values.push_back(cell::of(drawn % 1000));
        made.columns[1].values.push_back(cell::of_text("text " + std::to_string(drawn % 77)));
        made.columns[2].values.push_back(
            drawn % 19 == 0 ? cell::null() : cell::of_real(static_cast<double>(drawn) / 7));
        made.columns[3].values.push_back(cell::of(static_cast<wide>(drawn) - 1000));
    }
    return made;
}

const std::vector<asked_query> &various_queries() {
    static const std::vector<asked_query> queries{
        {{"k"}, {of("sum"), of("mean"), of("stdev"), of("median")}, 0, 0},
        {{"t"}, {of("sum"), of("count_distinct", "k"), of("mode", "k")}, VASK_SORT_GROUPS, 0},
        {{"k", "t"}, {of("max", "t"), of("skews"), {"correl", {"v", "w"}, 0, ""}}, 0, 0},
        {{}, {of("sum"), of("quantile", "v", 0.9), of("iqr", "w"), of("first", "t")}, 0, 0},
        {{"w"}, {of("last"), {"weighted_mean", {"v", "w"}, 0, ""}}, 0, 0}};
    return queries;
}

TEST(Threads, CallsOnOneTableMayOverlap) {
    ledger counted;
    const table_data data = large_table(vask::unless_hostile(20'000U, 4'000U));
    std::vector<std::string> expected;
    for (int partitions : {0, 3})
        for (asked_query asked : various_queries()) {
            // Of a table of its own each, so that no form of a column is there before.
            const table_pointer alone = import_table(counted, data);
            asked.partitions = partitions;
            expected.push_back(shown(run(alone.get(), asked)));
        }
    for (const bool mixed : {false, true}) {
        const table_pointer table = import_table(counted, data);
        std::vector<std::thread> threads;
        std::atomic<int> wrong{0};
        for (std::size_t thread = 0; thread < 8; ++thread)
            threads.emplace_back([&, thread] {
                const std::size_t queries = various_queries().size();
                for (std::size_t i = 0; i < queries; ++i) {
                    const std::size_t at = (i + thread) % queries;
                    asked_query asked = various_queries()[at];
                    const bool other = mixed && thread % 2 == 1;
                    asked.partitions = other ? 3 : 0;
                    result_pointer result;
                    if (run(table.get(), asked, result).code != VASK_OK ||
                        shown(read_result(result.get())) != expected[at + (other ? queries : 0)])
                        ++wrong;
                }
            });
        for (std::thread &thread : threads)
            thread.join();
        EXPECT_EQ(wrong, 0) << mixed;
    }
}

TEST(Threads, ResultsDoNotDependOnTheNumberOfThreads) {
    ledger counted;
    constexpr std::size_t rows = vask::unless_hostile(100'000U, 40'000U);
    const table_data data = large_table(rows);
    std::vector<std::string> first;
    for (const std::size_t threads : {1U, 2U, 5U}) {
        const tbb::global_control limit(tbb::global_control::max_allowed_parallelism, threads);
        const table_pointer table = import_table(counted, data, {{}, {2048, 1, 0, rows - 2049}});
        for (std::size_t i = 0; i < various_queries().size(); ++i) {
            const std::string result = shown(run(table.get(), various_queries()[i]));
            if (threads == 1)
                first.push_back(result);
            else
                EXPECT_TRUE(result == first[i]) << threads << " threads, query " << i;
        }
    }
}

TEST(Threads, LargeTablesAgreeWithAPlainReference) {
    ledger counted;
    const table_data data = large_table(30'000);
    const table_pointer table = import_table(counted, data, {{{}, {.dictionary = true}}, {}});
    for (const asked_query &asked :
         {asked_query{{"t"}, various_queries()[0].functions, 0, 0},
          asked_query{{"k"}, various_queries()[1].functions, 0, 0}, various_queries()[3]})
        EXPECT_EQ(difference(run(table.get(), asked), plain_query(data, asked).run()), "");
}

TEST(Progress, GoesUpAndCancels) {
    ledger counted;
    const table_pointer table = import_table(counted, large_table(100));
    struct seen {
        std::vector<double> done;
        std::size_t stop_at = 1000;
        std::vector<std::string> notes;
    };
    query_record query(various_queries()[0]);
    query.record.progress = [](void *context, double done) {
        auto &own = *static_cast<seen *>(context);
        own.done.push_back(done);
        return own.done.size() >= own.stop_at ? 1 : 0;
    };
    query.record.note = [](void *context, const char *text) {
        static_cast<seen *>(context)->notes.emplace_back(text);
    };
    seen all;
    query.record.context = &all;
    vask_result *made = nullptr;
    ASSERT_EQ(vask_run(table.get(), &query.record, &made, nullptr), VASK_OK);
    result_pointer result(made);
    ASSERT_GE(all.done.size(), 2U);
    EXPECT_TRUE(std::is_sorted(all.done.begin(), all.done.end()));
    EXPECT_EQ(all.done.back(), 1.0);
    EXPECT_FALSE(all.notes.empty());
    for (std::size_t stop = 1; stop <= all.done.size(); ++stop) {
        seen some;
        some.stop_at = stop;
        query.record.context = &some;
        made = nullptr;
        char *error = nullptr;
        const outcome told = take(vask_run(table.get(), &query.record, &made, &error), error);
        EXPECT_EQ(told.code, VASK_CANCELLED);
        EXPECT_EQ(made, nullptr);
        EXPECT_EQ(some.done.size(), stop) << "nothing is asked after it was cancelled";
    }
}

TEST(Progress, FailuresOfLongCallsAreTold) {
    ledger counted;
    std::vector<double> values(300'000, 1);
    values.back() = std::nan("");
    const table_pointer table = import_table(counted, {{{"v", "g", reals(values)}}});
    query_record query({{}, {of("median")}, 0, 0});
    query.record.progress = [](void *, double) { return 0; };
    vask_result *made = nullptr;
    char *error = nullptr;
    const outcome told = take(vask_run(table.get(), &query.record, &made, &error), error);
    EXPECT_EQ(told.code, VASK_BAD_DATA);
    EXPECT_NE(told.text.find("NaN"), std::string::npos) << told.text;
    EXPECT_EQ(made, nullptr);
}

// A call of so many rows that it is worked on elsewhere: asked and told on the thread that called,
// and over soon after it was cancelled, wherever that finds it.
TEST(Progress, LongCallsAskTheirCallerAndEnd) {
    using clock = std::chrono::steady_clock;
    ledger counted;
    const table_pointer table = import_table(counted, large_table(300'000));
    struct seen {
        std::thread::id caller = std::this_thread::get_id();
        bool elsewhere = false;
        clock::time_point end = clock::time_point::max();
        std::vector<double> done;
        std::vector<std::string> notes;
    };
    query_record query(various_queries()[0]);
    query.record.progress = [](void *context, double done) {
        auto &own = *static_cast<seen *>(context);
        own.elsewhere = own.elsewhere || std::this_thread::get_id() != own.caller;
        own.done.push_back(done);
        return clock::now() >= own.end ? 1 : 0;
    };
    query.record.note = [](void *context, const char *text) {
        auto &own = *static_cast<seen *>(context);
        own.elsewhere = own.elsewhere || std::this_thread::get_id() != own.caller;
        own.notes.emplace_back(text);
    };
    const auto asked_until = [&](clock::time_point end, seen &all, std::string &answer) {
        all.end = end;
        query.record.context = &all;
        vask_result *made = nullptr;
        char *error = nullptr;
        const outcome told = take(vask_run(table.get(), &query.record, &made, &error), error);
        const result_pointer result(made);
        EXPECT_EQ(result != nullptr, told.code == VASK_OK);
        EXPECT_FALSE(all.elsewhere);
        EXPECT_TRUE(std::is_sorted(all.done.begin(), all.done.end()));
        if (result != nullptr)
            answer = shown(read_result(result.get()));
        return told.code;
    };
    seen all;
    std::string expected;
    const auto begin = clock::now();
    ASSERT_EQ(asked_until(clock::time_point::max(), all, expected), VASK_OK);
    const auto whole = clock::now() - begin;
    EXPECT_EQ(all.done.back(), 1.0);
    EXPECT_FALSE(all.notes.empty());
    int cancelled = 0;
    for (int i = 0; i < 12; ++i) {
        seen some;
        std::string answer;
        const int code = asked_until(clock::now() + whole * i / 12, some, answer);
        if (code == VASK_OK) {
            EXPECT_EQ(answer, expected);
        } else {
            EXPECT_EQ(code, VASK_CANCELLED);
            ++cancelled;
        }
    }
    EXPECT_GT(cancelled, 0);
    seen again;
    std::string answer;
    EXPECT_EQ(asked_until(clock::time_point::max(), again, answer), VASK_OK);
    EXPECT_EQ(answer, expected);
}

} // namespace
} // namespace vask_test
