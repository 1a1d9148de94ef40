/*
 * The reference kernel from C++: make a column, hand it to an operator, read the
 * result.
 *
 *     using namespace refkernel;
 *     bat values = make_column<int32_t>(std::vector{3, nil_of<int32_t>(), 4});
 *     int64_t sum = call<int64_t>(vask_sum_int, values);
 *
 *     text_builder names;
 *     names.append("ash");
 *     names.append_nil();
 *     names.append("elm");
 *     grouping by_name = group_by(names.finish());
 *     bat sums = call<bat>(vask_grp_sum, values, by_name.map, by_name.extents);
 *
 * Failures of the kernel are thrown: std::bad_alloc when memory runs out,
 * kernel_error for a request that cannot be met. call() throws what an operator
 * answers as operator_error.
 *
 * Thread safety: columns may be made, read and dropped from any thread; one
 * handle or builder belongs to one thread at a time.
 */
#ifndef VASK_EMBED_H
#define VASK_EMBED_H

#include "vask/refkernel/contract.h"
// Without C++20 the one error of contract.h is enough.
#if __cplusplus >= 202002L

#include "vask/ops.h"
#include "vask/refkernel/atoms.h"
#include "vask/refkernel/block.h"
#include "vask/refkernel/errors.h"
#include "vask/refkernel/nil.h"
#include "vask/refkernel/reference_account.h"
#include "vask/refkernel/text_sharing.h"

#include <array>
#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace refkernel {

class text_heap;

class kernel_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

//! The type code that goes with a C++ type if nothing else is asked for.
template <class T>
inline constexpr int type_code_of = TYPE_void;
template <>
inline constexpr int type_code_of<std::int8_t> = TYPE_bte;
template <>
inline constexpr int type_code_of<std::int16_t> = TYPE_sht;
template <>
inline constexpr int type_code_of<std::int32_t> = TYPE_int;
template <>
inline constexpr int type_code_of<std::uint32_t> = TYPE_oid;
template <>
inline constexpr int type_code_of<std::int64_t> = TYPE_lng;
template <>
inline constexpr int type_code_of<float> = TYPE_flt;
template <>
inline constexpr int type_code_of<double> = TYPE_dbl;

//! A C++ type in which columns are made and read.
template <class T>
concept element = type_code_of<T>
!= TYPE_void;

//! What is known of a column's values. Operators believe these marks: the
//! truth is the maker's business. Without nil and nonil nothing is known of nils.
struct column_marks {
    bool sorted = false; //!< ascending
    bool key = false;    //!< unique
    bool dense = false;  //!< consecutive oids
    bool nil = false;    //!< holds a nil
    bool nonil = false;  //!< holds no nil
};

struct column_options {
    //! Tail type; TYPE_void: the code that goes with the C++ type. Its values must
    //! be as wide as the C++ type. The type of a text column is in its text_options.
    int type = TYPE_void;
    column_marks tail{};
    //! Look through values for which neither nil nor nonil is given, and set the one that holds.
    bool look_for_nils = true;

    //! A void head of oids from seqbase on, or, if stored_head is set, stored
    //! oids: those of head_oids, or as many from seqbase on.
    bool stored_head = false;
    oid seqbase = 0;
    std::span<const oid> head_oids{};
    column_marks head{}; //!< of a stored head

    //! Position of the first row. What lies before it in the column's memory is
    //! filled with a pattern that is no valid row.
    BUN first = 0;
    //! May operators and BUNfastins write to the BAT?
    bool writable = false;
};

//! What a column's marks say of nils.
enum class nil_knowledge : std::uint8_t {
    unknown, //!< nobody looked
    none,    //!< no row is nil
    some     //!< a row is nil
};

/*
 * Holds one logical reference on a BAT, as a plan's variable does, and drops it
 * at the end of its life. Can be moved, not copied; share() makes a second one.
 */
class REFKERNEL_API bat {
public:
    bat() = default;
    //! Takes over a number that an operator handed out; int_nil and 0 make an empty handle.
    static bat adopt(int32_t id);
    //! Takes over the creator's reference of a BAT that the kernel made.
    static bat adopt(BAT *created);
    //! Takes a reference of its own; throws kernel_error for a number not in use.
    static bat share(int32_t id);

