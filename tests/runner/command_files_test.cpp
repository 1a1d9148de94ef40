// Several files, and compressed ones. The command as its users see it: output, messages, exit
// status.
#include "run_command.h"
#include "temporary_file.h"

#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(Command, SeveralFiles) {
    const temporary_file first("k,x\na,1\nb,2\n", ".part1.csv");
    const temporary_file second("k,x\r\n\"a\",2.5", ".part2.csv");
    const temporary_file third("k,x\n", ".part3.csv");
    const auto asked = [&](std::vector<std::string> words, const std::string &input = "") {
        words.insert(words.end(), {"-f", "csv", "--no-header"});
        const outcome told = vask(words, input);
        return told.out + told.err;
    };
    const std::vector<std::string> files{first.path(), second.path(), third.path()};
    const auto about = [&](std::vector<std::string> words) {
        words.insert(words.begin(), files.begin(), files.end());
        return asked(words);
    };
    EXPECT_EQ(about({"-g", "k", "-a", "count(*),sum(x)"}), "a,2,3.5\nb,1,2\n");
    EXPECT_EQ(about({"-g", "file", "-a", "sum(x)", "--file-column", "file", "--threads", "2"}),
              first.path() + ",3\n" + second.path() + ",2.5\n");
    EXPECT_EQ(about({"-g", "file", "-a", "sum(x)", "--file-column", "file", "-w", "k = 'a'"}),
              first.path() + ",1\n" + second.path() + ",2.5\n");
    // Its name is a column like others, in conditions and definitions, too.
    const std::string last = "file like '%part2.csv'";
    EXPECT_EQ(about({"-a", "sum(x)", "--file-column", "file", "-w", last}), "2.5\n");
    EXPECT_EQ(about({"-a", "sum(x)", "--file-column", "file", "-w", "not " + last + " and x > 1"}),
              "2\n");
    EXPECT_EQ(about({"-a", "sum(x)", "--file-column", "file", "--let", "second = " + last, "-w",
                     "second"}),
              "2.5\n");
    EXPECT_EQ(about({"-g", "second", "-a", "sum(x)", "--file-column", "file", "--let",
                     "second = " + last}),
              "false,3\ntrue,2.5\n");
    EXPECT_EQ(asked({first.path(), "-a", "sum(x)", "--file-column", "f", "-w",
                     "f = '" + first.path() + "'"}),
              "3\n");
    EXPECT_TRUE(
        holds(about({"-a", "sum(x)", "--file-column", "file", "-w", "file > 5"}),
              first.path() + ":2: --where: the file's name: '" + first.path() + "' is no number"));
    EXPECT_TRUE(
        holds(about({"-a", "sum(x)", "--file-column", "k"}), "there is a column 'k' already"));
    EXPECT_EQ(asked({first.path(), "-", "-a", "sum(x)"}, "k,x\nc,10\n"), "13\n");
    EXPECT_TRUE(holds(asked({"-", "-", "-a", "sum(x)"}, "k,x\n"), "once only"));
    // A pattern stands for its files in the order of their names.
    const std::string &name = first.path();
    const std::string own = name.substr(0, name.size() - 9) + "?art1.csv";
    EXPECT_EQ(asked({own, "-a", "sum(x)"}), "3\n");
    // What is in them all.
    EXPECT_EQ(asked({"schema", own, second.path()}), "1,k,str,0,a\n2,x,dbl,0,1\n");
    EXPECT_TRUE(asked({"summary", own, second.path(), "-w", "x > 1"}).starts_with("k,str,0,2,a,"));
    EXPECT_TRUE(holds(asked({"summary", first.path(), second.path(), "--file-column", "f"}),
                      "\nf,str,0,2," + std::min(first.path(), second.path())));
    EXPECT_TRUE(holds(asked({"union", own, "k", "x", second.path()}), "two columns of one file"));
    EXPECT_TRUE(holds(asked({own + "7*", "-a", "sum(x)"}), "no file is called so"));
    // Faults are told with the file that they are in.
    const temporary_file wrong("k,x\n\nc,4\nd\n");
    EXPECT_TRUE(holds(asked({first.path(), wrong.path(), "-a", "sum(x)"}),
                      wrong.path() + ":4: 1 field where the header has 2"));
    const temporary_file text("k,x\nc,4\nd,word\n");
    EXPECT_TRUE(holds(asked({first.path(), text.path(), "-a", "sum(x)"}),
                      "'word', on line 3 of " + text.path()));
    const temporary_file renamed("k,y\nc,4\n");
    EXPECT_TRUE(holds(asked({first.path(), renamed.path(), "-a", "sum(x)"}),
                      renamed.path() + ":1: column 2 is called 'y', and 'x' in " + first.path()));
    const temporary_file narrow("k\nc\n");
    EXPECT_TRUE(holds(asked({first.path(), narrow.path(), "-a", "sum(x)"}),
                      narrow.path() + ":1: the header has 1 name, and 2 in " + first.path()));
    // A quote that one file leaves open does not reach into the next one.
    const temporary_file open("k,x\n\"c,4\n");
    EXPECT_TRUE(holds(asked({open.path(), first.path(), "-a", "sum(x)"}),
                      open.path() + ":2: a quoted field begins here"));
}

