/*
 * The reference kernel from C++: make a column, hand its number to an operator,
 * read the result, give it back.
 *
 *     using namespace refkernel;
 *     bat values = make_column<int32_t>(std::vector{3, nil_of<int32_t>(), 4});
 *     lng sum;
 *     exception failure = take_exception(vask_sum_int(&sum, values.slot()));
 *
 *     text_builder names;
 *     names.append("ash");
 *     names.append_nil();
 *     bat column = names.finish();
 *
 * Failures of the kernel are thrown: std::bad_alloc when memory runs out,
 * kernel_error for a request that cannot be met.
 *
 * Thread safety: columns may be made, read and dropped from any thread; one
 * handle or builder belongs to one thread at a time.
 */
#ifndef VASK_EMBED_H
#define VASK_EMBED_H

#include "vask/refkernel/contract.h"
// Without C++20 the one error of contract.h is enough.
#if __cplusplus >= 202002L

#include "vask/refkernel/atoms.h"
#include "vask/refkernel/block.h"
#include "vask/refkernel/errors.h"
#include "vask/refkernel/nil.h"
#include "vask/refkernel/text_sharing.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
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
//! truth is the maker's business.
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
    friend REFKERNEL_API bat slice(const bat &source, BUN from, BUN count);
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

//! A column with nothing stored in its tail: oids from tail_seqbase on, or all nil.
REFKERNEL_API bat make_void_column(BUN count, oid tail_seqbase = 0,
                                   const column_options &options = {});

//! An empty writable BAT for BUNfastins.
REFKERNEL_API bat make_empty(int head_type, int tail_type, BUN capacity = 0);

//! A view of the rows from `from` on; it starts at that row's position.
REFKERNEL_API bat slice(const bat &source, BUN from, BUN count);

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

    void put(std::span<const std::string_view> texts);
    void flush();

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