    bat(bat &&other) noexcept : id_(std::exchange(other.id_, 0)) {}
    bat &operator=(bat &&other) noexcept;
    ~bat() { reset(); }

    void reset() noexcept;
    //! Leaves the reference to whoever takes the number.
    [[nodiscard]] int32_t release() noexcept { return std::exchange(id_, 0); }

    explicit operator bool() const { return id_ != 0; }
    [[nodiscard]] int32_t id() const { return id_; }
    //! The number as operators take it, by address.
    [[nodiscard]] const int32_t *slot() const { return &id_; }
    //! The record; null for an empty handle.
    [[nodiscard]] BAT *record() const;
    BAT *operator->() const { return record(); }

    [[nodiscard]] BUN count() const;
    [[nodiscard]] int type() const;
    //! Whether nothing is stored in the tail: its oids are counted, or all nil.
    [[nodiscard]] bool is_void() const { return type() == TYPE_void; }
    //! What the marks of the tail say; a void tail's are the truth.
    [[nodiscard]] nil_knowledge nils() const;

    //! The tail's rows. Throws kernel_error if T has another width than the
    //! elements. Valid while the BAT lives and nobody grows it.
    template <class T>
    [[nodiscard]] std::span<const T> values() const {
        return {static_cast<const T *>(rows(sizeof(T))), count()};
    }
    //! The same to write to.
    template <class T>
    [[nodiscard]] std::span<T> mutable_values() const {
        return {static_cast<T *>(rows(sizeof(T))), count()};
    }
    //! The tail's text in a row; a nil row gives the text of the nil.
    [[nodiscard]] std::string_view text(BUN row) const;
    //! Whether the tail has no value in a row.
    [[nodiscard]] bool is_nil(BUN row) const;
    //! The oid in the tail of a row, of an oid or void column.
    [[nodiscard]] oid tail_oid(BUN row) const;
    //! The oid in the head of a row.
    [[nodiscard]] oid head_oid(BUN row) const;

private:
    friend REFKERNEL_API bat view_rows(const bat &source, BUN from, BUN count);
    explicit bat(int32_t id) : id_(id) {}
    [[nodiscard]] BAT &held() const;
    [[nodiscard]] void *rows(std::size_t width) const;
    [[nodiscard]] BUN position(BUN row) const;

    int32_t id_ = 0;
};

//! A column of copies of `count` elements of `width` bytes.
REFKERNEL_API bat make_column_from_bytes(const void *values, std::size_t count, std::size_t width,
                                         int default_type, const column_options &options);
//! A column in memory that is taken over.
REFKERNEL_API bat make_column_in(std::shared_ptr<memory::block> memory, std::size_t count,
                                 std::size_t width, int default_type,
                                 const column_options &options);

//! A column of copies of the values.
template <element T>
bat make_column(std::span<const T> values, const column_options &options = {}) {
    return make_column_from_bytes(values.data(), values.size(), sizeof(T), type_code_of<T>,
                                  options);
}

//! A column that lives in the vector's memory; copied if rows are to begin above position 0.
template <element T>
bat make_column(std::vector<T> &&values, const column_options &options = {}) {
    if (options.first != 0 || values.empty()) {
        return make_column(std::span<const T>(values), options);
    }
    const std::size_t count = values.size();
    return make_column_in(std::make_shared<memory::vector_block<T>>(std::move(values)), count,
                          sizeof(T), type_code_of<T>, options);
}

/*
 * A column that reads the caller's memory in place. release() is called once, when the last column
 * over the memory has gone, on the thread that drops it, and also when the column cannot be made;
 * it may not throw. Until then the values stay where they are and as they are. Copied, and released
 * at once, if rows are to begin above position 0.
 */
template <element T>
// NOLINTNEXTLINE(performance-unnecessary-value-param): moved on, unseen in a template
bat borrow_column(std::span<const T> values, std::function<void()> release,
                  const column_options &options = {}) {
    const auto lent = memory::borrow(values.data(), values.size_bytes(), std::move(release));
    if (options.first != 0 || values.empty()) {
        return make_column(values, options);
    }
    return make_column_in(lent, values.size(), sizeof(T), type_code_of<T>, options);
}

