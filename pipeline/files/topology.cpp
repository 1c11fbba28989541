// Particles taken out by name, and columns handed to frames that lack them.
#include "pipeline/files/topology.h"

#include "pipeline/files/errors.h"
#include "pipeline/files/particlefile.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

namespace pipeline {

namespace {

TypedColumn const* find(ParticleSet const& set, std::string_view name) {
    for (TypedColumn const& column : set.typed)
        if (column.name == name)
            return &column;
    return nullptr;
}

/// Whether a column tells where the topology's own particles are, or go.
bool isPlace(std::string_view name) {
    constexpr std::array<std::string_view, 9> names = {"x",  "y",  "z",  "vx", "vy",
                                                       "vz", "ix", "iy", "iz"};
    return std::find(names.begin(), names.end(), name) != names.end();
}

bool tells(ParticleSet const& set, std::string_view name) {
    return find(set, name) != nullptr && !isPlace(name);
}

Attribute attributeOf(TypedColumn const& column) {
    Attribute attribute{column.name, {}};
    withType(column.type, [&]<class Number>(Number value) {
        for (std::size_t at = 0; at < column.bytes.size(); at += sizeof value) {
            std::memcpy(&value, column.bytes.data() + at, sizeof value);
            attribute.values.push_back(static_cast<float>(value));
        }
    });
    return attribute;
}

/// Takes rows of so many entries out of an array that has any.
template <class Entry>
void eraseRows(std::vector<Entry>& array, std::vector<std::size_t> const& rows, std::size_t width) {
    auto next = rows.begin();
    std::size_t kept = 0;
    for (std::size_t at = 0; at < array.size(); ++at) {
        while (next != rows.end() && *next < at / width)
            ++next;
        if (next == rows.end() || *next != at / width)
            array[kept++] = array[at];
    }
    array.resize(kept);
}

/// Takes particles out of a frame.
void eraseParticles(ParticleSet& frame, std::vector<std::size_t> const& rows) {
    eraseRows(frame.positions, rows, 1);
    eraseRows(frame.velocities, rows, 1);
    eraseRows(frame.images, rows, 1);
    eraseRows(frame.colors, rows, 1);
    eraseRows(frame.radii, rows, 1);
    eraseRows(frame.ids, rows, 1);
    eraseRows(frame.elements, rows, 1);
    eraseRows(frame.types, rows, 1);
    for (Attribute& attribute : frame.attributes)
        eraseRows(attribute.values, rows, 1);
    for (TypedColumn& column : frame.typed)
        eraseRows(column.bytes, rows, scalarBytes(column.type));
}

template <class Array> void giveIfMissing(Array& array, Array const& given) {
    if (array.empty())
        array = given;
}

} // namespace

Topology::Topology(std::string file, PhaseProgress const& progress)
    : path(std::move(file)),
      known(readParticleFile(path, {.allAttributes = true, .progress = progress})) {
}

ReadOptions Topology::forTrajectory(ReadOptions options) const {
    std::erase_if(options.attributes,
                  [this](std::string const& name) { return tells(known, name); });
    return options;
}

void Topology::giveTo(ParticleSet& frame, ReadOptions const& options) const {
    // A trajectory places the virtual sites as well, which the topology tells and does not hold.
    if (frame.positions.size() == known.positions.size() + known.virtualSites.size())
        eraseParticles(frame, known.virtualSites);
    if (frame.positions.size() != known.positions.size())
        throw InputError(fmt::format("{}: {} particles, and the topology {} tells of {}",
                                     frame.name, frame.positions.size(), path,
                                     known.positions.size()));
    giveIfMissing(frame.elements, known.elements);
    giveIfMissing(frame.types, known.types);
    giveIfMissing(frame.ids, known.ids);
    if (frame.radii.empty() && !known.radii.empty()) {
        frame.radii = known.radii;
        frame.radiusSource = known.radiusSource;
    }
    giveIfMissing(frame.unknownElements, known.unknownElements);
    for (std::string const& name : options.attributes)
        if (tells(known, name))
            frame.attributes.push_back(attributeOf(*find(known, name)));
    for (TypedColumn const& column : known.typed)
        if (options.allAttributes && !isPlace(column.name) && find(frame, column.name) == nullptr)
            frame.typed.push_back(column);
}

} // namespace pipeline
