// The operators that plans call, and what becomes of their exception strings.
#pragma once

#include "vask/embed.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace vask::table {

//! Where operators are found by their exported names: linked to this library, or in one that was
//! loaded. Throws when there is none of that name.
class operator_set {
public:
    using lookup = std::function<void *(const std::string &name)>;

    //! A call that is about to be made.
    struct call_notice {
        const std::string &name;
        std::string_view about; //!< the columns and the parameter it works on, for a reader
        BUN rows;
    };
    //! Makes the call, and may look at the time or at what the operator tells. `outcome` says after
    //! it what came of it; perhaps nothing.
    using watcher = std::function<void(const call_notice &notice, const std::function<void()> &call,
                                       const std::function<std::string()> &outcome)>;

    explicit operator_set(lookup find, watcher watch = {})
        : find_(std::move(find)), watch_(std::move(watch)) {}

    //! The operator's address as a function of a type that the caller vouches for.
    template <class Function>
    Function *function(const std::string &name) const {
        static_assert(std::is_function_v<Function>);
        return reinterpret_cast<Function *>(find_(name));
    }

    //! Calls an operator that takes a result slot and one to five numbers of BATs. The slot has
    //! room for what the operator stores. Its failure is thrown as std::runtime_error.
    void call(const std::string &name, void *result, std::span<const refkernel::bat *const> bats,
              std::string_view about = {}) const;
    //! Calls an operator that gives a BAT.
    refkernel::bat call(const std::string &name, std::span<const refkernel::bat *const> bats,
                        std::string_view about = {}) const;

    //! Does what is no operator's work as an operator's is done: watched, under a name, and apart
    //! from that of other queries.
    void work(const std::string &name, std::string_view about, BUN rows,
              const std::function<void()> &work) const;

    struct grouped_rows {
        refkernel::bat map;
        refkernel::bat extents;
    };
    grouped_rows group(const refkernel::bat &column, std::string_view about = {}) const;
    grouped_rows derive(const grouped_rows &groups, const refkernel::bat &column,
                        std::string_view about = {}) const;

private:
    template <class Call, class Outcome>
    void watched(const call_notice &notice, const Call &call, const Outcome &outcome) const {
        if (watch_)
            watch_(notice, call, outcome);
        else
            call();
    }

    lookup find_;
    watcher watch_;
};

} // namespace vask::table
