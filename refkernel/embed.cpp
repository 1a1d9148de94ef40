#include "vask/embed.h"

#include "refkernel/bats.h"
#include "refkernel/column_making.h"
#include "refkernel/columns.h"
#include "refkernel/pool.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

namespace refkernel {
namespace {

// Rows before the first one: as a number far from usual values and no nil, as an
// offset beyond the texts of a small heap.
constexpr unsigned char filler = 0x5b;

void set_marks(BATcol &c, const column_marks &marks) {
    c.sorted = marks.sorted ? SORTED_ASCENDING : 0;
    c.key = marks.key ? key_unique : 0;
    c.dense = marks.dense;
    c.nil = marks.nil;
    c.nonil = marks.nonil;
}

} // namespace

std::unique_ptr<bat_entry> entry_with_head(std::size_t count, const column_options &options) {
    if (count + options.first > max_rows) {
        throw kernel_error("more rows than a column can have");
    }
    if (!options.head_oids.empty() && (!options.stored_head || options.head_oids.size() != count)) {
        throw kernel_error("the head has another number of rows than the tail");
    }
    const auto positions = static_cast<BUN>(count + options.first);
    auto made = std::make_unique<bat_entry>();
    made->info = {options.first, static_cast<BUN>(count), positions};
    made->state.access = options.writable ? ACCESS_WRITABLE : ACCESS_READ;
    make_void(made->tail, 0);
    if (!options.stored_head) {
        make_void(made->head, options.seqbase);
        return made;
    }
    column &head = made->head;
    if (!make_column_memory(head, TYPE_oid, positions)) {
        throw std::bad_alloc();
    }
    std::memset(head.base, filler, std::size_t{options.first} << head.shift);
    for (BUN i = 0; i < count; ++i) {
        elements<oid>(head)[options.first + i] =
            options.head_oids.empty() ? options.seqbase + i : options.head_oids[i];
    }
    head.free = std::uint64_t{positions} << head.shift;
    head.seqbase = options.seqbase;
    set_marks(head, options.head);
    return made;
}

namespace {

oid oid_in(const BATcol &c, const BATinfo &info, BUN position) {
    if (c.type != TYPE_void && c.type != TYPE_oid) {
        throw kernel_error("the column holds no oids");
    }
    return oid_at(c, info, position);
}

int tail_type(int default_type, std::size_t width, const column_options &options) {
    const int type = options.type == TYPE_void ? default_type : options.type;
    if (!is_type(type) || is_varsized(type) ||
        BATatoms[type].atom_size != static_cast<int>(width)) {
        throw kernel_error("the column's type has another width than the values");
    }
    return type;
}

} // namespace

void set_tail(bat_entry &made, int type, std::size_t width, std::shared_ptr<memory::block> memory,
              const column_options &options) {
    column &tail = made.tail;
    static_cast<BATcol &>(tail) = BATcol{};
    tail.type = static_cast<std::int8_t>(type);
    tail.width = static_cast<std::int16_t>(width);
    tail.shift = static_cast<std::uint8_t>(std::countr_zero(width));
    tail.free = std::uint64_t{made.info.capacity} << tail.shift;
    set_marks(tail, options.tail);
    tail.adopt_memory(std::move(memory));
}

namespace {

template <class T>
bool holds(const void *values, std::size_t count, const char *wanted) {
    T nil;
    std::memcpy(&nil, wanted, sizeof nil);
    const T *const begin = static_cast<const T *>(values);
    // Counted and not found: without a way out, the loop goes by vectors.
    return std::count(begin, begin + count, nil) != 0;
}

// Nils are found by their bits, which no other value of a type has.
bool holds_nil(const BATcol &c, const BATinfo &info) {
    const void *const values = element_place(c, info.first);
    const char *const nil = nil_bytes(c.type).data();
    switch (c.width) {
        case 1:
            return holds<std::uint8_t>(values, info.count, nil);
        case 2:
            return holds<std::uint16_t>(values, info.count, nil);
        case 4:
            return holds<std::uint32_t>(values, info.count, nil);
        default:
            return holds<std::uint64_t>(values, info.count, nil);
    }
}

bat insert_numbers(std::unique_ptr<bat_entry> made, const column_options &options) {
    if (options.look_for_nils && !options.tail.nil && !options.tail.nonil) {
        const bool found = holds_nil(made->tail, made->info);
        made->tail.nil = found;
        made->tail.nonil = !found;
    }
    return insert(std::move(made));
}

} // namespace

std::shared_ptr<memory::block> rows_behind(BUN first, std::size_t count, std::size_t width) {
    auto memory = memory::allocate_block((first + count) * width);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    std::memset(memory->base, filler, first * width);
    return memory;
}

bat insert(std::unique_ptr<bat_entry> made) {
    return bat::adopt(pool::insert(std::move(made)));
}

bat bat::adopt(int32_t id) {
    return bat(id == int_nil ? 0 : id);
}

bat bat::adopt(BAT *created) {
    if (created == nullptr) {
        throw std::bad_alloc();
    }
    pool::keep(created->bat_id);
    return bat(created->bat_id);
}

bat bat::share(int32_t id) {
    if (pool::add_reference(id, pool::reference::logical) == 0) {
        throw kernel_error("no BAT has this number");
    }
    return bat(id);
}

bat &bat::operator=(bat &&other) noexcept {
    if (this != &other) {
        reset();
        id_ = std::exchange(other.id_, 0);
    }
    return *this;
}

void bat::reset() noexcept {
    if (id_ != 0) {
        pool::drop_reference(std::exchange(id_, 0), pool::reference::logical);
    }
}

BAT *bat::record() const {
    return pool::find(id_);
}

BAT &bat::held() const {
    BAT *b = record();
    if (b == nullptr) {
        throw kernel_error("the handle holds no BAT");
    }
    return *b;
}

BUN bat::count() const {
    return held().info->count;
}

int bat::type() const {
    return held().tail->type;
}

nil_knowledge bat::nils() const {
    const BATcol &tail = *held().tail;
    if (tail.nil) {
        return nil_knowledge::some;
    }
    return tail.nonil ? nil_knowledge::none : nil_knowledge::unknown;
}

std::string describe(const bat &column) {
    const BAT *const b = column.record();
    if (b == nullptr) {
        return "no column";
    }
    std::string told = std::to_string(b->info->count) + " rows of ";
    if (column.is_void()) {
        return told + (b->tail->seqbase == oid_nil ? "a void column of nils" : "a void column");
    }
    told += type_name(b->tail->type);
    switch (column.nils()) {
        case nil_knowledge::none:
            return told + " without nils";
        case nil_knowledge::some:
            return told + " with nils";
        default:
            return told + " in which nobody looked for nils";
    }
}

void *bat::rows(std::size_t width) const {
    const BAT &b = held();
    const BATcol &c = *b.tail;
    if (static_cast<std::size_t>(c.width) != width) {
        throw kernel_error("the column has elements of another width");
    }
    return element_place(c, b.info->first);
}

BUN bat::position(BUN row) const {
    const BATinfo &info = *held().info;
    if (row >= info.count) {
        throw kernel_error("no such row");
    }
    return info.first + row;
}

std::string_view bat::text(BUN row) const {
    const BATcol &tail = *held().tail;
    if (!tail.varsized) {
        throw kernel_error("the column holds no texts");
    }
    return text_at(tail, position(row));
}

bool bat::is_nil(BUN row) const {
    const BAT &b = held();
    oid scratch = 0;
    return is_nil_value(*b.tail, value_at(*b.tail, *b.info, position(row), scratch));
}

oid bat::tail_oid(BUN row) const {
    const BAT &b = held();
    return oid_in(*b.tail, *b.info, position(row));
}

oid bat::head_oid(BUN row) const {
    const BAT &b = held();
    return oid_in(*b.head, *b.info, position(row));
}

bat make_column_from_bytes(const void *values, std::size_t count, std::size_t width,
                           int default_type, const column_options &options) {
    const int type = tail_type(default_type, width, options);
    auto made = entry_with_head(count, options);
    auto memory = rows_behind(options.first, count, width);
    if (count > 0) {
        std::memcpy(static_cast<char *>(memory->base) + options.first * width, values,
                    count * width);
    }
    set_tail(*made, type, width, std::move(memory), options);
    return insert_numbers(std::move(made), options);
}

bat make_column_in(std::shared_ptr<memory::block> memory, std::size_t count, std::size_t width,
                   int default_type, const column_options &options) {
    if (memory.use_count() > 1) {
        memory->mark_shared(); // the caller reads it, too
    }
    const int type = tail_type(default_type, width, options);
    auto made = entry_with_head(count, options);
    set_tail(*made, type, width, std::move(memory), options);
    return insert_numbers(std::move(made), options);
}

bat make_void_column(BUN count, oid tail_seqbase, const column_options &options) {
    auto made = entry_with_head(count, options);
    make_void(made->tail, tail_seqbase);
    return insert(std::move(made));
}

bat make_empty(int head_type, int tail_type, BUN capacity) {
    BAT *made = new_bat(head_type, tail_type, capacity);
    if (made == nullptr) {
        throw kernel_error("no BAT of these types can be made");
    }
    return bat::adopt(made);
}

bat view_rows(const bat &source, BUN from, BUN count) {
    BAT *b = &source.held();
    if (from > b->info->count || count > b->info->count - from) {
        throw kernel_error("the slice reaches beyond the column's rows");
    }
    // The view's columns begin where the source's memory does, so that its rows
    // keep their positions.
    bat made = bat::adopt(make_view(b, column_of(b->head), b, column_of(b->tail), 0, 0, count));
    BAT *view = made.record();
    view->info->first = b->info->first + from;
    view->info->capacity = view->info->first + count;
    for (BATcol *c : {view->head, view->tail}) {
        c->free = is_void(*c) ? 0 : std::uint64_t{view->info->capacity} << c->shift;
        if (is_dense(*c) && c->seqbase != oid_nil) {
            c->seqbase += from;
        }
        if (count != b->info->count && !is_void(*c)) {
            c->nil = 0; // the nils may all lie outside
        }
    }
    return made;
}

} // namespace refkernel
