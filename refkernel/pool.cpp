#include "refkernel/pool.h"

#include "refkernel/instrumented.h"
#include "vask/refkernel/reference_account.h"

#include <deque>
#include <mutex>
#include <new>
#include <type_traits>
#include <utility>

namespace refkernel {
namespace {

constexpr std::int32_t chunk_records = 1 << 16;
constexpr std::int32_t chunks = 1 << 15; // numbers are 31 bits

} // namespace
} // namespace refkernel

// The first level never moves, and a chunk never goes: readers need no lock.
BBPrec *BBParr[refkernel::chunks];
int32_t BBPsize = 0;

namespace refkernel {

bat_entry::bat_entry() noexcept
    : desc{{0, &head, &tail, &state, &info}, this},
      mirror{{0, &tail, &head, &state, &info}, this} {}

namespace pool {
namespace {

// A number comes back only after so many others, so that a stale one is found
// out ("not in use") instead of meaning somebody else's BAT.
constexpr std::size_t resting_numbers = 4096;

struct bat_pool {
    std::mutex lock;
    std::array<std::unique_ptr<bat_entry *[]>, chunks> entries;
    std::deque<std::int32_t> resting;
    std::int32_t next = 1;
    usage used{};

    bat_pool() { add_chunk(); }

    void add_chunk() {
        const auto at = static_cast<std::size_t>(BBPsize / chunk_records);
        if (at == entries.size()) {
            throw std::bad_alloc();
        }
        entries[at] = std::make_unique<bat_entry *[]>(chunk_records);
        BBParr[at] = new BBPrec[chunk_records]{};
        std::atomic_ref(BBPsize).store(static_cast<std::int32_t>(at + 1) * chunk_records,
                                       std::memory_order_release);
    }

    BBPrec &record(std::int32_t id) { return BBParr[id >> 16][id & 0xffff]; }
    bat_entry *&slot(std::int32_t id) {
        return entries[static_cast<std::size_t>(id >> 16)][id & 0xffff];
    }

    // Null for a number that is not in use; id is positive or a mirror's.
    bat_entry *entry(std::int32_t id) {
        const std::int64_t n = id < 0 ? -std::int64_t{id} : id;
        return n == 0 || n >= BBPsize ? nullptr : slot(static_cast<std::int32_t>(n));
    }

    std::int32_t take_number() {
        if (resting.size() > resting_numbers) {
            const std::int32_t id = resting.front();
            resting.pop_front();
            return id;
        }
        if (next == BBPsize) {
            add_chunk();
        }
        return next++;
    }

