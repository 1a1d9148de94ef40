// The C interface: arguments checked, exceptions turned into codes and texts.
#include "vask/vask.h"
#include "vask/version.h"

#include "table/arrow_export.h"
#include "table/arrow_import.h"
#include "table/containment.h"
#include "table/errors.h"
#include "table/parallel.h"
#include "table/plan.h"
#include "table/session.h"
#include "table/states.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <tbb/task_arena.h>

struct vask_table {
    vask::table::column_list columns;
    std::int64_t rows = -1;
};

struct vask_result {
    std::shared_ptr<const vask::table::result_table> table;
};

namespace vask::table {
namespace {

// ---- codes --------------------------------------------------------------------------------------

char *copied(const char *text) noexcept {
    auto *const copy = static_cast<char *>(std::malloc(std::strlen(text) + 1));
    if (copy != nullptr)
        std::strcpy(copy, text);
    return copy;
}

int failed(vask_code code, const char *text, char **error) noexcept {
    if (error != nullptr)
        *error = copied(text);
    return code;
}

// Runs a call's work; whatever it throws becomes a code and a text.
template <class Work>
int guarded(char **error, const Work &work) noexcept {
    if (error != nullptr)
        *error = nullptr;
    try {
        // A thread that waits in this call takes up no work of another one.
        tbb::this_task_arena::isolate([&] { work(); });
        return VASK_OK;
    } catch (const table_error &failure) {
        return failed(failure.code(), failure.what(), error);
    } catch (const work_cancelled &failure) { // by a task group around the call
        return failed(VASK_CANCELLED, failure.what(), error);
    } catch (const std::bad_alloc &) {
        return failed(VASK_NO_MEMORY, "out of memory", error);
    } catch (const std::length_error &) {
        return failed(VASK_NO_MEMORY, "out of memory: more is asked for than can be addressed",
                      error);
    } catch (const std::exception &failure) {
        return failed(VASK_FAILED, failure.what(), error);
    } catch (...) {
        return failed(VASK_FAILED, "a failure of an unknown kind", error);
    }
}

template <class T>
T &required(T *argument, const char *name) {
    if (argument == nullptr)
        fail(VASK_BAD_REQUEST, "the argument '{}' is null", name);
    return *argument;
}

// ---- tables -------------------------------------------------------------------------------------

void add_column(vask_table &table, std::shared_ptr<const column> made) {
    if (table.rows >= 0 && made->rows() != table.rows)
        fail(VASK_BAD_REQUEST, "column '{}' has {} rows, the table {}", shown(made->name()),
             made->rows(), table.rows);
    table.rows = made->rows();
    table.columns.push_back(std::move(made));
}

const column_pointer &find_column(const vask_table &table, const char *name,
                                  const std::string &asked_by) {
    if (name == nullptr)
        fail(VASK_BAD_REQUEST, "{}: the name of a column is null", asked_by);
    const column_pointer *found = nullptr;
    for (const column_pointer &column : table.columns) {
        if (column->name() != name)
            continue;
        if (found != nullptr)
            fail(VASK_BAD_REQUEST, "{}: several columns are called '{}'; rename all but one",
                 asked_by, shown(name));
        found = &column;
    }
    if (found != nullptr)
        return *found;
    constexpr std::size_t most_listed = 20;
    std::string names;
    for (std::size_t i = 0; i < std::min(table.columns.size(), most_listed); ++i)
        names += fmt::format("{}'{}'", i == 0 ? "" : ", ", shown(table.columns[i]->name()));
    if (table.columns.size() > most_listed)
        names += fmt::format(" and {} more", table.columns.size() - most_listed);
    fail(VASK_BAD_REQUEST, "{}: there is no column '{}'; the columns are {}", asked_by, shown(name),
         names);
}

// ---- queries ------------------------------------------------------------------------------------

constexpr unsigned known_flags = VASK_KEEP_NULLS | VASK_NAN_IS_NULL | VASK_WIDE_SUMS |
                                 VASK_SORT_GROUPS | VASK_DROP_NULL_KEYS | VASK_NAN_KEY_IS_NULL |
                                 VASK_VALIDATE;

void check_flags(unsigned flags) {
    if ((flags & ~known_flags) != 0)
        fail(VASK_BAD_REQUEST, "the flags {:#x} are not all known to this version", flags);
}

// The caller's record as this version has it: what an older caller lacks is 0.
vask_query own_query(const vask_query *given) {
    vask_query query{};
    const std::size_t size = required(given, "query").size;
    if (size < offsetof(vask_query, flags) || size > sizeof query * 16)
        fail(VASK_BAD_REQUEST, "the query's size is {}; set it to sizeof(vask_query)", size);
    std::memcpy(&query, given, std::min(size, sizeof query));
    check_flags(query.flags);
    if (query.partitions < 0 || query.partitions > 256)
        fail(VASK_BAD_REQUEST, "{} partitions are out of bounds; give 1 to 256, or 0 for {}",
             query.partitions, static_cast<int>(VASK_DEFAULT_PARTITIONS));
    if (query.partitions == 0)
        query.partitions = VASK_DEFAULT_PARTITIONS;
    if (query.n_by > 0)
        required(query.by, "by");
    if (query.n_aggregates > 0) {
        required(query.aggregates, "aggregates");
        if (query.aggregate_size != sizeof(vask_aggregate))
            fail(VASK_BAD_REQUEST,
                 "the query's aggregate_size is {}; set it to sizeof(vask_aggregate)",
                 query.aggregate_size);
    }
    return query;
}

std::string title_of(const vask_aggregate &asked) {
    if (asked.as != nullptr)
        return asked.as;
    std::string columns;
    for (const char *const column : asked.columns)
        if (column != nullptr)
            columns += fmt::format("{}{}", columns.empty() ? "" : ",", column);
    return fmt::format("{}({})", asked.function, columns);
}

std::vector<column_pointer> keys_of(const vask_table &table, const char *const *by,
                                    std::size_t n_by) {
    std::vector<column_pointer> keys;
    for (std::size_t i = 0; i < n_by; ++i) {
        const column_pointer &key = find_column(table, by[i], "by");
        (void)key->type(); // refuses a type that no query takes
        if (std::find(keys.begin(), keys.end(), key) != keys.end())
            fail(VASK_BAD_REQUEST, "by: column '{}' is named twice", shown(by[i]));
        keys.push_back(key);
    }
    return keys;
}

// Before any of them is read for the call.
void validate(const std::vector<column_pointer> &columns) {
    for (const column_pointer &each : columns)
        each->validate();
}

query bound(const vask_table &table, const vask_query &asked) {
    query result;
    result.flags = asked.flags;
    result.by = keys_of(table, asked.by, asked.n_by);
    std::vector<std::string> names;
    for (const column_pointer &key : result.by)
        names.push_back(key->name());
    for (std::size_t i = 0; i < asked.n_aggregates; ++i) {
        const vask_aggregate &aggregate = asked.aggregates[i];
        if (aggregate.function == nullptr)
            fail(VASK_BAD_REQUEST, "the function of aggregate {} is null", i + 1);
        std::string title = title_of(aggregate);
        if (std::find(names.begin(), names.end(), title) != names.end())
            fail(VASK_BAD_REQUEST, "two columns of the result would be called '{}'; rename one",
                 shown(title));
        names.push_back(title);
        std::vector<column_pointer> columns;
        for (const char *const name : aggregate.columns)
            if (name != nullptr)
                columns.push_back(find_column(table, name, shown(title)));
        result.functions.push_back(bind_function(aggregate.function, std::move(columns),
                                                 aggregate.parameter, std::move(title)));
    }
    if (result.by.empty() && result.functions.empty())
        fail(VASK_BAD_REQUEST, "nothing to compute: the query has neither keys nor aggregates");
    if ((asked.flags & VASK_VALIDATE) != 0) {
        validate(result.by);
        for (const asked_function &each : result.functions)
            validate(each.columns);
    }
    return result;
}

std::int64_t rows_of(const vask_table &table) {
    if (table.rows < 0)
        fail(VASK_BAD_REQUEST, "the table has no columns");
    return table.rows;
}

vask_result *new_result(std::vector<result_column> columns) {
    result_table table;
    table.rows = columns.empty() ? 0 : columns.front().rows;
    table.columns = std::move(columns);
    return new vask_result{std::make_shared<const result_table>(std::move(table))};
}

// Memory that a caller lends, and bits that were shifted for it.
struct lent_memory {
    std::vector<std::uint8_t> bits;
    void (*release)(void *) = nullptr;
    void *owner = nullptr;

