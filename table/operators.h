// The operators that plans call, and what becomes of their exception strings.
#pragma once

#include "vask/embed.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <type_traits>

namespace vask::table {

//! Where operators are found by their exported names: linked to this library, or in one that was
//! loaded. Throws when there is none of that name.
class operator_set {
public:
    using lookup = std::function<void *(const std::string &name)>;

    explicit operator_set(lookup find) : find_(std::move(find)) {}

    //! The operator's address as a function of a type that the caller vouches for.
    template <class Function>
    Function *function(const std::string &name) const {
        static_assert(std::is_function_v<Function>);
        return reinterpret_cast<Function *>(find_(name));
    }

    //! Calls an operator that takes a result slot and one to five numbers of BATs. The slot has
    //! room for what the operator stores. Its failure is thrown as std::runtime_error.
    void call(const std::string &name, void *result,
              std::span<const refkernel::bat *const> bats) const;
    //! Calls an operator that gives a BAT.
    refkernel::bat call(const std::string &name, std::span<const refkernel::bat *const> bats) const;

    struct grouped_rows {
        refkernel::bat map;
        refkernel::bat extents;
    };
    grouped_rows group(const refkernel::bat &column) const;
    grouped_rows derive(const grouped_rows &groups, const refkernel::bat &column) const;

private:
    lookup find_;
};

} // namespace vask::table
