#include "DemoPicture.h"

#include "DColorMap.h"
#include "DColorTable.h"
#include "DContrast.h"
#include "DDetector.h"
#include "DGlobal.h"
#include "DRect.h"
#include "foundation/DException.h"

#include <png.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;

namespace norvexa_demo {

namespace {

/// A picture in 8-bit RGB.
struct Canvas {
    Canvas(int w, int h, std::uint32_t background) : width(w), height(h), rgb(std::size_t(w) * h * 3)
    {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                set(x, y, background);
    }
    /// `color` as 0x..RRGGBB; nothing outside the picture.
    void set(int x, int y, std::uint32_t color)
    {
        if (x < 0 || y < 0 || x >= width || y >= height)
            return;
        std::uint8_t* p = &rgb[(std::size_t(y) * width + x) * 3];
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
    /// Copies an ARGB image with its top-left corner at (x0, y0); `flip` puts row 0 at the bottom.
    void paste(const DImage& argb, int x0, int y0, bool flip)
    {
        const auto* p = reinterpret_cast<const std::uint32_t*>(argb.cdata());
        for (int y = 0; y < argb.height(); ++y) {
            const int row = flip ? argb.height() - 1 - y : y;
            for (int x = 0; x < argb.width(); ++x)
                set(x0 + x, y0 + row, p[std::size_t(y) * argb.width() + x]);
        }
    }

    int width, height;
    std::vector<std::uint8_t> rgb;
};

// A 5 x 7 font for the characters of a number: each glyph is 7 rows of 5 bits.
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

/// Writes `text` with its top-left corner at (x0, y0), each font pixel `scale` wide;
/// characters outside the font are left blank.
void drawText(Canvas& canvas, int x0, int y0, const std::string& text, int scale, std::uint32_t color)
{
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto glyph = std::find_if(std::begin(kFont), std::end(kFont), [&](const Glyph& g) { return g.c == text[i]; });
        if (glyph == std::end(kFont))
            continue;
        for (int row = 0; row < 7; ++row)
            for (int col = 0; col < 5; ++col)
                if (glyph->rows[row] & (0x10 >> col))
                    canvas.fill(x0 + (int(i) * 6 + col) * scale, y0 + row * scale, scale, scale, color);
    }
}

std::string number(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.4g", value);
    return text;
}

/// The libpng calls; false where libpng gave up. It reports failures by a long jump back
/// into this function, which therefore holds nothing with a destructor.
bool writeRows(png_structp png, png_infop info, FILE* file, const Canvas& canvas, png_bytepp rows)
{
    if (setjmp(png_jmpbuf(png)))
        return false;
    png_init_io(png, file);
    png_set_IHDR(png, info, static_cast<png_uint_32>(canvas.width), static_cast<png_uint_32>(canvas.height), 8,
                 PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_compression_level(png, 3);
    png_write_info(png, info);
    png_write_image(png, rows);
    png_write_end(png, nullptr);
    return true;
}

void writePng(const Canvas& canvas, const std::string& path)
{
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "wb"), &std::fclose);
    if (!file)
        throw DRuntimeException("Cannot write " + path);
    std::vector<png_bytep> rows(static_cast<std::size_t>(canvas.height));
    for (int y = 0; y < canvas.height; ++y)
        rows[static_cast<std::size_t>(y)] = const_cast<png_bytep>(&canvas.rgb[std::size_t(y) * canvas.width * 3]);
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    const bool written = info && writeRows(png, info, file.get(), canvas, rows.data());
    png_destroy_write_struct(&png, &info);
    if (!written || std::fflush(file.get()) != 0)
        throw DRuntimeException("Cannot write " + path);
}

/// The brightest pixel that the mask leaves valid, or `fallback` if none is above it.
double brightestValid(const DImage& frame, double fallback)
{
    const DImage values = frame.asType<double>();
    const auto* v = reinterpret_cast<const double*>(values.cdata());
    auto mask = frame.optionalData().pixel_mask();
    if (mask && (mask->width() != frame.width() || mask->height() != frame.height()))
        mask.reset();
    const DImage flags = mask ? mask->asType<long long>() : DImage();
    const auto* m = reinterpret_cast<const long long*>(flags.cdata());
    double brightest = fallback;
    for (std::size_t i = 0; i < values.size(); ++i)
        if (!m || m[i] == 0)
            brightest = std::max(brightest, v[i]);
    return brightest;
}

} // namespace

std::string writeDemoPicture(const DImage& frame, const std::string& pngPath)
{
    double high = 1, low = 0;
    // Eight deviations: the background light and even, the spots above it in the heat colours.
    DContrast(8, 100000)(high, low, frame, nullptr);
    const double logHigh = brightestValid(frame, high * 10);
    const auto saturation = frame.optionalData().saturation_value();

    // The library reads the rectangle as given, unclipped: this one is the frame itself.
    DRect rect(0, 0, frame.width(), frame.height());
    const DImage colours = DColorMap::rgb(frame, high, low, logHigh, DColorTable::hdr(), "ARGB", nullptr, &rect,
                                          saturation ? *saturation : INT_MAX, true, true);

    // Beside the frame: the bar, its tick marks and the tick values, scaled to the frame.
    const int scale = std::max(1, frame.height() / 500);
    const int margin = 8 * scale, barWidth = 12 * scale, tick = 3 * scale, textWidth = 9 * 6 * scale;
    const int barHeight = std::max(2, frame.height() - 2 * margin);
    Canvas canvas(rect.width() + margin + barWidth + tick + scale + textWidth + margin, rect.height(), 0x303030);
    canvas.paste(colours, 0, 0, false);

    DImage bar(barWidth, barHeight, 0);
    std::map<int, double> ticks;
    DColorMap::legend(bar, ticks, high, low, logHigh, DColorTable::hdr(), "ARGB");
    const int barLeft = rect.width() + margin;
    canvas.paste(bar, barLeft, margin, true);
    for (const auto& [row, value] : ticks) {
        const int y = margin + barHeight - 1 - row;
        canvas.fill(barLeft + barWidth, y - scale / 2, tick, std::max(1, scale / 2 + 1), 0xffffff);
        drawText(canvas, barLeft + barWidth + tick + scale, y - 7 * scale / 2, number(value), scale, 0xffffff);
    }
    writePng(canvas, pngPath);
    return number(low) + ".." + number(high) + ".." + number(logHigh);
}

void pictureOfFile(const std::string& framePath, const std::string& pngPath)
{
    DImage frame;
    readImage(frame, framePath.c_str(), 0);
    if (!frame.optionalData().pixelMaskSize())
        frame.optionalData().set_pixel_mask(DDetector::mask(frame));
    const auto start = std::chrono::steady_clock::now();
    const std::string limits = writeDemoPicture(frame, pngPath);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    std::cout << "\nPicture\n  " << framePath << " (" << frame.width() << " x " << frame.height()
              << ") in colour, limits " << limits << ", with its colour bar, in " << ms << " ms:\n  "
              << std::filesystem::absolute(pngPath).string() << "\n";
}

} // namespace norvexa_demo
