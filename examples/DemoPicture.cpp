#include "DemoPicture.h"
#include "FramePicture.h"

#include "DColorMap.h"
#include "DColorTable.h"
#include "DContrast.h"
#include "DDetector.h"
#include "DGlobal.h"
#include "DRect.h"
#include "foundation/DException.h"

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

std::string number(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.4g", value);
    return text;
}

} // namespace

std::string writeDemoPicture(const DImage& frame, const std::string& pngPath)
{
    double high = 1, low = 0;
    // Eight deviations: the background light and even, the spots above it in the heat colours.
    DContrast(8, 100000)(high, low, frame, nullptr);
    const double logHigh = norvexa::cli::brightestValid(frame, frame.optionalData().pixel_mask().get_ptr(), high * 10);
    const auto saturation = frame.optionalData().saturation_value();

    // The library reads the rectangle as given, unclipped: this one is the frame itself.
    DRect rect(0, 0, frame.width(), frame.height());
    const DImage colours = DColorMap::rgb(frame, high, low, logHigh, DColorTable::hdr(), "ARGB", nullptr, &rect,
                                          saturation ? *saturation : INT_MAX, true, true);

    // Beside the frame: the bar, its tick marks and the tick values (the tool's picture).
    const norvexa::cli::FramePicture picture =
        norvexa::cli::framePicture(colours, DColorTable::hdr(), high, low, logHigh, true);
    if (!norvexa::cli::writePng(picture, pngPath))
        throw DRuntimeException("Cannot write " + pngPath);
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
