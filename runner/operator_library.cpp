#include "operator_library.h"

#include "user_error.h"

#include <array>
#include <filesystem>
#include <new>
#include <string_view>
#include <system_error>

#include <dlfcn.h>

namespace vask::runner {
namespace {

// Where the library lies as seen from the directory of this program: in the build tree, and where
// it is installed.
constexpr std::array<const char *, 2> places{"../lib/lib_vask_ops.so",
                                             VASK_LIBDIR_FROM_BINDIR "/lib_vask_ops.so"};

std::string installed_path() {
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    for (const char *place : places) {
        const auto candidate = (program.parent_path() / place).lexically_normal();
        if (std::filesystem::exists(candidate, error))
            return candidate.string();
    }
    fail("lib_vask_ops.so was not found beside {}; name it with --library PATH", program.string());
}

} // namespace

void operator_library::closer::operator()(void *handle) const noexcept {
    ::dlclose(handle);
}

operator_library::operator_library(const std::string &path)
    : path_(path.empty() ? installed_path() : path),
      // A name without a slash would be looked up in the system's directories.
      // It stays in the process to the end, as in a kernel: the scheduler's threads may still be in
      // its code, and tools that look at the process then can name its functions.
      handle_(::dlopen(std::filesystem::absolute(path_).c_str(),
                       RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE)) {
    if (handle_ != nullptr)
        return;
    const std::string_view reason = ::dlerror();
    // What the loader says when the system gives it no memory, in two places.
    if (reason.find("annot allocate memory") != reason.npos ||
        reason.find("failed to map segment") != reason.npos)
        throw std::bad_alloc();
    fail("cannot load the operator library: {}; name another one with --library PATH", reason);
}

void *operator_library::address(const std::string &name) const {
    void *const found = ::dlsym(handle_.get(), name.c_str());
    if (found == nullptr)
        fail("{} has no operator {}; it may be older than this program: name another one with "
             "--library PATH",
             path_, name);
    return found;
}

} // namespace vask::runner
