// Views over columns of other BATs, and which heads belong row by row.
#include "refkernel/bats.h"
#include "refkernel/instrumented.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

using refkernel::instrumentation::enter;
using refkernel::instrumentation::operation;

namespace refkernel {

BAT *make_view(BAT *head_source, const column &head, BAT *tail_source, const column &tail,
               BUN head_first, BUN tail_first, BUN count) {
    const auto holds_all = [count](const BAT &source, BUN first) {
        return first == source.info->first && count == source.info->count;
    };
    auto made = std::make_unique<bat_entry>();
    made->head.share(head, head_first, holds_all(*head_source, head_first));
    made->tail.share(tail, tail_first, holds_all(*tail_source, tail_first));
    made->info.count = count;
    made->info.capacity = count;
    made->state.access = ACCESS_READ;
    // A void column has nothing to share, and its BAT need not stay for it.
    made->sources = {is_void(head) ? 0 : std::abs(head_source->bat_id),
                     is_void(tail) ? 0 : std::abs(tail_source->bat_id)};
    if (made->sources[0] == made->sources[1]) {
        made->sources[1] = 0;
    }
    const auto sources = made->sources;
    BAT *view = pool::insert(std::move(made));
    for (const std::int32_t source : sources) {
        if (source != 0) {
            pool::add_reference(source, pool::reference::view);
        }
    }
    return view;
}

namespace {

std::atomic<std::uint64_t> next_alignment{1};

// Consecutive oids from a known first one.
bool is_countable(const BATcol &c) {
    return is_dense(c) && c.seqbase != oid_nil;
}

} // namespace

void align_heads(column &mine, column &other) noexcept {
    // A void head says which row is which by its seqbase alone.
    if (is_void(mine) && is_dense(other) && mine.seqbase != other.seqbase) {
        mine.seqbase = other.seqbase;
        set_void_marks(mine);
        mine.drop_hash();
    }
    std::uint64_t number = other.alignment_number();
    if (number == 0) {
        const std::uint64_t fresh = next_alignment.fetch_add(1, std::memory_order_relaxed);
        if (other.alignment.compare_exchange_strong(number, fresh, std::memory_order_relaxed)) {
            number = fresh;
        }
    }
    mine.set_alignment(number);
}

bool heads_are_aligned(const BAT &a, const BAT &b) noexcept {
    const column &mine = column_of(a.head);
    const column &other = column_of(b.head);
    if (a.info->count != b.info->count) {
        return false;
    }
    const std::uint64_t number = mine.alignment_number();
    if (number != 0 && number == other.alignment_number()) {
        return true;
    }
    if (is_countable(mine) && is_countable(other)) {
        return mine.seqbase == other.seqbase;
    }
    // Views over the same stored head.
    return !is_void(mine) && !is_void(other) &&
           element_place(mine, a.info->first) == element_place(other, b.info->first);
}

} // namespace refkernel

using refkernel::column_of;

BAT *VIEWcreate(BAT *a, BAT *b) {
    if (enter(operation::view_create, a, b)) {
        return nullptr;
    }
    return refkernel::or_null("VIEWcreate", [&] {
        return refkernel::make_view(a, column_of(a->head), b, column_of(b->tail), a->info->first,
                                    b->info->first, std::min(a->info->count, b->info->count));
    });
}

BAT *VIEWcombine(BAT *b) {
    if (enter(operation::view_combine, b)) {
        return nullptr;
    }
    return refkernel::or_null("VIEWcombine", [&] {
        const refkernel::column &head = column_of(b->head);
        return refkernel::make_view(b, head, b, head, b->info->first, b->info->first,
                                    b->info->count);
    });
}

int ALIGNsetH(BAT *a, BAT *b) {
    if (enter(operation::align_seth, a, b)) {
        return 0;
    }
    refkernel::align_heads(column_of(a->head), column_of(b->head));
    return 1;
}

int ALIGNsynced(BAT *a, BAT *b) {
    if (enter(operation::align_synced, a, b)) {
        return 0;
    }
    return refkernel::heads_are_aligned(*a, *b) ? 1 : 0;
}
