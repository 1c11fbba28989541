// The readers of all formats. Each starts at the first byte of its file, or, where a format holds
// many frames, behind those that `InputFile::frames` counts.
#pragma once

#include "pipeline/files/inputfile.h"
#include "pipeline/files/particleset.h"
#include "pipeline/files/readoptions.h"

#include <string_view>

namespace pipeline {

ParticleSet readPly(InputFile& file, ReadOptions const& options);
ParticleSet readXyz(InputFile& file, ReadOptions const& options);
ParticleSet readLammps(InputFile& file, ReadOptions const& options);
ParticleSet readLammpsBinary(InputFile& file, ReadOptions const& options);
bool isLammpsBinary(std::string_view head); ///< whether these are its first bytes
ParticleSet readLammpsData(InputFile& file, ReadOptions const& options);
ParticleSet readDcd(InputFile& file, ReadOptions const& options);
bool isDcd(std::string_view head); ///< whether these are its first bytes
ParticleSet readXtc(InputFile& file, ReadOptions const& options);
ParticleSet readTrr(InputFile& file, ReadOptions const& options);
ParticleSet readGro(InputFile& file, ReadOptions const& options);
ParticleSet readBgeo(InputFile& file, ReadOptions const& options);
ParticleSet readPdb(InputFile& file, ReadOptions const& options);
ParticleSet readMmCif(InputFile& file, ReadOptions const& options);
ParticleSet readHdf5(InputFile& file, ReadOptions const& options);
ParticleSet readNetcdf(InputFile& file, ReadOptions const& options);
ParticleSet readVdb(InputFile& file, ReadOptions const& options);

} // namespace pipeline
