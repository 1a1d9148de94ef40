#include "vask/refkernel/atoms.h"

#include "refkernel/columns.h"
#include "vask/refkernel/nil.h"

#include <array>
#include <cmath>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>

BATatom BATatoms[refkernel::type_limit];
const int32_t int_nil = refkernel::nil_of<int32_t>();
const oid oid_nil = refkernel::nil_of<oid>();

namespace refkernel {
namespace {

// A total order, so that BATmin and sorting need not treat any value apart: a
// NaN lies above all numbers and equals itself, and so never the nil.
template <class T>
int compare(const void *left, const void *right) {
    const T a = *static_cast<const T *>(left);
    const T b = *static_cast<const T *>(right);
    if constexpr (std::floating_point<T>) {
        const bool a_is_nan = std::isnan(a);
        const bool b_is_nan = std::isnan(b);
        if (a_is_nan || b_is_nan) {
            return static_cast<int>(a_is_nan) - static_cast<int>(b_is_nan);
        }
    }
    return static_cast<int>(a > b) - static_cast<int>(a < b);
}

// Like every nil, that of a text lies below all values.
int compare_text(const void *left, const void *right) {
    const char *a = static_cast<const char *>(left);
    const char *b = static_cast<const char *>(right);
    const bool a_is_nil = *a == str_nil_text.front();
    const bool b_is_nil = *b == str_nil_text.front();
    if (a_is_nil != b_is_nil) {
        return a_is_nil ? -1 : 1;
    }
    return std::strcmp(a, b);
}

// The column gives its heap up to a reader that shares it before it adds to it.
int put_text(BATvheap *, void *place, const void *value, BATcol *c) {
    text_heap *heap = own_heap(column_of(c));
    const std::uint32_t offset = heap == nullptr ? 0 : heap->put(static_cast<const char *>(value));
    std::memcpy(place, &offset, sizeof offset);
    return offset != 0;
}

template <class T>
const void *static_nil() {
    static constexpr T nil = nil_of<T>();
    return &nil;
}

template <class T>
constexpr BATatom plain_atom(std::int32_t storage) {
    return {storage, sizeof(T), nullptr, compare<T>, nullptr, nullptr};
}

struct atom_table {
    std::array<std::string, type_limit> names;
    std::array<std::string, type_limit> nils;
    std::mutex lock;

    atom_table() {
        // Operators of the storage classes int and lng run on oid and wrd: no
        // operator has a class for either. The order is that of int as well,
        // in which the nil lies below all row numbers.
        BATatom oids = with_nil<oid>(TYPE_int);
        oids.atom_cmp = compare<std::int32_t>;
        add(TYPE_oid, "oid", oids);
        oids.atom_storage = TYPE_void;
        oids.atom_size = 0;
        add(TYPE_void, "void", oids);
        add(TYPE_bit, "bit", with_nil<bit>(TYPE_bit));
        add(TYPE_byte, "byte", with_nil<bte>(TYPE_byte));
        add(TYPE_bte, "bte", with_nil<bte>(TYPE_bte));
        add(TYPE_sht, "sht", with_nil<sht>(TYPE_sht));
        add(TYPE_int, "int", with_nil<std::int32_t>(TYPE_int));
        add(TYPE_wrd, "wrd", with_nil<wrd>(TYPE_lng));
        add(TYPE_flt, "flt", with_nil<flt>(TYPE_flt));
        add(TYPE_dbl, "dbl", with_nil<dbl>(TYPE_dbl));
        add(TYPE_lng, "lng", with_nil<lng>(TYPE_lng));
        add(TYPE_str, "str",
            {TYPE_str, sizeof(std::uint32_t), str_nil_text.data(), compare_text, nullptr,
             put_text});
        add_user(type_timestamp, {"timestamp", TYPE_lng, {}, nullptr});
        add_user(type_tag, {"tag", TYPE_str, "\x80tag", nullptr});
    }

    template <class T>
    static BATatom with_nil(std::int32_t storage) {
        BATatom atom = plain_atom<T>(storage);
        atom.atom_null = static_nil<T>();
        return atom;
    }

    void add(int type, const char *name, const BATatom &atom) {
        names[static_cast<std::size_t>(type)] = name;
        BATatoms[type] = atom;
    }

    void add_user(int type, const user_atom &user) {
        BATatom atom = BATatoms[user.storage];
        atom.atom_fix = user.fix;
        std::string &nil = nils[static_cast<std::size_t>(type)];
        if (!user.nil.empty()) {
            nil = user.nil;
            atom.atom_null = nil.data();
        }
        add(type, user.name.c_str(), atom);
    }
};

// Made when first asked for, which is before any other code of the process that
// was linked against this library runs.
atom_table &table() {
    static atom_table made;
    return made;
}

const atom_table &made_at_load = table();

} // namespace

bool is_type(int type) {
    return type >= 0 && type < type_limit && BATatoms[type].atom_cmp != nullptr;
}

bool is_varsized(int type) {
    return BATatoms[type].atom_storage == TYPE_str;
}

std::string_view type_name(int type) {
    return is_type(type) ? std::string_view(made_at_load.names[static_cast<std::size_t>(type)])
                         : std::string_view();
}

int register_atom(const user_atom &atom) {
    if (atom.storage == TYPE_void || atom.storage > TYPE_str || !is_type(atom.storage)) {
        throw std::invalid_argument("a user atom needs a stored type of the kernel");
    }
    if (!atom.nil.empty() && !is_varsized(atom.storage) &&
        atom.nil.size() != static_cast<std::size_t>(BATatoms[atom.storage].atom_size)) {
        throw std::invalid_argument("the nil has another length than the values");
    }
    atom_table &atoms = table();
    const std::lock_guard guard(atoms.lock);
    for (int type = TYPE_str + 1; type < type_limit; ++type) {
        if (!is_type(type)) {
            atoms.add_user(type, atom);
            return type;
        }
        if (atoms.names[static_cast<std::size_t>(type)] == atom.name) {
            return type;
        }
    }
    throw std::invalid_argument("no type code is left");
}

std::string_view nil_bytes(int type) {
    const BATatom &atom = BATatoms[type];
    const char *nil = static_cast<const char *>(atom.atom_null);
    return is_varsized(type) ? std::string_view(nil)
                             : std::string_view(nil, static_cast<std::size_t>(atom.atom_size));
}

} // namespace refkernel
