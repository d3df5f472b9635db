// norvexa png PATH -o OUT.png: one image as a picture, in the library's colour tables,
// gaps and defective pixels painted from the mask, optionally with its colour bar.

#include "CliSupport.h"
#include "Commands.h"
#include "FramePicture.h"
#include "Inputs.h"
#include "Picture.h"

#include "DColorMap.h"
#include "DColorTable.h"
#include "DContrast.h"
#include "DImage.h"
#include "DRect.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <iostream>
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

/// Bins by `factor` in both directions as the viewer does: each bin the brightest of its
/// valid pixels, so that no spot disappears; a bin without valid pixels takes their flags.
void binByMaximum(DImage& frame, DImage& mask, int factor)
{
    DImage binned, binnedFlags;
    view::binByMaximum(frame, view::flagsOfMask(mask), DRect(0, 0, frame.width(), frame.height()), factor, binned,
                       binnedFlags);
    binned.optionalData() = frame.optionalData();
    mask = binnedFlags.empty() ? DImage(binned.width(), binned.height(), 0u) : std::move(binnedFlags);
    frame = std::move(binned);
}

const DColorTable& tableOf(const std::string& name)
{
    const bool reversed = name.size() > 9 && name.compare(name.size() - 9, 9, "-reversed") == 0;
    const DColorTable& table = *DColorTable::byName(reversed ? name.substr(0, name.size() - 9) : name);
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
    const double logHigh = std::isnan(o.logHigh) ? brightestValid(frame, &mask, high * 10) : o.logHigh;
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

    const FramePicture picture = framePicture(colours, table, high, low, logHigh, o.legend);

    const fs::path target(o.out);
    StagedFiles staged(target);
    if (!writePng(picture, staged.staged(target.filename().string()).string()))
        throw failure(o.out, "Write failed (is the disk full?)");
    staged.commit();
    std::cout << "wrote " << o.out << ": " << picture.width << " x " << picture.height << ", " << o.table
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
