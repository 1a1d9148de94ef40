// Arrays and streams of others: malformed ones, what validation finds, who releases what.
#include "tests/table/literal_cells.h"

namespace vask_test {
namespace {

// Imports and runs a query on a table of ten rows whose batch was spoilt; all is released once.
void expect_malformed(const std::string &format, const array_layout &how,
                      const std::function<void(ArrowArray &column)> &spoil) {
    SCOPED_TRACE(format);
    ledger counted;
    column_data values{"v", format, {}};
    for (int i = 0; i < 10; ++i)
        values.values.push_back(sort_of_format(format) == sort_of::text
                                    ? cell::of_text("more than twelve bytes")
                                    : cell::of(i));
    outcome told;
    const table_pointer table =
        import_stream(make_stream(counted, {{values}}, {{how}, {}},
                                  [&](ArrowArray &batch) { spoil(*batch.children[0]); }),
                      &told);
    if (table != nullptr) {
        result_pointer result;
        told = run(table.get(), {{"v"}, {of("count")}, 0, 0}, result);
    }
    EXPECT_EQ(told.code, VASK_BAD_DATA) << told.text;
    EXPECT_NE(told.text.find("'v'"), std::string::npos) << told.text;
}

template <class T>
void set(ArrowArray &array, int buffer, std::size_t at, T value) {
    std::memcpy(static_cast<char *>(const_cast<void *>(array.buffers[buffer])) + at * sizeof value,
                &value, sizeof value);
}

TEST(Malformed, ArraysAreRefusedAndReleasedOnce) {
    constexpr auto most = std::numeric_limits<std::int64_t>::max();
    for (const char *const format : {"i", "g", "b", "u", "U", "vu", "d:9,2", "tsu:UTC"}) {
        expect_malformed(format, {}, [](ArrowArray &of) { of.length = -1; });
        expect_malformed(format, {}, [](ArrowArray &of) { of.offset = -1; });
        expect_malformed(format, {}, [](ArrowArray &of) { of.length = 9; });
        expect_malformed(format, {}, [](ArrowArray &of) { of.offset = most - 3; });
        expect_malformed(format, {}, [](ArrowArray &of) { of.n_buffers = 1; });
        expect_malformed(format, {}, [](ArrowArray &of) { of.buffers = nullptr; });
        expect_malformed(format, {}, [](ArrowArray &of) { of.buffers[1] = nullptr; });
    }
    expect_malformed("u", {}, [](ArrowArray &of) { set<std::int32_t>(of, 1, 4, 1); });
    expect_malformed("U", {}, [](ArrowArray &of) { set<std::int64_t>(of, 1, 4, 1); });
    expect_malformed("u", {}, [](ArrowArray &of) { set<std::int32_t>(of, 1, 0, -5); });
    expect_malformed("u", {}, [](ArrowArray &of) { of.buffers[2] = nullptr; });
    expect_malformed("vu", {}, [](ArrowArray &of) { set<std::int32_t>(of, 1, 0, -1); });
    expect_malformed("vu", {}, [](ArrowArray &of) { set<std::int32_t>(of, 1, 0, 1 << 30); });
    expect_malformed("vu", {}, [](ArrowArray &of) { set<std::int32_t>(of, 1, 2, 1); });
    expect_malformed("vu", {}, [](ArrowArray &of) { set<std::int32_t>(of, 1, 2, -1); });
    expect_malformed("vu", {}, [](ArrowArray &of) { set<std::int32_t>(of, 1, 3, 1 << 30); });
    expect_malformed("vu", {}, [](ArrowArray &of) { of.buffers[2] = nullptr; });
    expect_malformed("vu", {}, [](ArrowArray &of) { of.buffers[3] = nullptr; });
    for (const char *const format : {"i", "u"}) {
        const array_layout coded{.dictionary = true};
        expect_malformed(format, coded, [](ArrowArray &of) { of.dictionary = nullptr; });
        expect_malformed(format, coded, [](ArrowArray &of) { set<std::int32_t>(of, 1, 3, 99); });
        expect_malformed(format, coded, [](ArrowArray &of) { set<std::int32_t>(of, 1, 3, -1); });
        expect_malformed(format, coded, [](ArrowArray &of) { of.dictionary->length = -2; });
    }
}

// ---- full validation ----------------------------------------------------------------------------

// What a query says with and without VASK_VALIDATE about rows of one batch, perhaps spoilt.
void expect_found_by_validation(const column_data &values, const array_layout &how,
                                const std::function<void(ArrowArray &column)> &spoil,
                                const std::string &part_of_text) {
    SCOPED_TRACE(values.format + ": " + part_of_text);
    for (const bool by_codes : {false, true})
        for (const unsigned flags : {0U, static_cast<unsigned>(VASK_VALIDATE)}) {
            ledger counted;
            outcome told;
            const table_pointer table =
                import_stream(make_stream(counted, {{values}}, {{how}, {}},
                                          [&](ArrowArray &batch) { spoil(*batch.children[0]); }),
                              &told);
            ASSERT_NE(table, nullptr) << told.text;
            if (by_codes) {
                const query_record query({{"v"}, {}, flags, 0});
                std::vector<std::int32_t> codes(values.values.size());
                std::int64_t groups = 0;
                told.code =
                    vask_group_codes(table.get(), &query.record, codes.data(), &groups, nullptr);
            } else {
                result_pointer result;
                told = run(table.get(), {{}, {of("count")}, flags, 0}, result);
                if (flags != 0) {
                    EXPECT_NE(told.text.find(part_of_text), std::string::npos) << told.text;
                }
            }
            EXPECT_EQ(told.code, flags == 0 || part_of_text.empty() ? VASK_OK : VASK_BAD_DATA);
        }
}

TEST(Validation, FindsTextsThatAreNoUtf8) {
    const auto nothing = [](ArrowArray &) {};
    const auto column = [](const char *format, const std::string &text) {
        column_data made{"v", format, words({"a", "some longer text of plain bytes"})};
        made.values.push_back(cell::null());
        made.values.push_back(cell::of_text(text));
        return made;
    };
    const std::string ahead[] = {"", "eight by", "as long as a view's own bytes"};
    // On both sides of each bound of the encoding.
    for (const char *const bad :
         {"\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xc2", "\xc2\x7f", "\xdf\xc0", "\xe0\x9f\xbf",
          "\xe1\x80", "\xe1\x80\x7f", "\xe1\x80\xc0", "\xed\xa0\x80", "\xf0\x8f\xbf\xbf",
          "\xf0\x90\x80", "\xf1\x80\x80\x41", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff"})
        for (const std::string &before : ahead) {
            for (const char *const format : {"u", "U", "vu"})
                expect_found_by_validation(column(format, before + bad), {.offset = 3}, nothing,
                                           "'v': row 3 of a batch is no UTF-8");
            for (const char *const format : {"z", "Z", "vz"})
                expect_found_by_validation(column(format, before + bad), {}, nothing, "");
        }
    for (const char *const good :
         {"", "\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
          "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf3\xbf\xbf\xbf", "\xf4\x8f\xbf\xbf"})
        for (const std::string &before : ahead)
            for (const char *const format : {"u", "U", "vu"}) {
                expect_found_by_validation(column(format, before + good), {}, nothing, "");
                expect_found_by_validation(column(format, good + before), {.dictionary = true},
                                           nothing, "");
            }
}

TEST(Validation, FindsWhatNoReadMeets) {
    column_data texts{"v", "u", words({"a", "b", "c"})};
    texts.values.insert(texts.values.end(), 2, cell::null());
    texts.values.push_back(cell::of_text("a text that is longer than a view"));
    column_data numbers{"v", "i", {cell::of(1), cell::null(), cell::of(3)}};

    // Between two nulls.
    for (const int place : {0, 1 << 20})
        expect_found_by_validation(
            texts, {.offset = 2}, [&](ArrowArray &of) { set<std::int32_t>(of, 1, 2 + 4, place); },
            place == 0 ? "'v': the offsets of row 3 " : "'v': the offsets of row 4 ");
    // Of as many nulls as there are, and where a bitmap would be.
    for (column_data *const column : {&texts, &numbers}) {
        expect_found_by_validation(
            *column, {.offset = 1}, [](ArrowArray &of) { of.null_count += 1; }, "nulls and has");
        expect_found_by_validation(
            *column, {.offset = 1}, [](ArrowArray &of) { of.null_count = 0; }, "to have 0 nulls");
        expect_found_by_validation(
            *column, {}, [](ArrowArray &of) { of.buffers[0] = nullptr; }, "nulls and has 0");
        expect_found_by_validation(
            *column, {.count_nulls = false}, [](ArrowArray &) {}, "");
    }
    texts.format = "vu";
    const std::string other = "'v': the view of row 5 of a batch has other bytes";
    expect_found_by_validation(
        texts, {}, [](ArrowArray &of) { set<char>(of, 1, 16 * 5 + 7, '!'); }, other);
    expect_found_by_validation(
        texts, {}, [](ArrowArray &of) { set<char>(of, 1, 16 * 0 + 15, '!'); }, "view of row 0");
    // Entries of no row, and values of a dictionary that is not made of texts.
    texts.format = "u";
    expect_found_by_validation(
        texts, {.dictionary = true},
        [](ArrowArray &of) { set<char>(*of.dictionary, 2, 6, '\xff'); },
        "'v': row 0 of a batch is no UTF-8");
    expect_found_by_validation(
        numbers, {.dictionary = true}, [](ArrowArray &of) { of.dictionary->null_count = 1; },
        "to have 1 nulls and has 0");
}

// The offset behind a batch's last row is none of the array's last, which alone is true.
TEST(Malformed, OffsetsBehindABatchThatIsShorterThanItsArray) {
    for (const char *const format : {"u", "U"}) {
        SCOPED_TRACE(format);
        ledger counted;
        const column_data values{"v", format, words({"a", "b", "c", "d"})};
        outcome told;
        const table_pointer table = import_stream(
            make_stream(counted, {{values}}, {},
                        [&](ArrowArray &batch) {
                            batch.length = 2;
                            if (format[0] == 'u')
                                set<std::int32_t>(*batch.children[0], 1, 2, 1 << 24);
                            else
                                set<std::int64_t>(*batch.children[0], 1, 2, std::int64_t{1} << 24);
                        }),
            &told);
        EXPECT_EQ(told.code, VASK_BAD_DATA) << told.text;
    }
}

TEST(Malformed, StreamsAreRefusedAndReleasedOnce) {
    const table_data data{{{"v", "i", wholes({1, 2, 3, 4})}, {"t", "u", words({"", "", "", ""})}}};
    const auto refused = [&](int code, const table_layout &how,
                             std::function<void(ArrowArray &)> spoil = {},
                             std::function<void(ArrowSchema &)> spoil_schema = {}) {
        ledger counted;
        outcome told;
        const table_pointer table = import_stream(
            make_stream(counted, data, how, std::move(spoil), std::move(spoil_schema)), &told);
        EXPECT_EQ(told.code, code) << told.text;
        return told.text;
    };
    table_layout fails{{}, {1, 2, 1}};
    fails.fails_at = 2;
    EXPECT_NE(refused(VASK_FAILED, fails).find("the disk is gone"), std::string::npos);
    table_layout no_schema;
    no_schema.fails_at_schema = true;
    refused(VASK_FAILED, no_schema);
    refused(VASK_BAD_DATA, {}, [](ArrowArray &of) { of.n_children = 1; });
    refused(VASK_BAD_DATA, {}, [](ArrowArray &of) { of.length = -1; });
    refused(VASK_BAD_DATA, {}, [](ArrowArray &of) { of.offset = -1; });
    refused(VASK_BAD_DATA, {},
            [](ArrowArray &of) { of.offset = std::numeric_limits<std::int64_t>::max() - 1; });
    refused(VASK_BAD_REQUEST, {}, [](ArrowArray &of) {
        of.length = std::int64_t{1} << 32;
        for (int i = 0; i < 2; ++i)
            of.children[i]->length = of.length;
    });
    refused(VASK_BAD_DATA, {}, {}, [](ArrowSchema &of) { of.format = "i"; });
    refused(VASK_BAD_DATA, {}, {}, [](ArrowSchema &of) { of.format = nullptr; });
    refused(VASK_BAD_DATA, {}, {}, [](ArrowSchema &of) { of.n_children = -1; });
    refused(VASK_BAD_DATA, {}, {}, [](ArrowSchema &of) { of.children[1]->format = nullptr; });
    outcome told;
    ArrowArrayStream released{};
    EXPECT_EQ(import_stream(released, &told), nullptr);
    EXPECT_EQ(told.code, VASK_BAD_REQUEST);
}

TEST(Ownership, ColumnsAreTakenOverAlsoWhenTheyAreRefused) {
    ledger counted;
    vask_table *made = nullptr;
    ASSERT_EQ(vask_table_new(&made, nullptr), VASK_OK);
    const table_pointer table(made);
    EXPECT_EQ(vask_table_rows(made), -1);
    const auto add = [&](const column_data &of, vask_table *to, const char *name) {
        ArrowSchema schema = make_schema(counted, of);
        ArrowArray array = make_array(counted, of, 0, of.values.size(), {.offset = 2});
        const int code = vask_table_add_arrow(to, name, &schema, &array, nullptr);
        EXPECT_EQ(schema.release, nullptr);
        EXPECT_EQ(array.release, nullptr);
        return code;
    };
    EXPECT_EQ(add({"a", "l", wholes({5, 6})}, made, nullptr), VASK_OK);
    EXPECT_EQ(add({"a", "u", words({"x", "y"})}, made, "b"), VASK_OK);
    EXPECT_EQ(add({"c", "l", wholes({5})}, made, nullptr), VASK_BAD_REQUEST) << "other rows";
    EXPECT_EQ(add({"c", "l", wholes({5})}, nullptr, nullptr), VASK_BAD_REQUEST);
    int releases = 0;
    const auto count = [](void *owner) { ++*static_cast<int *>(owner); };
    const std::int32_t values[] = {7, 8};
    const std::uint8_t bits = 0b0100'0000;
    EXPECT_EQ(vask_table_add_values(made, "d", "i", 2, values, &bits, 5, count, &releases, nullptr),
              VASK_OK);
    EXPECT_EQ(releases, 0);
    int refusals = 0;
    for (const char *const format : {"u", "n", "+s", "", "q"})
        EXPECT_EQ(vask_table_add_values(made, "e", format, 2, values, nullptr, 0, count, &refusals,
                                        nullptr),
                  VASK_BAD_REQUEST);
    EXPECT_EQ(
        vask_table_add_values(made, "e", "i", -1, values, nullptr, 0, count, &refusals, nullptr),
        VASK_BAD_REQUEST);
    EXPECT_EQ(
        vask_table_add_values(made, "e", "i", 2, nullptr, nullptr, 0, count, &refusals, nullptr),
        VASK_BAD_REQUEST);
    EXPECT_EQ(
        vask_table_add_values(nullptr, "e", "i", 2, values, nullptr, 0, count, &refusals, nullptr),
        VASK_BAD_REQUEST);
    EXPECT_EQ(refusals, 8);
    EXPECT_EQ(shown(run(made, {{"b"}, {of("sum", "a"), of("sum", "d")}, 0, 0})),
              "b (u): 'x' 'y'\nsum(a) (l): 5 6\nsum(d) (l): null 8\n");
    EXPECT_EQ(releases, 0);
    vask_table_free(made);
    (void)const_cast<table_pointer &>(table).release();
    EXPECT_EQ(releases, 1);
}

TEST(Ownership, ResultsOutliveTablesAndStreamsOutliveResults) {
    ledger counted;
    ArrowArrayStream first{};
    ArrowArrayStream second{};
    {
        table_pointer table = import_table(
            counted, {{{"k", "u", words({"x", "y", "x"})}, {"v", "g", reals({1, 2, 4})}}});
        result_pointer result;
        ASSERT_EQ(run(table.get(), {{"k"}, {of("max"), of("first", "k")}, 0, 0}, result).code,
                  VASK_OK);
        table.reset();
        EXPECT_EQ(shown(read_result(result.get())).substr(0, 14), "k (u): 'x' 'y'");
        ASSERT_EQ(vask_result_stream(result.get(), &first, nullptr), VASK_OK);
        ASSERT_EQ(vask_result_stream(result.get(), &second, nullptr), VASK_OK);
    }
    // A child that was moved out lives on by itself.
    ArrowArray batch{};
    ASSERT_EQ(first.get_next(&first, &batch), 0);
    ArrowArray child = *batch.children[1];
    batch.children[1]->release = nullptr;
    batch.release(&batch);
    first.release(&first);
    EXPECT_EQ(static_cast<const double *>(child.buffers[1])[0], 4);
    child.release(&child);
    second.release(&second); // without a look at it
}

} // namespace
} // namespace vask_test
