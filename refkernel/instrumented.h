// What the operations themselves tell the instrumentation, and ask of it.
#ifndef REFKERNEL_INSTRUMENTED_H
#define REFKERNEL_INSTRUMENTED_H

#include "vask/refkernel/instrumentation.h"

#include <atomic>
#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace refkernel::instrumentation {

//! An argument as it stands in the record of a call.
class argument {
public:
    template <std::integral T>
    argument(T value) : kind_(kind::number), number_(static_cast<std::int64_t>(value)) {}
    argument(const char *text) : kind_(kind::text), text_(text) {}
    //! A BAT stands in the record with its number, null as 0.
    argument(const BAT *b) : argument(b == nullptr ? 0 : b->bat_id) {}

    void append_to(std::string &record) const;

private:
    enum class kind { number, text };
    kind kind_;
    std::int64_t number_ = 0;
    const char *text_ = nullptr;
};

extern std::atomic<bool> watching;

//! While one stands, what its thread calls of the contract is the kernel's own work, by devices
//! that the operators use as well: it is not recorded, counted, failed or in the account of memory.
class own_work {
public:
    own_work() noexcept { ++depth; }
    own_work(const own_work &) = delete;
    own_work &operator=(const own_work &) = delete;
    ~own_work() { --depth; }

    static bool stands() noexcept { return depth != 0; }

private:
    static inline thread_local unsigned depth = 0;
};

//! The part of enter() that runs while a watch stands.
bool enter_watched(operation op, std::initializer_list<argument> arguments);

/*
 * Every operation calls this first, with its arguments:
 *
 *     if (enter(operation::bat_new, head_type, tail_type, capacity)) {
 *         return nullptr;
 *     }
 *
 * True when the operation was told to fail now. An operation that cannot fail
 * ignores the answer.
 */
template <class... Arguments>
inline bool enter(operation op, const Arguments &...arguments) {
    if (!watching.load(std::memory_order_relaxed)) [[likely]] {
        return false;
    }
    return enter_watched(op, {argument(arguments)...});
}

//! What watch::unpaired_accesses() gives; empty while no watch stands.
[[nodiscard]] std::vector<unpaired_access> open_accesses();

//! What BATaccess reports.
void note_access(int32_t bat_id, int what, int load);

// What was asked for with the functions of nearly the same names.
[[nodiscard]] bool replaces_on_setaccess();
[[nodiscard]] bool unloads_groupings();
[[nodiscard]] bool keeps_marks_on_materialize();

} // namespace refkernel::instrumentation

#endif
