#pragma once

#include "DBasicImageModule.h"
#include "DImage.h"

#include <vector>

namespace norvexa {
namespace imglib {

/// What a frame's size alone tells of the detector that took it: a grid of identical
/// modules with fixed gaps between them, in one of two families.
///
/// | Family  | Module      | Gap in x, y | Pitch in x, y |
/// |---------|-------------|-------------|---------------|
/// | Brennik | 487 x 195   | 7, 17       | 494, 212      |
/// | Orvik   | 1030 x 514  | 10, 37      | 1040, 551     |
///
/// A size belongs to a family when it is one module plus whole pitches in each
/// direction; sizes of no family are a normal answer (false, an all-zero mask, no modules).
class DDetector {
public:
    DDetector() = delete;

    static bool isBrennik(int width, int height);
    static bool isBrennik(const DImage& image);
    static bool isOrvik(int width, int height);
    static bool isOrvik(const DImage& image);

    /// A new UINT 32 image of the frame's size, without metadata: 1 in the gaps between
    /// modules, 2 at pixels that read as -2 (the detector's defect code) outside the gaps,
    /// 0 elsewhere. bool, unsigned char and unsigned short frames get gaps only. Other
    /// pixels are read as int (64-bit ones truncated, floating ones toward zero, so
    /// 0xFFFFFFFE is -2); if any pixel reads below -2, the frame is not raw counts and no
    /// pixel is marked 2. A frame of no family gives all zeros. An unimplemented pixel
    /// type raises DNotImplementedException.
    static DImage mask(const DImage& image);

    /// The modules of a frame of that size, row by row; their numbers run down the
    /// columns. Orvik modules come as two half modules of 1030 x 257. Empty for a size
    /// of no family.
    static std::vector<DImageModule> modules(int width, int height);
};

} // namespace imglib
} // namespace norvexa
