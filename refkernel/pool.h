/*
 * The buffer pool: which BATs live, under which numbers, and who holds them.
 *
 * A BAT lives while anything holds it, in one of three ways:
 *
 *  - physical references: an operator works on the record. Made by BBPincref(id, 0)
 *    and, one each, by whatever makes a BAT (BATnew, BATcopy, BATsample, VIEWcreate,
 *    VIEWcombine, BATjoin): the creator's reference. Dropped by BBPdecref(id, 0),
 *    BBPreleaseref and BBPreclaim, which are the same act.
 *  - logical references: a plan's variable holds the number. BBPkeepref turns the
 *    creator's physical reference into a logical one. Dropped by BBPdecref(id, 1).
 *    What GRPgroup, GRPderive and AX3aggrX3_count3Nils hand back has one logical
 *    reference and no physical one.
 *  - a view that shares its memory.
 *
 * Dropping a reference that nobody took is counted as a misuse and frees nothing.
 *
 * Thread safety: every function here may be called from any thread.
 */
#ifndef REFKERNEL_POOL_H
#define REFKERNEL_POOL_H

#include "refkernel/columns.h"
#include "vask/refkernel/contract.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace refkernel {

struct bat_entry;

//! The record as others see it, with the way back to its entry.
struct bat_record : BAT {
    bat_entry *entry;
};

//! All that belongs to one number and its mirror.
struct bat_entry {
    column head;
    column tail;
    BATstate state{};
    BATinfo info{};
    bat_record desc;
    bat_record mirror;
    std::string name;
    std::string mirror_name;
    // Held by this BAT because it shares their memory; 0: none.
    std::array<std::int32_t, 2> sources{};

    // Guarded by the pool.
    std::int32_t physical = 0;
    std::int32_t logical = 0;
    std::int32_t views = 0;

    bat_entry() noexcept;
    bat_entry(const bat_entry &) = delete;
    bat_entry &operator=(const bat_entry &) = delete;
};

inline bat_entry &entry_of(const BAT *b) {
    return *static_cast<const bat_record *>(b)->entry;
}

namespace pool {

enum class reference { physical, logical, view };

//! Gives the BAT a number and its creator's reference. Throws std::bad_alloc.
BAT *insert(std::unique_ptr<bat_entry> made);

//! The record of a number, the mirror of a negative one; null if none is in use.
BAT *find(std::int32_t id) noexcept;

//! References of that kind after taking one; 0 if the number is not in use.
std::int32_t add_reference(std::int32_t id, reference kind) noexcept;
//! Drops a reference, and with the last one the BAT.
void drop_reference(std::int32_t id, reference kind) noexcept;
//! The creator's reference becomes a logical one.
void keep(std::int32_t id) noexcept;

//! Puts the records of a number in use back into BBParr and gives the one asked for.
BAT *load(std::int32_t id) noexcept;

struct usage {
    std::int64_t bats;
    std::int64_t physical;
    std::int64_t logical;
    std::int64_t misuses;
};
usage current_usage() noexcept;

struct live_bat {
    std::int32_t id;
    std::int32_t physical;
    std::int32_t logical;
    std::int32_t views;
    BUN count;
};
//! All BATs that live, by number.
std::vector<live_bat> live_bats();

} // namespace pool
} // namespace refkernel

#endif
