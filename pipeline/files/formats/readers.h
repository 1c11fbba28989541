// The readers of all formats: of those that hold one frame, from the first byte of its file on, and
// of those that hold frame after frame.
#pragma once

#include "pipeline/files/inputfile.h"
#include "pipeline/files/particleset.h"
#include "pipeline/files/readoptions.h"

#include <memory>
#include <string_view>

namespace pipeline {

class FrameFormat;

ParticleSet readPly(InputFile& file, ReadOptions const& options);
ParticleSet readLammpsData(InputFile& file, ReadOptions const& options);
ParticleSet readBgeo(InputFile& file, ReadOptions const& options);
ParticleSet readMmCif(InputFile& file, ReadOptions const& options);
ParticleSet readHdf5(InputFile& file, ReadOptions const& options);
ParticleSet readNetcdf(InputFile& file, ReadOptions const& options);
ParticleSet readVdb(InputFile& file, ReadOptions const& options);

std::unique_ptr<FrameFormat> makeXyzFrames(ReadOptions const& options);
std::unique_ptr<FrameFormat> makeLammpsFrames(ReadOptions const& options);
std::unique_ptr<FrameFormat> makeLammpsBinaryFrames(ReadOptions const& options);
std::unique_ptr<FrameFormat> makeDcdFrames(ReadOptions const& options);
std::unique_ptr<FrameFormat> makeXtcFrames(ReadOptions const& options);
std::unique_ptr<FrameFormat> makeTrrFrames(ReadOptions const& options);
std::unique_ptr<FrameFormat> makeGroFrames(ReadOptions const& options);
std::unique_ptr<FrameFormat> makePdbFrames(ReadOptions const& options);

// Whether these are the first bytes of such a file.
bool isLammpsBinary(std::string_view head);
bool isDcd(std::string_view head);

} // namespace pipeline
