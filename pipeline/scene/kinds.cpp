// Finds the particles of a kind by what their file tells of them: types or elements.
#include "pipeline/scene/kinds.h"

#include "pipeline/files/elements.h"
#include "pipeline/files/errors.h"
#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <set>

namespace pipeline {

namespace {

bool isNumber(std::string const& word) {
    std::int64_t number = 0;
    return parseNumber(word, number);
}

/// The numbers that tell kinds apart: those of types, or of elements.
template <class Visit> void withNumbers(ParticleSet const& particles, bool areTypes, Visit visit) {
    if (areTypes)
        visit(particles.types);
    else
        visit(particles.elements);
}

} // namespace

bool areKinds(std::string_view column) {
    constexpr std::string_view kinds[] = {"type",    "element",   "mol",     "molecule",
                                          "residue", "chain",     "segment", "cluster",
                                          "site",    "operation", "copy"};
    return std::ranges::find(kinds, column) != std::end(kinds);
}

bool isKindName(std::string const& word) {
    return isNumber(word) || atomicNumberOf(word) != 0;
}

std::size_t forEachOfKind(ParticleSet const& particles, std::string const& kind,
                          std::function<void(std::size_t)> const& visit) {
    bool const isType = isNumber(kind);
    std::int64_t wanted = atomicNumberOf(kind);
    if (isType)
        parseNumber(kind, wanted);
    std::size_t count = 0;
    withNumbers(particles, isType, [&](auto const& numbers) {
        if (numbers.empty())
            throw InputError(particles.name + ": has no " +
                             (isType ? "numbered types" : "elements") + " for '" + kind + "'");
        for (std::size_t i = 0; i < numbers.size(); ++i)
            if (numbers[i] == wanted) {
                visit(i);
                ++count;
            }
    });
    return count;
}

std::string kindsBeside(ParticleSet const& particles, std::string const& kind) {
    constexpr std::size_t most = 20;
    std::set<std::int64_t> found;
    bool const areTypes = isNumber(kind);
    withNumbers(particles, areTypes, [&](auto const& numbers) {
        for (auto const number : numbers)
            if (found.size() <= most)
                found.insert(number);
    });
    std::string names;
    std::size_t told = 0;
    for (std::int64_t const number : found) {
        if (told++ == most)
            return names + " ...";
        names += (names.empty() ? "" : " ") +
                 (areTypes ? std::to_string(number)
                           : std::string(symbolOf(static_cast<std::uint8_t>(number))));
    }
    return names;
}

} // namespace pipeline
