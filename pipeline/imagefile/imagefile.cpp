// Names tell formats, and formats what they can hold.
#include "pipeline/imagefile/imagefile.h"

#include "pipeline/files/errors.h"
#include "pipeline/files/outputfile.h"
#include "pipeline/imagefile/encoders.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <new>
#include <optional>
#include <stdexcept>

namespace pipeline {

namespace {

void encode(ImageFormat format, Image const& image, bool withAlpha, ExrCompression compression,
            ByteSink const& sink, PhaseProgress const& progress) {
    switch (format) {
    case ImageFormat::png:
        return encodePng(image, withAlpha, sink, progress);
    case ImageFormat::exr:
        return encodeExr(image, withAlpha, compression, sink, progress);
    case ImageFormat::ppm:
        return encodePpm(image, sink, progress);
    }
}

} // namespace

ImageFormat imageFormatOf(std::string const& path) {
    std::string const written = std::filesystem::path(path).extension().string();
    std::string suffix = written;
    std::transform(suffix.begin(), suffix.end(), suffix.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    if (suffix == ".png")
        return ImageFormat::png;
    if (suffix == ".exr")
        return ImageFormat::exr;
    if (suffix == ".ppm")
        return ImageFormat::ppm;
    throw std::invalid_argument(
        fmt::format("{}: {}; use .png, .exr or .ppm", path,
                    written.empty() ? "has no suffix that tells the format"
                                    : fmt::format("pictures cannot be written as {}", written)));
}

void checkWritable(std::string const& path) {
    OutputFile::check(path);
}

void writeImage(std::string const& path, Image const& image, bool withAlpha,
                PhaseProgress const& progress, ExrCompression compression) {
    ImageFormat const format = imageFormatOf(path);
    // Opened by the first bytes: until there is a temporary file, Ctrl-C does not have to wait for
    // an encoding.
    std::optional<OutputFile> file;
    double done = 0.0;
    auto const report = [&progress, &done](double fraction, std::uint64_t particles) {
        done = fraction;
        if (progress)
            progress(fraction, particles);
    };
    auto const sink = [&](std::string_view bytes) {
        if (!file)
            file.emplace(path, [&] { report(done, 0); });
        file->write(bytes);
    };
    try {
        encode(format, image, withAlpha, compression, sink, report);
    } catch (std::bad_alloc const&) {
        throw;
    } catch (OutputError const&) {
        throw;
    } catch (Interrupted const&) {
        throw;
    } catch (std::exception const& error) { // OpenEXR has its own kinds
        throw OutputError(fmt::format("{}: cannot be written: {}", path, error.what()));
    }
    file->commit();
}

} // namespace pipeline
