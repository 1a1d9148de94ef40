// Prints texts about the command, made from its declared options:
//
//   vask_option_texts man|bash|zsh|fish
#include "options.h"
#include "vask/version.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace {

using namespace vask::runner;

const declared_command aggregate = declared_options(command::aggregates);
//! The commands that a word asks for.
const std::vector<std::pair<std::string, declared_command>> worded = [] {
    std::vector<std::pair<std::string, declared_command>> result;
    for (const command each : {command::column_union, command::summary, command::schema})
        result.emplace_back(word_of(each), declared_options(each));
    return result;
}();

//! The text with a `before` in front of each of the characters.
std::string escaped(std::string_view text, std::string_view characters, std::string_view before) {
    std::string result;
    for (const char c : text) {
        if (characters.find(c) != characters.npos)
            result += before;
        result += c;
    }
    return result;
}

std::string one_line(std::string text) {
    for (char &c : text)
        if (c == '\n')
            c = ' ';
    return text;
}

// ---- man --------------------------------------------------------------------

//! Text in a manual's language; a dot or quote that begins a line would be a request.
std::string roff(std::string_view text) {
    std::string result;
    bool begins = true;
    for (const char c : text) {
        if (begins && (c == '.' || c == '\''))
            result += "\\&";
        if (c == '\\')
            result += "\\e";
        else if (c == '-')
            result += "\\-";
        else
            result += c;
        begins = c == '\n';
    }
    return result;
}

std::string shown(const declared_option &option) {
    std::string text = "\\fB" + roff(option.name) + "\\fR";
    if (!option.short_name.empty())
        text = "\\fB" + roff(option.short_name) + "\\fR, " + text;
    if (!option.value.empty())
        text += " \\fI" + roff(option.value) + "\\fR";
    return text;
}

void print_man_options(const declared_command &command) {
    for (const auto *const list : {&command.arguments, &command.options})
        for (const declared_option &option : *list)
            fmt::print(".TP\n{}\n{}\n", shown(option), roff(one_line(option.description)));
}

//! Lines as they stand; those at the left margin that end in a colon are headings.
void print_man_notes(std::string_view notes) {
    bool filled = true;
    while (!notes.empty()) {
        const std::size_t end = std::min(notes.find('\n'), notes.size());
        const std::string line(notes.substr(0, end));
        notes.remove_prefix(std::min(end + 1, notes.size()));
        if (!line.empty() && line.front() != ' ' && line.ends_with(':')) {
            std::string heading = line.substr(0, line.size() - 1);
            for (char &c : heading)
                c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
            fmt::print("{}.SH {}\n.nf\n", filled ? "" : ".fi\n", roff(heading));
            filled = false;
        } else if (!filled) {
            fmt::print("{}\n", roff(line));
        }
    }
    if (!filled)
        fmt::print(".fi\n");
}

void print_man() {
    fmt::print(".TH VASK 1 \"\" \"vask {}\" \"User Commands\"\n"
               ".SH NAME\nvask \\- aggregates columns of CSV and TSV files, whole or by group\n"
               ".SH SYNOPSIS\n.B vask\n\\fIFILE\\fR \\fB\\-\\-agg\\fR \\fILIST\\fR "
               "[\\fIOPTION\\fR]...\n.br\n.B vask union\n\\fIFILE\\fR \\fIX\\fR \\fIY\\fR "
               "[\\fIOPTION\\fR]...\n.br\n.B vask summary\n\\fIFILE\\fR [\\fIOPTION\\fR]...\n.br\n"
               ".B vask schema\n\\fIFILE\\fR [\\fIOPTION\\fR]...\n.SH DESCRIPTION\n{}\n",
               VASK_VERSION_STRING, roff(aggregate.description));
    fmt::print(".SH OPTIONS\n");
    print_man_options(aggregate);
    for (const auto &[word, told] : worded) {
        std::string heading = word;
        for (char &c : heading)
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        fmt::print(".SH {}\n{}\n", heading, roff(one_line(told.description)));
        for (const declared_option &argument : told.arguments)
            fmt::print(".TP\n{}\n{}\n", shown(argument), roff(argument.description));
        fmt::print(".PP\nThe options");
        for (const declared_option &option : told.options)
            fmt::print(" {}", roff(option.name));
        fmt::print(" mean the same.\n");
    }
    print_man_notes(aggregate.notes);
}

// ---- completions ------------------------------------------------------------

std::string option_names(const declared_command &command) {
    std::string names;
    for (const declared_option &option : command.options) {
        names += (names.empty() ? "" : " ") + option.name;
        if (!option.short_name.empty())
            names += " " + option.short_name;
    }
    return names;
}

bool takes_a_file(const declared_option &option) {
    return option.value == "PATH" || option.value.starts_with("FILE");
}

std::string choices(const declared_option &option) {
    std::string all;
    for (const std::string &choice : option.choices)
        all += (all.empty() ? "" : " ") + choice;
    return all;
}

