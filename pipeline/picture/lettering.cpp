// Text by FreeType, where it is found.
#include "pipeline/picture/lettering.h"

#include "pipeline/files/errors.h"

#ifdef KELPA_FREETYPE
#include "pipeline/files/printable.h"

#include <ft2build.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include FT_FREETYPE_H
#endif

namespace pipeline {

#ifdef KELPA_FREETYPE

struct Lettering::Font {
    FT_Library library = nullptr;
    FT_Face face = nullptr;

    ~Font() {
        FT_Done_Face(face);
        FT_Done_FreeType(library);
    }
};

Lettering::Lettering(int pixels) : font(std::make_unique<Font>()) {
    constexpr char const* places[] = {
        "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf",
        "/usr/share/fonts/truetype/liberation/LiberationSans-Regular.ttf",
        "/usr/share/fonts/truetype/noto/NotoSans-Regular.ttf",
        "/usr/share/fonts/truetype/freefont/FreeSans.ttf"};
    bool isFound = FT_Init_FreeType(&font->library) == 0;
    isFound = isFound && std::ranges::any_of(places, [this](char const* place) {
                  return FT_New_Face(font->library, place, 0, &font->face) == 0;
              });
    if (!isFound || FT_Set_Pixel_Sizes(font->face, 0, static_cast<FT_UInt>(pixels)) != 0)
        throw OutputError("--colorbar: there is no font for its text; in Debian fonts-dejavu-core");
}

Lettering::~Lettering() = default;

/// Calls `each` with the pen's place for every letter, which is then loaded; tells the width.
template <class Each> int Lettering::forEachLetter(std::string_view text, Each each) const {
    int pen = 0;
    while (!text.empty()) {
        std::size_t const length = characterLength(text);
        std::uint32_t const code = length > 0 ? codePoint(text.substr(0, length)) : 0xFFFDU;
        text.remove_prefix(std::max<std::size_t>(1, length));
        // Unhinted, letters keep their shapes at every size.
        if (FT_Load_Char(font->face, code, FT_LOAD_RENDER | FT_LOAD_NO_HINTING) != 0)
            continue;
        each(pen, *font->face->glyph);
        pen += static_cast<int>((font->face->glyph->advance.x + 32) / 64);
    }
    return pen;
}

int Lettering::width(std::string_view text) const {
    return forEachLetter(text, [](int, FT_GlyphSlotRec const&) {});
}

void Lettering::draw(std::string_view text, PixelTaker& taker) const {
    forEachLetter(text, [&taker](int pen, FT_GlyphSlotRec const& letter) {
        FT_Bitmap const& bitmap = letter.bitmap;
        for (unsigned row = 0; row < bitmap.rows; ++row)
            for (unsigned column = 0; column < bitmap.width; ++column) {
                unsigned char const code =
                    bitmap.buffer[static_cast<std::ptrdiff_t>(row) * bitmap.pitch + column];
                taker.take(pen + letter.bitmap_left + static_cast<int>(column),
                           letter.bitmap_top - 1 - static_cast<int>(row),
                           static_cast<float>(code) / 255.0F);
            }
    });
}

#else

struct Lettering::Font {};

Lettering::Lettering(int) {
    throw OutputError("--colorbar: this build draws no text, for want of FreeType; in Debian "
                      "libfreetype-dev");
}

Lettering::~Lettering() = default;

int Lettering::width(std::string_view) const {
    return 0;
}

void Lettering::draw(std::string_view, PixelTaker&) const {
}

#endif

} // namespace pipeline
