#include "progress_bar.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>

#include <fmt/format.h>
#include <unistd.h>

namespace vask::runner {
namespace {

constexpr auto patience = std::chrono::seconds(1);
constexpr std::uint64_t width = 40;
constexpr const char *erase_line = "\r\x1b[K";

// What the terminal is to obey.
void show(std::string_view text) {
    static_cast<void>(std::fwrite(text.data(), 1, text.size(), stderr) == text.size());
}

} // namespace

progress_bar::progress_bar(std::uint64_t total)
    : total_(std::max<std::uint64_t>(total, 1)),
      begin_(std::chrono::steady_clock::now()),
      on_terminal_(::isatty(STDERR_FILENO) != 0) {}

progress_bar::~progress_bar() {
    if (drawn_)
        show(erase_line);
}

void progress_bar::draw(std::uint64_t done) {
    if (!on_terminal_ || std::chrono::steady_clock::now() - begin_ < patience)
        return;
    const std::uint64_t share = std::min(done, total_);
    show(fmt::format("{}loading [{:<{}}] {:3}%", erase_line,
                     std::string(static_cast<std::size_t>(share * width / total_), '#'), width,
                     share * 100 / total_));
    (void)std::fflush(stderr);
    drawn_ = true;
}

} // namespace vask::runner
