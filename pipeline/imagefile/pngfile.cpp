// libpng behind classes.
#include "pipeline/imagefile/pngfile.h"

#include "pipeline/imagefile/openinput.h"
#include "pipeline/picture/picturepart.h"

#include <csetjmp>
#include <new>
#include <stdexcept>
#include <string_view>

namespace pipeline {

void PngUser::fail(png_structp failed, png_const_charp text) {
    auto* const user = static_cast<PngUser*>(png_get_error_ptr(failed));
    std::snprintf(user->message, sizeof user->message, "%s", text);
    png_longjmp(failed, 1);
}

void PngUser::complain() const {
    throw std::runtime_error(message);
}

PngWriter::PngWriter()
    : png(png_create_write_struct(PNG_LIBPNG_VER_STRING, static_cast<PngUser*>(this), fail,
                                  ignoreWarning)),
      info(png != nullptr ? png_create_info_struct(png) : nullptr) {
    if (info == nullptr) {
        png_destroy_write_struct(&png, nullptr);
        throw std::bad_alloc();
    }
    png_set_write_fn(png, this, append, nullptr);
}

PngWriter::~PngWriter() {
    png_destroy_write_struct(&png, &info);
}

void PngWriter::begin(int width, int height, bool withAlpha) {
    if (!tryBegin(static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), withAlpha))
        complain();
}

void PngWriter::addTile(std::string const& label, int left, int top) {
    std::string name = tileLabelName;
    std::string value = label;
    png_text text{};
    text.compression = PNG_TEXT_COMPRESSION_NONE;
    text.key = name.data();
    text.text = value.data();
    text.text_length = value.size();
    if (!tryTile(&text, left, top))
        complain();
}

void PngWriter::addRow(std::string const& row) {
    if ((!hasInfo && !tryInfo()) || !tryRow(reinterpret_cast<png_const_bytep>(row.data())))
        complain();
    hasInfo = true;
}

void PngWriter::end() {
    if (!tryEnd())
        complain();
}

void PngWriter::append(png_structp written, png_bytep data, std::size_t count) {
    auto* const writer = static_cast<PngWriter*>(png_get_io_ptr(written));
    bool isTaken = true;
    try {
        writer->bytes.append(reinterpret_cast<char const*>(data), count);
    } catch (std::bad_alloc const&) {
        isTaken = false;
    }
    if (!isTaken)
        png_error(written, "out of memory");
}

bool PngWriter::tryBegin(png_uint_32 width, png_uint_32 height, bool withAlpha) {
    if (setjmp(png_jmpbuf(png)) != 0)
        return false;
    png_set_IHDR(png, info, width, height, 8,
                 withAlpha ? PNG_COLOR_TYPE_RGB_ALPHA : PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_sRGB(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
    // Filters take as long again, and files are as large: sampled pictures are noise. Before the
    // header is written PNG_NO_FILTERS would stand for whatever libpng likes best.
    png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_NONE);
    png_set_compression_level(png, 3);
    return true;
}

bool PngWriter::tryTile(png_text* text, png_int_32 left, png_int_32 top) {
    if (setjmp(png_jmpbuf(png)) != 0)
        return false;
    png_set_text(png, info, text, 1);
    png_set_oFFs(png, info, left, top, PNG_OFFSET_PIXEL);
    return true;
}

bool PngWriter::tryInfo() {
    if (setjmp(png_jmpbuf(png)) != 0)
        return false;
    png_write_info(png, info);
    return true;
}

bool PngWriter::tryRow(png_const_bytep row) {
    if (setjmp(png_jmpbuf(png)) != 0)
        return false;
    png_write_row(png, row);
    return true;
}

bool PngWriter::tryEnd() {
    if (setjmp(png_jmpbuf(png)) != 0)
        return false;
    png_write_end(png, info);
    return true;
}

PngReader::PngReader(std::string const& path)
    : file(openInput(path)),
      png(png_create_read_struct(PNG_LIBPNG_VER_STRING, static_cast<PngUser*>(this), fail,
                                 ignoreWarning)),
      info(png != nullptr ? png_create_info_struct(png) : nullptr) {
    bool const isReady = info != nullptr && tryInfo();
    if (isReady)
        return;
    bool const lacksMemory = info == nullptr;
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(file);
    if (lacksMemory)
        throw std::bad_alloc();
    complain();
}

PngReader::~PngReader() {
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(file);
}

int PngReader::width() const {
    return static_cast<int>(png_get_image_width(png, info));
}

int PngReader::height() const {
    return static_cast<int>(png_get_image_height(png, info));
}

bool PngReader::hasAlpha() const {
    return png_get_color_type(png, info) == PNG_COLOR_TYPE_RGB_ALPHA;
}

bool PngReader::isOfOurKind() const {
    return png_get_bit_depth(png, info) == 8 &&
           (hasAlpha() || png_get_color_type(png, info) == PNG_COLOR_TYPE_RGB) &&
           png_get_interlace_type(png, info) == PNG_INTERLACE_NONE;
}

std::optional<std::string> PngReader::text(char const* name) const {
    png_textp texts = nullptr;
    int count = 0;
    png_get_text(png, info, &texts, &count);
    for (int i = 0; i < count; ++i)
        if (std::string_view(texts[i].key) == name)
            return std::string(texts[i].text, texts[i].text_length);
    return std::nullopt;
}

std::string PngReader::nextRow() {
    std::string row(static_cast<std::size_t>(width()) * (hasAlpha() ? 4 : 3), '\0');
    if (!tryRow(reinterpret_cast<png_bytep>(row.data())))
        complain();
    return row;
}

bool PngReader::tryInfo() {
    if (setjmp(png_jmpbuf(png)) != 0)
        return false;
    png_init_io(png, file);
    png_read_info(png, info);
    return true;
}

bool PngReader::tryRow(png_bytep row) {
    if (setjmp(png_jmpbuf(png)) != 0)
        return false;
    png_read_row(png, row, nullptr);
    return true;
}

} // namespace pipeline
