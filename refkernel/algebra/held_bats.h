// The BATs of an operation of the algebra: inputs by number, results handed over.
#ifndef REFKERNEL_ALGEBRA_HELD_BATS_H
#define REFKERNEL_ALGEBRA_HELD_BATS_H

#include "refkernel/bats.h"
#include "refkernel/columns.h"
#include "refkernel/error_reports.h"
#include "refkernel/instrumented.h"
#include "refkernel/pool.h"

#include <cstdint>
#include <exception>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

namespace refkernel::algebra {

//! A failure with the text that its exception string shall have.
class failure : public std::runtime_error {
public:
    using runtime_error::runtime_error;
};

//! A physical reference on an input for as long as it lives. A number that is not in use throws.
class held_bat {
public:
    explicit held_bat(std::int32_t id) {
        if (pool::add_reference(id, pool::reference::physical) == 0)
            throw failure("Object not found");
        bat_ = pool::find(id);
    }
    held_bat(const held_bat &) = delete;
    held_bat &operator=(const held_bat &) = delete;
    ~held_bat() { pool::drop_reference(bat_->bat_id, pool::reference::physical); }

    BAT &operator*() const noexcept { return *bat_; }
    BAT *operator->() const noexcept { return bat_; }

private:
    BAT *bat_;
};

//! Row identities are oids, stored or counted from the seqbase; throws for a head of another type.
inline void require_row_head(const BAT &b) {
    if (b.head->type != TYPE_oid && !is_void(*b.head))
        throw failure("(v)oid head required");
}

//! Enters a finished BAT into the pool with one logical reference, the receiver's.
inline std::int32_t hand_over(std::unique_ptr<bat_entry> made) {
    made->state.access = ACCESS_READ;
    const BAT *const b = pool::insert(std::move(made));
    pool::keep(b->bat_id);
    return b->bat_id;
}

//! Runs an operation, whose calls for memory are the kernel's own; the exception string of what it
//! throws, or null.
template <class Operation>
char *or_exception(const char *place, Operation run) noexcept {
    const instrumentation::own_work kernel_at_work;
    try {
        run();
        return nullptr;
    } catch (const failure &f) {
        return make_exception(place, f.what());
    } catch (const std::bad_alloc &) {
        return make_exception(place, "out of memory");
    } catch (const std::exception &) { // of an array that would be longer than memory
        return make_exception(place, "operation failed");
    }
}

} // namespace refkernel::algebra

#endif