//! A column of one row, as the parameters of operators are.
template <element T>
bat scalar(T value) {
    return make_column(std::span<const T>(&value, 1));
}

//! A column with nothing stored in its tail: oids from tail_seqbase on, or all nil.
REFKERNEL_API bat make_void_column(BUN count, oid tail_seqbase = 0,
                                   const column_options &options = {});

//! An empty writable BAT for BUNfastins.
REFKERNEL_API bat make_empty(int head_type, int tail_type, BUN capacity = 0);

//! A view of the rows from `from` on; it starts at that row's position.
REFKERNEL_API bat view_rows(const bat &source, BUN from, BUN count);
//! The old name, which stands in the way of std::slice. It goes with the next release.
inline bat slice(const bat &source, BUN from, BUN count) {
    return view_rows(source, from, count);
}

struct text_options {
    int type = TYPE_str; //!< or a user atom stored as text
    text_sharing sharing = text_sharing::once;
    //! The least bytes of an offset; the texts may need more.
    int offset_width = 1;
};

/*
 * Makes a text column row by row. A text ends at its first zero byte. The
 * builder sets the marks nil and nonil to the truth; other marks come from the
 * options of finish().
 *
 * Texts are looked up in the heap some at a time, so that the cache misses of
 * looking for equal ones overlap; append() keeps copies of them until then, and
 * a failure to store a text may be thrown by a later call.
 */
class REFKERNEL_API text_builder {
public:
    explicit text_builder(const text_options &options = {});

    void reserve(std::size_t rows) { offsets_.reserve(rows); }
    void append(std::string_view text);
    void append_nil();
    void append_all(std::span<const std::string_view> texts);
    [[nodiscard]] std::size_t rows() const { return offsets_.size() + pending_; }

    //! The column; the builder is empty after.
    bat finish(const column_options &options = {});

private:
    static constexpr std::size_t batch_texts = 16;
    static constexpr std::size_t staging_bytes = 2048;

    friend REFKERNEL_API bat make_dictionary_column(std::span<const std::string_view> words,
                                                    std::span<const std::int32_t> codes,
                                                    const column_options &options,
                                                    const text_options &text);

    void put(std::span<const std::string_view> texts);
    void flush();
    //! Makes rows of the texts put so far: the words and a nil.
    void pick_rows(std::span<const std::int32_t> codes, std::span<const std::string_view> words);

    text_options options_;
    std::shared_ptr<text_heap> heap_;
    std::vector<std::uint32_t> offsets_;
    bool has_nil_ = false;
    // Texts that wait for their batch to be full, and their bytes.
    std::size_t pending_ = 0;
    std::size_t staged_ = 0;
    std::array<std::string_view, batch_texts> pending_texts_;
    std::unique_ptr<char[]> staging_;
};

//! A text column; an empty optional is a nil.
REFKERNEL_API bat make_text_column(std::span<const std::optional<std::string_view>> texts,
                                   const column_options &options = {},
                                   const text_options &text = {});
REFKERNEL_API bat make_text_column(std::span<const std::string_view> texts,
                                   const column_options &options = {},
                                   const text_options &text = {});

//! A text column of one row.
inline bat scalar(std::string_view text) {
    return make_text_column(std::span<const std::string_view>(&text, 1));
}

//! In the codes of a dictionary column: the row has no value.
inline constexpr std::int32_t no_word = -1;

//! A text column of words[codes[0]], words[codes[1]]..; no_word is a nil. Throws
//! kernel_error for a code that has no word.
REFKERNEL_API bat make_dictionary_column(std::span<const std::string_view> words,
                                         std::span<const std::int32_t> codes,
                                         const column_options &options = {},
                                         const text_options &text = {});

//! What call() throws: the failure that an operator answered with. Its text also tells what the
//! columns of the call were: some operators refuse a nil, a void column and a column of which
//! nobody knows whether it has nils in the same words.
class operator_error : public kernel_error {
public:
    operator_error(operator_failure failure, const std::string &inputs)
        : kernel_error(failure.place + ": " + failure.text + inputs),
          failure_(std::move(failure)) {}
    [[nodiscard]] const operator_failure &failure() const { return failure_; }

private:
    operator_failure failure_;
};

