// Text in pictures.
#pragma once

#include <memory>
#include <string_view>

namespace pipeline {

/// Takes how much of a pixel a letter covers, 0 to 1; pixels are counted from where the text begins
/// and upwards from the line that letters stand on.
struct PixelTaker {
    virtual void take(int x, int y, float coverage) = 0;

  protected:
    ~PixelTaker() = default;
};

/// Letters of one height, of the system's sans serif font.
class Lettering {
  public:
    /// `pixels` from line to line, about. Throws `OutputError` where there is no font, or where
    /// this build has no library for it.
    explicit Lettering(int pixels);
    ~Lettering();
    Lettering(Lettering const&) = delete;
    Lettering& operator=(Lettering const&) = delete;

    /// How wide a text is, in pixels.
    int width(std::string_view text) const;
    void draw(std::string_view text, PixelTaker& taker) const;

  private:
    struct Font;
    template <class Each> int forEachLetter(std::string_view text, Each each) const;

    std::unique_ptr<Font> font;
};

} // namespace pipeline
