#include "table/answer.h"

#include "table/errors.h"
#include "table/kernel_column.h"
#include "table/parallel.h"
#include "table/validity.h"

#include <atomic>
#include <cstring>
#include <limits>
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

// Calls `f(std::type_identity<T>{})` with the type of the elements of a result.
template <class F>
void visit_result(const value_type &type, F f) {
    switch (type.of) {
        case kind::int8:
        case kind::null:
            return f(std::type_identity<std::int8_t>{});
        case kind::uint8:
            return f(std::type_identity<std::uint8_t>{});
        case kind::int16:
            return f(std::type_identity<std::int16_t>{});
        case kind::uint16:
            return f(std::type_identity<std::uint16_t>{});
        case kind::uint32:
            return f(std::type_identity<std::uint32_t>{});
        case kind::uint64:
            return f(std::type_identity<std::uint64_t>{});
        case kind::float32:
            return f(std::type_identity<float>{});
        case kind::float64:
            return f(std::type_identity<double>{});
        case kind::decimal:
            return f(std::type_identity<wide_integer>{});
        default:
            if (width_of(type.of) == 4)
                return f(std::type_identity<std::int32_t>{});
            return f(std::type_identity<std::int64_t>{});
    }
}

template <class T>
struct kept_array {
    std::unique_ptr<T[]> values;
    std::size_t size;
    explicit kept_array(std::size_t n)
        : values(std::make_unique_for_overwrite<T[]>(std::max<std::size_t>(n, 1))), size(n) {}
};

