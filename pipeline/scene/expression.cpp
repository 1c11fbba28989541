// Expressions: parsed to steps, bound to columns, and run.
#include "pipeline/scene/expression.h"

#include "pipeline/files/textvalues.h"
#include "pipeline/scene/expressiongrammar.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>

namespace pipeline {

namespace {

using Operation = Expression::Operation;
using Step = Expression::Step;

/// Says what is wrong, and points at it.
[[noreturn]] void pointAt(std::string const& text, std::size_t place, std::string const& what) {
    throw std::invalid_argument(
        fmt::format("{}\n  {}\n  {:>{}}", what, printable(text), '^', place + 1));
}

bool isComparison(Operation operation) {
    return operation >= Operation::equal && operation <= Operation::moreOrEqual;
}

/// How many entries an operation takes from the stack.
std::size_t takenBy(Step const& step) {
    if (step.operation <= Operation::word)
        return 0;
    if (step.operation <= Operation::root)
        return 1;
    return step.operation == Operation::among ? static_cast<std::size_t>(step.value) : 2;
}

bool mayAskForWords(Step const& step) {
    return step.operation == Operation::equal || step.operation == Operation::unequal ||
           step.operation == Operation::among;
}

/// Where what a step takes begins, if that is nothing but columns, numbers and words.
std::optional<std::size_t> leavesOf(std::vector<Step> const& steps, std::size_t at) {
    std::size_t const count = takenBy(steps[at]);
    if (count == 0 || count > at)
        return std::nullopt;
    for (std::size_t i = at - count; i < at; ++i)
        if (takenBy(steps[i]) != 0)
            return std::nullopt;
    return at - count;
}

bool isTrue(double value) {
    return value != 0.0 && !std::isnan(value);
}

double resultOf(Operation operation, double a, double b) {
    switch (operation) {
    case Operation::add:
        return a + b;
    case Operation::subtract:
        return a - b;
    case Operation::multiply:
        return a * b;
    case Operation::divide:
        return a / b;
    case Operation::remainder:
        return std::fmod(a, b);
    case Operation::least:
        return std::min(a, b);
    case Operation::most:
        return std::max(a, b);
    case Operation::equal:
        return a == b ? 1.0 : 0.0;
    case Operation::unequal:
        return a != b ? 1.0 : 0.0;
    case Operation::less:
        return a < b ? 1.0 : 0.0;
    case Operation::lessOrEqual:
        return a <= b ? 1.0 : 0.0;
    case Operation::more:
        return a > b ? 1.0 : 0.0;
    case Operation::moreOrEqual:
        return a >= b ? 1.0 : 0.0;
    case Operation::both:
        return isTrue(a) && isTrue(b) ? 1.0 : 0.0;
    default: // either
        return isTrue(a) || isTrue(b) ? 1.0 : 0.0;
    }
}

double resultOf(Operation operation, double a) {
    switch (operation) {
    case Operation::negate:
        return -a;
    case Operation::absolute:
        return std::abs(a);
    case Operation::root:
        return std::sqrt(a);
    default: // invert
        return isTrue(a) ? 0.0 : 1.0;
    }
}

/// The program with its names bound to columns and its words to their numbers.
class Bound {
  public:
    Bound(std::string const& expression, std::vector<Step> const& program,
          Expression::Find const& find)
        : text(expression), steps(program), columns(program.size()) {
        for (std::size_t i = 0; i < steps.size(); ++i)
            if (steps[i].operation == Operation::name)
                columns[i] = find(steps[i].name);
        for (std::size_t i = 0; i < steps.size(); ++i)
            if (isComparison(steps[i].operation) || steps[i].operation == Operation::among)
                matchLeaves(i);
        for (std::size_t i = 0; i < steps.size(); ++i) {
            if (steps[i].operation == Operation::name && !columns[i])
                pointAt(text, steps[i].place, fmt::format("no column '{}'", steps[i].name));
            if (steps[i].operation == Operation::word)
                pointAt(
                    text, steps[i].place,
                    fmt::format("'{}' is a word, and beside no column of words", steps[i].name));
        }
    }

