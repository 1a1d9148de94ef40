// vask: aggregates the columns of a file through the operator library.
#include "executor.h"
#include "explain.h"
#include "operator_library.h"
#include "options.h"
#include "output.h"
#include "query.h"
#include "source_text.h"
#include "table_loader.h"
#include "user_error.h"

#include <chrono>
#include <cstdio>
#include <exception>
#include <new>

#include <fmt/format.h>
#include <tbb/global_control.h>

namespace {

using namespace vask::runner;

constexpr int exit_failed = 1;     // of the machine or of the program
constexpr int exit_user_error = 2; // of the request or of the data

load_request loading(const options &request, const query &asked, const csv_header &header,
                     const source_text &source) {
    load_request result;
    result.dialect = request.dialect;
    result.wanted = asked.needed_columns(header.names.size());
    for (const auto &[name, type] : request.types)
        result.forced.emplace_back(find_column(header, source, name, "--types"), type);
    result.missing = missing_words(request.missing);
    result.threads = static_cast<unsigned>(request.threads);
    return result;
}

void explain_table(const explain_log &explain, const table &data, const csv_header &header,
                   std::chrono::duration<double> time) {
    if (!explain.on())
        return;
    explain.note(fmt::format("loaded {} rows in {:.3f} s", data.rows, time.count()));
    for (std::size_t i = 0; i < data.columns.size(); ++i)
        if (data.columns[i].values)
            explain.note(fmt::format("  {}: {}, {} missing", header.names[i],
                                     name_of(data.columns[i].type), data.columns[i].missing));
}

void run(const options &request) {
    GDKnr_threads = request.threads;
    const tbb::global_control limit(tbb::global_control::max_allowed_parallelism,
                                    static_cast<std::size_t>(request.threads));
    const explain_log explain(request.explain);
    const auto begin = std::chrono::steady_clock::now();
    const source_text source(request.file);
    const csv_header header = read_header(source, request.dialect, request.header);
    const query asked = bind_query(request, header, source);
    const load_request to_load = loading(request, asked, header, source);
    const operator_library operators(request.library);
    const table data = load_table(source, header, to_load);
    explain_table(explain, data, header, std::chrono::steady_clock::now() - begin);
    check_columns(asked, data, to_load, header, source);
    print(execute(asked, data, header, operators, explain), request.format, stdout);
}

} // namespace

int main(int argc, char **argv) {
    try {
        if (const auto request = parse_options(argc, argv))
            run(*request);
        return 0;
    } catch (const user_error &error) {
        fmt::print(stderr, "vask: {}\n", error.what());
        return exit_user_error;
    } catch (const std::bad_alloc &) {
        fmt::print(stderr, "vask: out of memory\n");
    } catch (const std::exception &error) {
        fmt::print(stderr, "vask: {}\n", error.what());
    }
    return exit_failed;
}
