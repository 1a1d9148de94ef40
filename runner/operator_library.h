// The operator library, loaded as a kernel loads it: at run time, its operators found by name.
#pragma once

#include <memory>
#include <string>
#include <type_traits>

namespace vask::runner {

class operator_library {
public:
    //! Loads the library from `path`, or, if that is empty, from where the build or the
    //! installation puts it beside this program. Throws user_error when it cannot be loaded.
    explicit operator_library(const std::string &path);

    const std::string &path() const noexcept { return path_; }

    //! The exported function of that name, whose type the caller vouches for. Throws user_error
    //! when the library has none of that name.
    template <class Function>
    Function *function(const std::string &name) const {
        static_assert(std::is_function_v<Function>);
        return reinterpret_cast<Function *>(address(name));
    }

private:
    struct closer {
        void operator()(void *handle) const noexcept;
    };

    void *address(const std::string &name) const;

    std::string path_;
    std::unique_ptr<void, closer> handle_;
};

} // namespace vask::runner
