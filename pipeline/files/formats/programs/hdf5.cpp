// Reads HDF5 of several conventions, by a program of its own.
#include "pipeline/files/elements.h"
#include "pipeline/files/formats/programs/readerprogram.h"
#include "pipeline/files/formats/readers.h"
#include "pipeline/files/inputfile.h"

#include <utility>
#include <vector>

// Particles in HDF5, which the program kelpa-read-hdf5 is linked to. It tells the conventions apart
// and gives places, velocities and ids the names by which they are known here.

namespace pipeline {

namespace {

constexpr VectorColumns positionNames[] = {
    {"Coordinates", {"Coordinates.x", "Coordinates.y", "Coordinates.z"}},
    {"position", {"position.x", "position.y", "position.z"}}};
constexpr VectorColumns velocityNames[] = {
    {"Velocities", {"Velocities.x", "Velocities.y", "Velocities.z"}},
    {"Velocity", {"Velocity.x", "Velocity.y", "Velocity.z"}},
    {"velocity", {"velocity.x", "velocity.y", "velocity.z"}}};
constexpr VectorColumns imageNames[] = {{"image", {"image.x", "image.y", "image.z"}}};

constexpr ColumnNames hdf5Names = {"array",   positionNames, {},       velocityNames,
                                   "element", imageNames,    "species"};

constexpr ReaderProgram hdf5Program = {
    "kelpa-read-hdf5", "HDF5",
    "install the package kelpa-formats-hdf5, or build where HDF5 is found (libhdf5-dev)"};

/// Takes kinds of particles that all go by symbols of elements for these.
void takeElements(ParticleSet& particles) {
    if (particles.typeNames == nullptr || particles.types.empty())
        return;
    std::vector<std::string> const& names = particles.typeNames->all();
    std::vector<std::uint8_t> elements;
    for (std::int64_t const type : particles.types) {
        bool const isNamed = type >= 0 && static_cast<std::size_t>(type) < names.size();
        std::string const& name = isNamed ? names[static_cast<std::size_t>(type)] : "";
        elements.push_back(atomicNumberOf(name));
        if (elements.back() == 0)
            return;
    }
    particles.elements = std::move(elements);
}

} // namespace

ParticleSet readHdf5(InputFile& file, ReadOptions const& options) {
    ParticleSet particles;
    particles.format = "HDF5";
    readByProgram(file, hdf5Program, hdf5Names, options, particles);
    takeElements(particles);
    return particles;
}

} // namespace pipeline
