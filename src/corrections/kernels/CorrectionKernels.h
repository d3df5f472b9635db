#pragma once

// Internal to the corrections: the per-pixel-type loops behind the efficiency factors and
// the count-rate look-up.

#include "DBasicImageModule.h"
#include "DImage.h"

#include <vector>

namespace norvexa {
namespace kernels {

/// The geometry and absorption of the efficiency factors.
struct EfficiencyModel {
    double beamCenterX, beamCenterY; // pixels
    double pixelSizeX, pixelSizeY;   // m
    double distance;                 // m
    double sensor;                   // thickness times mu of Si, at normal incidence
    double dead;                     // sum of mu times thickness of the dead layers
};

/// Writes the factor of each pixel whose mask value is 0 as a 32-bit float at byte offset
/// 4 * (x + y * width) of `factors`, which has the mask's size; other bytes are left.
/// DNotImplementedException for a mask type outside the twelve.
void efficiencyFactors(const imglib::DImage& mask, const EfficiencyModel& model, imglib::DImage& factors);

/// Replaces each pixel inside the modules' chips whose mask value is 0 and whose value is
/// below `tableSize` by its module's table entry; values at or beyond the stored table
/// take its last entry. Chips are clipped to the image and the mask. A negative value
/// raises std::out_of_range. The image must be of an integer type (INT or UINT).
void applyRateTables(imglib::DImage& image, const imglib::DImage& mask,
                     const std::vector<imglib::DImageModule>& modules, long long tableSize);

} // namespace kernels
} // namespace norvexa
