// The private accumulators of the grouped operators: per task, one zeroed block for each field of
// the state, with one element per group.
#pragma once

#include "kernel/frame.h"
#include "rows/gdk_vector.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace vask {

//! The states of all groups in one task, field by field. State is a plain struct whose fields()
//! gives the pointers to its members, in the order in which their blocks are allocated.
template <class State>
struct state_columns {
    template <class Field>
    static Field field_of(Field State::*);
    template <class... Members>
    static std::tuple<decltype(field_of(std::declval<Members>())) *...>
        columns_of(std::tuple<Members...>);

    decltype(columns_of(State::fields())) columns{};

    //! Makes zeroed columns of n states, one block per field.
    void allocate(std::size_t n) {
        std::apply([n](auto *&...column) { (zero(column, n), ...); }, columns);
    }

    //! Frees the columns that there are.
    void release() const {
        std::apply([](auto *...column) { (free_if_any(column), ...); }, columns);
    }

    //! With all_seen, a state is known to have seen a value.
    template <bool all_seen = false>
    VASK_ALWAYS_INLINE State load(BUN slot) const noexcept {
        State state{};
        for_each_field([&](auto member, auto *column) {
            state.*member = is_told<all_seen>(member) ? true : column[slot];
        });
        return state;
    }

    template <bool all_seen = false>
    VASK_ALWAYS_INLINE void store(BUN slot, const State &state) const noexcept {
        for_each_field([&](auto member, auto *column) {
            if (!is_told<all_seen>(member))
                column[slot] = state.*member;
        });
    }

    //! Whether each of n states, which tell it, has seen a value.
    bool all_seen(std::size_t n) const noexcept {
        bool all = true;
        for_each_field([&](auto member, const auto *column) {
            if (is_told<true>(member))
                all = std::find(column, column + n, 0) == column + n;
        });
        return all;
    }

private:
    //! Whether a member is the mark that a value was seen, and all are known to have it.
    template <bool all_seen, class Field>
    static constexpr bool is_told(Field State::*member) noexcept {
        if constexpr (all_seen && requires { member == &State::seen; })
            return member == &State::seen;
        else
            return false;
    }

    template <class Field>
    static void zero(Field *&column, std::size_t n) {
        column = zeroed_array<Field>(n);
    }
    static void free_if_any(void *column) {
        if (column != nullptr)
            GDKfree(column);
    }

    template <class F>
    VASK_ALWAYS_INLINE void for_each_field(F f) const noexcept {
        [&]<std::size_t... i>(std::index_sequence<i...>) {
            (f(std::get<i>(State::fields()), std::get<i>(columns)), ...);
        }
        (std::make_index_sequence<std::tuple_size_v<decltype(State::fields())>>{});
    }
};

//! The columns of each partition, allocated by the task that fills them.
template <class State>
class state_blocks {
public:
    explicit state_blocks(std::uint64_t nparts) : blocks_(nparts) {}
    state_blocks(const state_blocks &) = delete;
    state_blocks &operator=(const state_blocks &) = delete;
    //! After a kernel that throws when it runs out of memory, too, nothing is lost.
    ~state_blocks() {
        for (const state_columns<State> &columns : blocks_)
            columns.release();
    }

    state_columns<State> &operator[](std::uint64_t part) noexcept { return blocks_[part]; }

private:
    gdk_vector<state_columns<State>> blocks_;
};

} // namespace vask
