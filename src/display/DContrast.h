#pragma once

#include "DImage.h"

namespace norvexa {
namespace imglib {

/// Proposes display limits for a frame from a fixed, reproducible sample of its pixels:
/// the mean of the smooth background, widened by a number of standard deviations.
///
/// There are no default settings; a viewer chooses the width and the sample count.
class DContrast {
public:
    /// `factor`: the width of the range in standard deviations; `samples`: how many
    /// pixels to draw.
    DContrast(double factor, unsigned long samples);
    void setParams(double factor, unsigned long samples);
    double factor() const noexcept { return _factor; }
    unsigned long samples() const noexcept { return _samples; }

    /// Writes the proposed limits. The mask is `mask`, else the metadata's pixel_mask,
    /// else none; one of another width or height is dropped silently. Pixels are drawn
    /// at random positions (the same ones in every call); a draw is dropped where the
    /// mask excludes the pixel (an integer mask by bits 0 to 4 of |m|, a bool or floating
    /// mask when non-zero), at the first pixel, and where the step to either neighbour
    /// exceeds two standard deviations of a Poisson difference, so that spots, edges and
    /// invalid-pixel codes stay out. From the kept values: `low` is the mean less
    /// `factor` deviations but not below the smallest kept value (taken as 0 when it is
    /// an invalid-pixel code: -1 or -2, or the two largest values of a 32- or 64-bit
    /// unsigned frame), `high` the mean plus `factor` deviations, at least `low + 1`.
    /// No pixels, or fewer than two kept: 1 and 0; one pixel: that pixel and 0.
    /// DNotImplementedException for a pixel or mask type outside the twelve.
    void operator()(double& high, double& low, const DImage& image, const DImage* mask) const;

private:
    double _factor;
    unsigned long _samples;
};

} // namespace imglib
} // namespace norvexa
