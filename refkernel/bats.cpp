#include "refkernel/bats.h"

#include "refkernel/error_reports.h"
#include "refkernel/instrumented.h"
#include "vask/refkernel/atoms.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

using refkernel::instrumentation::enter;
using refkernel::instrumentation::operation;

namespace refkernel {

std::unique_ptr<bat_entry> make_entry(int head_type, int tail_type, BUN capacity) {
    if (!is_type(head_type) || !is_type(tail_type)) {
        refkernel::record_error("BATnew: no such type\n");
        return nullptr;
    }
    auto made = std::make_unique<bat_entry>();
    if (!make_column_memory(made->head, head_type, capacity) ||
        !make_column_memory(made->tail, tail_type, capacity)) {
        throw std::bad_alloc();
    }
    made->info.capacity = capacity;
    return made;
}

BAT *new_bat(int head_type, int tail_type, BUN capacity) noexcept {
    return or_null("BATnew", [&]() -> BAT * {
        auto made = make_entry(head_type, tail_type, capacity);
        return made == nullptr ? nullptr : pool::insert(std::move(made));
    });
}

bool extend(BAT &b, BUN capacity) noexcept {
    if (capacity > b.info->capacity) {
        if (!grow_column(column_of(b.head), capacity) ||
            !grow_column(column_of(b.tail), capacity)) {
            return false;
        }
        b.info->capacity = capacity;
    }
    return true;
}

BUN next_capacity(const BAT &b) noexcept {
    constexpr std::uint64_t smallest_growth = 256;
    const std::uint64_t capacity = b.info->capacity;
    return static_cast<BUN>(
        std::clamp<std::uint64_t>(capacity + capacity / 2, smallest_growth, max_rows));
}

bool set_count(BAT &b, BUN count) noexcept {
    const std::uint64_t positions = std::uint64_t{b.info->first} + count;
    const bool stores_nothing = is_void(*b.head) && is_void(*b.tail);
    if (positions > max_rows || (positions > b.info->capacity && !stores_nothing)) {
        return false;
    }
    b.info->count = count;
    b.info->capacity = std::max(b.info->capacity, static_cast<BUN>(positions));
    for (BATcol *c : {b.head, b.tail}) {
        c->free = is_void(*c) ? 0 : positions << c->shift;
        column_of(c).drop_hash();
    }
    return true;
}

} // namespace refkernel

namespace {

using refkernel::bat_entry;
using refkernel::column;
using refkernel::column_of;

// A column of all rows of another, which starts at position 0, as the wanted
// type: its own, or stored oids for a void column.
void copy_column(column &to, const column &from, const BATinfo &info, int type, bool writable) {
    if (type != from.type && !(type == TYPE_oid && refkernel::is_void(from))) {
        throw std::invalid_argument("no copy into another type");
    }
    if (type == TYPE_void) {
        refkernel::make_void(to, from.seqbase);
        return;
    }
    if (refkernel::is_void(from)) {
        for (BUN i = 0; i < info.count; ++i) {
            refkernel::elements<oid>(to)[i] = refkernel::oid_at(from, info, info.first + i);
        }
    } else if (from.varsized) {
        to.width = from.width;
        to.shift = from.shift;
        if (!refkernel::grow_column(to, info.count)) {
            throw std::bad_alloc();
        }
        if (!writable) {
            to.share_heap(from);
        } else if (auto heap = from.heap->clone(); heap != nullptr) {
            to.adopt_heap(std::move(heap));
        } else {
            throw std::bad_alloc();
        }
    }
    const std::size_t bytes = std::size_t{info.count} << to.shift;
    if (!refkernel::is_void(from) && bytes > 0) {
        std::memcpy(to.base, refkernel::element_place(from, info.first), bytes);
    }
    to.free = bytes;
    to.sorted = from.sorted;
    to.key = from.key;
    to.dense = from.dense;
    to.nonil = from.nonil;
    to.nil = from.nil;
    to.seqbase = from.seqbase;
}

} // namespace

BAT *BATnew(int head_type, int tail_type, BUN capacity) {
    if (enter(operation::bat_new, head_type, tail_type, capacity)) {
        return nullptr;
    }
    return refkernel::new_bat(head_type, tail_type, capacity);
}

