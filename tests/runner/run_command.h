// Running the command, and others, as a user does.
#pragma once

#include "temporary_file.h"

#include <cstdlib>
#include <string>
#include <vector>

#include <sys/wait.h>

struct outcome {
    int status;
    std::string out;
    std::string err;
};

inline std::string quoted(const std::string &word) {
    std::string result = "'";
    for (const char c : word)
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + "'";
}

inline bool holds(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

//! Runs a program with the input on its standard input, a pipe.
inline outcome run(const std::string &program, const std::vector<std::string> &arguments,
                   const std::string &input = "") {
    const temporary_file in(input), out, err;
    std::string command = "cat " + in.path() + " | " + program;
    for (const std::string &argument : arguments)
        command.append(" ").append(quoted(argument));
    const int status = std::system((command + " >" + out.path() + " 2>" + err.path()).c_str());
    return {WEXITSTATUS(status), out.content(), err.content()};
}

inline outcome vask(const std::vector<std::string> &arguments, const std::string &input = "") {
    return run(VASK_COMMAND, arguments, input);
}