    lent_memory() = default;
    lent_memory(const lent_memory &) = delete;
    lent_memory &operator=(const lent_memory &) = delete;
    ~lent_memory() {
        if (release != nullptr)
            release(owner);
    }
};

// Validity bits from `first_bit` on, from a whole byte on.
std::vector<std::uint8_t> shifted_bits(const std::uint8_t *bits, std::int64_t first_bit,
                                       std::int64_t rows) {
    std::vector<std::uint8_t> shifted(static_cast<std::size_t>(rows + 7) / 8);
    for (std::int64_t row = 0; row < rows; ++row) {
        const std::int64_t bit = first_bit + row;
        const unsigned set = (bits[bit >> 3] >> (bit & 7)) & 1U;
        std::uint8_t &byte = shifted[static_cast<std::size_t>(row) >> 3];
        byte = static_cast<std::uint8_t>(byte | (set << (row & 7)));
    }
    return shifted;
}

// Calls the release function if nobody has taken it over.
class bare_owner {
public:
    bare_owner(void (*release)(void *), void *owner) : release_(release), owner_(owner) {}
    bare_owner(const bare_owner &) = delete;
    bare_owner &operator=(const bare_owner &) = delete;
    ~bare_owner() {
        if (release_ != nullptr)
            release_(owner_);
    }
    void hand_over() { release_ = nullptr; }

private:
    void (*release_)(void *);
    void *owner_;
};

} // namespace
} // namespace vask::table

