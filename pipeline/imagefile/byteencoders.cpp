// Pictures of 8 bits a channel: PNG and PPM.
#include "pipeline/files/srgb.h"
#include "pipeline/imagefile/encoders.h"
#include "pipeline/imagefile/pngfile.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string>

namespace pipeline {

namespace {

/// Rounds linear light to the nearest 8-bit sRGB code.
///
/// Exact without a power per value: code c begins where the decoded value of c - 1/2 lies. A table
/// by the linear value gives the lowest code that its cell can have; few cells hold a second one.
class CodeFinder {
  public:
    CodeFinder() {
        for (std::size_t code = 1; code < beginOf.size(); ++code)
            beginOf[code] = linearFromSrgb((static_cast<double>(code) - 0.5) / 255.0);
        for (std::size_t cell = 0; cell < lowestOf.size(); ++cell) {
            float const lower = static_cast<float>(cell) / cells;
            auto const next = std::upper_bound(beginOf.begin() + 1, beginOf.end(), lower);
            lowestOf[cell] = static_cast<unsigned char>(next - beginOf.begin() - 1);
        }
    }

    unsigned char code(float linear) const {
        if (!(linear > 0.0F)) // NaN as well
            return 0;
        if (linear >= 1.0F)
            return 255;
        std::size_t found = lowestOf[static_cast<std::size_t>(linear * cells)];
        while (found < 255 && linear >= beginOf[found + 1])
            ++found;
        return static_cast<unsigned char>(found);
    }

  private:
    static constexpr float cells = 4096.0F; // a power of two: the product above is exact

    std::array<float, 256> beginOf{};
    std::array<unsigned char, 4096> lowestOf{};
};

unsigned char coverageCode(float alpha) {
    return static_cast<unsigned char>((std::clamp(alpha, 0.0F, 1.0F) * 255.0F) + 0.5F);
}

/// A row of the part as bytes: R G B, or R G B A with the colours no longer multiplied by alpha.
std::string rowBytes(Image const& image, int row, bool withAlpha) {
    static CodeFinder const finder;
    constexpr float nothing[4] = {};
    auto const width = static_cast<std::size_t>(image.cropX1 - image.cropX0);
    std::string bytes(width * (withAlpha ? 4 : 3), '\0');
    char* next = bytes.data();
    std::size_t const first = static_cast<std::size_t>(row) * width;
    for (std::size_t pixel = first; pixel < first + width; ++pixel) {
        float const* const over = image.overlay.empty() ? nothing : &image.overlay[4 * pixel];
        float const shown = 1.0F - over[3];
        float const alpha = over[3] + image.alpha[pixel] * shown;
        float const gain = withAlpha && alpha > 0.0F ? 1.0F / alpha : 1.0F;
        for (std::size_t channel = 0; channel < 3; ++channel)
            *next++ = static_cast<char>(
                finder.code((over[channel] + image.rgb[(3 * pixel) + channel] * shown) * gain));
        if (withAlpha)
            *next++ = static_cast<char>(coverageCode(alpha));
    }
    return bytes;
}

/// Gives every row to `take`, with looks at the progress in between.
template <class Take>
void forEachRow(Image const& image, bool withAlpha, PhaseProgress const& progress, Take take) {
    int const width = image.cropX1 - image.cropX0;
    int const height = image.cropY1 - image.cropY0;
    int const rowsAtOnce = std::max(1, pixelsAtOnce / width);
    for (int row = 0; row < height; ++row) {
        if (row % rowsAtOnce == 0)
            progress(static_cast<double>(row) / height, 0);
        take(rowBytes(image, row, withAlpha));
    }
}

} // namespace

void encodeRows(Image const& image, ByteSink const& sink, PhaseProgress const& progress) {
    forEachRow(image, false, progress, sink);
}

void encodePpm(Image const& image, ByteSink const& sink, PhaseProgress const& progress) {
    sink(fmt::format("P6\n{} {}\n255\n", image.cropX1 - image.cropX0, image.cropY1 - image.cropY0));
    encodeRows(image, sink, progress);
}

void encodePng(Image const& image, bool withAlpha, ByteSink const& sink,
               PhaseProgress const& progress) {
    PngWriter png;
    png.begin(image.cropX1 - image.cropX0, image.cropY1 - image.cropY0, withAlpha);
    if (!image.tileLabel.empty())
        png.addTile(image.tileLabel, image.cropX0, image.cropY0);
    forEachRow(image, withAlpha, progress, [&](std::string const& row) {
        png.addRow(row);
        sink(png.bytes);
        png.bytes.clear();
    });
    png.end();
    sink(png.bytes);
}

} // namespace pipeline
