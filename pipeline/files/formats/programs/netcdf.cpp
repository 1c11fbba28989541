// Reads AMBER NetCDF, by a program of its own.
#include "pipeline/files/formats/programs/readerprogram.h"
#include "pipeline/files/formats/readers.h"
#include "pipeline/files/inputfile.h"

namespace pipeline {

namespace {

constexpr VectorColumns positionNames[] = {
    {"coordinates", {"coordinates.x", "coordinates.y", "coordinates.z"}}};
constexpr VectorColumns velocityNames[] = {
    {"velocities", {"velocities.x", "velocities.y", "velocities.z"}}};
constexpr ColumnNames amberNames = {"variable", positionNames, {}, velocityNames, {}};

constexpr ReaderProgram netcdfProgram = {
    "kelpa-read-netcdf", "NetCDF",
    "install the package kelpa-formats-netcdf, or build where NetCDF is found (libnetcdf-dev)"};

} // namespace

ParticleSet readNetcdf(InputFile& file, ReadOptions const& options) {
    ParticleSet particles;
    particles.format = "AMBER NetCDF";
    readByProgram(file, netcdfProgram, amberNames, options, particles);
    return particles;
}

} // namespace pipeline