// A frame that its decoder passes over, as programs for several threads and for seeking write them.
TEST(Command, SkippableFramesOfZstd) {
    const temporary_file plain("a,x\nb,3\n");
    const temporary_file packed("", ".csv.zst");
    if (std::system(("zstd -q -c < " + plain.path() + " > " + packed.path()).c_str()) != 0)
        GTEST_SKIP() << "zstd is not there";
    const std::string skipped = std::string("\x5A\x2A\x4D\x18\x04\0\0\0", 8) + "abcd";
    for (const std::string &bytes : {skipped + packed.content(), packed.content() + skipped}) {
        const temporary_file both(bytes, ".csv.zst");
        const outcome told = vask({both.path(), "-a", "sum(x)", "-f", "csv", "--no-header"});
        EXPECT_EQ(told.out + told.err, "3\n");
    }
}

TEST(Command, CompressedFiles) {
    const std::vector<std::pair<std::string, std::string>> programs{
        {"gzip", ".gz"}, {"zstd -q", ".zst"}, {"bzip2", ".bz2"}, {"xz", ".xz"}};
    std::string rows = "a\tx\n";
    for (int i = 0; i < 200000; ++i)
        rows += std::to_string(i % 10007 * 7919 % 10007) + "\t" + std::to_string(i) + "\n";
    const temporary_file first(rows);
    const temporary_file second("1\t2\n");
    const std::vector<std::string> asked{"-a", "count(*),sum(x)", "-f", "csv", "--no-header"};
    const auto answer = [&](std::vector<std::string> words, const std::string &input = "") {
        words.insert(words.end(), asked.begin(), asked.end());
        const outcome told = vask(words, input);
        return told.out + told.err;
    };
    for (const auto &[program, ending] : programs) {
        SCOPED_TRACE(program);
        const temporary_file packed("", ".tsv" + ending);
        const auto pack = [&, &program = program](const std::string &from, const std::string &how) {
            return std::system((program + " -c < " + from + how + packed.path()).c_str());
        };
        if (pack(first.path(), " > ") != 0)
            GTEST_SKIP() << program << " is not there";
        EXPECT_EQ(answer({packed.path()}), "200000,19999900000\n");
        const std::string bytes = packed.content();
        EXPECT_EQ(answer({"-", "-t", "tab"}, bytes), "200000,19999900000\n");
        // Cut at the start, in the middle and before the last byte.
        for (const std::size_t size : {std::size_t{10}, bytes.size() / 2, bytes.size() - 1}) {
            const temporary_file cut(bytes.substr(0, size), ".tsv" + ending);
            EXPECT_TRUE(holds(answer({cut.path()}), "the file is cut short")) << size;
            EXPECT_TRUE(holds(answer({"-", "-t", "tab"}, cut.content()),
                              "standard input: the file is cut"));
        }
        std::string wrong = bytes;
        for (std::size_t i = wrong.size() / 2; i < wrong.size() / 2 + 8; ++i)
            wrong[i] = static_cast<char>(~wrong[i]);
        EXPECT_TRUE(holds(answer({temporary_file(wrong, ".tsv").path()}), "the file is damaged"));
        EXPECT_TRUE(
            holds(answer({temporary_file(bytes + "rest", ".tsv").path()}), "did not write"));
        EXPECT_EQ(answer({packed.path(), first.path(), packed.path(), "-t", "tab"}),
                  "600000,59999700000\n");
        EXPECT_EQ(answer({packed.path(), "-w", "x < 3 or x >= 199999"}), "4,200002\n");
        EXPECT_TRUE(holds(answer({packed.path(), "--types", "x:bte"}), packed.path() + ":130: "));
        // Several members are one file, and zeros may stand behind the last one.
        pack(second.path(), " >> ");
        EXPECT_EQ(answer({packed.path()}), "200001,19999900002\n");
        EXPECT_EQ(answer({"-", "-t", "tab"}, packed.content() + std::string(512, '\0')),
                  "200001,19999900002\n");
        pack("/dev/null", " > ");
        EXPECT_TRUE(holds(answer({packed.path()}), "the file is empty"));
    }
}

// Pages of a mapped file that were read are given back, when records are counted and when they are
// read: two threads hold few pieces of 4 MB each.
TEST(Command, LargeFilesDoNotStayInMemory) {
    const std::string record = "7," + std::string(1000, 'x') + "\n";
    const auto greatest_memory = [&record](std::size_t records) {
        std::string text = "k,t\n";
        for (std::size_t i = 0; i < records; ++i)
            text += record;
        const temporary_file file(text);
        // The memory of a process counts from what it was before it became the command, so that is
        // a small one.
        const outcome measured = run(
            "python3", {"-c",
                        "import resource, subprocess, sys\n"
                        "made = subprocess.run(sys.argv[1:], stdout=subprocess.PIPE, text=True)\n"
                        "used = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss\n"
                        "print(made.stdout.strip(), used)\n",
                        VASK_COMMAND, file.path(), "-a", "sum(k)", "-f", "csv", "--no-header",
                        "--threads", "2"});
        const std::size_t blank = measured.out.find(' ');
        EXPECT_EQ(measured.out.substr(0, blank), std::to_string(7 * records)) << measured.err;
        return std::stol(measured.out.substr(blank)) / 1024;
    };
    const long few = greatest_memory(8'000);
    const long many = greatest_memory(64'000);
    EXPECT_LT(many, few + 40) << "MB, of 64 MB";
}

} // namespace
