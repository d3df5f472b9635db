#pragma once

#include "DColorTable.h"
#include "DImage.h"
#include "DRect.h"

#include <map>
#include <string>

namespace norvexa {
namespace imglib {

/// Turns frames into 32-bit colour images, and draws the matching colour bar.
///
/// The scale has two sections: values from `low` to `high` run through the table's
/// linear part, and, when the table has a logarithmic part and `logHigh > high`, values
/// from `high` to `logHigh` run logarithmically through that part.
class DColorMap {
public:
    DColorMap() = delete;

    /// A new UINT 32 image of the frame's size (or of `rect`'s), without metadata.
    ///
    /// Per pixel `v` with mask value `m`, the first rule that applies:
    /// 1. `showDefective` and `|m| & 30` (bits 1 to 4): the defective colour;
    /// 2. `|m| & 1` (bit 0): the gap colour, opaque black;
    /// 3. `showSaturated` and `v >= saturationValue`: the saturated colour;
    /// 4. `v >= high`: the top of the linear table, or with a logarithmic section the
    ///    logarithmic entry of `v` (its top from `logHigh` on);
    /// 5. `v > low`: the linear entry of `v - low`, that difference taken in the pixel's
    ///    own type first (truncated for integer pixels, 1 for any difference of a bool);
    /// 6. entry 0 of the linear table.
    /// A bool mask marks gaps only; a float or double mask is ignored.
    ///
    /// The mask is `mask`, else the metadata's pixel_mask, else none; a mask of another
    /// width or height than the frame's is dropped silently.
    /// `format` is "ARGB" (0xAARRGGBB, the tables as they are) or "RGBA" (0xRRGGBBAA),
    /// in either case; anything else raises DRuntimeException "Format string \"<format>\"
    /// unsupported", but only after an unimplemented pixel or mask type has raised
    /// DNotImplementedException. A table without linear entries raises
    /// DBadParameterException "Colour table has no linear data", at the same point.
    ///
    /// `rect`, when given, selects the part to map and is NOT clipped: the caller must
    /// ensure 0 <= left, 0 <= top, width >= 0, height >= 0, right() <= the frame's width
    /// and bottom() <= its height. Pixels outside the frame would be read otherwise.
    ///
    /// Integer pixels other than bool and char with values 1 to 99 999 are coloured from
    /// a table that is filled once per call (there the difference of rule 5 is taken as
    /// an int), so that no logarithm is taken per pixel.
    static DImage rgb(const DImage& image, double high, double low, double logHigh,
                      const DColorTable& table, const std::string& format, const DImage* mask,
                      DRect* rect, int saturationValue, bool showDefective, bool showSaturated);

    /// Replaces `image` by a colour bar of its size: row 0 has the value `low`, the rows
    /// go up linearly to `high` and, with a logarithmic section, the upper half of the
    /// rows runs logarithmically from `high` to `logHigh` (an odd last row stays at 0).
    /// With `low == high` the rows step away from `low` and `high` by `(y * 100) / rows`
    /// (integer division). Adds the tick marks to `ticks` (row to value); entries it held
    /// before stay, and a logarithmic tick keeps 10 rows away from any other.
    /// Ticks are skipped where the limits give no finite scale (for example logarithmic
    /// ticks when `high <= 0`).
    static void legend(DImage& image, std::map<int, double>& ticks, double high, double low,
                       double logHigh, const DColorTable& table, const std::string& format);
};

/// Scale helpers after the published scale algorithm 463 (SCALE1, SCALE2, SCALE3), with
/// its kept differences. Each takes the data's limits and a wanted number of intervals
/// and gives a scale of "round" numbers around them: its minimum, its maximum, and its
/// interval (for scale_463_3 the factor between steps of a logarithmic scale).
/// The scale's limits are clamped to the data's limits where they would lie inside.
/// DBadParameterException "Invalid scale limits" when the limits are not finite, `upper`
/// is not above `lower`, `intervals` is below 1, `lower` is not positive for the
/// logarithmic scale, or the scale steps would not fit in an int.

/// SCALE1: steps of 1, 2 or 5 times a power of ten; returns the scale's upper index.
int scale_463_1(double lower, double upper, int intervals, double& scaleMin, double& scaleMax,
                double& interval);
/// SCALE2: as SCALE1, for at most `intervals` intervals, the scale widened to that count.
void scale_463_2(double lower, double upper, int intervals, double& scaleMin, double& scaleMax,
                 double& interval);
/// SCALE3: a logarithmic scale; `interval` is the factor from one step to the next.
/// Kept difference: its maximum's logarithm is the upper index plus the step (a sum, not
/// a product), so the maximum lies far above the data.
void scale_463_3(double lower, double upper, int intervals, double& scaleMin, double& scaleMax,
                 double& interval);

} // namespace imglib
} // namespace norvexa