    std::int64_t &total(reference kind) {
        return kind == reference::logical ? used.logical : used.physical;
    }
};

// Never destroyed: handles in static storage may outlive every other static.
bat_pool &the_pool() {
    static bat_pool &made = *new bat_pool;
    return made;
}

[[maybe_unused]] const bat_pool &made_at_load = the_pool();

// Operators read the words of BBParr without the lock: what they find there was written before.
template <class T>
void publish(T *&word, std::type_identity_t<T> *value) noexcept {
    std::atomic_ref(word).store(value, std::memory_order_release);
}

void publish_descriptors(BBPrec &record, bat_entry &entry) noexcept {
    publish(record.desc, &entry.desc);
    publish(record.desc_mirror, &entry.mirror);
}

void withdraw_descriptors(BBPrec &record) noexcept {
    publish(record.desc, nullptr);
    publish(record.desc_mirror, nullptr);
}

// A number without a logical name is not in use, so that comes first.
void withdraw(BBPrec &record) noexcept {
    publish(record.logical_name, nullptr);
    publish(record.mirror_name, nullptr);
    withdraw_descriptors(record);
}

std::int32_t &count_of(bat_entry &entry, reference kind) {
    switch (kind) {
        case reference::physical:
            return entry.physical;
        case reference::logical:
            return entry.logical;
        default:
            return entry.views;
    }
}

thread_local reference_account *account = nullptr;

void count_for_account(std::int32_t id, reference kind, std::int32_t change) noexcept {
    if (account != nullptr && kind != reference::view)
        account->count(id, kind == reference::logical, change);
}

} // namespace

BAT *insert(std::unique_ptr<bat_entry> made) {
    bat_pool &pool = the_pool();
    const std::lock_guard guard(pool.lock);
    const std::int32_t id = pool.take_number();
    made->name = "tmp_" + std::to_string(id);
    made->mirror_name = "rev_" + std::to_string(id);
    made->desc.bat_id = id;
    made->mirror.bat_id = -id;
    made->physical = 1;
    ++pool.used.bats;
    ++pool.used.physical;
    BBPrec &record = pool.record(id);
    publish_descriptors(record, *made);
    publish(record.mirror_name, made->mirror_name.c_str());
    publish(record.logical_name, made->name.c_str());
    BAT *const desc = &made->desc;
    pool.slot(id) = made.release();
    count_for_account(id, reference::physical, 1);
    return desc;
}

BAT *find(std::int32_t id) noexcept {
    bat_pool &pool = the_pool();
    const std::lock_guard guard(pool.lock);
    bat_entry *entry = pool.entry(id);
    if (entry == nullptr) {
        return nullptr;
    }
    return id < 0 ? &entry->mirror : &entry->desc;
}

std::int32_t add_reference(std::int32_t id, reference kind) noexcept {
    bat_pool &pool = the_pool();
    const std::lock_guard guard(pool.lock);
    bat_entry *entry = pool.entry(id);
    if (entry == nullptr) {
        return 0;
    }
    if (kind != reference::view) {
        ++pool.total(kind);
    }
    count_for_account(id, kind, 1);
    return ++count_of(*entry, kind);
}

void drop_reference(std::int32_t id, reference kind) noexcept {
    bat_pool &pool = the_pool();
    std::unique_ptr<bat_entry> dead;
    {
        const std::lock_guard guard(pool.lock);
        bat_entry *entry = pool.entry(id);
        if (entry == nullptr || count_of(*entry, kind) == 0) {
            ++pool.used.misuses;
            return;
        }
        --count_of(*entry, kind);
        count_for_account(id, kind, -1);
        if (kind != reference::view) {
            --pool.total(kind);
        }
        if (entry->physical != 0 || entry->logical != 0 || entry->views != 0) {
            return;
        }
        const std::int32_t number = entry->desc.bat_id;
        dead.reset(std::exchange(pool.slot(number), nullptr));
        withdraw(pool.record(number));
        try {
            pool.resting.push_back(number);
        } catch (const std::bad_alloc &) { // NOLINT(bugprone-empty-catch)
            // The number is not used again, which is no loss: giving back must not fail.
        }
        --pool.used.bats;
    }
    // Outside the lock: its memory goes back, and then what it held.
    const auto sources = dead->sources;
    dead.reset();
    for (const std::int32_t source : sources) {
        if (source != 0) {
            drop_reference(source, reference::view);
        }
    }
}

void keep(std::int32_t id) noexcept {
    // Taken before the other is dropped: the BAT must not die in between.
    if (add_reference(id, reference::logical) != 0) {
        drop_reference(id, reference::physical);
    } else {
        drop_reference(id, reference::logical); // counts the misuse
    }
}

BAT *load(std::int32_t id) noexcept {
    bat_pool &pool = the_pool();
    const std::lock_guard guard(pool.lock);
    bat_entry *entry = pool.entry(id);
    if (entry == nullptr) {
        return nullptr;
    }
    publish_descriptors(pool.record(entry->desc.bat_id), *entry);
    return id < 0 ? &entry->mirror : &entry->desc;
}

usage current_usage() noexcept {
    bat_pool &pool = the_pool();
    const std::lock_guard guard(pool.lock);
    return pool.used;
}

std::vector<live_bat> live_bats() {
    bat_pool &pool = the_pool();
    const std::lock_guard guard(pool.lock);
    std::vector<live_bat> live;
    for (std::int32_t id = 1; id < pool.next; ++id) {
        if (const bat_entry *entry = pool.slot(id); entry != nullptr) {
            live.push_back({id, entry->physical, entry->logical, entry->views, entry->info.count});
        }
    }
    return live;
}

} // namespace pool

reference_account::reference_account() noexcept : before_(std::exchange(pool::account, this)) {}

reference_account::~reference_account() {
    pool::account = before_;
    if (before_ == nullptr)
        return;
    for (const balance &each : balances_)
        before_->count(each.id, each.logical, each.held);
}

void reference_account::count(std::int32_t id, bool logical, std::int32_t change) noexcept {
    const std::int32_t number = id < 0 ? -id : id;
    for (balance &each : balances_) {
        if (each.id == number && each.logical == logical) {
            each.held += change;
            return;
        }
    }
    try {
        balances_.push_back({number, logical, change});
    } catch (const std::bad_alloc &) { // NOLINT(bugprone-empty-catch)
        // There is too little memory anyway.
    }
}

void reference_account::give_back() noexcept {
    for (const balance &each : std::exchange(balances_, {})) {
        for (std::int32_t i = 0; i < each.held; ++i) {
            pool::drop_reference(each.id, each.logical ? pool::reference::logical
                                                       : pool::reference::physical);
        }
    }
    balances_.clear();
}

bool instrumentation::unload(std::int32_t id) {
    pool::bat_pool &pool = pool::the_pool();
    const std::lock_guard guard(pool.lock);
    bat_entry *entry = pool.entry(id);
    if (entry == nullptr) {
        return false;
    }
    pool::withdraw_descriptors(pool.record(entry->desc.bat_id));
    return true;
}

} // namespace refkernel

using refkernel::instrumentation::enter;
using refkernel::instrumentation::operation;
namespace pool = refkernel::pool;

int BBPincref(int32_t id, int logical) {
    if (enter(operation::bbp_incref, id, logical)) {
        return 0;
    }
    return pool::add_reference(id,
                               logical != 0 ? pool::reference::logical : pool::reference::physical);
}

BAT *BBPdescriptor(int32_t id) {
    return enter(operation::bbp_descriptor, id) ? nullptr : pool::load(id);
}

void BBPreleaseref(int32_t id) {
    enter(operation::bbp_releaseref, id);
    pool::drop_reference(id, pool::reference::physical);
}

void BBPkeepref(int32_t id) {
    enter(operation::bbp_keepref, id);
    pool::keep(id);
}

void BBPdecref(int32_t id, int logical) {
    enter(operation::bbp_decref, id, logical);
    pool::drop_reference(id, logical != 0 ? pool::reference::logical : pool::reference::physical);
}

void BBPreclaim(BAT *b) {
    enter(operation::bbp_reclaim, b);
    pool::drop_reference(b->bat_id, pool::reference::physical);
}
