// The formats that tiles are put together in.
#pragma once

#include "pipeline/files/progress.h"
#include "pipeline/imagefile/encoders.h"
#include "pipeline/picture/picturepart.h"

#include <optional>
#include <string>
#include <vector>

namespace pipeline {

/// A file of a tile.
struct TileFile {
    std::string path;
    TileLabel label;
};

// What these complain about, of formats' libraries as well, becomes an `InputError` with the name
// of the file; so they throw what their library throws, and `std::runtime_error`.

/// The label of a file; nothing when it has none.
std::optional<TileLabel> labelOfExr(std::string const& path);
std::optional<TileLabel> labelOfPng(std::string const& path);

/// Puts the tiles of a picture together, which are in the order of their numbers. `begin` is called
/// before a tile is read.
using TileBegin = std::function<void(TileFile const&)>;
void joinExr(std::vector<TileFile> const& tiles, ByteSink const& sink, TileBegin const& begin);
void joinPng(std::vector<TileFile> const& tiles, ByteSink const& sink, TileBegin const& begin);

} // namespace pipeline
