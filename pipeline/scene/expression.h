// A question about particles, as people write it: type == 2 and c_pe > -3.4.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pipeline {

/// What a name in an expression stands for: a number per particle.
struct ExpressionColumn {
    std::function<double(std::size_t particle)> value;
    bool isSingle = true; ///< numbers of single precision: constants beside them are rounded alike
    /// The number of a word, for columns of words; none has what is no word of theirs.
    std::function<std::optional<double>(std::string_view word)> numberOf{};
};

/// A parsed expression: a program for a stack machine.
///
/// Numbers, columns, + - * / and %, comparisons, `in (1, 2, 3)`, `and`, `or` and `not` (also && ||
/// !), brackets, abs, sqrt, min and max. Columns whose names are no words of letters, digits, _ .
/// and [ ] stand in backticks, words in quotes; a word beside a column of words needs none.
class Expression {
  public:
    /// Throws `std::invalid_argument` that points at the place which cannot be understood.
    explicit Expression(std::string text);

    /// The names of columns in it, each once. A name behind ==, != or in is none, but a word that
    /// the column before may hold, unless it stands in backticks.
    std::vector<std::string> names() const;

    /// Finds columns by name; gives none for a name that is no column.
    using Find = std::function<std::optional<ExpressionColumn>(std::string const& name)>;

    /// Of the particles 0 to `count` - 1, those for which it holds, rising. NaN is not true
    /// and equals nothing. Throws `std::invalid_argument` that points at a name which is none.
    std::vector<std::uint32_t> matches(std::size_t count, Find const& find) const;

    enum class Operation : std::uint8_t {
        number,
        name,
        word,
        negate,
        invert,
        absolute,
        root,
        add,
        subtract,
        multiply,
        divide,
        remainder,
        least,
        most,
        equal,
        unequal,
        less,
        lessOrEqual,
        more,
        moreOrEqual,
        both,
        either,
        among, ///< the topmost of as many entries as `value` says is one of the others below it
    };
    struct Step {
        Operation operation;
        std::size_t place = 0; ///< in the text
        double value = 0.0;    ///< of a number; how many entries `among` takes
        std::string name{};    ///< or word
        bool isQuoted = false;
    };

  private:
    std::string text;
    std::vector<Step> steps; ///< each takes what it needs from the stack, and leaves one number
};

} // namespace pipeline
