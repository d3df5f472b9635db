// norvexa png PATH -o OUT.png: one image as a picture, in the library's colour tables,
// gaps and defective pixels painted from the mask, optionally with its colour bar.

#include "CliSupport.h"
#include "Commands.h"
#include "Inputs.h"

#include "DColorMap.h"
#include "DColorTable.h"
#include "DContrast.h"
#include "DImage.h"
#include "DRect.h"

#include <CLI/CLI.hpp>
#include <png.h>

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <vector>

namespace norvexa {
namespace cli {

using namespace imglib;
namespace fs = std::filesystem;

namespace {

struct PngOptions {
    std::string path, out, table = "hdr";
    long frame = -1;
    double low = NAN, high = NAN, logHigh = NAN;
    bool legend = false;
    int maxSize = 0;
};

/// An 8-bit RGB picture.
struct Canvas {
    Canvas(int w, int h, std::uint32_t background) : width(w), height(h), rgb(std::size_t(w) * h * 3)
    {
        fill(0, 0, w, h, background);
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
    /// An ARGB image with its top-left corner at (x0, y0); `flip` puts row 0 at the bottom.
    void paste(const DImage& argb, int x0, int y0, bool flip)
    {
        const auto* p = reinterpret_cast<const std::uint32_t*>(argb.cdata());
        for (int y = 0; y < argb.height(); ++y)
            for (int x = 0; x < argb.width(); ++x)
                set(x0 + x, y0 + (flip ? argb.height() - 1 - y : y), p[std::size_t(y) * argb.width() + x]);
    }

    int width, height;
    std::vector<std::uint8_t> rgb;
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

/// libpng reports failures by a long jump back into this function, which therefore holds
/// nothing with a destructor.
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

// libpng's own handlers print; a failure here is reported once, by the caller.
void pngError(png_structp png, png_const_charp)
{
    png_longjmp(png, 1);
}
void pngWarning(png_structp, png_const_charp) {}

/// False when anything failed, a full disk included.
bool writePng(const Canvas& canvas, const fs::path& path)
{
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file)
        return false;
    std::vector<png_bytep> rows(static_cast<std::size_t>(canvas.height));
    for (int y = 0; y < canvas.height; ++y)
        rows[std::size_t(y)] = const_cast<png_bytep>(&canvas.rgb[std::size_t(y) * canvas.width * 3]);
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, &pngError, &pngWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    bool written = info && writeRows(png, info, file, canvas, rows.data());
    png_destroy_write_struct(&png, &info);
    written = std::fflush(file) == 0 && written && !std::ferror(file);
    return std::fclose(file) == 0 && written;
}

/// Bins by `factor` in both directions, each bin the brightest of its valid pixels so that
/// no spot disappears; a bin without valid pixels takes its pixels' mask bits together.
void binByMaximum(DImage& frame, DImage& mask, int factor)
{
    const int w = frame.width(), h = frame.height();
    const int bw = (w + factor - 1) / factor, bh = (h + factor - 1) / factor;
    const DImage values = frame.asType<double>();
    const DImage flags = mask.asType<unsigned int>();
    const auto* v = reinterpret_cast<const double*>(values.cdata());
    const auto* m = reinterpret_cast<const unsigned int*>(flags.cdata());
    DImage binned(bw, bh, 0.0);
    DImage binnedMask(bw, bh, 0u);
    auto* bv = reinterpret_cast<double*>(binned.data());
    auto* bm = reinterpret_cast<unsigned int*>(binnedMask.data());
    std::vector<double> best(std::size_t(bw), -DBL_MAX);
    std::vector<unsigned int> bits(std::size_t(bw), 0);
    std::vector<char> any(std::size_t(bw), 0);
    for (int by = 0; by < bh; ++by) {
        std::fill(best.begin(), best.end(), -DBL_MAX);
        std::fill(bits.begin(), bits.end(), 0u);
        std::fill(any.begin(), any.end(), 0);
        for (int y = by * factor; y < std::min(h, (by + 1) * factor); ++y)
            for (int x = 0; x < w; ++x) {
                const std::size_t i = std::size_t(y) * w + x, b = std::size_t(x / factor);
                if (m[i]) {
                    bits[b] |= m[i];
                } else {
                    any[b] = 1;
                    best[b] = std::max(best[b], v[i]);
                }
            }
        for (int bx = 0; bx < bw; ++bx) {
            bv[std::size_t(by) * bw + bx] = any[bx] ? best[bx] : 0;
            bm[std::size_t(by) * bw + bx] = any[bx] ? 0 : bits[bx];
        }
    }
    binned.optionalData() = frame.optionalData();
    frame = std::move(binned);
    mask = std::move(binnedMask);
}

/// The brightest valid pixel, or `fallback` when none is above it.
double brightestValid(const DImage& frame, const DImage& mask, double fallback)
{
    const DImage values = frame.asType<double>();
    const DImage flags = mask.asType<unsigned int>();
    const auto* v = reinterpret_cast<const double*>(values.cdata());
    const auto* m = reinterpret_cast<const unsigned int*>(flags.cdata());
    double brightest = fallback;
    for (std::size_t i = 0; i < values.size(); ++i)
        if (!m[i])
            brightest = std::max(brightest, v[i]);
    return brightest;
}

const DColorTable& tableOf(const std::string& name)
{
    static const std::map<std::string, const DColorTable*> tables = {
        {"hdr", &DColorTable::hdr()}, {"grey", &DColorTable::grey()},
        {"heat", &DColorTable::heat()}, {"rainbow", &DColorTable::rainbow()}};
    const bool reversed = name.size() > 9 && name.compare(name.size() - 9, 9, "-reversed") == 0;
    const DColorTable& table = *tables.at(reversed ? name.substr(0, name.size() - 9) : name);
    return reversed ? *table.inverseTable() : table;
}

void picture(const PngOptions& o)
{
    const auto series = openSeries(o.path);
    DImage frame = readFrame(*series, o.path, o.frame);
    DImage mask = maskOf(frame);
    const int largest = std::max(frame.width(), frame.height());
    if (o.maxSize > 0 && largest > o.maxSize)
        binByMaximum(frame, mask, (largest + o.maxSize - 1) / o.maxSize);

    double high = 1, low = 0;
    // Eight deviations: the background light and even, the spots above it in the bright colours.
    if (std::isnan(o.low) || std::isnan(o.high))
        DContrast(8, 100000)(high, low, frame, &mask);
    if (!std::isnan(o.low))
        low = o.low;
    if (!std::isnan(o.high))
        high = o.high;
    if (high <= low)
        throw usageError("--high must be above --low (" + number(high) + " <= " + number(low) + ")");
    const double logHigh = std::isnan(o.logHigh) ? brightestValid(frame, mask, high * 10) : o.logHigh;
    const DColorTable& table = tableOf(o.table);
    const auto saturation = frame.optionalData().saturation_value();

    DRect rect(0, 0, frame.width(), frame.height());
    DImage colours;
    try {
        colours = DColorMap::rgb(frame, high, low, logHigh, table, "ARGB", &mask, &rect,
                                 saturation ? *saturation : INT_MAX, true, true);
    } catch (const std::exception& e) {
        throw failure(o.path, e.what());
    }

    std::unique_ptr<Canvas> canvas;
    if (!o.legend) {
        canvas = std::make_unique<Canvas>(frame.width(), frame.height(), 0);
        canvas->paste(colours, 0, 0, false);
    } else {
        // Beside the picture: the bar, its tick marks and their values, scaled to the picture.
        const int scale = std::max(1, frame.height() / 500);
        const int margin = 8 * scale, barWidth = 12 * scale, tick = 3 * scale, textWidth = 9 * 6 * scale;
        const int barHeight = std::max(2, frame.height() - 2 * margin);
        canvas = std::make_unique<Canvas>(frame.width() + margin + barWidth + tick + scale + textWidth + margin,
                                          std::max(frame.height(), barHeight + 2 * margin), 0x303030);
        canvas->paste(colours, 0, 0, false);
        DImage bar(barWidth, barHeight, 0);
        std::map<int, double> ticks;
        DColorMap::legend(bar, ticks, high, low, logHigh, table, "ARGB");
        const int barLeft = frame.width() + margin;
        canvas->paste(bar, barLeft, margin, true);
        for (const auto& [row, value] : ticks) {
            const int y = margin + barHeight - 1 - row;
            canvas->fill(barLeft + barWidth, y - scale / 2, tick, std::max(1, scale / 2 + 1), 0xffffff);
            drawText(*canvas, barLeft + barWidth + tick + scale, y - 7 * scale / 2, number(value, 4), scale,
                     0xffffff);
        }
    }

    const fs::path target(o.out);
    StagedFiles staged(target);
    if (!writePng(*canvas, staged.staged(target.filename().string())))
        throw failure(o.out, "Write failed (is the disk full?)");
    staged.commit();
    std::cout << "wrote " << o.out << ": " << canvas->width << " x " << canvas->height << ", " << o.table
              << " from " << number(low) << " to " << number(high)
              << (table.logDataSize() > 0 && logHigh > high ? ", logarithmic to " + number(logHigh) : "") << "\n";
}

} // namespace

void addPngCommand(CLI::App& app)
{
    auto options = std::make_shared<PngOptions>();
    CLI::App* sub = app.add_subcommand("png", "Draw one image as a PNG picture");
    sub->add_option("PATH", options->path, "CBF, TIFF or EDF file, or HDF5 master")->required();
    sub->add_option("-o,--output", options->out, "The PNG file to write")->required();
    sub->add_option("--frame", options->frame, "Image number (default: the series' first)");
    sub->add_option("--low", options->low, "Value at the bottom of the scale (default: automatic)");
    sub->add_option("--high", options->high, "Top of the linear scale (default: automatic)");
    sub->add_option("--log-high", options->logHigh,
                    "Top of the logarithmic scale of the hdr table (default: the brightest valid pixel)");
    sub->add_option("--table", options->table, "Colour table: hdr, grey, heat, rainbow, each also NAME-reversed")
        ->check(CLI::IsMember({"hdr", "grey", "heat", "rainbow", "hdr-reversed", "grey-reversed", "heat-reversed",
                               "rainbow-reversed"}))
        ->capture_default_str();
    sub->add_flag("--legend", options->legend, "Add the colour bar with its tick values");
    sub->add_option("--max-size", options->maxSize,
                    "Bin down until neither side exceeds N pixels, each bin its brightest pixel")
        ->check(CLI::PositiveNumber);
    sub->footer("Example:\n  norvexa png run_master.h5 --frame 10 --legend --max-size 1024 -o frame10.png\n"
                "Gaps are black and defective pixels in the table's defect colour, from the image's mask.");
    sub->callback([options] { picture(*options); });
}

} // namespace cli
} // namespace norvexa
