// PNG files of 8 bits a channel, row by row.
#pragma once

#include <png.h>

#include <cstdio>
#include <optional>
#include <string>

namespace pipeline {

/// libpng, which speaks C: it reports by long jumps, which must not cross our objects, so each call
/// into it is one function without any. What it complains about becomes `std::runtime_error`.
class PngUser {
  protected:
    static void fail(png_structp failed, png_const_charp text);
    static void ignoreWarning(png_structp, png_const_charp) {}
    [[noreturn]] void complain() const;

    char message[200] = "";
};

/// Writes a file to memory: `begin`, what is told about it, its rows, `end`.
class PngWriter : PngUser {
  public:
    PngWriter();
    PngWriter(PngWriter const&) = delete;
    PngWriter& operator=(PngWriter const&) = delete;
    ~PngWriter();

    void begin(int width, int height, bool withAlpha);
    /// Says that the file is a tile, and where in the picture it lies.
    void addTile(std::string const& label, int left, int top);
    /// R G B of each pixel, or R G B A.
    void addRow(std::string const& row);
    void end();

    std::string bytes; ///< written and not taken yet

  private:
    static void append(png_structp written, png_bytep data, std::size_t count);

    bool tryBegin(png_uint_32 width, png_uint_32 height, bool withAlpha);
    bool tryTile(png_text* text, png_int_32 left, png_int_32 top);
    bool tryInfo();
    bool tryRow(png_const_bytep row);
    bool tryEnd();

    png_structp png;
    png_infop info;
    bool hasInfo = false; ///< what comes before the rows is written
};

/// Reads what the writer writes.
class PngReader : PngUser {
  public:
    /// Reads all that comes before the rows. Throws `InputError` when the file cannot be opened.
    explicit PngReader(std::string const& path);
    PngReader(PngReader const&) = delete;
    PngReader& operator=(PngReader const&) = delete;
    ~PngReader();

    int width() const;
    int height() const;
    /// Whether pixels are of 8 bits for each of R G B, or R G B A.
    bool isOfOurKind() const;
    bool hasAlpha() const;
    std::optional<std::string> text(char const* name) const;
    std::string nextRow();

  private:
    bool tryInfo();
    bool tryRow(png_bytep row);

    std::FILE* file;
    png_structp png;
    png_infop info;
};

} // namespace pipeline
