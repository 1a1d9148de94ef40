// The loaded library's interface: what it exports, and what it needs from the process.

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace {

std::string output_of(const std::string &command) {
    const std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(command.c_str(), "r"), pclose);
    if (!pipe)
        return {};
    std::string text;
    std::array<char, 4096> chunk{};
    while (const std::size_t n = std::fread(chunk.data(), 1, chunk.size(), pipe.get()))
        text.append(chunk.data(), n);
    return text;
}

const std::set<std::string> exported_names = {
#include "exported_names.inc"
};

std::set<std::string> words(const std::string &text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

// The kernel contract. A new name here is a new demand on every kernel.
const std::set<std::string> kernel_names = words(
    "ALIGNsetH ALIGNsynced AX3aggrX3_count3Nils BATaccess BATatoms BATcopy BATextend BATgrows "
    "BAThash BATjoin BATkey BATmaterialize BATmaterializeh BATmax BATmin BATnew BATsample "
    "BATseqbase BATsetaccess BATsetcount BBParr BBPdecref BBPdescriptor BBPincref BBPkeepref "
    "BBPreclaim BBPreleaseref BBPsize BUNfastins GDKcalloc GDKdebug GDKerror GDKfatal GDKfree "
    "GDKgroup_algo_select_sample_size GDKgroup_algo_select_uniqueness_thresh "
    "GDKgroup_algo_select_vask_size GDKmalloc GDKmin_part_size GDKnr_threads GDKpart_size_div "
    "GDKrealloc GDKupgradevarheap GDKusec GDKzalloc GRPderive GRPgroup THRgetdata THRprintf "
    "VALconvert VALget VALset VIEWcombine VIEWcreate createException doALGfetch int_nil "
    "oid_nil");

//! The runtime's own symbols carry a version or belong to the task scheduler or a sanitizer.
bool is_the_runtimes(const std::string &name) {
    constexpr std::array prefixes{"_ZN3tbb", "_ZTIN3tbb", "_ZTVN3tbb", "__asan_", "__ubsan_"};
    return name.find('@') != std::string::npos ||
           std::ranges::any_of(prefixes, [&](const char *p) { return name.starts_with(p); });
}

TEST(Library, ExportsExactlyItsNames) {
    std::istringstream lines(output_of("nm -D --defined-only " VASK_LIBRARY));
    std::set<std::string> defined;
    for (std::string address, kind, name; lines >> address >> kind >> name;)
        defined.insert(name);
    EXPECT_EQ(defined, exported_names);
}

TEST(Library, NeedsOnlyTheKernelAndTheRuntime) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer stands in for the runtime, under names without a version";
#endif
    std::istringstream lines(output_of("nm -D --undefined-only " VASK_LIBRARY));
    std::size_t seen = 0;
    for (std::string kind, name; lines >> kind >> name; ++seen) {
        if (kind == "w" || kind == "v" || is_the_runtimes(name)) // weak: may be missing
            continue;
        EXPECT_TRUE(kernel_names.contains(name)) << name << " is no part of the kernel contract";
    }
    EXPECT_GT(seen, 20U) << "nm listed hardly anything";
}

} // namespace
