// Elements for types that a file numbers 1, 2 and so on.
#include "pipeline/files/nameelements.h"

#include "pipeline/files/errors.h"

#include <cstddef>
#include <string>

namespace pipeline {

void nameElements(ParticleSet& particles, std::vector<std::uint8_t> const& elements) {
    if (elements.empty())
        return;
    if (particles.types.empty())
        throw InputError(particles.name + ": has no numbered types", {Hint::To::nameElements});
    particles.elements.clear();
    for (std::int64_t const type : particles.types) {
        if (type < 1 || type > static_cast<std::int64_t>(elements.size()))
            throw InputError(particles.name + ": there is a type " + std::to_string(type),
                             {Hint::To::nameMoreElements, 0, elements.size()});
        particles.elements.push_back(elements[static_cast<std::size_t>(type - 1)]);
    }
}

} // namespace pipeline
