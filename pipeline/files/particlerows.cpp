// Rows of particle sets: some of them, or some again.
#include "pipeline/files/particlerows.h"

#include <cstddef>
#include <cstring>
#include <utility>

namespace pipeline {

namespace {

template <class Entry>
void take(std::vector<Entry>& array, std::vector<std::uint32_t> const& rows) {
    if (array.empty())
        return;
    std::vector<Entry> taken;
    taken.reserve(rows.size());
    for (std::uint32_t const row : rows)
        taken.push_back(array[row]);
    array = std::move(taken);
}

void take(TypedColumn& column, std::vector<std::uint32_t> const& rows) {
    std::size_t const width = scalarBytes(column.type);
    std::vector<char> taken(rows.size() * width);
    for (std::size_t i = 0; i < rows.size(); ++i)
        std::memcpy(taken.data() + i * width, column.bytes.data() + rows[i] * width, width);
    column.bytes = std::move(taken);
}

} // namespace

void takeRows(ParticleSet& particles, std::vector<std::uint32_t> const& rows) {
    take(particles.positions, rows);
    take(particles.velocities, rows);
    take(particles.images, rows);
    take(particles.colors, rows);
    take(particles.radii, rows);
    take(particles.ids, rows);
    take(particles.elements, rows);
    take(particles.types, rows);
    for (Attribute& attribute : particles.attributes)
        take(attribute.values, rows);
    for (TypedColumn& column : particles.typed)
        take(column, rows);
}

} // namespace pipeline