//! A column in some words, such as "3 rows of int without nils".
REFKERNEL_API std::string describe(const bat &column);

namespace calls {

//! Columns are handed over by the address of their number, pointers as they are.
inline const std::int32_t *argument(const bat &column) {
    return column.slot();
}
template <class T>
T *argument(T *pointer) {
    return pointer;
}

inline void describe_to(std::string &told, const bat &column) {
    told += (told.empty() ? " (" : "; ") + refkernel::describe(column);
}
template <class T>
void describe_to(std::string &, T *) {}

} // namespace calls

/*
 * Calls an operator with columns and pointers in the operator's order; throws
 * operator_error with what it answers, if it fails.
 *
 *     int64_t sum = call<int64_t>(vask_sum_int, prices);
 *     bat counts = call<bat>(vask_grp_count, prices, groups.map, groups.extents);
 *     call(VASKgroup, &extents_id, &map_id, cities);
 *
 * With a result type, the operator's first argument is left out: it is a slot of that type, which
 * vask/ops.h tells for each operator, or with `bat` the number of a new one.
 */
template <class Result = void, class... Slots, class... Arguments>
Result call(char *(*function)(Slots...), const Arguments &...arguments) {
    const auto checked = [&](char *message) {
        if (message != nullptr) {
            operator_failure failure = take_exception(message);
            std::string inputs;
            (calls::describe_to(inputs, arguments), ...);
            throw operator_error(std::move(failure), inputs.empty() ? inputs : inputs + ")");
        }
    };
    // What the operator loses when an exception passes it.
    reference_account references;
    const auto called = [&](auto... slot) {
        try {
            return function(slot..., calls::argument(arguments)...);
        } catch (...) {
            references.give_back();
            throw;
        }
    };
    if constexpr (std::is_void_v<Result>) {
        checked(called());
    } else if constexpr (std::same_as<Result, bat>) {
        std::int32_t id = int_nil;
        checked(called(&id));
        return bat::adopt(id);
    } else {
        Result result{};
        checked(called(&result));
        return result;
    }
}

//! A grouping: the group of each row, and the groups with their sizes.
struct grouping {
    bat map;     //!< a row per row of the column; in the tail the group's id
    bat extents; //!< a row per group; in the head its id, in the tail its number of rows

    [[nodiscard]] BUN groups() const { return extents.count(); }
};

//! The rows of equal values. Needs lib_vask_ops in the program, as refine() does.
inline grouping group_by(const bat &column) {
    std::int32_t extents = int_nil;
    std::int32_t map = int_nil;
    call(VASKgroup, &extents, &map, column);
    return {.map = bat::adopt(map), .extents = bat::adopt(extents)};
}

//! The groups of a grouping split by the values of one more column.
inline grouping refine(const grouping &coarse, const bat &column) {
    std::int32_t extents = int_nil;
    std::int32_t map = int_nil;
    call(VASKderive, &extents, &map, coarse.extents, coarse.map, column);
    return {.map = bat::adopt(map), .extents = bat::adopt(extents)};
}

//! The rows that agree in all columns.
template <std::same_as<bat>... More>
grouping group_by(const bat &first, const bat &second, const More &...more) {
    grouping groups = refine(group_by(first), second);
    ((groups = refine(groups, more)), ...);
    return groups;
}

//! What the kernel holds now.
struct kernel_usage {
    std::int64_t bats;     //!< that live
    std::int64_t physical; //!< references of operators
    std::int64_t logical;  //!< references of plans and handles
    std::int64_t misuses;  //!< releases of references that nobody held, since the process began
};
REFKERNEL_API kernel_usage current_usage();

/*
 * What the kernel and its callers hold, against an earlier moment.
 *
 *     checkpoint before;
 *     ... a test case ...
 *     EXPECT_EQ(before.leaks(), "");
 */
class REFKERNEL_API checkpoint {
public:
    checkpoint();
    //! One line for each difference from then: BATs that live, references, releases of
    //! references that nobody held, and, under an instrumentation::watch, bytes
    //! and BATaccess brackets. Empty if nothing differs.
    [[nodiscard]] std::string leaks() const;

private:
    kernel_usage usage_;
    std::uint64_t bytes_;
    std::vector<int32_t> live_;
};

} // namespace refkernel

#endif

#endif
