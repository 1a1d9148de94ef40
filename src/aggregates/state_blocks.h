// The private accumulators of the grouped operators: per task, one zeroed block for each field of
// the state, with one element per group.
#pragma once

#include "kernel/frame.h"

#include <array>
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

    //! Zeroed columns of n states, one block per field.
    static state_columns zeroed(std::size_t n) {
        state_columns made;
        std::apply([n](auto *&...column) { ((column = zeroed_array_like(column, n)), ...); },
                   made.columns);
        return made;
    }

    void release() const {
        std::apply([](auto *...column) { (GDKfree(column), ...); }, columns);
    }

    VASK_ALWAYS_INLINE State load(BUN slot) const noexcept {
        State state{};
        for_each_field([&](auto member, auto *column) { state.*member = column[slot]; });
        return state;
    }

    VASK_ALWAYS_INLINE void store(BUN slot, const State &state) const noexcept {
        for_each_field([&](auto member, auto *column) { column[slot] = state.*member; });
    }

    static constexpr std::size_t size = std::tuple_size_v<decltype(State::fields())>;

private:
    template <class Field>
    static Field *zeroed_array_like(const Field *, std::size_t n) {
        return zeroed_array<Field>(n);
    }

    template <class F>
    VASK_ALWAYS_INLINE void for_each_field(F f) const noexcept {
        [&]<std::size_t... i>(std::index_sequence<i...>) {
            (f(std::get<i>(State::fields()), std::get<i>(columns)), ...);
        }
        (std::make_index_sequence<size>{});
    }
};

//! For each field an array of one block per partition. The arrays are the calling thread's, each
//! block is allocated by the task that fills it. Plain values: a copy names the same blocks.
template <class State>
class state_blocks {
public:
    explicit state_blocks(std::uint64_t nparts) : nparts_(nparts) {
        try {
            for (void **&array : arrays_)
                array = zeroed_array<void *>(nparts);
        } catch (...) { // of a kernel that throws when it runs out of memory
            for (void **array : arrays_)
                if (array != nullptr)
                    GDKfree(array);
            throw;
        }
    }

    //! The blocks of a partition, zeroed, for so many groups.
    state_columns<State> allocate(std::uint64_t part, BUN groups) const {
        state_columns<State> states;
        for_each_column(states, [&]<class Field>(Field *&column, void **array) {
            column = zeroed_array<Field>(groups);
            array[part] = column;
        });
        return states;
    }

    //! The same blocks after the tasks.
    state_columns<State> of(std::uint64_t part) const {
        state_columns<State> states;
        for_each_column(states, [&]<class Field>(Field *&column, void **array) {
            column = static_cast<Field *>(array[part]);
        });
        return states;
    }

    //! Frees the blocks that partitions have, then the arrays.
    void release() const {
        for (std::uint64_t part = 0; part < nparts_; ++part)
            for (void **array : arrays_)
                if (array[part] != nullptr)
                    GDKfree(array[part]);
        for (void **array : arrays_)
            GDKfree(array);
    }

private:
    template <class F>
    void for_each_column(state_columns<State> &states, F f) const {
        [&]<std::size_t... i>(std::index_sequence<i...>) {
            (f(std::get<i>(states.columns), arrays_[i]), ...);
        }
        (std::make_index_sequence<state_columns<State>::size>{});
    }

    std::uint64_t nparts_;
    std::array<void **, state_columns<State>::size> arrays_{};
};

} // namespace vask