// Takes over the validity that bytes say, 1 for a value.
void set_validity(result_column &made, const std::vector<std::uint8_t> &present) {
    auto bits = std::make_shared<std::vector<std::uint8_t>>((present.size() + 7) / 8, 0);
    std::int64_t nulls = 0;
    for (std::size_t i = 0; i < present.size(); ++i) {
        (*bits)[i >> 3] =
            static_cast<std::uint8_t>((*bits)[i >> 3] | ((present[i] != 0 ? 1U : 0U) << (i & 7)));
        nulls += present[i] != 0 ? 0 : 1;
    }
    made.nulls = nulls;
    if (nulls == 0)
        return;
    made.validity = bits->data();
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

void put_bits(result_column &made, const std::vector<std::uint8_t> &bytes) {
    auto bits = std::make_shared<std::vector<std::uint8_t>>(bytes.size() / 8 + 1, 0);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        (*bits)[i >> 3] =
            static_cast<std::uint8_t>((*bits)[i >> 3] | ((bytes[i] != 0 ? 1U : 0U) << (i & 7)));
    made.values = bits->data();
    made.owners.push_back(std::move(bits));
}

void finish_numbers(result_column &made, const answer &values, const groups &by) {
    const std::span<const std::uint32_t> order = by.order();
    visit_form(values.stored, [&]<class From>(std::type_identity<From>) {
        const std::span<const From> all = values.as<From>(by.count());
        const From nil = missing_of<From>();
        visit_result(made.type, [&]<class To>(std::type_identity<To>) {
            std::vector<std::uint8_t> present;
            const auto shown_present = [&] {
                present.resize(order.size());
                for (std::size_t i = 0; i < order.size(); ++i)
                    present[i] = values.present.empty() ? (values.no_nil || all[order[i]] != nil)
                                                        : values.present[order[i]] != 0;
            };
            if (is_shared<From, To>(made.type, by)) {
                made.values = values.values;
                made.owners.push_back(values.owner);
                if constexpr (!std::is_same_v<From, wide_integer> &&
                              !std::is_same_v<From, std::uint64_t>)
                    if (values.present.empty()) {
                        if (values.no_nil)
                            return;
                        auto bits =
                            std::make_shared<std::vector<std::uint8_t>>((order.size() + 7) / 8, 0);
                        made.nulls = bitmap_of<From>(
                            all.data(), static_cast<std::int64_t>(order.size()), nil, bits->data());
                        if (made.nulls > 0) {
                            made.validity = bits->data();
                            made.owners.push_back(std::move(bits));
                        }
                        return;
                    }
                shown_present();
                set_validity(made, present);
                return;
            }
            shown_present();
            set_validity(made, present);
            if (made.type.of == kind::null)
                return;
            if (made.type.of == kind::boolean) {
                std::vector<std::uint8_t> bytes(order.size());
                for (std::size_t i = 0; i < order.size(); ++i)
                    bytes[i] = present[i] != 0 && all[order[i]] != From{0};
                put_bits(made, bytes);
                return;
            }
            auto converted = std::make_shared<kept_array<To>>(order.size());
            for (std::size_t i = 0; i < order.size(); ++i)
                converted->values[i] = present[i] != 0 ? static_cast<To>(all[order[i]]) : To{0};
            hold<To>(made, std::move(converted));
        });
    });
}

template <class Offset>
void put_texts(result_column &made, const std::vector<std::string_view> &words,
               const std::vector<std::int32_t> &codes, std::size_t bytes) {
    auto offsets = std::make_shared<kept_array<Offset>>(codes.size() + 1);
    auto text = std::make_shared<kept_array<char>>(bytes);
    std::size_t next = 0;
    for (std::size_t i = 0; i < codes.size(); ++i) {
        offsets->values[i] = static_cast<Offset>(next);
        if (codes[i] < 0)
            continue;
        const std::string_view word = words[static_cast<std::size_t>(codes[i])];
        if (!word.empty())
            std::memcpy(text->values.get() + next, word.data(), word.size());
        next += word.size();
    }
    offsets->values[codes.size()] = static_cast<Offset>(next);
    hold<Offset>(made, std::move(offsets));
    made.bytes = text->values.get();
    made.owners.push_back(std::move(text));
}

// Texts by their codes, negative for missing ones. A source of views or dictionaries becomes plain.
void finish_texts(result_column &made, const std::vector<std::string_view> &words,
                  const std::vector<std::int32_t> &codes) {
    std::size_t bytes = 0;
    std::vector<std::uint8_t> present(codes.size());
    for (std::size_t i = 0; i < codes.size(); ++i) {
        present[i] = codes[i] >= 0;
        if (codes[i] >= 0)
            bytes += words[static_cast<std::size_t>(codes[i])].size();
    }
    set_validity(made, present);
    const bool text = made.type.of == kind::text;
    const bool large = bytes > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max()) ||
                       made.type.format == "U" || made.type.format == "Z";
    made.type.format = text ? (large ? "U" : "u") : (large ? "Z" : "z");
    if (large)
        put_texts<std::int64_t>(made, words, codes, bytes);
    else
        put_texts<std::int32_t>(made, words, codes, bytes);
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
        std::vector<T> picked(rows.size());
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
            if (picked.present.empty())
                picked.present = values.present;
            else
                for (std::size_t i = 0; i < values.present.size(); ++i)
                    picked.present[i] = picked.present[i] & values.present[i];
            if (!source->as_numbers(nan_missing, tell).beyond)
                visit_form(picked.stored, [&]<class T>(std::type_identity<T>) {
                    const auto all = picked.as<T>(by.count());
                    for (std::size_t i = 0; i < all.size(); ++i)
                        if (all[i] == missing_of<T>())
                            picked.present[i] = 0;
                });
        }
        finish_numbers(made, picked, by);
        return made;
    }
    if (!is_text(type.of)) {
        finish_numbers(made, values, by);
        return made;
    }
    const texts &all =
        values.stored == form::rank ? source->as_ranked_texts(tell) : source->as_texts(tell);
    const auto codes = all.codes.values<std::int32_t>();
    const std::span<const std::uint32_t> order = by.order();
    std::vector<std::int32_t> shown_codes(order.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        const std::size_t group = order[i];
        std::int32_t code = -1;
        if (!values.present.empty() && values.present[group] == 0) {
            // missing
        } else if (values.stored == form::rank) {
            const std::int32_t rank = values.as<std::int32_t>(by.count())[group];
            if (rank >= 0)
                code = all.by_rank[static_cast<std::size_t>(rank)];
        } else {
            const lng row = values.as<lng>(by.count())[group];
            if (row >= 0)
                code = codes[static_cast<std::size_t>(row)];
        }
        shown_codes[i] = code < 0 ? -1 : code;
    }
    finish_texts(made, all.words, shown_codes);
    return made;
}

} // namespace vask::table
