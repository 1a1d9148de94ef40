#include "vask/refkernel/errors.h"

#include "refkernel/error_reports.h"

#include "refkernel/instrumented.h"
#include "refkernel/memory.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

using refkernel::instrumentation::enter;
using refkernel::instrumentation::operation;

// The output of a thread. There is one for all threads: where it leads is the
// printing thread's own.
struct stream {};

namespace refkernel {
namespace {

thread_local std::string thread_errors;
thread_local std::string *thread_capture = nullptr;
std::atomic<fatal_handler> installed_handler{nullptr};
stream thread_output;

std::string formatted(const char *format, va_list arguments) {
    if (format == nullptr) {
        return {};
    }
    char *printed = nullptr;
    const int length = vasprintf(&printed, format, arguments);
    if (length < 0) {
        return {};
    }
    const std::unique_ptr<char, decltype(&std::free)> owner(printed, std::free);
    return {printed, static_cast<std::size_t>(length)};
}

} // namespace

void record_error(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    try {
        thread_errors += formatted(format, arguments);
    } catch (const std::bad_alloc &) { // NOLINT(bugprone-empty-catch)
        // Who records that memory has run out goes on to say so in another way.
    }
    va_end(arguments);
}

char *make_exception(const char *place, const char *text) {
    const std::string_view parts[] = {place, ":", text};
    std::size_t length = 1;
    for (const std::string_view part : parts) {
        length += part.size();
    }
    auto *message = static_cast<char *>(memory::allocate(length));
    if (message != nullptr) {
        char *end = message;
        for (const std::string_view part : parts) {
            end = std::copy(part.begin(), part.end(), end);
        }
        *end = '\0';
    }
    return message;
}

operator_failure take_exception(char *message) {
    if (message == nullptr) {
        return {};
    }
    const std::string_view whole(message);
    const std::size_t colon = whole.find(':');
    if (colon == std::string_view::npos) {
        return {std::string(whole), std::string(whole)};
    }
    operator_failure read{std::string(whole.substr(0, colon)),
                          std::string(whole.substr(colon + 1))};
    memory::release(message);
    return read;
}

const std::string &error_buffer() {
    return thread_errors;
}

void clear_error_buffer() {
    thread_errors.clear();
}

fatal_handler set_fatal_handler(fatal_handler handler) {
    return installed_handler.exchange(handler);
}

output_capture::output_capture() : outer_(std::exchange(thread_capture, &text_)) {}

output_capture::~output_capture() {
    thread_capture = outer_;
}

} // namespace refkernel

// The kind tells a plan's interpreter how to go on after an exception; there is
// none here.
char *createException(int kind, const char *function, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string text = refkernel::formatted(format, arguments);
    va_end(arguments);
    if (enter(operation::create_exception, kind, function,
              format == nullptr ? nullptr : text.c_str())) {
        return nullptr;
    }
    return refkernel::make_exception(function, text.c_str());
}

void GDKerror(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string text = refkernel::formatted(format, arguments);
    va_end(arguments);
    enter(operation::gdk_error, text.c_str());
    refkernel::thread_errors += text;
}

int GDKfatal(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string text = refkernel::formatted(format, arguments);
    va_end(arguments);
    enter(operation::gdk_fatal, text.c_str());
    if (const auto handler = refkernel::installed_handler.load()) {
        return handler(text.c_str());
    }
    static_cast<void>(std::fflush(stdout));
    static_cast<void>(std::fprintf(stderr, "fatal: %s", text.c_str()));
    static_cast<void>(std::fflush(stderr));
    std::_Exit(EXIT_FAILURE);
}

stream *THRgetdata(int slot) {
    return slot == 0 ? &refkernel::thread_output : nullptr;
}

int THRprintf(stream *, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string text = refkernel::formatted(format, arguments);
    va_end(arguments);
    if (refkernel::thread_capture != nullptr) {
        *refkernel::thread_capture += text;
        return static_cast<int>(text.size());
    }
    return static_cast<int>(std::fwrite(text.data(), 1, text.size(), stdout));
}

lng GDKusec() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
