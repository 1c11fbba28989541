// What the commands' options say, group by group; internal to the command line.
#pragma once

#include "tool/options/options.h"

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace pipeline::tool {

void addRunOptions(CLI::App& app, RunOptions& run);
/// What to read of a file; gives the option for the column of radii.
CLI::Option* addReadOptions(CLI::App& app, ParticleOptions& particles);
void addParticleOptions(CLI::App& app, Options& options);
void addSelectionOptions(CLI::App& app, SelectionOptions& selection);
void addTreeOptions(CLI::App& app, TreeOptions& tree);
/// Where trees are kept.
void addKeepOptions(CLI::App& app, KeepOptions& keep);
void addMotionOptions(CLI::App& app, Options& options);
void addColorOptions(CLI::App& app, ColorOptions& color);
void addCameraOptions(CLI::App& app, CameraOptions& camera);
/// Those on cameras in files; behind `addCameraOptions`.
void addFilmOptions(CLI::App& app, FilmOptions& film);
void addImageOptions(CLI::App& app, ImageOptions& image, bool& showsCell);
/// Those on the camera's lens.
void addLensOptions(CLI::App& app, CameraOptions& camera);
/// Those on what .exr files hold.
void addExrOptions(CLI::App& app, Options& options);
void addLightOptions(CLI::App& app, LightOptions& light);
void addPictureRunOptions(CLI::App& app, Options& options);
void addServeOptions(CLI::App& app, ViewOptions& view);

/// Ranges between commas.
std::vector<FrameRange> parseFrameRanges(std::string const& text);

} // namespace pipeline::tool