BAT *BATsetcount(BAT *b, BUN count) {
    enter(operation::bat_setcount, b, count);
    if (!refkernel::set_count(*b, count)) {
        refkernel::record_error("BATsetcount: no room for %u rows\n", count);
        return nullptr;
    }
    return b;
}

BUN BATgrows(BAT *b) {
    enter(operation::bat_grows, b);
    return refkernel::next_capacity(*b);
}

BAT *BATextend(BAT *b, BUN capacity) {
    if (enter(operation::bat_extend, b, capacity)) {
        return nullptr;
    }
    if (!refkernel::extend(*b, capacity)) {
        refkernel::record_error("BATextend: out of memory\n");
        return nullptr;
    }
    return b;
}

void BATseqbase(BAT *b, oid seqbase) {
    enter(operation::bat_seqbase, b, seqbase);
    b->head->seqbase = seqbase;
    column_of(b->head).set_alignment(0);
    if (refkernel::is_void(*b->head)) {
        refkernel::set_void_marks(*b->head);
        column_of(b->head).drop_hash();
    }
}

BAT *BATkey(BAT *b, int flag) {
    enter(operation::bat_key, b, flag);
    b->head->key = flag != 0 ? refkernel::key_unique : 0;
    return b;
}

BAT *BATsetaccess(BAT *b, int mode) {
    if (enter(operation::bat_setaccess, b, mode)) {
        return nullptr;
    }
    b->state->access = mode == ACCESS_READ ? ACCESS_READ : ACCESS_WRITABLE;
    if (refkernel::instrumentation::replaces_on_setaccess()) {
        return refkernel::or_null("BATsetaccess", [&] {
            const column &head = column_of(b->head);
            const column &tail = column_of(b->tail);
            BAT *other = refkernel::make_view(b, head, b, tail, b->info->first, b->info->first,
                                              b->info->count);
            // The creator's reference goes over to the BAT that takes its place.
            refkernel::pool::drop_reference(b->bat_id, refkernel::pool::reference::physical);
            return other;
        });
    }
    return b;
}

BAT *BATcopy(BAT *b, int head_type, int tail_type, int writable) {
    if (enter(operation::bat_copy, b, head_type, tail_type, writable)) {
        return nullptr;
    }
    return refkernel::or_null("BATcopy", [&]() -> BAT * {
        const BATinfo &info = *b->info;
        auto made = refkernel::make_entry(head_type, tail_type, info.count);
        if (made == nullptr) {
            return nullptr;
        }
        try {
            copy_column(made->head, column_of(b->head), info, head_type, writable != 0);
            copy_column(made->tail, column_of(b->tail), info, tail_type, writable != 0);
        } catch (const std::invalid_argument &) {
            refkernel::record_error("BATcopy: no copy of type %d as %d\n", b->tail->type,
                                    tail_type);
            return nullptr;
        }
        made->info.count = info.count;
        made->state.access = writable != 0 ? ACCESS_WRITABLE : ACCESS_READ;
        return refkernel::pool::insert(std::move(made));
    });
}

BAT *BATmaterialize(BAT *b) {
    if (enter(operation::bat_materialize, b)) {
        return nullptr;
    }
    for (BATcol *c : {b->head, b->tail}) {
        if (refkernel::is_void(*c) && !materialize_column(column_of(c), *b->info)) {
            refkernel::record_error("BATmaterialize: out of memory\n");
            return nullptr;
        }
    }
    return b;
}

BAT *BATmaterializeh(BAT *b) {
    if (enter(operation::bat_materializeh, b)) {
        return nullptr;
    }
    if (!materialize_column(column_of(b->head), *b->info)) {
        refkernel::record_error("BATmaterializeh: out of memory\n");
        return nullptr;
    }
    return b;
}

BAT *BATaccess(BAT *b, int what, int advice, int load) {
    if (enter(operation::bat_access, b, what, advice, load)) {
        return nullptr;
    }
    refkernel::instrumentation::note_access(b->bat_id, what, load);
    return b;
}
