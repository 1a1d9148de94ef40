// The table of element types, and how a type is added to it.
#ifndef VASK_REFKERNEL_ATOMS_H
#define VASK_REFKERNEL_ATOMS_H

#include "vask/refkernel/contract.h"

#include <span>
#include <string>
#include <string_view>

namespace refkernel {

// User atoms that the kernel brings along.
inline constexpr int type_timestamp = 14; //!< microseconds in 64 bits, stored as lng
inline constexpr int type_tag = 15;       //!< a text with a nil of its own, stored as str

//! Codes from 0 up to this one can have a type.
inline constexpr int type_limit = 128;

//! The nil of text columns; no valid UTF-8 text begins with this byte.
inline constexpr std::string_view str_nil_text = "\x80";

//! Whether the code has a type.
REFKERNEL_API bool is_type(int type);
//! Whether elements of the type live in a heap.
REFKERNEL_API bool is_varsized(int type);
//! The type's name, such as "int"; the empty text for a code without one.
REFKERNEL_API std::string_view type_name(int type);

struct user_atom {
    std::string name;
    int storage = TYPE_lng; //!< a type of the kernel, not void
    //! The nil: the bytes of one value, or a text; empty: the nil of the storage type.
    std::string nil;
    //! Called with each value before it is stored by BUNfastins; can be null.
    int (*fix)(const void *value) = nullptr;
};

/*
 * Adds a type and gives back its code, above TYPE_str. It stays until the
 * process ends. A type of the same name is found and not added again.
 *
 * Throws std::invalid_argument for an unknown storage type, a nil of the wrong
 * length, and when no code is left. Not to be called while operators run.
 */
REFKERNEL_API int register_atom(const user_atom &atom);

//! The bytes of a type's nil: atom_size of them, or the text.
REFKERNEL_API std::string_view nil_bytes(int type);

} // namespace refkernel

#endif