    /// Runs the program for some particles at once, so that each step is a loop.
    void run(std::size_t first, std::size_t count, std::vector<std::uint32_t>& matching) {
        std::size_t top = 0;
        for (std::size_t i = 0; i < steps.size(); ++i) {
            Step const& step = steps[i];
            std::size_t const taken = takenBy(step);
            if (taken == 0 && stack.size() == top)
                stack.emplace_back();
            top -= taken;
            Block& result = stack[top++];
            if (step.operation == Operation::number)
                std::fill_n(result.begin(), count, step.value);
            else if (step.operation == Operation::name)
                for (std::size_t k = 0; k < count; ++k)
                    result[k] = columns[i]->value(first + k);
            else if (step.operation == Operation::among)
                for (std::size_t k = 0; k < count; ++k)
                    result[k] = isAmong(top - 1, taken, k) ? 1.0 : 0.0;
            else if (taken == 1)
                for (std::size_t k = 0; k < count; ++k)
                    result[k] = resultOf(step.operation, result[k]);
            else
                for (std::size_t k = 0; k < count; ++k)
                    result[k] = resultOf(step.operation, result[k], stack[top][k]);
        }
        for (std::size_t k = 0; k < count; ++k)
            if (isTrue(stack[0][k]))
                matching.push_back(static_cast<std::uint32_t>(first + k));
    }

    static constexpr std::size_t blockSize = 512;

  private:
    using Block = std::array<double, blockSize>;

    bool isAmong(std::size_t bottom, std::size_t count, std::size_t k) const {
        for (std::size_t entry = 1; entry < count; ++entry)
            if (stack[bottom][k] == stack[bottom + entry][k])
                return true;
        return false;
    }

    /// Where a column stands alone beside numbers or words that it is compared with, makes these
    /// numbers like its own.
    void matchLeaves(std::size_t comparison) {
        auto const begin = leavesOf(steps, comparison);
        if (!begin)
            return;
        auto const isColumn = [this](std::size_t i) { return columns[i].has_value(); };
        std::size_t column = *begin;
        while (column < comparison && !isColumn(column))
            ++column;
        if (column == comparison)
            return;
        for (std::size_t i = *begin; i < comparison; ++i)
            if (i != column && !isColumn(i))
                matchLeaf(steps[i], *columns[column]);
    }

    static void matchLeaf(Step& leaf, ExpressionColumn const& column) {
        if (leaf.operation == Operation::number && column.isSingle)
            leaf.value = static_cast<double>(static_cast<float>(leaf.value));
        if (leaf.operation != Operation::number && column.numberOf) {
            leaf.operation = Operation::number;
            leaf.value = column.numberOf(leaf.name).value_or(-1.0);
        }
    }

    std::string const& text;
    std::vector<Step> steps;
    std::vector<std::optional<ExpressionColumn>> columns; ///< of the steps that are names
    std::vector<Block> stack;
};

} // namespace

Expression::Expression(std::string expression) : text(std::move(expression)) {
    namespace pegtl = tao::pegtl;
    pegtl::memory_input input(text, "");
    expressiongrammar::Program program;
    try {
        pegtl::parse<expressiongrammar::Whole, expressiongrammar::Action,
                     expressiongrammar::Control>(input, program);
    } catch (pegtl::parse_error const& error) {
        pointAt(text, error.positions().front().byte, std::string(error.message()));
    }
    steps = std::move(program.steps);
}

std::vector<std::string> Expression::names() const {
    std::vector<bool> isWord(steps.size());
    for (std::size_t i = 0; i < steps.size(); ++i)
        if (auto const begin = leavesOf(steps, i);
            begin && steps[*begin].operation == Operation::name && mayAskForWords(steps[i]))
            for (std::size_t k = *begin + 1; k < i; ++k)
                isWord[k] = !steps[k].isQuoted;
    std::vector<std::string> found;
    for (std::size_t i = 0; i < steps.size(); ++i)
        if (steps[i].operation == Operation::name && !isWord[i] &&
            std::find(found.begin(), found.end(), steps[i].name) == found.end())
            found.push_back(steps[i].name);
    return found;
}

std::vector<std::uint32_t> Expression::matches(std::size_t count, Find const& find) const {
    Bound bound(text, steps, find);
    std::vector<std::uint32_t> matching;
    for (std::size_t first = 0; first < count; first += Bound::blockSize)
        bound.run(first, std::min(Bound::blockSize, count - first), matching);
    return matching;
}

} // namespace pipeline
