// Lays out bar, ticks and names, pixel by pixel.
#include "pipeline/picture/colorbar.h"

#include "pipeline/picture/lettering.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <string>

namespace pipeline {

namespace {

using Kelpa::Vector;

constexpr Vector ink = {0.01F, 0.01F, 0.01F};
constexpr Vector paper = {0.95F, 0.95F, 0.95F};
constexpr float paperCoverage = 0.8F;

/// The part of a picture's overlay that was rendered, in the whole picture's pixels.
class Canvas {
  public:
    explicit Canvas(Image& drawnOn) : image(drawnOn) {
        image.overlay.resize(4 * image.alpha.size());
    }

    void dot(int x, int y, Vector const& color, float coverage) {
        if (x < image.cropX0 || x >= image.cropX1 || y < image.cropY0 || y >= image.cropY1)
            return;
        auto const width = static_cast<std::size_t>(image.cropX1 - image.cropX0);
        std::size_t const at = static_cast<std::size_t>(y - image.cropY0) * width +
                               static_cast<std::size_t>(x - image.cropX0);
        float* const pixel = image.overlay.data() + 4 * at;
        for (int channel = 0; channel < 3; ++channel)
            pixel[channel] = color[channel] * coverage + pixel[channel] * (1.0F - coverage);
        pixel[3] = coverage + pixel[3] * (1.0F - coverage);
    }
    void box(int left, int top, int width, int height, Vector const& color, float coverage = 1.0F) {
        for (int y = top; y < top + height; ++y)
            for (int x = left; x < left + width; ++x)
                dot(x, y, color, coverage);
    }

  private:
    Image& image;
};

/// Text that begins in a place of a canvas.
class TextPlace final : public PixelTaker {
  public:
    TextPlace(Canvas& drawnOn, int x, int baseline) : canvas(drawnOn), left(x), bottom(baseline) {}
    void take(int x, int y, float coverage) override {
        canvas.dot(left + x, bottom - y, ink, coverage);
    }

  private:
    Canvas& canvas;
    int left;
    int bottom;
};

/// A line of the legend: its text, and how far below the first line's it stands.
struct Line {
    std::string text;
    int down;
};

/// Measures, all in terms of the letters' height.
struct Layout {
    explicit Layout(int pictureHeight)
        : letter(std::max(11, pictureHeight / 36)), gap(letter / 2), line(letter * 4 / 3),
          bar(letter), barHeight(std::max(4 * line, pictureHeight * 2 / 5)) {}

    int letter;
    int gap;
    int line;
    int bar; ///< width, and the side of a kind's square
    int barHeight;
};

/// Ticks' words, all with as many digits behind the point as their step needs.
std::vector<std::string> wordsOf(std::vector<double> const& ticks) {
    double const step = ticks.size() > 1 ? std::abs(ticks[1] - ticks[0]) : 0.0;
    double const largest = std::max(std::abs(ticks.front()), std::abs(ticks.back()));
    bool const isPlain = step > 0.0 && largest < 1e6 && step >= 1e-4;
    int const digits =
        isPlain ? std::max(0, static_cast<int>(std::ceil(-std::log10(step) - 1e-9))) : 0;
    std::vector<std::string> words;
    for (double const tick : ticks)
        words.push_back(isPlain ? fmt::format("{:.{}f}", tick, digits)
                                : fmt::format("{:.4g}", tick));
    return words;
}

std::vector<Line> linesOf(Legend const& legend, Layout const& layout) {
    std::vector<Line> lines;
    if (legend.range) {
        auto const [low, high] = *legend.range;
        double const from = static_cast<double>(low);
        double const to = static_cast<double>(high);
        std::vector<double> const ticks = ticksOf(from, to);
        std::vector<std::string> const words = wordsOf(ticks);
        for (std::size_t i = 0; i < ticks.size(); ++i) {
            double const part = to != from ? (ticks[i] - from) / (to - from) : 0.5;
            lines.push_back(
                {words[i], static_cast<int>(std::lround((1.0 - part) * (layout.barHeight - 1)))});
        }
        return lines;
    }
    for (Legend::Kind const& kind : legend.kinds)
        lines.push_back({kind.name, static_cast<int>(lines.size()) * layout.line});
    if (legend.moreKinds > 0)
        lines.push_back({fmt::format("and {} more", legend.moreKinds),
                         static_cast<int>(lines.size()) * layout.line});
    return lines;
}

/// What stands left of the lines: the bar, or a square for each kind.
void drawColors(Canvas& canvas, Legend const& legend, Layout const& layout, int left, int top) {
    if (!legend.range) {
        for (std::size_t i = 0; i < legend.kinds.size(); ++i)
            canvas.box(left, top + static_cast<int>(i) * layout.line, layout.bar, layout.bar,
                       legend.kinds[i].color);
        return;
    }
    canvas.box(left - 1, top - 1, layout.bar + 2, layout.barHeight + 2, ink);
    for (int row = 0; row < layout.barHeight; ++row)
        canvas.box(left, top + row, layout.bar, 1,
                   legend.map.at(1.0 - (row + 0.5) / layout.barHeight));
}

} // namespace

std::vector<double> ticksOf(double low, double high) {
    double const first = std::min(low, high);
    double const width = std::abs(high - low);
    if (!(width > 1e-12 * std::max(std::abs(low), std::abs(high))))
        return {low};
    // Four to nine steps of 1, 2 or 5 times a power of ten.
    double step = std::pow(10.0, std::floor(std::log10(width)));
    if (width / step < 2.0)
        step /= 5.0;
    else if (width / step < 5.0)
        step /= 2.0;
    std::vector<double> ticks;
    for (double count = std::ceil(first / step - 1e-6); count * step <= first + width * (1 + 1e-6);
         ++count)
        ticks.push_back(count * step + 0.0); // no -0
    return ticks;
}

void drawColorBar(Image& image, Legend const& legend) {
    Layout const layout(image.height);
    Lettering const lettering(layout.letter);
    Canvas canvas(image);
    std::vector<Line> const lines = linesOf(legend, layout);
    int const height = legend.range ? layout.barHeight : lines.back().down + layout.line;
    int const title = legend.title.empty() ? 0 : layout.line + layout.gap;
    int wordWidth = 0;
    for (Line const& line : lines)
        wordWidth = std::max(wordWidth, lettering.width(line.text));
    int const width = std::max(layout.bar + layout.gap + wordWidth, lettering.width(legend.title));
    int const left = image.width - width - 3 * layout.gap;
    int const top = (image.height - height - title) / 2 + title;

    canvas.box(left - layout.gap, top - title - layout.gap, width + 2 * layout.gap,
               height + title + 2 * layout.gap, paper, paperCoverage);
    TextPlace heading(canvas, left, top - layout.gap - (layout.line - layout.letter));
    lettering.draw(legend.title, heading);
    drawColors(canvas, legend, layout, left, top);
    int const words = left + layout.bar + layout.gap;
    for (Line const& line : lines) {
        int const middle = legend.range ? line.down : line.down + layout.bar / 2;
        if (legend.range)
            canvas.box(left + layout.bar, top + middle, layout.gap / 2, 1, ink);
        // Digits and capitals are about 0.73 of the letters' height.
        TextPlace place(canvas, words, top + middle + layout.letter * 36 / 100);
        lettering.draw(line.text, place);
    }
}

} // namespace pipeline
