#pragma once
// A frame's colour image as a picture file: the colours, optionally with the colour bar,
// its tick marks and their values beside it. Shared by "norvexa png" and the demo.

#include "DColorTable.h"
#include "DImage.h"

#include <cstdint>
#include <string>
#include <vector>

namespace norvexa {
namespace cli {

/// An 8-bit RGB picture, row by row from the top.
struct FramePicture {
    int width = 0, height = 0;
    std::vector<std::uint8_t> rgb;
};

/// `colours` (an ARGB image from DColorMap::rgb) and, with `legend`, the bar of `table`
/// between `low`, `high` and `logHigh` with its ticks, scaled to the frame's height.
FramePicture framePicture(const imglib::DImage& colours, const imglib::DColorTable& table, double high,
                          double low, double logHigh, bool legend);

/// The top of the hdr table's logarithmic section: the brightest pixel that `mask` (any
/// integer type; non-zero excludes) leaves valid, or `fallback` when none is above it. A
/// null mask, or one of another size, excludes nothing.
double brightestValid(const imglib::DImage& frame, const imglib::DImage* mask, double fallback);

/// Writes `picture` as PNG; false when anything failed, a full disk included.
bool writePng(const FramePicture& picture, const std::string& path);

} // namespace cli
} // namespace norvexa
