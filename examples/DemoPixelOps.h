#pragma once

// The demo's pixel operations: the background of a frame, a cleaned frame, and the
// statistics of a spot.

#include "DImage.h"

namespace norvexa_demo {

/// On `frame` (INT 32 counts with gaps and defective pixels below 0): fits the smooth
/// background over the detector's modules (those of the metadata, or the blocks between
/// the all-gap rows and columns) and subtracts it, cleans the result with a 3 x 3 median
/// filter, and prints the statistics of a region around the brightest spot with the gaps
/// and defective pixels masked; with the time each step took.
void demoPixelOps(const norvexa::imglib::DImage& frame);

} // namespace norvexa_demo
