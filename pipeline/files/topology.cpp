// Particles taken out by name, and columns handed to frames that lack them.
#include "pipeline/files/topology.h"

#include "pipeline/files/errors.h"
#include "pipeline/files/particlefile.h"
#include "pipeline/files/particlerows.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
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
    Attribute attribute{column.name, {}, {}, column.names};
    withType(column.type, [&]<class Number>(Number value) {
        for (std::size_t at = 0; at < column.bytes.size(); at += sizeof value) {
            std::memcpy(&value, column.bytes.data() + at, sizeof value);
            attribute.values.push_back(static_cast<float>(value));
        }
    });
    return attribute;
}

/// Takes particles out of a frame: the rows, rising, that are named.
void eraseParticles(ParticleSet& frame, std::vector<std::size_t> const& rows) {
    std::vector<std::uint32_t> kept;
    auto next = rows.begin();
    for (std::uint32_t row = 0; row < frame.positions.size(); ++row)
        if (next != rows.end() && *next == row)
            ++next;
        else
            kept.push_back(row);
    takeRows(frame, kept);
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
    if (frame.types.empty()) {
        frame.types = known.types;
        frame.typeNames = known.typeNames;
    }
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
