// Kinds of particles by name: numbered types and elements.
#pragma once

#include "pipeline/files/particleset.h"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace pipeline {

/// What somebody says of one kind of particles.
template <class Value> struct OfKind {
    std::string kind; ///< the number of a type, "2", the symbol of an element, "O", or a name
    Value value;
};

/// The kinds of particles that names stand for: those of a column of names, if one is meant, else
/// types, by number or name, and elements.
class Kinds {
  public:
    /// `column` may be null; both stay as they are for as long as kinds are asked for.
    Kinds(ParticleSet const& particleSet, Attribute const* column)
        : particles(particleSet), named(column) {}

    /// Visits the particles of a kind and tells how many there are. Throws `InputError` where the
    /// file tells nothing that could have this name.
    std::size_t forEach(std::string const& kind,
                        std::function<void(std::size_t particle)> const& visit) const;

    /// The kinds of its sort that there are instead: "1 2", or "H O", in short.
    std::string beside(std::string const& kind) const;

  private:
    enum class Sort { named, type, element, none };
    Sort sortOf(std::string const& kind) const;

    ParticleSet const& particles;
    Attribute const* named;
};

} // namespace pipeline
