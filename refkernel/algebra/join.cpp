#include "refkernel/algebra/head_lookup.h"
#include "refkernel/algebra/row_copies.h"
#include "refkernel/bats.h"
#include "refkernel/error_reports.h"
#include "refkernel/instrumented.h"

#include <utility>
#include <vector>

namespace refkernel::algebra {
namespace {

bool holds_oids(const BATcol &c) {
    return is_void(c) || c.type == TYPE_oid;
}

//! Positions of the rows that belong together, in the order of l's rows and, for one of them, of
//! r's.
struct matches {
    std::vector<BUN> left;
    std::vector<BUN> right;
    bool all_once = true; // each row of l has one match
};

matches find_matches(const BAT &l, BAT &r) {
    const BUN rows = l.info->count;
    const head_lookup heads(r, rows);
    matches found;
    found.left.reserve(rows);
    found.right.reserve(rows);
    for (BUN p = l.info->first; p < l.info->first + rows; ++p) {
        const oid value = oid_at(*l.tail, *l.info, p);
        const std::size_t before = found.left.size();
        for (BUN q = heads.find(value); q != NO_BUN; q = heads.find_next(q, value)) {
            found.left.push_back(p);
            found.right.push_back(q);
        }
        found.all_once = found.all_once && found.left.size() == before + 1;
    }
    return found;
}

BAT *join(const BAT &l, BAT &r) {
    const matches found = find_matches(l, r);
    if (found.right.size() > max_rows) {
        record_error("BATjoin: too many matches\n");
        return nullptr;
    }
    auto made = std::make_unique<bat_entry>();
    if (found.all_once && is_void(*l.head))
        make_void(made->head, l.head->seqbase);
    else
        copy_rows(made->head, column_of(l.head), *l.info, found.left);
    copy_rows(made->tail, column_of(r.tail), *r.info, found.right);
    made->info.count = made->info.capacity = static_cast<BUN>(found.right.size());
    return pool::insert(std::move(made));
}

} // namespace
} // namespace refkernel::algebra

BAT *BATjoin(BAT *l, BAT *r, BUN estimate) {
    using namespace refkernel;
    if (instrumentation::enter(instrumentation::operation::bat_join, l, r, estimate))
        return nullptr;
    if (!algebra::holds_oids(*l->tail) || !algebra::holds_oids(*r->head)) {
        record_error("BATjoin: a tail and a head of oids required\n");
        return nullptr;
    }
    return or_null("BATjoin", [&] { return algebra::join(*l, *r); });
}
