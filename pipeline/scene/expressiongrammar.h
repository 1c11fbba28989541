// The grammar of expressions; internal to `Expression`.
#pragma once

#include "pipeline/files/textvalues.h"
#include "pipeline/scene/expression.h"

#include <string>
#include <tao/pegtl.hpp>
#include <vector>

namespace pipeline::expressiongrammar {

using namespace tao::pegtl;
using Operation = Expression::Operation;

/// What has been read so far.
struct Program {
    std::vector<Expression::Step> steps{};
    std::vector<std::size_t> items{}; ///< of the lists that are open
};

struct Blanks : star<space> {};
template <class... Rules> struct Token : seq<Rules..., Blanks> {};
template <char... letters>
struct Keyword : Token<string<letters...>, not_at<sor<alnum, one<'_'>>>> {};

struct And : sor<Keyword<'a', 'n', 'd'>, Token<string<'&', '&'>>> {};
struct Or : sor<Keyword<'o', 'r'>, Token<string<'|', '|'>>> {};
struct Not : sor<Keyword<'n', 'o', 't'>, Token<one<'!'>, not_at<one<'='>>>> {};
struct In : Keyword<'i', 'n'> {};
struct Reserved : sor<And, Or, Not, In> {};

struct Open : Token<one<'('>> {};
struct Close : Token<one<')'>> {};
struct Comma : Token<one<','>> {};

// Numbers as files write them; where no number ends, a word goes on: 2x is none.
struct Exponent : seq<one<'e', 'E'>, opt<one<'+', '-'>>, plus<digit>> {};
struct NumberText
    : seq<sor<seq<plus<digit>, opt<one<'.'>, star<digit>>>, seq<one<'.'>, plus<digit>>>,
          opt<Exponent>> {};
struct Number : Token<NumberText, not_at<sor<alpha, one<'_'>>>> {};
struct Index : seq<one<'['>, plus<digit>, one<']'>> {};
struct NameText : seq<sor<alpha, one<'_'>>, star<sor<alnum, one<'_', '.'>, Index>>> {};
struct Name : Token<not_at<Reserved>, NameText> {};
struct QuotedName : if_must<one<'`'>, plus<not_one<'`'>>, one<'`'>, Blanks> {};
struct WordInOne : if_must<one<'\''>, star<not_one<'\''>>, one<'\''>, Blanks> {};
struct WordInTwo : if_must<one<'"'>, star<not_one<'"'>>, one<'"'>, Blanks> {};

struct Any;
struct Sum;

template <char... letters> struct OfOne : if_must<seq<Keyword<letters...>, Open>, Sum, Close> {};
template <char... letters>
struct OfTwo : if_must<seq<Keyword<letters...>, Open>, Sum, Comma, Sum, Close> {};
struct Absolute : OfOne<'a', 'b', 's'> {};
struct Root : OfOne<'s', 'q', 'r', 't'> {};
struct Least : OfTwo<'m', 'i', 'n'> {};
struct Most : OfTwo<'m', 'a', 'x'> {};

struct Inside : if_must<Open, Any, Close> {};
struct Primary
    : sor<Number, Absolute, Root, Least, Most, QuotedName, WordInOne, WordInTwo, Inside, Name> {};
struct Unary;
struct Negated : if_must<Token<one<'-'>>, Unary> {};
struct Unary : sor<Negated, Primary> {};

template <char sign, class Operand> struct Then : if_must<Token<one<sign>>, Operand> {};
struct Times : Then<'*', Unary> {};
struct Over : Then<'/', Unary> {};
struct Rest : Then<'%', Unary> {};
struct Product : seq<Unary, star<sor<Times, Over, Rest>>> {};
struct Plus : Then<'+', Product> {};
struct Minus : Then<'-', Product> {};
struct Sum : seq<Product, star<sor<Plus, Minus>>> {};

template <char... sign> struct Compare : if_must<Token<string<sign...>>, Sum> {};
struct Equal : Compare<'=', '='> {};
struct Unequal : Compare<'!', '='> {};
struct LessOrEqual : Compare<'<', '='> {};
struct MoreOrEqual : Compare<'>', '='> {};
struct Less : Compare<'<'> {};
struct More : Compare<'>'> {};
struct Item : Sum {};
struct Among : if_must<In, Open, Item, star<if_must<Comma, Item>>, Close> {};
struct SecondComparison : at<sor<one<'<', '>'>, string<'=', '='>, string<'!', '='>>> {};
struct NoSecond : not_at<SecondComparison> {};
struct AssignedOnce : not_at<seq<one<'='>, not_at<one<'='>>>> {};
struct Comparison
    : seq<Sum, must<AssignedOnce>,
          opt<sor<Equal, Unequal, LessOrEqual, MoreOrEqual, Less, More, Among>, must<NoSecond>>> {};

struct Inverted;
struct Condition : sor<Inverted, Comparison> {};
struct Inverted : if_must<Not, Condition> {};
struct AndThen : if_must<And, Condition> {};
struct All : seq<Condition, star<AndThen>> {};
struct OrElse : if_must<Or, All> {};
struct Any : seq<All, star<OrElse>> {};
struct End : eof {};
struct Whole : seq<Blanks, must<Any>, must<End>> {};

template <class Rule> struct Action : nothing<Rule> {};

inline std::size_t placeOf(auto const& input) {
    return input.position().byte;
}
template <Operation operation> struct Does {
    template <class Input> static void apply(Input const& input, Program& program) {
        program.steps.push_back({operation, placeOf(input)});
    }
};
inline std::string trimmed(std::string text) {
    text.erase(text.find_last_not_of(" \t\r\n\f\v") + 1);
    return text;
}
/// A leaf with its text, without so many characters of quotes at either end.
template <Operation operation, std::size_t quotes> struct Leaf {
    template <class Input> static void apply(Input const& input, Program& program) {
        std::string const text = trimmed(input.string());
        program.steps.push_back({operation, placeOf(input), 0.0,
                                 text.substr(quotes, text.size() - 2 * quotes), quotes > 0});
    }
};

template <> struct Action<Number> {
    template <class Input> static void apply(Input const& input, Program& program) {
        double value = 0.0;
        parseNumber(trimmed(input.string()), value);
        program.steps.push_back({Operation::number, placeOf(input), value});
    }
};
template <> struct Action<Name> : Leaf<Operation::name, 0> {};
template <> struct Action<QuotedName> : Leaf<Operation::name, 1> {};
template <> struct Action<WordInOne> : Leaf<Operation::word, 1> {};
template <> struct Action<WordInTwo> : Leaf<Operation::word, 1> {};
template <> struct Action<Absolute> : Does<Operation::absolute> {};
template <> struct Action<Root> : Does<Operation::root> {};
template <> struct Action<Least> : Does<Operation::least> {};
template <> struct Action<Most> : Does<Operation::most> {};
template <> struct Action<Negated> {
    template <class Input> static void apply(Input const& input, Program& program) {
        if (Expression::Step& last = program.steps.back(); last.operation == Operation::number)
            last.value = -last.value;
        else
            program.steps.push_back({Operation::negate, placeOf(input)});
    }
};
template <> struct Action<Times> : Does<Operation::multiply> {};
template <> struct Action<Over> : Does<Operation::divide> {};
template <> struct Action<Rest> : Does<Operation::remainder> {};
template <> struct Action<Plus> : Does<Operation::add> {};
template <> struct Action<Minus> : Does<Operation::subtract> {};
template <> struct Action<Equal> : Does<Operation::equal> {};
template <> struct Action<Unequal> : Does<Operation::unequal> {};
template <> struct Action<Less> : Does<Operation::less> {};
template <> struct Action<LessOrEqual> : Does<Operation::lessOrEqual> {};
template <> struct Action<More> : Does<Operation::more> {};
template <> struct Action<MoreOrEqual> : Does<Operation::moreOrEqual> {};
template <> struct Action<Inverted> : Does<Operation::invert> {};
template <> struct Action<AndThen> : Does<Operation::both> {};
template <> struct Action<OrElse> : Does<Operation::either> {};
template <> struct Action<In> {
    static void apply0(Program& program) { program.items.push_back(0); }
};
template <> struct Action<Item> {
    static void apply0(Program& program) { ++program.items.back(); }
};
template <> struct Action<Among> {
    template <class Input> static void apply(Input const& input, Program& program) {
        auto const entries = static_cast<double>(program.items.back() + 1);
        program.steps.push_back({Operation::among, placeOf(input), entries});
        program.items.pop_back();
    }
};

template <class> inline constexpr char const* complaint = nullptr;
template <> inline constexpr char const* complaint<Any> = "expected a column or a number here";
template <> inline constexpr char const* complaint<All> = complaint<Any>;
template <> inline constexpr char const* complaint<Condition> = complaint<Any>;
template <> inline constexpr char const* complaint<Sum> = complaint<Any>;
template <> inline constexpr char const* complaint<Item> = complaint<Any>;
template <> inline constexpr char const* complaint<Product> = complaint<Any>;
template <> inline constexpr char const* complaint<Unary> = complaint<Any>;
template <>
inline constexpr char const* complaint<End> = "expected and, or, a comparison or an end here";
template <> inline constexpr char const* complaint<AssignedOnce> = "equality is written ==";
template <>
inline constexpr char const* complaint<NoSecond> =
    "one comparison at a time: write 0 < z and z < 10";
template <> inline constexpr char const* complaint<Close> = "expected ) here";
template <> inline constexpr char const* complaint<Open> = "expected ( here";
template <> inline constexpr char const* complaint<Comma> = "expected a comma here";
template <> inline constexpr char const* complaint<one<'`'>> = "expected ` behind the name";
template <> inline constexpr char const* complaint<plus<not_one<'`'>>> = "expected a name here";
template <> inline constexpr char const* complaint<one<'\''>> = "expected ' behind the word";
template <> inline constexpr char const* complaint<one<'"'>> = "expected \" behind the word";

template <class Rule> struct Control : normal<Rule> {
    template <class Input, class... States>
    [[noreturn]] static void raise(Input const& input, States&&...) {
        constexpr char const* what = complaint<Rule>;
        throw parse_error(what != nullptr ? what : "this is not understood", input);
    }
};

} // namespace pipeline::expressiongrammar
