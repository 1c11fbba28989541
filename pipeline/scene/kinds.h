// Kinds of particles by name: numbered types and elements.
#pragma once

#include "pipeline/files/particleset.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace pipeline {

/// What somebody says of one kind of particles.
template <class Value> struct OfKind {
    std::string kind; ///< the number of a type, "2", or the symbol of an element, "O"
    Value value;
};

/// Whether a column of this name numbers kinds, in no order that means anything.
bool areKinds(std::string_view column);

/// Whether a word can be the name of a kind: a whole number, or an element's symbol.
bool isKindName(std::string const& word);

/// Visits the particles of a kind and tells how many there are. Throws `InputError` where the file
/// tells neither types nor elements, as the name needs.
std::size_t forEachOfKind(ParticleSet const& particles, std::string const& kind,
                          std::function<void(std::size_t particle)> const& visit);

/// The kinds of its sort that there are instead: "1 2", or "H O", in short.
std::string kindsBeside(ParticleSet const& particles, std::string const& kind);

} // namespace pipeline