void print_bash() {
    fmt::print(
        "# Completion of vask's command line.\n"
        "_vask() {{\n"
        "    local current=${{COMP_WORDS[COMP_CWORD]}} before=${{COMP_WORDS[COMP_CWORD-1]}}\n"
        "    local options='{}' IFS=$' \\t\\n'\n"
        "    # --format=csv is three words to readline.\n"
        "    if [ \"$current\" = = ]; then\n"
        "        current=\n"
        "    elif [ \"$before\" = = ]; then\n"
        "        before=${{COMP_WORDS[COMP_CWORD-2]}}\n"
        "    fi\n",
        option_names(aggregate));
    std::string words;
    for (const auto &[word, told] : worded) {
        fmt::print("    [ \"${{COMP_WORDS[1]}}\" = {} ] && options='{}'\n", word,
                   option_names(told));
        words += (words.empty() ? "" : " ") + word;
    }
    fmt::print("    case $before in\n");
    for (const declared_option &option : aggregate.options) {
        const std::string names =
            option.name + (option.short_name.empty() ? "" : "|" + option.short_name);
        if (!option.choices.empty())
            fmt::print("        {}) COMPREPLY=($(compgen -W '{}' -- \"$current\")); return ;;\n",
                       names, choices(option));
        else if (!option.value.empty() && !takes_a_file(option))
            fmt::print("        {}) COMPREPLY=(); return ;;\n", names);
    }
    fmt::print("    esac\n"
               "    if [[ $current == -* ]]; then\n"
               "        COMPREPLY=($(compgen -W \"$options\" -- \"$current\"))\n"
               "    else\n"
               "        mapfile -t COMPREPLY < <(compgen -f -- \"$current\")\n"
               "        [ \"$COMP_CWORD\" -eq 1 ] &&\n"
               "            COMPREPLY+=($(compgen -W '{}' -- \"$current\"))\n"
               "    fi\n"
               "}}\n"
               "complete -o filenames -F _vask vask\n",
               words);
}

void print_zsh() {
    const auto print_options = [](const declared_command &command) {
        for (const declared_option &option : command.options) {
            const std::string told = escaped(one_line(option.description), "[]:\\", "\\");
            std::string action;
            if (!option.choices.empty())
                action = fmt::format(":{}:({})", option.value, choices(option));
            else if (takes_a_file(option))
                action = fmt::format(":{}:_files", escaped(option.value, ":", "\\"));
            else if (!option.value.empty())
                action = fmt::format(":{}: ", escaped(option.value, ":", "\\"));
            // A value may stand in the word of the option or behind it.
            const bool has_value = !option.value.empty();
            const std::string text = fmt::format("[{}]{}", told, action);
            std::string quoted;
            for (const char c : text) {
                if (c == '\'')
                    quoted += "'\\''";
                else
                    quoted += c;
            }
            std::string names = option.name + (has_value ? "=" : "");
            std::string others; // options that make no sense beside this one: it itself
            if (!option.short_name.empty()) {
                names = fmt::format("{{{}{},{}}}", option.short_name, has_value ? "+" : "", names);
                others = fmt::format("'({} {})'", option.short_name, option.name);
            }
            if (option.can_repeat)
                others = "'*'";
            fmt::print("        {}{}'{}' \\\n", others, names, quoted);
        }
    };
    fmt::print("#compdef vask\n"
               "case ${{words[2]}} in\n");
    for (const auto &[word, told] : worded) {
        fmt::print("{})\n    _arguments \\\n", word);
        print_options(told);
        fmt::print("        '1:command:({})' '2:file:_files'{} ;;\n", word,
                   told.arguments.size() > 1 ? " '3:column: ' '4:column: '" : "");
    }
    fmt::print("*)\n    _arguments \\\n");
    print_options(aggregate);
    std::string words;
    for (const auto &[word, told] : worded)
        words += (words.empty() ? "" : " ") + word;
    fmt::print(
        "        '1:file:{{_alternative \"commands:command:({})\" \"files:file:_files\"}}' ;;\n"
        "esac\n",
        words);
}

void print_fish() {
    for (const auto &[word, told] : worded)
        fmt::print("complete -c vask -n __fish_use_subcommand -a {} -d '{}'\n", word,
                   escaped(one_line(told.description), "'\\", "\\"));
    for (const declared_option &option : aggregate.options) {
        std::string lacking; // words of the commands that do not have the option
        for (const auto &[word, told] : worded)
            if (std::none_of(
                    told.options.begin(), told.options.end(),
                    [&](const declared_option &other) { return other.name == option.name; }))
                lacking += " " + word;
        std::string how;
        if (!option.choices.empty())
            how = " -x -a '" + choices(option) + "'";
        else if (takes_a_file(option))
            how = " -r";
        else if (!option.value.empty())
            how = " -x";
        const std::string when =
            lacking.empty() ? "" : " -n 'not __fish_seen_subcommand_from" + lacking + "'";
        const std::string short_name =
            option.short_name.empty() ? "" : " -s " + option.short_name.substr(1);
        fmt::print("complete -c vask{}{} -l {}{} -d '{}'\n", when, short_name,
                   option.name.substr(2), how, escaped(one_line(option.description), "'\\", "\\"));
    }
}

} // namespace

int main(int argc, char **argv) {
    try {
        const std::string_view kind = argc == 2 ? argv[1] : "";
        if (kind == "man")
            print_man();
        else if (kind == "bash")
            print_bash();
        else if (kind == "zsh")
            print_zsh();
        else if (kind == "fish")
            print_fish();
        else
            return 2;
        return 0;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "option_texts: %s\n", error.what());
        return 1;
    }
}
