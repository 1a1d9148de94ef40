// The operator library, loaded as a kernel loads it: at run time, its operators found by name.
#pragma once

#include <memory>
#include <string>

namespace vask::runner {

class operator_library {
public:
    //! Loads the library from `path`, or, if that is empty, from where the build or the
    //! installation puts it beside this program. Throws user_error when it cannot be loaded.
    explicit operator_library(const std::string &path);

    const std::string &path() const noexcept { return path_; }

    //! The exported function of that name. Throws user_error when the library has none of it.
    void *address(const std::string &name) const;

private:
    struct closer {
        void operator()(void *handle) const noexcept;
    };

    std::string path_;
    std::unique_ptr<void, closer> handle_;
};

} // namespace vask::runner
