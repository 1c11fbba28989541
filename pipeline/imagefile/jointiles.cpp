// Checks that tiles are those of one picture, and hands them to their format.
#include "pipeline/imagefile/jointiles.h"

#include "pipeline/files/errors.h"
#include "pipeline/files/outputfile.h"
#include "pipeline/imagefile/imagefile.h"
#include "pipeline/imagefile/openinput.h"
#include "pipeline/imagefile/tilefiles.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <system_error>

namespace pipeline {

namespace {

/// Reads, and turns what libraries of formats complain about into our words.
template <class Read> auto reading(std::string const& path, Read const& read) {
    try {
        return read();
    } catch (std::bad_alloc const&) {
        throw;
    } catch (InputError const&) {
        throw;
    } catch (Interrupted const&) {
        throw;
    } catch (OutputError const&) {
        throw;
    } catch (std::exception const& error) {
        throw InputError(fmt::format("{}: cannot be read: {}", path, error.what()));
    }
}

TileFile openTile(std::string const& path, ImageFormat format) {
    std::fclose(openInput(path)); // says what is wrong in fewer words than the libraries
    auto const label = reading(
        path, [&] { return format == ImageFormat::exr ? labelOfExr(path) : labelOfPng(path); });
    if (!label)
        throw InputError(fmt::format("{}: is no tile of a picture", path), {Hint::To::renderTiles});
    return {path, *label};
}

/// Throws when tiles are of different pictures, missing, or there twice; they are in order.
void checkTiles(std::vector<TileFile> const& tiles) {
    TileFile const& first = tiles.front();
    for (TileFile const& tile : tiles)
        if (!tile.label.isOfSamePicture(first.label))
            throw InputError(fmt::format("{}: is a tile of another picture than {}: its particles "
                                         "or options differ",
                                         tile.path, first.path));
    std::vector<std::string> missing;
    int next = 1;
    for (std::size_t i = 0; i < tiles.size(); ++i) {
        int const number = tiles[i].label.tile.number;
        if (i > 0 && number == tiles[i - 1].label.tile.number)
            throw InputError(fmt::format("{} and {}: both are tile {}/{}", tiles[i - 1].path,
                                         tiles[i].path, number, first.label.tile.count));
        for (; next < number; ++next)
            missing.push_back(std::to_string(next));
        next = number + 1;
    }
    for (; next <= first.label.tile.count; ++next)
        missing.push_back(std::to_string(next));
    if (missing.empty())
        return;
    constexpr std::size_t few = 8;
    std::string const more =
        missing.size() > few ? fmt::format(" and {} more", missing.size() - few) : "";
    missing.resize(std::min(missing.size(), few));
    throw InputError(fmt::format("of the {} tiles of {}'s picture {}{} {} missing",
                                 first.label.tile.count, first.path, fmt::join(missing, ", "), more,
                                 missing.size() > 1 ? "are" : "is"));
}

} // namespace

std::FILE* openInput(std::string const& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
        throw InputError(fmt::format("{}: is a folder, not a picture", path));
    std::FILE* const file = std::fopen(path.c_str(), "rbe");
    if (file == nullptr)
        throw InputError(
            fmt::format("{}: cannot be opened: {}", path, std::generic_category().message(errno)));
    return file;
}

void joinTiles(std::string const& output, std::vector<std::string> const& paths,
               PhaseProgress const& progress) {
    ImageFormat const format = imageFormatOf(output);
    if (format == ImageFormat::ppm)
        throw std::invalid_argument(
            fmt::format("{}: tiles are .exr or .png, and so is their picture", output));
    std::vector<TileFile> tiles;
    for (std::string const& path : paths) {
        tiles.push_back(openTile(path, format));
        progress(0.0, 0);
    }
    std::stable_sort(tiles.begin(), tiles.end(), [](TileFile const& a, TileFile const& b) {
        return a.label.tile.number < b.label.tile.number;
    });
    checkTiles(tiles);

    std::size_t done = 0;
    std::string current;
    auto const report = [&] {
        progress(static_cast<double>(done) / static_cast<double>(tiles.size()), 0);
    };
    auto const begin = [&](TileFile const& tile) {
        current = tile.path;
        report();
        ++done;
    };
    OutputFile file(output, report);
    auto const sink = [&](std::string_view bytes) {
        report();
        file.write(bytes);
    };
    reading(current, [&] { (format == ImageFormat::exr ? joinExr : joinPng)(tiles, sink, begin); });
    file.commit();
}

} // namespace pipeline
