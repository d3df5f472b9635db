#pragma once

#include "DColorTable.h"
#include "DImage.h"
#include "DRect.h"

#include <string>

namespace norvexa {
namespace view {

/// The display limits of a frame: the linear section from `low` to `high`, the
/// logarithmic one up to `logHigh`.
struct Limits {
    double low = 0;
    double high = 1;
    double logHigh = 10;
};

/// The frame's mask as the colour mapping reads it, one UINT 8 of flags per pixel:
/// bit 0 a gap, bits 1 to 4 a defective pixel. From the metadata's pixel_mask, else from
/// the detector's layout; when neither marks anything, from the frame's invalid-pixel
/// codes (flagsOfCodes); empty when nothing is marked.
imglib::DImage maskFlags(const imglib::DImage& frame);
/// Flags from the codes a detector writes into pixels it can't measure: -1 (or the largest
/// value of a 32- or 64-bit unsigned frame) a gap, -2 (the value below it) a defective
/// pixel. For a frame that came without a mask, such as a stream's with a short header.
imglib::DImage flagsOfCodes(const imglib::DImage& frame);
/// The same flags from a mask of any pixel type; empty when it marks nothing.
imglib::DImage flagsOfMask(const imglib::DImage& mask);

/// Contrast for a first look: DContrast over eight deviations, and the logarithmic top at
/// the brightest pixel that the flags leave valid and that is no invalid-pixel code (the
/// two largest values of a 32- or 64-bit unsigned frame); ten times `high` if none is brighter.
Limits autoLimits(const imglib::DImage& frame, const imglib::DImage& flags);

/// The maximum of each `bin` x `bin` block of `region` (the last row and column of
/// blocks may be partial), in the frame's pixel type, leaving out flagged pixels so that
/// a defect never outshines a spot. A block whose pixels are all flagged gets the union
/// of their flags and the value 0. `flags` may be empty; then `binnedFlags` is too.
void binByMaximum(const imglib::DImage& frame, const imglib::DImage& flags, const imglib::DRect& region,
                  int bin, imglib::DImage& binned, imglib::DImage& binnedFlags);

/// How a region is to be coloured.
struct Colouring {
    Limits limits;
    const imglib::DColorTable* table = &imglib::DColorTable::hdr();
    bool showSaturated = false;
    int saturationValue = 0;
};

/// The bin that brings a region of `width` x `height` frame pixels to at most
/// `screenWidth` x `screenHeight`: 1 when the region fits.
int binFor(int width, int height, int screenWidth, int screenHeight);

/// The ARGB picture of `region` (inside the frame) binned by `bin`, by DColorMap::rgb
/// with the flags as mask; gaps and defective pixels in their colours.
imglib::DImage colourRegion(const imglib::DImage& frame, const imglib::DImage& flags,
                            const imglib::DRect& region, int bin, const Colouring& colouring);

/// PNG bytes (8-bit RGB) of an ARGB image; `bottomUp` writes its last row first.
/// Fast settings: the pictures go out at every pan and every live frame.
std::string encodePng(const imglib::DImage& argb, bool bottomUp = false);
/// The same with zlib's `level` and `strategy` (Z_...) and libpng's set of row `filters`
/// (PNG_FILTER_...), for measuring the choice above.
std::string encodePng(const imglib::DImage& argb, bool bottomUp, int level, int filters, int strategy);

/// The pixel's value as text, exactly in its own type.
std::string pixelText(const imglib::DImage& frame, int x, int y);

} // namespace view
} // namespace norvexa
