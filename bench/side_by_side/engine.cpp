// Runs plans of operator calls for the side-by-side benchmark. Each line of standard input is a
// request in JSON, each line of standard output its reply:
//   {"load": {"file": CSV file, "oddTo": n}}  ->  {"rows": n}
//   {"release": {}}                           ->  {}, memory that is free given back
//   {"run": {"plan": plan, "threads": n}}     ->  {"ms", "calls": [[call, ms]], "answer"},
//                                                 {"skip": why} or {"error": what}
// Besides the file's columns there is `odd`, the odd numbers up to `oddTo`.
#include "answer.h"
#include "plan.h"

#include "runner/csv_header.h"
#include "runner/operator_library.h"
#include "runner/source_text.h"
#include "runner/table_loader.h"
#include "runner/user_error.h"
#include "vask/refkernel/sample.h"

#include <algorithm>
#include <iostream>
#include <memory>

#include <malloc.h>
#include <nlohmann/json.hpp>
#include <tbb/global_control.h>

namespace {

using namespace side_by_side;
using nlohmann::json;
using vask::runner::column_type;

column_type type_of(const std::string &column) {
    if (column == "v3")
        return column_type::dbl;
    return column == "id1" || column == "id2" || column == "id3" ? column_type::str
                                                                 : column_type::int_;
}

// As a column of the kernel's texts.
refkernel::bat texts_of(const vask::runner::table_column &loaded) {
    const auto codes = loaded.values.values<std::int32_t>();
    std::vector<std::int32_t> words(codes.begin(), codes.end());
    std::replace(words.begin(), words.end(), refkernel::nil_of<std::int32_t>(), refkernel::no_word);
    return refkernel::make_dictionary_column(loaded.words->words, words);
}

columns_by_name load(const std::string &file, std::int32_t odd_to) {
    const vask::runner::source_text source(file);
    vask::runner::load_request request;
    const vask::runner::csv_header header = read_header(source, request.dialect, {});
    request.wanted.assign(header.names.size(), true);
    for (std::size_t i = 0; i < header.names.size(); ++i)
        request.forced.emplace_back(i, type_of(header.names[i]));
    request.threads = 2;
    vask::runner::loaded_table table = load_table(source, header, request);

    columns_by_name columns;
    for (std::size_t i = 0; i < header.names.size(); ++i) {
        vask::runner::table_column &loaded = table.columns[i];
        columns.emplace(header.names[i],
                        loaded.words != nullptr ? texts_of(loaded) : std::move(loaded.values));
    }
    std::vector<std::int32_t> odd;
    for (std::int32_t i = 1; i <= odd_to; i += 2)
        odd.push_back(i);
    columns.emplace("odd", refkernel::make_column(std::move(odd)));
    return columns;
}

class engine {
public:
    explicit engine(const std::string &library)
        : library_(library),
          operators_([this](const std::string &name) { return library_.address(name); }) {}

    json answer(const json &request) {
        if (request.contains("load")) {
            const json &asked = request["load"];
            columns_ = load(asked.at("file"), asked.at("oddTo"));
            return {{"rows", columns_.at("id1").count()}};
        }
        if (request.contains("release")) {
            ::malloc_trim(0);
            return json::object();
        }
        const json &asked = request.at("run");
        const int threads = asked.at("threads");
        GDKnr_threads = threads;
        const tbb::global_control limit(tbb::global_control::max_allowed_parallelism,
                                        static_cast<std::size_t>(threads));
        const plan wanted = read_plan(asked.at("plan"));
        const plan_outcome outcome = run_plan(wanted, columns_, operators_);
        return {{"ms", outcome.milliseconds},
                {"calls", outcome.calls},
                {"answer", answer_of(wanted, outcome, columns_)}};
    }

private:
    vask::runner::operator_library library_;
    vask::table::operator_set operators_;
    columns_by_name columns_;
};

json reply(engine &runs, const std::string &line) {
    try {
        return runs.answer(json::parse(line));
    } catch (const vask::runner::user_error &missing) {
        return {{"skip", missing.what()}};
    } catch (const std::exception &failure) {
        return {{"error", failure.what()}};
    }
}

} // namespace

int main(int argc, char **argv) {
    try {
        // The same roads in every run.
        refkernel::fix_sample_seed(1);
        engine runs(argc > 1 ? argv[1] : "");
        for (std::string line; std::getline(std::cin, line);)
            std::cout << reply(runs, line) << std::endl;
    } catch (const std::exception &failure) {
        std::cerr << failure.what() << '\n';
        return 1;
    }
}
