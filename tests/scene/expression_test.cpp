// What expressions mean, and where they say that they cannot be understood.

#include "pipeline/scene/expression.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using pipeline::Expression;
using pipeline::ExpressionColumn;

/// Four particles: q as a file has it in single precision, kind a column of words.
std::vector<std::uint32_t> shown(std::string const& text) {
    static std::map<std::string, std::array<double, 4>> const columns = {
        {"x", {0, 1, 2, 3}},
        {"q", {static_cast<double>(0.1F), -2, std::nan(""), 0}},
        {"c_s[1]", {5, 6, 7, 8}},
        {"a b", {1, 0, 1, 0}},
        {"kind", {0, 1, 1, 2}}};
    return Expression(text).matches(
        4, [](std::string const& name) -> std::optional<ExpressionColumn> {
            auto const found = columns.find(name);
            if (found == columns.end())
                return std::nullopt;
            ExpressionColumn column{[found](std::size_t i) { return found->second[i]; }};
            if (name == "kind")
                column.numberOf = [](std::string_view word) -> std::optional<double> {
                    return word == "O" ? std::optional(0.0) : std::nullopt;
                };
            return column;
        });
}

std::string complaint(std::string const& text) {
    try {
        shown(text);
    } catch (std::invalid_argument const& error) {
        return error.what();
    }
    return "none";
}

using Rows = std::vector<std::uint32_t>;

TEST(Expressions, MeanWhatTheySay) {
    EXPECT_EQ(shown("x > 1"), (Rows{2, 3}));
    EXPECT_EQ(shown(" not x>=2 and x != 0 or x==3 "), (Rows{1, 3}));
    EXPECT_EQ(shown("!(x < 2 || x == 3) && 1"), (Rows{2}));
    EXPECT_EQ(shown("1 + 2 * x - 3 == -2 + x % 2 * 2"), (Rows{0, 1}));
    EXPECT_EQ(shown("8 / 2 / 2 == x"), (Rows{2})) << "from the left";
    EXPECT_EQ(shown("-(x - 3) <= abs(-1.5e0)"), (Rows{2, 3}));
    EXPECT_EQ(shown("max(x, min(2, 1)) == sqrt(1)"), (Rows{0, 1}));
    EXPECT_EQ(shown("x in (3, 1, (0 - 1))"), (Rows{1, 3}));
    EXPECT_EQ(shown("c_s[1] < 6 or `a b` and x == 2"), (Rows{0, 2}));
    EXPECT_EQ(shown("q == 0.1 or q == -2"), (Rows{0, 1})) << "rounded as the column is";
    EXPECT_EQ(shown("q"), (Rows{0, 1})) << "what is no number is not true";
    EXPECT_EQ(shown("kind == O or kind in ('Na', 2)"), (Rows{0, 3}));
    EXPECT_EQ(shown("kind != \"C\""), (Rows{0, 1, 2, 3}));
    EXPECT_EQ(Expression("kind == O and q > q and x in (1, O) or x == `O`").names(),
              (std::vector<std::string>{"kind", "q", "x", "O"}));
}

TEST(Expressions, PointAtWhatTheyCannotBe) {
    EXPECT_EQ(complaint("x = 2"), "equality is written ==\n  x = 2\n    ^");
    EXPECT_EQ(complaint("x > "), "expected a column or a number here\n  x > \n      ^");
    EXPECT_EQ(complaint("0 < x < 2"),
              "one comparison at a time: write 0 < z and z < 10\n  0 < x < 2\n        ^");
    EXPECT_EQ(complaint("(x > 1"), "expected ) here\n  (x > 1\n        ^");
    EXPECT_EQ(complaint("x > 1 y"), "expected and, or, a comparison or an end here\n  x > 1 y\n"
                                    "        ^");
    EXPECT_EQ(complaint("x > 1 and nix"), "no column 'nix'\n  x > 1 and nix\n            ^");
    EXPECT_EQ(complaint("x == 'O'"), "'O' is a word, and beside no column of words\n"
                                     "  x == 'O'\n       ^");
    for (char const* const text : {"", "2x > 1", "x in 3", "x in ()", "and", "kind == 'O", "`x",
                                   "min(x)", "x >> 1", "x # 1"})
        EXPECT_NE(complaint(text), "none") << text;
}

} // namespace
