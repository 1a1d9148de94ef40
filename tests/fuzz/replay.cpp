// Runs a fuzz target without a fuzzing engine: every file of its corpus, then inputs that a seeded
// generator makes of them. A failing input is left in the file `failing-input`.
//
//     replay_TARGET CORPUS RUNS [SEED]
#include "fuzz_target.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

using input = std::vector<std::uint8_t>;

input current;

// Only calls that a signal handler may make. The signal is raised again by the return.
extern "C" void keep_failing_input(int signal) {
    const int file = ::open("failing-input", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file >= 0) {
        static_cast<void>(::write(file, current.data(), current.size()) == 0);
        ::close(file);
    }
    std::signal(signal, SIG_DFL);
    ::raise(signal);
}

std::vector<input> read_corpus(const std::filesystem::path &folder) {
    std::vector<std::filesystem::path> files;
    for (const auto &entry : std::filesystem::directory_iterator(folder))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    std::vector<input> corpus;
    for (const auto &path : files) {
        std::ifstream file(path, std::ios::binary);
        corpus.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    return corpus;
}

class mutator {
public:
    explicit mutator(std::uint64_t seed) : random_(seed) {}

    input mutated(const std::vector<input> &corpus) {
        input made = corpus[below(corpus.size())];
        for (std::size_t steps = 1 + below(6); steps > 0; --steps)
            step(made, corpus);
        if (made.size() > longest)
            made.resize(longest);
        return made;
    }

private:
    static constexpr std::size_t longest = 4096;

    std::size_t below(std::size_t n) { return static_cast<std::size_t>(random_() % n); }

    void step(input &made, const std::vector<input> &corpus) {
        constexpr std::uint8_t odd[] = {0x00, 0x01, 0x7f, 0x80, 0xff, '"', ',', '\n', '0', '-'};
        const std::size_t at = below(made.size() + 1);
        const auto place = made.begin() + static_cast<std::ptrdiff_t>(at);
        switch (below(7)) {
            case 0: // one bit
                if (at < made.size())
                    *place = static_cast<std::uint8_t>(*place ^ (1U << below(8)));
                break;
            case 1: // one byte
                if (at < made.size())
                    *place = static_cast<std::uint8_t>(random_());
                break;
            case 2:
                made.insert(place, odd[below(std::size(odd))]);
                break;
            case 3: // some bytes less
                made.erase(place, place + static_cast<std::ptrdiff_t>(below(
                                              std::min<std::size_t>(made.size() - at, 8) + 1)));
                break;
            case 4: { // the same bytes again
                const input copy(
                    place, place + static_cast<std::ptrdiff_t>(
                                       below(std::min<std::size_t>(made.size() - at, 16) + 1)));
                made.insert(place, copy.begin(), copy.end());
                break;
            }
            case 5: { // goes on as another one
                const input &other = corpus[below(corpus.size())];
                made.resize(at);
                const std::size_t from = below(other.size() + 1);
                made.insert(made.end(), other.begin() + static_cast<std::ptrdiff_t>(from),
                            other.end());
                break;
            }
            default: // bytes of any kind
                for (std::size_t n = below(16); n > 0; --n)
                    made.push_back(static_cast<std::uint8_t>(random_()));
        }
    }

    std::mt19937_64 random_;
};

void run(input bytes) {
    current = std::move(bytes);
    // A copy of its very size, so that a sanitizer sees a step behind its end.
    const input exact(current.begin(), current.end());
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s CORPUS RUNS [SEED]\n", argv[0]);
        return 2;
    }
    const std::vector<input> corpus = read_corpus(argv[1]);
    const std::uint64_t runs = std::strtoull(argv[2], nullptr, 10);
    mutator mutations(argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 1);
    if (corpus.empty()) {
        std::fprintf(stderr, "%s has no inputs\n", argv[1]);
        return 2;
    }
    LLVMFuzzerInitialize(&argc, &argv);
    for (const int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL})
        std::signal(signal, keep_failing_input);
    for (const input &each : corpus)
        run(each);
    for (std::uint64_t i = 0; i < runs; ++i)
        run(mutations.mutated(corpus));
    std::fprintf(stderr, "%zu inputs of the corpus and %llu made from them\n", corpus.size(),
                 static_cast<unsigned long long>(runs));
    return 0;
}
