// Which kinds of values go together in an expression.
#include "expression.h"

#include <vector>

#include <fmt/format.h>

namespace vask::runner {
namespace {

bool is_number(value_kind kind) {
    return kind == value_kind::whole || kind == value_kind::real;
}

class checker {
public:
    checker(const expression &whole, std::span<const value_kind> columns)
        : whole_(whole), columns_(columns) {}

    value_kind check() {
        // Operands stand before what uses them.
        for (std::size_t i = 0; i < whole_.nodes.size(); ++i)
            kinds_.push_back(kind_of(i));
        return kinds_[whole_.root];
    }

private:
    value_kind kind_of(std::size_t i) {
        using enum value_kind;
        const expression_node &node = whole_.nodes[i];
        switch (node.what) {
            case operation::column:
                return columns_[node.slot];
            case operation::whole:
                return value_kind::whole;
            case operation::real:
                return real;
            case operation::truth:
                return truth;
            case operation::text:
                return text;
            case operation::both:
            case operation::either:
                require_truth(i, node.right);
                [[fallthrough]];
            case operation::negation:
                require_truth(i, node.left);
                return truth;
            case operation::less:
            case operation::less_or_equal:
            case operation::equal:
                require_comparable(i);
                return truth;
            case operation::contains:
            case operation::begins:
            case operation::ends:
            case operation::like:
                if (kinds_[node.left] != text && kinds_[node.left] != cell)
                    whole_.complain(i, fmt::format("a text is wanted before this, and {} is {}{},",
                                                   told(node.left), words_for(kinds_[node.left]),
                                                   remedy(node.left)));
                return truth;
            case operation::missing:
                return truth;
            case operation::subtract:
                // Of two times, the seconds between them.
                if (kinds_[node.left] == time && may_be_time(node.right))
                    return real;
                [[fallthrough]];
            case operation::add:
            case operation::multiply:
            case operation::remainder:
                return number_of_both(i);
            case operation::divide:
            case operation::round_to:
            case operation::power:
                number_of_both(i);
                return real;
            case operation::minus:
            case operation::absolute:
            case operation::floor:
            case operation::ceiling:
            case operation::round:
                require_number(i, node.left);
                return kinds_[node.left] == value_kind::whole ? value_kind::whole : real;
            case operation::exponential:
            case operation::logarithm:
            case operation::logarithm_2:
            case operation::logarithm_10:
            case operation::square_root:
                require_number(i, node.left);
                return real;
            case operation::part_of_time:
                require_time(i, node.left);
                return value_kind::whole;
            case operation::truncated_time:
                break;
        }
        require_time(i, node.left);
        return time;
    }

    // An operand as a message names it.
    std::string told(std::size_t i) const {
        const expression_node &node = whole_.nodes[i];
        if (node.what == operation::column)
            return fmt::format("the column {}", node.text);
        if (node.what == operation::text)
            return fmt::format("'{}'", node.text);
        return "what it is given";
    }

    std::string_view remedy(std::size_t i) const {
        return whole_.nodes[i].what == operation::column ? "; --types reads it as another type"
                                                         : "";
    }

    void require_truth(std::size_t i, std::size_t operand) const {
        if (kinds_[operand] != value_kind::truth && kinds_[operand] != value_kind::cell)
            whole_.complain(i, fmt::format("this joins conditions, and {} is {},", told(operand),
                                           words_for(kinds_[operand])));
    }

    void require_number(std::size_t i, std::size_t operand) const {
        const value_kind kind = kinds_[operand];
        if (is_number(kind) || kind == value_kind::cell)
            return;
        whole_.complain(i, fmt::format("this wants a number, and {} is {}{},", told(operand),
                                       words_for(kind),
                                       kind == value_kind::text ? remedy(operand) : ""));
    }

    value_kind number_of_both(std::size_t i) const {
        const expression_node &node = whole_.nodes[i];
        require_number(i, node.left);
        require_number(i, node.right);
        return kinds_[node.left] == value_kind::whole && kinds_[node.right] == value_kind::whole
                   ? value_kind::whole
                   : value_kind::real;
    }

    // Texts of a column are read as times.
    bool may_be_time(std::size_t operand) const {
        const value_kind kind = kinds_[operand];
        if (kind == value_kind::time || kind == value_kind::cell)
            return true;
        const expression_node &node = whole_.nodes[operand];
        return kind == value_kind::text &&
               (node.what == operation::column || node.time.has_value());
    }

    void require_time(std::size_t i, std::size_t operand) const {
        if (!may_be_time(operand))
            whole_.complain(i, fmt::format("this wants a date or time, and {} is {},",
                                           told(operand), words_for(kinds_[operand])));
    }

    void require_comparable(std::size_t i) const {
        const expression_node &node = whole_.nodes[i];
        const value_kind a = kinds_[node.left];
        const value_kind b = kinds_[node.right];
        if (a == value_kind::cell || b == value_kind::cell || a == b ||
            (is_number(a) && is_number(b)))
            return;
        if ((a == value_kind::time && may_be_time(node.right)) ||
            (b == value_kind::time && may_be_time(node.left)))
            return;
        const bool times = (a == value_kind::time && b == value_kind::text) ||
                           (b == value_kind::time && a == value_kind::text);
        whole_.complain(i,
                        fmt::format("{} is {}, and {} is {}, which do not compare{},",
                                    told(node.left), words_for(a), told(node.right), words_for(b),
                                    times ? "; a date is written as 2024-01-31 is" : ""));
    }

    const expression &whole_;
    const std::span<const value_kind> columns_;
    std::vector<value_kind> kinds_; // of the nodes so far
};

} // namespace

value_kind kind_of(const expression &whole, std::span<const value_kind> columns) {
    return checker(whole, columns).check();
}

std::string_view words_for(value_kind kind) {
    switch (kind) {
        case value_kind::whole:
        case value_kind::real:
            return "a number";
        case value_kind::truth:
            return "a truth value";
        case value_kind::time:
            return "a date or time";
        case value_kind::text:
        case value_kind::cell:
            break;
    }
    return "a text";
}

} // namespace vask::runner
