// Pictures on their way to a browser.
#include "view/jpeg.h"

#include "pipeline/imagefile/encoders.h"

#include <turbojpeg.h>

#include <memory>
#include <stdexcept>
#include <string_view>

namespace pipeline::view {

namespace {

Image brightened(Image image, float gain) {
    for (float& light : image.rgb)
        light *= gain;
    for (float& part : image.alpha)
        part *= gain;
    return image;
}

template <class Encode> std::string bytesOf(Image const& image, float gain, Encode encode) {
    std::string bytes;
    auto const sink = [&bytes](std::string_view some) { bytes += some; };
    if (gain == 1.0F)
        encode(image, sink);
    else
        encode(brightened(image, gain), sink);
    return bytes;
}

struct Release {
    void operator()(void* compressor) const { tjDestroy(compressor); }
    void operator()(unsigned char* bytes) const { tjFree(bytes); }
};

} // namespace

std::string jpegOf(Image const& image, float gain, int quality, PhaseProgress const& progress) {
    // The command's own way to codes of eight bits, so that nothing changes its colour at the end.
    std::string const ppm = bytesOf(image, gain, [&](Image const& shown, ByteSink const& sink) {
        encodePpm(shown, sink, progress);
    });
    int const width = image.cropX1 - image.cropX0;
    int const height = image.cropY1 - image.cropY0;
    std::size_t const header =
        ppm.size() - 3 * static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    std::unique_ptr<void, Release> const compressor(tjInitCompress());
    unsigned char* made = nullptr;
    unsigned long size = 0;
    bool const isDone =
        compressor != nullptr &&
        tjCompress2(compressor.get(), reinterpret_cast<unsigned char const*>(ppm.data()) + header,
                    width, 0, height, TJPF_RGB, &made, &size, TJSAMP_444, quality,
                    TJFLAG_FASTDCT) == 0;
    std::unique_ptr<unsigned char, Release> const bytes(made);
    if (!isDone)
        throw std::runtime_error("the picture cannot be packed as JPEG");
    return {reinterpret_cast<char const*>(made), size};
}

std::string pngOf(Image const& image, float gain, bool withAlpha, PhaseProgress const& progress) {
    return bytesOf(image, gain, [&](Image const& shown, ByteSink const& sink) {
        encodePng(shown, withAlpha, sink, progress);
    });
}

} // namespace pipeline::view
