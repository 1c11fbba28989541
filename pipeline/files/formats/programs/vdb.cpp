// Reads OpenVDB points, by a program of its own.
#include "pipeline/files/formats/frames.h"
#include "pipeline/files/formats/programs/readerprogram.h"
#include "pipeline/files/formats/readers.h"
#include "pipeline/files/inputfile.h"

// VDB points, through OpenVDB, which the program kelpa-read-vdb is linked to: the library starts
// threads wherever it is loaded, and believes what a file says of itself.

namespace pipeline {

namespace {

constexpr VectorColumns positionNames[] = {{"P", {"P.x", "P.y", "P.z"}}};
constexpr VectorColumns colorNames[] = {{"Cd", {"Cd.x", "Cd.y", "Cd.z"}},
                                        {"color", {"color.x", "color.y", "color.z"}}};
constexpr VectorColumns velocityNames[] = {
    {"v", {"v.x", "v.y", "v.z"}}, {"velocity", {"velocity.x", "velocity.y", "velocity.z"}}};
constexpr ColumnNames vdbNames = {"attribute", positionNames, colorNames, velocityNames, {}};

constexpr ReaderProgram vdbProgram = {
    "kelpa-read-vdb", "OpenVDB",
    "install the package kelpa-formats-vdb, or build where OpenVDB is found (libopenvdb-dev and "
    "libboost-dev), or export as PLY"};

} // namespace

ParticleSet readVdb(InputFile& file, ReadOptions const& options) {
    requireOnlyFrame(file, options, "a VDB file");
    ParticleSet particles;
    particles.format = "OpenVDB points";
    particles.upAxis = 'y';
    readByProgram(file, vdbProgram, vdbNames, options, particles);
    return particles;
}

} // namespace pipeline
