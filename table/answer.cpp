#include "table/answer.h"

#include "kernel/column.h"
#include "table/element_types.h"
#include "table/errors.h"
#include "table/kernel_column.h"
#include "table/large_vector.h"
#include "table/parallel.h"
#include "table/validity.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <optional>
#include <string_view>
#include <type_traits>

namespace vask::table {
namespace {

using refkernel::bat;
using refkernel::nil_of;

form form_of(int type) {
    switch (type) {
        case TYPE_bit:
        case TYPE_bte:
            return form::bte;
        case TYPE_sht:
            return form::sht;
        case TYPE_int:
            return form::int_;
        case TYPE_flt:
            return form::flt;
        case TYPE_dbl:
            return form::dbl;
        default:
            return form::lng;
    }
}

constexpr wide_integer wide_nil = static_cast<wide_integer>(1) << 127;

template <class T>
T missing_of() {
    if constexpr (std::is_same_v<T, wide_integer>)
        return wide_nil;
    else if constexpr (std::is_same_v<T, std::uint64_t>)
        return std::uint64_t{1} << 63;
    else
        return nil_of<T>();
}

template <class F>
decltype(auto) visit_form(form stored, F f) {
    switch (stored) {
        case form::bte:
            return f(std::type_identity<bte>{});
        case form::sht:
            return f(std::type_identity<sht>{});
        case form::int_:
        case form::rank:
            return f(std::type_identity<std::int32_t>{});
        case form::unsigned_lng:
            return f(std::type_identity<std::uint64_t>{});
        case form::flt:
            return f(std::type_identity<flt>{});
        case form::dbl:
            return f(std::type_identity<dbl>{});
        case form::wide:
            return f(std::type_identity<wide_integer>{});
        case form::lng:
        case form::row:
            break;
    }
    return f(std::type_identity<lng>{});
}

// Calls `f(std::type_identity<T>{})` with the type of the elements of a result; of booleans and
// nulls, with one that is not used.
template <class F>
void visit_result(const value_type &type, F f) {
    if (type.of == kind::decimal)
        return f(std::type_identity<wide_integer>{});
    visit_elements(type.of, f);
}

template <class T>
struct kept_array {
    std::unique_ptr<T[]> values;
    std::size_t size;
    explicit kept_array(std::size_t n)
        : values(std::make_unique_for_overwrite<T[]>(std::max<std::size_t>(n, 1))), size(n) {
        advise_huge_pages(values.get(), n * sizeof(T));
    }
};

// Takes over the validity that bytes say, 1 for a value.
void set_validity(result_column &made, std::span<const std::uint8_t> present) {
    auto bits = std::make_shared<kept_array<std::uint8_t>>((present.size() + 7) / 8);
    made.nulls = bitmap_of<std::uint8_t>(present.data(), static_cast<std::int64_t>(present.size()),
                                         0, bits->values.get());
    if (made.nulls == 0)
        return;
    made.validity = bits->values.get();
    made.owners.push_back(std::move(bits));
}

template <class T>
void hold(result_column &made, std::shared_ptr<const kept_array<T>> values) {
    made.values = values->values.get();
    made.owners.push_back(std::move(values));
}

// Whether the answer's memory is the result's.
template <class From, class To>
bool is_shared(const value_type &type, const groups &by) {
    return std::is_same_v<From, To> && by.in_order() && type.of != kind::boolean &&
           type.of != kind::null;
}

void put_bits(result_column &made, std::span<const std::uint8_t> bytes) {
    auto bits = std::make_shared<kept_array<std::uint8_t>>((bytes.size() + 7) / 8);
    (void)bitmap_of<std::uint8_t>(bytes.data(), static_cast<std::int64_t>(bytes.size()), 0,
                                  bits->values.get());
    made.values = bits->values.get();
    made.owners.push_back(std::move(bits));
}

// Bytes, 1 for the groups shown that have a value, in their order; nothing where all have one.
template <class T>
std::unique_ptr<std::uint8_t[]> presence_shown(const answer &values, std::span<const T> all,
                                               std::span<const std::uint32_t> order) {
    if (values.present.empty() && values.no_nil)
        return nullptr;
    auto present = std::make_unique_for_overwrite<std::uint8_t[]>(order.size());
    const T nil = missing_of<T>();
    for_rows(order.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            present[i] =
                values.present.empty() ? all[order[i]] != nil : values.present[order[i]] != 0;
    });
    return present;
}

// The answers as they stand, with the validity that their nils tell.
template <class T>
void share_values(result_column &made, const answer &values, std::span<const T> all) {
    made.values = values.values;
    made.owners.push_back(values.owner);
    if (!values.present.empty()) {
        set_validity(made, values.present);
    } else if (!values.no_nil) {
        auto bits = std::make_shared<kept_array<std::uint8_t>>((all.size() + 7) / 8);
        made.nulls = bitmap_of<T>(all.data(), static_cast<std::int64_t>(all.size()),
                                  missing_of<T>(), bits->values.get());
        if (made.nulls > 0) {
            made.validity = bits->values.get();
            made.owners.push_back(std::move(bits));
        }
    }
}

void finish_numbers(result_column &made, const answer &values, const groups &by) {
    const std::span<const std::uint32_t> order = by.order();
    visit_form(values.stored, [&]<class From>(std::type_identity<From>) {
        const std::span<const From> all = values.as<From>(by.count());
        visit_result(made.type, [&]<class To>(std::type_identity<To>) {
            // Integers of 128 bits have no nil that the loops know.
            if constexpr (!std::is_same_v<From, wide_integer>)
                if (is_shared<From, To>(made.type, by))
                    return share_values(made, values, all);
            const auto present = presence_shown(values, all, order);
            if (present != nullptr)
                set_validity(made, {present.get(), order.size()});
            if (made.type.of == kind::null)
                return;
            if (made.type.of == kind::boolean) {
                std::vector<std::uint8_t> bytes(order.size());
                for (std::size_t i = 0; i < order.size(); ++i)
                    bytes[i] = (present == nullptr || present[i] != 0) && all[order[i]] != From{0};
                put_bits(made, bytes);
                return;
            }
            auto converted = std::make_shared<kept_array<To>>(order.size());
            for_rows(order.size(), [&](std::size_t begin, std::size_t end) {
                for (std::size_t i = begin; i < end; ++i)
                    converted->values[i] = present == nullptr || present[i] != 0
                                               ? static_cast<To>(all[order[i]])
                                               : To{0};
            });
            hold<To>(made, std::move(converted));
        });
    });
}

// A text, without an address a missing one. Unlike a view it is not zeroed when memory for many is
// made.
struct text_place {
    const char *data;
    std::size_t size;
};

// Texts one behind the other, written in tasks, of which each begins at a known place.
template <class Offset>
void put_texts(result_column &made, std::span<const text_place> words,
               std::span<const std::size_t> begins) {
    // In another order than that of their memory each text is a cache miss.
    constexpr std::size_t ahead = 16;
    const std::size_t n = words.size();
    auto offsets = std::make_shared<kept_array<Offset>>(n + 1);
    auto text = std::make_shared<kept_array<char>>(begins.back());
    for_each_number(begins.size() - 1, [&](std::size_t part) {
        std::size_t next = begins[part];
        const std::size_t end = std::min(n, (part + 1) * rows_of_a_task);
        for (std::size_t i = part * rows_of_a_task; i < end; ++i) {
            if (i + ahead < n)
                __builtin_prefetch(words[i + ahead].data);
            offsets->values[i] = static_cast<Offset>(next);
            if (words[i].size == 0)
                continue;
            std::memcpy(text->values.get() + next, words[i].data, words[i].size);
            next += words[i].size;
        }
    });
    offsets->values[n] = static_cast<Offset>(begins.back());
    hold<Offset>(made, std::move(offsets));
    made.bytes = text->values.get();
    made.owners.push_back(std::move(text));
}

// A source of views or dictionaries becomes plain. `word_at(i)` gives the i-th text, or
// nothing.
template <class WordAt>
void finish_texts(result_column &made, std::size_t n, const WordAt &word_at) {
    const std::size_t parts = (n + rows_of_a_task - 1) / rows_of_a_task;
    large_vector<text_place> words(n);
    std::vector<std::size_t> begins(parts + 1, 0);
    std::atomic<bool> any_missing{false};
    for_each_number(parts, [&](std::size_t part) {
        std::size_t bytes = 0;
        bool missing = false;
        const std::size_t end = std::min(n, (part + 1) * rows_of_a_task);
        for (std::size_t i = part * rows_of_a_task; i < end; ++i) {
            const std::optional<std::string_view> word = word_at(i);
            missing = missing | !word.has_value();
            bytes += word ? word->size() : 0;
            if (word)
                words[i] = {word->data() == nullptr ? "" : word->data(), word->size()};
            else
                words[i] = {nullptr, 0};
        }
        begins[part + 1] = bytes;
        if (missing)
            any_missing.store(true, std::memory_order_relaxed);
    });
    for (std::size_t part = 0; part < parts; ++part)
        begins[part + 1] += begins[part];
    if (any_missing) {
        std::vector<std::uint8_t> present(n);
        for (std::size_t i = 0; i < n; ++i)
            present[i] = words[i].data != nullptr;
        set_validity(made, present);
    }
    const bool large =
        begins.back() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max()) ||
        made.type.format == "U" || made.type.format == "Z";
    const char letter = made.type.of == kind::text ? 'u' : 'z';
    made.type.format.assign(1, large ? static_cast<char>(letter - 'u' + 'U') : letter);
    if (large)
        put_texts<std::int64_t>(made, words, begins);
    else
        put_texts<std::int32_t>(made, words, begins);
}

