#include "refkernel/instrumented.h"

#include "refkernel/memory.h"

#include <array>
#include <cstddef>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace refkernel::instrumentation {
namespace {

constexpr std::size_t operations = static_cast<std::size_t>(operation::count_of_operations);

constexpr std::array names = {"BBPincref",
                              "BBPdescriptor",
                              "BBPreleaseref",
                              "BBPkeepref",
                              "BBPdecref",
                              "BBPreclaim",
                              "BATnew",
                              "BATsetcount",
                              "BATextend",
                              "BATgrows",
                              "BUNfastins",
                              "GDKupgradevarheap",
                              "BATseqbase",
                              "BATkey",
                              "BATsetaccess",
                              "BATcopy",
                              "BATmaterialize",
                              "BATmaterializeh",
                              "BATsample",
                              "VIEWcreate",
                              "VIEWcombine",
                              "ALIGNsetH",
                              "ALIGNsynced",
                              "BATaccess",
                              "BAThash",
                              "GDKmalloc",
                              "GDKzalloc",
                              "GDKcalloc",
                              "GDKrealloc",
                              "GDKfree",
                              "createException",
                              "GDKerror",
                              "GDKfatal",
                              "BATmin",
                              "BATmax",
                              "doALGfetch",
                              "VALget",
                              "VALset",
                              "VALconvert",
                              "BATjoin",
                              "GRPgroup",
                              "GRPderive",
                              "AX3aggrX3_count3Nils"};
static_assert(names.size() == operations);

struct observation {
    mutable std::mutex lock;
    bool standing = false;
    bool recording = false;
    std::uint64_t failures = 0;
    std::array<std::uint64_t, operations> calls{};
    std::array<std::uint64_t, operations> fail_in{}; // calls until the failing one; 0: none
    std::vector<recorded_call> record;
    std::map<std::pair<int32_t, int>, std::int64_t> open_accesses;

    void clear() {
        recording = false;
        failures = 0;
        calls.fill(0);
        fail_in.fill(0);
        record.clear();
        open_accesses.clear();
    }
};

observation observed;

// While a call_counter stands. Counts alone need no lock, and the operations that are called most,
// those of memory, come from many tasks at once.
std::atomic<bool> counting{false};
std::array<std::atomic<std::uint64_t>, operations> counts{};

void stand_up() {
    if (observed.standing) {
        throw std::logic_error("only one watch or counter can stand at a time");
    }
    observed.clear();
    observed.standing = true;
}

std::atomic<bool> setaccess_replaces{false};
std::atomic<bool> groupings_unload{false};
std::atomic<bool> materialize_keeps_marks{false};

std::size_t index_of(operation op) {
    return static_cast<std::size_t>(op);
}

} // namespace

std::atomic<bool> watching{false};

const char *operation_name(operation op) {
    return names[index_of(op)];
}

void argument::append_to(std::string &record) const {
    if (kind_ == kind::number) {
        record += std::to_string(number_);
    } else if (text_ == nullptr) {
        record += "null";
    } else {
        record.append("\"").append(text_).append("\"");
    }
}

bool enter_watched(operation op, std::initializer_list<argument> arguments) {
    if (own_work::stands())
        return false;
    if (counting.load(std::memory_order_relaxed)) {
        counts[index_of(op)].fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    const std::lock_guard guard(observed.lock);
    if (!observed.standing) {
        return false;
    }
    ++observed.calls[index_of(op)];
    if (observed.recording) {
        std::string text = operation_name(op);
        text += '(';
        const char *separator = "";
        for (const argument &each : arguments) {
            text += separator;
            each.append_to(text);
            separator = ", ";
        }
        text += ')';
        observed.record.push_back({op, std::move(text)});
    }
    std::uint64_t &fail_in = observed.fail_in[index_of(op)];
    if (fail_in == 0 || --fail_in != 0) {
        return false;
    }
    ++observed.failures;
    return true;
}

watch::watch() {
    const std::lock_guard guard(observed.lock);
    stand_up();
    memory::start_account();
    watching.store(true);
}

watch::~watch() {
    const std::lock_guard guard(observed.lock);
    watching.store(false);
    memory::stop_account();
    observed.standing = false;
    observed.clear();
}

void watch::fail_at(operation op, std::uint64_t nth) {
    const std::lock_guard guard(observed.lock);
    observed.fail_in[index_of(op)] = nth;
}

std::uint64_t watch::calls(operation op) const {
    const std::lock_guard guard(observed.lock);
    return observed.calls[index_of(op)];
}

std::uint64_t watch::failures() const {
    const std::lock_guard guard(observed.lock);
    return observed.failures;
}

void watch::record(bool on) {
    const std::lock_guard guard(observed.lock);
    observed.recording = on;
}

std::vector<recorded_call> watch::recorded() const {
    const std::lock_guard guard(observed.lock);
    return observed.record;
}

std::vector<std::string> watch::recorded_texts() const {
    std::vector<std::string> texts;
    for (recorded_call &call : recorded()) {
        texts.push_back(std::move(call.text));
    }
    return texts;
}

std::vector<unpaired_access> watch::unpaired_accesses() const {
    return open_accesses();
}

call_counter::call_counter() {
    const std::lock_guard guard(observed.lock);
    stand_up();
    for (auto &count : counts) {
        count.store(0);
    }
    counting.store(true);
    watching.store(true);
}

call_counter::~call_counter() {
    const std::lock_guard guard(observed.lock);
    watching.store(false);
    counting.store(false);
    observed.standing = false;
}

std::uint64_t call_counter::calls(operation op) const {
    return counts[index_of(op)].load();
}

std::vector<unpaired_access> open_accesses() {
    const std::lock_guard guard(observed.lock);
    std::vector<unpaired_access> unpaired;
    for (const auto &[key, open] : observed.open_accesses) {
        if (open != 0) {
            unpaired.push_back({key.first, key.second, open});
        }
    }
    return unpaired;
}

std::uint64_t watch::bytes_outstanding() const {
    return memory::bytes_outstanding();
}

std::uint64_t watch::most_bytes_outstanding() const {
    return memory::most_bytes_outstanding();
}

void watch::clear() {
    const std::lock_guard guard(observed.lock);
    observed.clear();
}

void note_access(int32_t bat_id, int what, int load) {
    if (!watching.load(std::memory_order_relaxed) || counting.load(std::memory_order_relaxed))
        [[likely]] {
        return;
    }
    const std::lock_guard guard(observed.lock);
    observed.open_accesses[{bat_id, what}] += load;
}

void replace_on_setaccess(bool on) {
    setaccess_replaces.store(on);
}

bool replaces_on_setaccess() {
    return setaccess_replaces.load();
}

void unload_groupings(bool on) {
    groupings_unload.store(on);
}

bool unloads_groupings() {
    return groupings_unload.load();
}

void keep_marks_on_materialize(bool on) {
    materialize_keeps_marks.store(on);
}

bool keeps_marks_on_materialize() {
    return materialize_keeps_marks.load();
}

} // namespace refkernel::instrumentation