using namespace vask::table;

int vask_table_from_stream(ArrowArrayStream *batches, vask_table **table, char **error) {
    // Taken over first: whatever fails from here on releases it.
    released<ArrowArrayStream> taken(batches);
    return guarded(error, [&] {
        required(table, "table");
        streamed_columns found = columns_of_stream(taken);
        *table = new vask_table{std::move(found.columns), found.rows};
    });
}

int vask_table_new(vask_table **table, char **error) {
    return guarded(error, [&] { required(table, "table") = new vask_table; });
}

int vask_table_add_arrow(vask_table *table, const char *name, ArrowSchema *schema,
                         ArrowArray *array, char **error) {
    const released<ArrowSchema> taken_schema(schema);
    released<ArrowArray> taken_array(array);
    return guarded(error, [&] {
        const auto taken = std::make_shared<const released<ArrowArray>>(std::move(taken_array));
        required(table, "table");
        const char *const called = name != nullptr ? name : taken_schema->name;
        add_column(*table, column_of_array(called == nullptr ? "" : called, taken_schema, taken));
    });
}

int vask_table_add_values(vask_table *table, const char *name, const char *format,
                          std::int64_t rows, const void *values, const std::uint8_t *validity,
                          std::int64_t first_bit, void (*release)(void *), void *owner,
                          char **error) {
    bare_owner taken(release, owner);
    return guarded(error, [&] {
        required(table, "table");
        required(name, "name");
        const auto type = parse_format(&required(format, "format"));
        if (!type || is_text(type->of) || type->of == kind::null)
            fail(VASK_BAD_REQUEST, "column '{}': the format '{}' is none of values of fixed width",
                 shown(name), shown(format));
        if (rows < 0 || first_bit < 0)
            fail(VASK_BAD_REQUEST, "column '{}': a negative number of rows or first bit",
                 shown(name));
        if (rows > 0)
            required(static_cast<const char *>(values), "values");
        check_rows(rows);
        const auto memory = std::make_shared<lent_memory>();
        piece lent;
        lent.rows = rows;
        lent.values = values;
        lent.validity = validity;
        if (validity != nullptr && first_bit != 0) {
            memory->bits = shifted_bits(validity, first_bit, rows);
            lent.validity = memory->bits.data();
        }
        taken.hand_over();
        memory->release = release;
        memory->owner = owner;
        lent.owner = memory;
        std::vector<piece> pieces;
        pieces.push_back(std::move(lent));
        add_column(*table, std::make_shared<const column>(name, *type, rows, std::move(pieces)));
    });
}

std::int64_t vask_table_rows(const vask_table *table) {
    return table == nullptr ? -1 : table->rows;
}

void vask_table_free(vask_table *table) {
    delete table;
}

const char *vask_functions(void) {
    try {
        return function_overview().c_str();
    } catch (...) {
        return "";
    }
}

int vask_run(const vask_table *table, const vask_query *query, vask_result **result, char **error) {
    return guarded(error, [&] {
        const vask_query own = own_query(query);
        required(result, "result");
        const auto asked = bound(required(table, "table"), own);
        const std::int64_t rows = rows_of(*table);
        std::vector<result_column> columns;
        run_call(own, rows,
                 [&](const query_context &context) { columns = run_query(rows, asked, context); });
        *result = new_result(std::move(columns));
    });
}

