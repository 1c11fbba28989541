// Kinds of particles by name.
#include "pipeline/scene/kinds.h"

#include "pipeline/files/elements.h"
#include "pipeline/files/errors.h"
#include "pipeline/files/printable.h"
#include "pipeline/files/textvalues.h"

#include <cstdint>
#include <optional>
#include <set>

namespace pipeline {

namespace {

std::optional<std::int64_t> numberIn(std::string const& word) {
    std::int64_t number = 0;
    return parseNumber(word, number) ? std::optional(number) : std::nullopt;
}

template <class Number>
std::size_t forEachWith(std::vector<Number> const& numbers, std::int64_t wanted,
                        std::function<void(std::size_t)> const& visit) {
    std::size_t count = 0;
    for (std::size_t i = 0; i < numbers.size(); ++i)
        if (static_cast<std::int64_t>(numbers[i]) == wanted) {
            visit(i);
            ++count;
        }
    return count;
}

/// A few of the different numbers, each as `nameOf` has it.
template <class Number, class NameOf>
std::string fewOf(std::vector<Number> const& numbers, NameOf const& nameOf) {
    constexpr std::size_t most = 20;
    std::set<std::int64_t> found;
    for (Number const number : numbers)
        if (found.size() <= most)
            found.insert(static_cast<std::int64_t>(number));
    std::string names;
    std::size_t told = 0;
    for (std::int64_t const number : found) {
        if (told++ == most)
            return names + " ...";
        names += (names.empty() ? "" : " ") + nameOf(number);
    }
    return names;
}

std::string nameIn(NameTable const& names, std::int64_t number) {
    auto const place = static_cast<std::size_t>(number);
    return place < names.all().size() ? printable(names.all()[place]) : std::to_string(number);
}

} // namespace

Kinds::Sort Kinds::sortOf(std::string const& kind) const {
    if (named != nullptr && named->names != nullptr)
        return Sort::named;
    bool const isNumber = numberIn(kind).has_value();
    if (isNumber || (particles.typeNames != nullptr && particles.typeNames->find(kind)))
        return particles.types.empty() ? Sort::none : Sort::type;
    return particles.elements.empty() || atomicNumberOf(kind) == 0 ? Sort::none : Sort::element;
}

std::size_t Kinds::forEach(std::string const& kind,
                           std::function<void(std::size_t)> const& visit) const {
    switch (sortOf(kind)) {
    case Sort::named: {
        auto const number = named->names->find(kind);
        return number ? forEachWith(named->values, *number, visit) : 0;
    }
    case Sort::type: {
        auto const number = numberIn(kind);
        return forEachWith(particles.types, number ? *number : *particles.typeNames->find(kind),
                           visit);
    }
    case Sort::element:
        return forEachWith(particles.elements, atomicNumberOf(kind), visit);
    case Sort::none:
        break;
    }
    std::string there;
    if (!particles.types.empty())
        there += "types " + beside("1");
    if (!particles.elements.empty())
        there += (there.empty() ? "elements " : ", elements ") + beside("H");
    throw InputError(particles.name + ": no kind of particles is called " + quoted(kind) +
                     "; there are " + (there.empty() ? "neither types nor elements" : there));
}

std::string Kinds::beside(std::string const& kind) const {
    switch (sortOf(kind)) {
    case Sort::named:
        return fewOf(named->values,
                     [this](std::int64_t number) { return nameIn(*named->names, number); });
    case Sort::type:
        return fewOf(particles.types, [this](std::int64_t number) {
            return particles.typeNames != nullptr ? nameIn(*particles.typeNames, number)
                                                  : std::to_string(number);
        });
    case Sort::element:
        return fewOf(particles.elements, [](std::int64_t number) {
            return std::string(symbolOf(static_cast<std::uint8_t>(number)));
        });
    case Sort::none:
        break;
    }
    return {};
}

} // namespace pipeline
