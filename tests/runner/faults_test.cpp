// What goes wrong around the command: outputs that cannot be written, files that somebody writes
// to, memory that runs out. The exit status tells it, and no part of an answer passes for the
// whole.
#include "run_command.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

namespace {

//! How a line of the shell ends, in which PROGRAM stands for the command.
struct ended {
    int status;
    std::string told; // on what is left of standard error
};

ended shell(const std::string &line) {
    const temporary_file told;
    std::string command =
        "exec 2>" + told.path() + "; PROGRAM=" + ::quoted(VASK_COMMAND) + "; " + line;
    const int status = std::system(("bash -c " + ::quoted(command)).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), told.content()};
}

std::string many_rows() {
    std::string text = "k,v\n";
    for (int row = 0; row < 200'000; ++row)
        text.append(std::to_string(row % 50'000))
            .append(",")
            .append(std::to_string(row))
            .append("\n");
    return text;
}

TEST(Faults, AnOutputThatCannotBeWritten) {
    const temporary_file file(many_rows());
    const std::string run = "$PROGRAM " + file.path() + " -a 'sum(v)' -g k -f csv";
    for (const std::string &line : {run + " >/dev/full", std::string("$PROGRAM --help >/dev/full"),
                                    std::string("$PROGRAM union --help >/dev/full"),
                                    std::string("$PROGRAM --version >/dev/full")}) {
        const ended end = shell(line);
        EXPECT_EQ(end.status, 1) << line;
        EXPECT_NE(end.told.find("No space left on device"), std::string::npos) << end.told;
    }
    const ended closed = shell(run + " >&-");
    EXPECT_EQ(closed.status, 1);
    EXPECT_NE(closed.told.find("cannot write the result: Bad file descriptor"), std::string::npos)
        << closed.told;
    // A reader that has enough ends the command by the signal; one that ignores it is told.
    EXPECT_EQ(shell(run + " | head -n 1 >/dev/null; exit ${PIPESTATUS[0]}").status, 128 + SIGPIPE);
    const ended ignored =
        shell("trap '' PIPE; " + run + " | head -n 1 >/dev/null; exit ${PIPESTATUS[0]}");
    EXPECT_EQ(ignored.status, 1);
    EXPECT_NE(ignored.told.find("Broken pipe"), std::string::npos) << ignored.told;
    const temporary_file out;
    const ended limited = shell("trap '' XFSZ; ulimit -f 8; " + run + " >" + out.path());
    EXPECT_EQ(limited.status, 1);
    EXPECT_NE(limited.told.find("File too large"), std::string::npos) << limited.told;
}

// Messages that nobody can read change neither the answer nor the status.
TEST(Faults, MessagesThatCannotBeWritten) {
    const temporary_file file("k,v\n1,2\n,4\n");
    for (const char *const lost : {" 2>&-", " 2>/dev/full"}) {
        EXPECT_EQ(shell("$PROGRAM nowhere.csv -a 'sum(v)'" + std::string(lost)).status, 2) << lost;
        EXPECT_EQ(shell("[ \"$($PROGRAM " + file.path() +
                        " -a 'sum(v), median(k)' -f csv --no-header --explain" + lost +
                        ")\" = 6,1 ]")
                      .status,
                  0)
            << lost;
    }
}

TEST(Faults, StandardInputThatIsClosed) {
    const ended end = shell("$PROGRAM - -a 'sum(v)' <&-");
    EXPECT_EQ(end.status, 2);
    EXPECT_NE(end.told.find("standard input"), std::string::npos) << end.told;
}

// A file that others rewrite, shorten and lengthen while it is read: an answer is that of a whole
// file, or there is none.
TEST(Faults, AFileThatIsRewrittenAllTheTime) {
    const temporary_file file(many_rows());
    const ended end = shell("cp " + file.path() + " " + file.path() +
                            ".new; "
                            "(while :; do cat " +
                            file.path() + ".new >" + file.path() +
                            "; "
                            "tr 0-9 , <" +
                            file.path() + ".new >" + file.path() +
                            "; done) & writer=$!; "
                            "for i in 1 2 3 4 5 6 7 8; do "
                            "  $PROGRAM " +
                            file.path() +
                            " -a 'sum(v)' -f csv --no-header >/dev/null 2>&1; status=$?; "
                            "  [ $status -le 2 ] || bad=$status; "
                            "done; kill $writer; wait $writer; rm -f " +
                            file.path() + ".new; exit ${bad:-0}");
    EXPECT_EQ(end.status, 0) << end.told;
}

TEST(Faults, MemoryThatRunsOutIsTold) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's own memory would be limited";
#else
    const temporary_file file(many_rows());
    const std::string run = "$PROGRAM " + file.path() +
                            " -g v -a 'count_distinct(k), median(k), mode(k)' -f csv >/dev/null";
    int failed = 0;
    for (int kilobytes = 24'000; kilobytes <= 88'000; kilobytes += 16'000) {
        const ended end = shell("ulimit -v " + std::to_string(kilobytes) + "; " + run);
        if (end.status == 0)
            continue;
        ++failed;
        // 127: the loader did not come to the command at all.
        EXPECT_TRUE(end.status == 1 || end.status == 127)
            << kilobytes << " kB: status " << end.status << ": " << end.told;
        EXPECT_NE(end.told, "") << kilobytes;
    }
    EXPECT_GT(failed, 0);
#endif
}

// A signal ends the command with nothing printed that a reader could take for the answer.
TEST(Faults, ASignalLeavesNoAnswer) {
    const temporary_file file(many_rows());
    const std::string out = file.path() + ".out";
    for (const char *const signal : {"TERM", "HUP"}) {
        // The input goes on, so the command still reads when the signal comes.
        const ended end =
            shell("$PROGRAM - -a 'sum(v)' < <(cat " + file.path() + "; sleep 2) >" + out +
                  " & pid=$!; sleep 0.3; kill -" + signal + " $pid; wait $pid; exit $?");
        EXPECT_GT(end.status, 128) << signal;
        EXPECT_EQ(content_of(out), "") << signal;
    }
    ::unlink(out.c_str());
}

} // namespace