// The values of rows as an answer of the column's own form.
answer rows_of_numbers(const numbers &source, const value_type &type, std::span<const lng> rows) {
    answer result;
    std::vector<std::uint8_t> present;
    if (source.beyond) {
        present.resize(rows.size());
        for (std::size_t i = 0; i < rows.size(); ++i)
            present[i] = rows[i] >= 0 && (source.present.empty() ||
                                          source.present[static_cast<std::size_t>(rows[i])] != 0);
    }
    visit_values(source.values, [&]<class T>(std::span<const T> values) {
        large_vector<T> picked(rows.size());
        for_rows(rows.size(), [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i)
                picked[i] = rows[i] < 0 ? nil_of<T>() : values[static_cast<std::size_t>(rows[i])];
        });
        result = answer_of(type.of == kind::uint64 && source.beyond ? form::unsigned_lng
                                                                    : form_of(source.values.type()),
                           std::move(picked));
    });
    result.present = std::move(present);
    return result;
}

} // namespace

answer answer_of(bat values, bool rank) {
    auto kept = std::make_shared<const bat>(std::move(values));
    answer result;
    result.stored = rank ? form::rank : form_of(kept->type());
    visit_values(*kept, [&]<class T>(std::span<const T> all) { result.values = all.data(); });
    result.owner = std::move(kept);
    return result;
}

