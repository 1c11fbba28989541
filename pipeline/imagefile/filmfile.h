// Films as files, by a program that knows how.
#pragma once

#include "pipeline/files/progress.h"
#include "pipeline/files/spawnplan.h"
#include "pipeline/picture/image.h"

#include <sys/types.h>

#include <cstdio>
#include <memory>
#include <string>

namespace pipeline {

/// Whether a path's suffix is that of a film: .mp4.
bool isFilm(std::string const& path);

/// Throws `OutputError` when no film can be written here: there is no ffmpeg, or no such folder.
void checkFilm(std::string const& path);

/// A film that appears when it is whole. Its pictures go through a pipe to ffmpeg, which writes to
/// a file without a name; so whatever happens, nothing is left behind.
class FilmFile {
  public:
    /// Starts ffmpeg for pictures of this size. Throws `OutputError`.
    FilmFile(std::string wantedPath, int width, int height, double framesPerSecond);
    ~FilmFile();
    FilmFile(FilmFile const&) = delete;
    FilmFile& operator=(FilmFile const&) = delete;

    /// Adds a picture. Throws `OutputError` when ffmpeg gives up, and what `progress` throws.
    void add(Image const& image, PhaseProgress const& progress);
    /// Waits for ffmpeg and gives the film its name.
    void finish(PhaseProgress const& progress);

  private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    using Unnamed = std::unique_ptr<std::FILE, Close>;

    void start(int width, int height, double framesPerSecond);
    /// Whether ffmpeg ended well.
    bool wait();
    [[noreturn]] void fail();

    std::string path;
    Unnamed film;
    Unnamed complaints;
    Pipe pictures;
    pid_t child = -1;
};

} // namespace pipeline
