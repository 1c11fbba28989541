// Hands pictures to ffmpeg.
#include "pipeline/imagefile/filmfile.h"

#include "pipeline/files/errors.h"
#include "pipeline/files/outputfile.h"
#include "pipeline/files/printable.h"
#include "pipeline/imagefile/encoders.h"

#include <fmt/format.h>
#include <sys/wait.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <sstream>
#include <string_view>
#include <system_error>
#include <vector>

namespace pipeline {

namespace {

constexpr char const* encoder = "ffmpeg";
constexpr int filmDescriptor = 3; ///< what the encoder knows the film by

bool isInstalled() {
    char const* const path = std::getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (access((std::filesystem::path(folder) / encoder).c_str(), X_OK) == 0)
            return true;
    return false;
}

/// What the encoder is told: raw pictures come in; out goes what plays everywhere, with even sides,
/// in the colours that it says it has.
std::vector<std::string> wordsFor(int width, int height, double framesPerSecond) {
    std::string const size = fmt::format("{}x{}", width, height);
    std::string const rate = fmt::format("{}", framesPerSecond);
    std::string const film = fmt::format("/proc/self/fd/{}", filmDescriptor);
    return {encoder,
            "-nostdin",
            "-v",
            "error",
            "-y",
            "-f",
            "rawvideo",
            "-pix_fmt",
            "rgb24",
            "-video_size",
            size,
            "-framerate",
            rate,
            "-i",
            "pipe:0",
            "-vf",
            "pad=ceil(iw/2)*2:ceil(ih/2)*2,scale=out_color_matrix=bt709:out_range=tv",
            "-pix_fmt",
            "yuv420p",
            "-crf",
            "17",
            "-colorspace",
            "bt709",
            "-color_primaries",
            "bt709",
            "-color_trc",
            "iec61966-2-1",
            "-color_range",
            "tv",
            "-movflags",
            "+faststart",
            "-f",
            "mp4",
            film};
}

} // namespace

bool isFilm(std::string const& path) {
    std::string suffix = std::filesystem::path(path).extension().string();
    std::transform(suffix.begin(), suffix.end(), suffix.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return suffix == ".mp4";
}

void checkFilm(std::string const& path) {
    if (!isInstalled())
        throw OutputError(
            fmt::format("{}: films are made by ffmpeg, which is not installed (Debian "
                        "package ffmpeg); numbered pictures, film.####.png, need none",
                        path));
    OutputFile::check(path);
}

FilmFile::FilmFile(std::string wantedPath, int width, int height, double framesPerSecond)
    : path(std::move(wantedPath)), film(std::tmpfile()), complaints(std::tmpfile()) {
    if (!film || !complaints || !pictures.isOpen)
        throw OutputError(
            fmt::format("{}: cannot be written: {}", path, std::generic_category().message(errno)));
    start(width, height, framesPerSecond);
}

void FilmFile::start(int width, int height, double framesPerSecond) {
    SpawnPlan plan;
    // Above the numbers that the encoder's own get, so that none is overwritten by another.
    int const above = filmDescriptor + 1;
    int const from = fcntl(pictures.ends[0], F_DUPFD_CLOEXEC, above);
    int const to = fcntl(fileno(film.get()), F_DUPFD_CLOEXEC, above);
    int const errors = fcntl(fileno(complaints.get()), F_DUPFD_CLOEXEC, above);
    posix_spawn_file_actions_adddup2(&plan.actions, from, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&plan.actions, errors, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&plan.actions, errors, STDERR_FILENO);
    posix_spawn_file_actions_adddup2(&plan.actions, to, filmDescriptor);
    std::vector<std::string> words = wordsFor(width, height, framesPerSecond);
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    int const error = from < 0 || to < 0 || errors < 0
                          ? errno
                          : posix_spawnp(&child, encoder, &plan.actions, &plan.attributes,
                                         arguments.data(), environ);
    for (int const descriptor : {from, to, errors})
        if (descriptor >= 0)
            close(descriptor);
    pictures.closeReading();
    if (error == 0)
        return;
    child = -1;
    throw OutputError(fmt::format("{}: ffmpeg cannot be started: {}", path,
                                  std::generic_category().message(error)));
}

FilmFile::~FilmFile() {
    if (child > 0)
        kill(child, SIGKILL);
    wait();
}

bool FilmFile::wait() {
    int status = 0;
    if (child > 0)
        while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
    child = -1;
    return status == 0;
}

/// Says why the encoder gave up, in its own words.
void FilmFile::fail() {
    wait();
    std::string text(2000, '\0');
    std::rewind(complaints.get());
    text.resize(std::fread(text.data(), 1, text.size(), complaints.get()));
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    throw OutputError(fmt::format("{}: ffmpeg makes no film of this: {}", path,
                                  text.empty() ? "it ended" : printable(text)));
}

void FilmFile::add(Image const& image, PhaseProgress const& progress) {
    auto const hand = [this](std::string_view bytes) {
        while (!bytes.empty()) {
            ssize_t const taken = ::write(pictures.ends[1], bytes.data(), bytes.size());
            if (taken < 0 && errno == EINTR)
                continue;
            if (taken <= 0) // it reads no more
                fail();
            bytes.remove_prefix(static_cast<std::size_t>(taken));
        }
    };
    encodeRows(image, hand, progress);
}

void FilmFile::finish(PhaseProgress const& progress) {
    pictures.closeWriting();
    if (!wait())
        fail();
    OutputFile file(path, [&progress] { progress(1.0, 0); });
    std::string bytes(1U << 20U, '\0');
    std::rewind(film.get());
    while (std::size_t const count = std::fread(bytes.data(), 1, bytes.size(), film.get()))
        file.write(std::string_view(bytes).substr(0, count));
    file.commit();
}

} // namespace pipeline