std::vector<std::uint8_t> presence_of(const answer &values, std::size_t count) {
    if (!values.present.empty())
        return values.present;
    std::vector<std::uint8_t> present(count, 1);
    if (!values.no_nil)
        visit_form(values.stored, [&]<class T>(std::type_identity<T>) {
            const auto all = values.as<T>(count);
            const bool rows = values.stored == form::row;
            for (std::size_t i = 0; i < count; ++i)
                present[i] = rows ? all[i] >= T{0} : all[i] != missing_of<T>();
        });
    return present;
}

result_column finish_answer(std::string name, const value_type &type, const answer &values,
                            const groups &by, const column *source, bool nan_missing,
                            const teller &tell) {
    result_column made;
    made.name = std::move(name);
    made.type = type;
    made.rows = static_cast<std::int64_t>(by.order().size());
    if (values.stored == form::row && !is_text(type.of)) {
        answer picked = rows_of_numbers(source->as_numbers(nan_missing, tell), type,
                                        values.as<lng>(by.count()));
        if (!values.present.empty()) {
            picked.present = presence_of(picked, by.count());
            for (std::size_t i = 0; i < values.present.size(); ++i)
                picked.present[i] = picked.present[i] & values.present[i];
        }
        finish_numbers(made, picked, by);
        return made;
    }
    if (!is_text(type.of)) {
        finish_numbers(made, values, by);
        return made;
    }
    const std::span<const std::uint32_t> order = by.order();
    using word = std::optional<std::string_view>;
    // `word_of(number)` gives the word that one of an answer's numbers, from 0 on, stands for.
    const auto look_up = [&]<class Number>(std::span<const Number> numbers, const auto &word_of) {
        finish_texts(made, order.size(), [&](std::size_t i) -> word {
            const Number number = numbers[order[i]];
            if (number < 0 || (!values.present.empty() && values.present[order[i]] == 0))
                return std::nullopt;
            return word_of(static_cast<std::size_t>(number));
        });
    };
    if (values.stored == form::rank) {
        const texts &all = source->as_ranked_texts(tell);
        look_up(values.as<std::int32_t>(by.count()), [&all](std::size_t rank) -> word {
            return all.words[static_cast<std::size_t>(all.by_rank[rank])];
        });
    } else {
        const texts &all = source->as_texts(tell);
        const auto codes = all.codes.values<std::int32_t>();
        look_up(values.as<lng>(by.count()), [&](std::size_t row) -> word {
            if (codes[row] < 0)
                return std::nullopt;
            return all.words[static_cast<std::size_t>(codes[row])];
        });
    }
    return made;
}

} // namespace vask::table