int vask_partial(const vask_table *part, const vask_query *query, vask_result **states,
                 char **error) {
    return guarded(error, [&] {
        const vask_query own = own_query(query);
        required(states, "states");
        const auto asked = bound(required(part, "part"), own);
        const std::int64_t rows = rows_of(*part);
        std::vector<result_column> columns;
        run_call(own, rows, [&](const query_context &context) {
            columns = partial_states(rows, asked, context);
        });
        *states = new_result(std::move(columns));
    });
}

int vask_merge(const vask_table *const *states, std::size_t n_states, const vask_query *query,
               int finish, vask_result **result, char **error) {
    return guarded(error, [&] {
        const vask_query own = own_query(query);
        required(result, "result");
        merge_request asked{{}, {}, {}, own.flags, finish != 0};
        if (n_states > 0)
            required(states, "states");
        for (std::size_t i = 0; i < n_states; ++i) {
            const vask_table &part = required(states[i], "states");
            asked.parts.push_back({part.columns, rows_of(part)});
            if ((own.flags & VASK_VALIDATE) != 0)
                validate(part.columns);
        }
        for (std::size_t i = 0; i < own.n_by; ++i)
            asked.by.emplace_back(&required(own.by[i], "by"));
        for (std::size_t i = 0; i < own.n_aggregates; ++i) {
            const vask_aggregate &aggregate = own.aggregates[i];
            required(aggregate.function, "function");
            asked.functions.push_back(
                {find_function(aggregate.function).rule, title_of(aggregate)});
        }
        std::int64_t rows = 0;
        for (const states_part &part : asked.parts)
            rows += part.rows;
        std::vector<result_column> columns;
        run_call(own, rows,
                 [&](const query_context &context) { columns = merge_states(asked, context); });
        *result = new_result(std::move(columns));
    });
}

int vask_group_codes(const vask_table *table, const vask_query *query, std::int32_t *codes,
                     std::int64_t *count, char **error) {
    return guarded(error, [&] {
        const vask_query own = own_query(query);
        required(count, "groups");
        struct query asked;
        asked.flags = own.flags;
        asked.by = keys_of(required(table, "table"), own.by, own.n_by);
        if (asked.by.empty())
            fail(VASK_BAD_REQUEST, "group codes need at least one key");
        if ((own.flags & VASK_VALIDATE) != 0)
            validate(asked.by);
        const std::int64_t rows = rows_of(*table);
        if (rows > 0)
            required(codes, "codes");
        run_call(own, rows, [&](const query_context &context) {
            const groups found(rows, groups_of(asked), context.operators, context.tell);
            const auto order = found.order();
            std::vector<std::int32_t> shown(found.count(), -1);
            for (std::size_t i = 0; i < order.size(); ++i)
                shown[order[i]] = static_cast<std::int32_t>(i);
            const auto numbers = found.numbers();
            for_rows(numbers.size(), [&](std::size_t begin, std::size_t end) {
                for (std::size_t row = begin; row < end; ++row)
                    codes[row] = shown[static_cast<std::size_t>(numbers[row])];
            });
            *count = static_cast<std::int64_t>(order.size());
        });
    });
}

int vask_is_in(const vask_table *table, const char *column, const vask_table *others,
               const char *other_column, const vask_query *query, vask_result **result,
               char **error) {
    return guarded(error, [&] {
        vask_query own{};
        own.partitions = VASK_DEFAULT_PARTITIONS;
        if (query != nullptr)
            own = own_query(query);
        required(result, "result");
        const column_pointer &left = find_column(required(table, "table"), column, "is_in");
        const column_pointer &right =
            find_column(required(others, "others"), other_column, "is_in");
        std::vector<result_column> columns;
        run_call(own, left->rows() + right->rows(),
                 [&](const query_context &) { columns.push_back(contained(*left, *right)); });
        *result = new_result(std::move(columns));
    });
}

std::int64_t vask_result_rows(const vask_result *result) {
    return result == nullptr ? -1 : result->table->rows;
}

int vask_result_stream(const vask_result *result, ArrowArrayStream *out, char **error) {
    return guarded(error, [&] {
        required(out, "out");
        export_stream(required(result, "result").table, *out);
    });
}

void vask_result_free(vask_result *result) {
    delete result;
}

void vask_free_text(char *text) {
    std::free(text);
}

const char *vask_version(void) {
    return VASK_VERSION_STRING;
}
