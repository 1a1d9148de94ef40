// The command line.
#pragma once

#include "cell_values.h"
#include "csv_header.h"
#include "load_fault.h"
#include "name_list.h"
#include "output_order.h"
#include "source_text.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vask::runner {

enum class output_format { table, markdown, csv, tsv, json, jsonl };

struct output_style {
    output_format format = output_format::table;
    std::optional<int> digits{}; //!< none: as many as the format likes
    bool titles = true;
};

//! A column of another file.
struct other_column {
    std::string file;
    std::string column;
};

//! What the command is to do. All but the aggregates are asked for by a word before the file.
enum class command { aggregates, column_union, summary, schema };

struct options {
    command asked = command::aggregates;
    std::string file;
    std::vector<std::string> further_files; //!< read behind it
    //! The name of a column to be added that has the files' names; none: there is none.
    std::optional<std::string> file_column;
    std::vector<std::string> union_columns; //!< of a union
    std::optional<std::string> where;       //!< a condition on rows; none: all
    std::vector<std::string> definitions;   //!< of columns that are worked out from others
    std::vector<aggregate_call> aggregates;
    std::vector<std::string> group_by;
    bool sort = false;
    bool drop_missing = false;
    bool strict = false;
    std::optional<other_column> contained_in;
    std::string looked_up;         //!< the column that --contained-in is about
    std::optional<char> separator; //!< none: by the name of the file
    bool quotes = true;
    header_rules header;
    std::vector<std::string> missing{"", "NA", "NaN"};
    text_form form{};
    cell_format cells{};
    ragged_records ragged = ragged_records::refused;
    std::vector<std::pair<std::string, column_type>> types;
    int threads = 1;
    output_style output;
    row_order order;
    std::optional<std::string> bar; //!< the title of a column to draw bars for
    bool explain = false;
    std::string library; //!< empty: look where it is installed
};

//! Reads the command line. Without a value: --help or --version was asked for and answered. Throws
//! user_error.
std::optional<options> parse_options(int argc, const char *const *argv);

struct declared_option {
    std::string name;  //!< with its dashes; of an argument without
    std::string value; //!< what stands behind it; empty: nothing does
    std::string description;
    std::vector<std::string> choices{}; //!< where only some values make sense
    std::string short_name{};           //!< such as -f, where there is one
    bool can_repeat = false;
};

//! A command as it is declared, for texts about it.
struct declared_command {
    std::string name;
    std::string description;
    std::vector<declared_option> arguments;
    std::vector<declared_option> options;
    std::string notes; //!< what --help has behind the options
};

declared_command declared_options(command asked);
//! The word that asks for a command; empty for the aggregates.
std::string_view word_of(command asked);

} // namespace vask::runner
