#pragma once

// The demo's corrections: a frame corrected for count rate, with the committed simulation
// files, and for the quantum efficiency of its sensor.

#include "DImage.h"

namespace norvexa_demo {

/// Gives `frame` (an integer frame; negative pixels are gaps or defects) the metadata of
/// an exposure, corrects a copy for count rate and then for efficiency, prints the
/// saturation value and a few pixels before and after, and returns the corrected copy.
norvexa::imglib::DImage demoCorrections(const norvexa::imglib::DImage& frame);

} // namespace norvexa_demo
