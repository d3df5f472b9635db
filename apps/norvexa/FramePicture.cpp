#include "FramePicture.h"

#include "DColorMap.h"

#include <png.h>

#include <algorithm>
#include <cstdio>
#include <map>

namespace norvexa {
namespace cli {

using namespace imglib;

namespace {

/// Drawing on a FramePicture; nothing lands outside it.
struct Canvas {
    FramePicture& picture;

    /// `color` as 0x..RRGGBB.
    void set(int x, int y, std::uint32_t color)
    {
        if (x < 0 || y < 0 || x >= picture.width || y >= picture.height)
            return;
        std::uint8_t* p = &picture.rgb[(std::size_t(y) * picture.width + x) * 3];
        p[0] = static_cast<std::uint8_t>(color >> 16);
        p[1] = static_cast<std::uint8_t>(color >> 8);
        p[2] = static_cast<std::uint8_t>(color);
    }
    void fill(int x0, int y0, int w, int h, std::uint32_t color)
    {
        for (int y = y0; y < y0 + h; ++y)
            for (int x = x0; x < x0 + w; ++x)
                set(x, y, color);
    }
    /// An ARGB image with its top-left corner at (x0, y0); `flip` puts row 0 at the bottom.
    void paste(const DImage& argb, int x0, int y0, bool flip)
    {
        const auto* p = reinterpret_cast<const std::uint32_t*>(argb.cdata());
        for (int y = 0; y < argb.height(); ++y)
            for (int x = 0; x < argb.width(); ++x)
                set(x0 + x, y0 + (flip ? argb.height() - 1 - y : y), p[std::size_t(y) * argb.width() + x]);
    }
};

// A 5 x 7 font for the characters of a number: 7 rows of 5 bits per glyph.
struct Glyph {
    char c;
    std::uint8_t rows[7];
};
constexpr Glyph kFont[] = {
    {'0', {0x0e, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0e}}, {'1', {0x04, 0x0c, 0x04, 0x04, 0x04, 0x04, 0x0e}},
    {'2', {0x0e, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1f}}, {'3', {0x1f, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0e}},
    {'4', {0x02, 0x06, 0x0a, 0x12, 0x1f, 0x02, 0x02}}, {'5', {0x1f, 0x10, 0x1e, 0x01, 0x01, 0x11, 0x0e}},
    {'6', {0x06, 0x08, 0x10, 0x1e, 0x11, 0x11, 0x0e}}, {'7', {0x1f, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0e, 0x11, 0x11, 0x0e, 0x11, 0x11, 0x0e}}, {'9', {0x0e, 0x11, 0x11, 0x0f, 0x01, 0x02, 0x0c}},
    {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0c, 0x0c}}, {'-', {0x00, 0x00, 0x00, 0x1f, 0x00, 0x00, 0x00}},
    {'e', {0x00, 0x00, 0x0e, 0x11, 0x1f, 0x10, 0x0e}}, {'+', {0x00, 0x04, 0x04, 0x1f, 0x04, 0x04, 0x00}},
};

void drawText(Canvas& canvas, int x0, int y0, const std::string& text, int scale, std::uint32_t color)
{
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto glyph =
            std::find_if(std::begin(kFont), std::end(kFont), [&](const Glyph& g) { return g.c == text[i]; });
        if (glyph == std::end(kFont))
            continue;
        for (int row = 0; row < 7; ++row)
            for (int col = 0; col < 5; ++col)
                if (glyph->rows[row] & (0x10 >> col))
                    canvas.fill(x0 + (int(i) * 6 + col) * scale, y0 + row * scale, scale, scale, color);
    }
}

std::string tickText(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.4g", value);
    return text;
}

/// libpng reports failures by a long jump back into this function, which therefore holds
/// nothing with a destructor.
bool writeRows(png_structp png, png_infop info, FILE* file, const FramePicture& picture, png_bytepp rows)
{
    if (setjmp(png_jmpbuf(png)))
        return false;
    png_init_io(png, file);
    png_set_IHDR(png, info, static_cast<png_uint_32>(picture.width), static_cast<png_uint_32>(picture.height),
                 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_set_compression_level(png, 3);
    png_write_info(png, info);
    png_write_image(png, rows);
    png_write_end(png, nullptr);
    return true;
}

// libpng's own handlers print; a failure here is reported once, by the caller.
void pngError(png_structp png, png_const_charp)
{
    png_longjmp(png, 1);
}
void pngWarning(png_structp, png_const_charp) {}

} // namespace

FramePicture framePicture(const DImage& colours, const DColorTable& table, double high, double low,
                          double logHigh, bool legend)
{
    FramePicture picture;
    Canvas canvas{picture};
    const int w = colours.width(), h = colours.height();
    if (!legend) {
        picture.width = w;
        picture.height = h;
        picture.rgb.assign(std::size_t(w) * h * 3, 0);
        canvas.paste(colours, 0, 0, false);
        return picture;
    }
    // Beside the frame: the bar, its tick marks and their values, scaled to the frame.
    const int scale = std::max(1, h / 500);
    const int margin = 8 * scale, barWidth = 12 * scale, tick = 3 * scale, textWidth = 9 * 6 * scale;
    const int barHeight = std::max(2, h - 2 * margin);
    picture.width = w + margin + barWidth + tick + scale + textWidth + margin;
    picture.height = std::max(h, barHeight + 2 * margin);
    picture.rgb.assign(std::size_t(picture.width) * picture.height * 3, 0);
    canvas.fill(0, 0, picture.width, picture.height, 0x303030);
    canvas.paste(colours, 0, 0, false);
    DImage bar(barWidth, barHeight, 0);
    std::map<int, double> ticks;
    DColorMap::legend(bar, ticks, high, low, logHigh, table, "ARGB");
    const int barLeft = w + margin;
    canvas.paste(bar, barLeft, margin, true);
    for (const auto& [row, value] : ticks) {
        const int y = margin + barHeight - 1 - row;
        canvas.fill(barLeft + barWidth, y - scale / 2, tick, std::max(1, scale / 2 + 1), 0xffffff);
        drawText(canvas, barLeft + barWidth + tick + scale, y - 7 * scale / 2, tickText(value), scale, 0xffffff);
    }
    return picture;
}

double brightestValid(const imglib::DImage& frame, const imglib::DImage* mask, double fallback)
{
    if (mask && (mask->width() != frame.width() || mask->height() != frame.height()))
        mask = nullptr;
    const imglib::DImage values = frame.asType<double>();
    const imglib::DImage flags = mask ? mask->asType<long long>() : imglib::DImage();
    const auto* v = reinterpret_cast<const double*>(values.cdata());
    const auto* m = reinterpret_cast<const long long*>(flags.cdata());
    double brightest = fallback;
    for (std::size_t i = 0; i < values.size(); ++i)
        if (!m || m[i] == 0)
            brightest = std::max(brightest, v[i]);
    return brightest;
}

bool writePng(const FramePicture& picture, const std::string& path)
{
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file)
        return false;
    std::vector<png_bytep> rows(static_cast<std::size_t>(picture.height));
    for (int y = 0; y < picture.height; ++y)
        rows[std::size_t(y)] = const_cast<png_bytep>(&picture.rgb[std::size_t(y) * picture.width * 3]);
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, &pngError, &pngWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    bool written = info && writeRows(png, info, file, picture, rows.data());
    png_destroy_write_struct(&png, &info);
    written = std::fflush(file) == 0 && written && !std::ferror(file);
    return std::fclose(file) == 0 && written;
}

} // namespace cli
} // namespace norvexa
