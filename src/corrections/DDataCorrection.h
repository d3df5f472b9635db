#pragma once

#include "DImage.h"

#include <memory>

namespace norvexa {
namespace imglib {

/// Base of the data corrections: a correction works out a table or a factor image once
/// from an image's metadata and applies it to image after image, working it out anew only
/// when the parameters change. Holds the X-ray attenuation table compiled into the library.
///
/// The table (`_attenuationFactors`) has 615 rows "keV Si Al SiN" of photo-effect
/// coefficients in 1/mm, 1.0 to 62.0 keV in steps of 0.1 keV, with two rows of one energy
/// at the Al K edge (1.560 keV) and the Si K edge (1.839 keV): below the edge, then above.
///
/// One thread at a time: correctImage changes the object.
class DDataCorrection {
public:
    /// keV per inverse angstrom: 1 / 12.39842.
    static constexpr double _angstromToKev = 0.08065543835424191;
    /// The attenuation table as text; comment lines begin with "#".
    static const char* const _attenuationFactors;
    /// Rows the object can hold.
    static constexpr int maxTableRows = 1000;

    DDataCorrection();
    virtual ~DDataCorrection();
    DDataCorrection(const DDataCorrection&) = delete;
    DDataCorrection& operator=(const DDataCorrection&) = delete;

    /// The one entry for callers: keeps `mask` and the image's metadata for the length of
    /// the call, lets the subclass set itself up (it decides whether its stored parameters
    /// still hold), marks the object initialised, and corrects the image in place.
    void correctImage(DImage& image, const DImage& mask);

    /// The metadata of the image being corrected; null outside correctImage.
    DImageOptionalData* optionalData() const;

    /// Raises DBadParameterException with `message`: missing or bad metadata.
    [[noreturn]] static void parameterException(const char* message);

    /// Fills the object's table from `_attenuationFactors`; the number of rows, or -1 for
    /// a line that doesn't parse.
    int readAttenuationCoefficients();
    /// Rows read by the last readAttenuationCoefficients (0 before).
    int tableRows() const;
    /// The table's columns, maxTableRows entries each, tableRows() of them filled.
    const float* energy() const;
    const float* si() const;
    const float* al() const;
    const float* siN() const;

    /// The coefficient of `table` (one of the columns above) at the wavelength in
    /// angstrom, in 1/m, interpolated linearly in energy. Exactly at an edge energy the
    /// value below the edge holds; above it, the one above. Below 1 keV the first
    /// interval is extrapolated. Above the last row (62 keV) the coefficient is
    /// extrapolated as a power law through the last two rows (photo absorption falls
    /// about as E^-3), which stays positive and decreasing; where that can't be formed
    /// (a non-positive value) the last row's value holds. With fewer than two rows read
    /// the result is 0.
    double attenuationCoefficient(double wavelength, const float* table) const;

protected:
    /// Sets the correction up for the image whose metadata optionalData() gives.
    virtual void _initCorrection() = 0;
    /// Applies the correction to `image`.
    virtual void _correctImage(DImage& image) = 0;

    /// Parses `_attenuationFactors` into the four arrays, at most `maxRows` rows; writes
    /// "Invalid string format " to the error console and returns -1 for a bad line.
    int _readAttenuationCoefficients(float* energy, float* si, float* al, float* siN, int maxRows);

    /// Whether a correction has been set up before, so that stored parameters may be
    /// compared with the metadata.
    bool initialised() const;
    void setInitialised(bool initialised);
    /// The mask of the current correctImage call; null outside it.
    const DImage* mask() const;

private:
    class DDataCorrectionPrivate;
    std::unique_ptr<DDataCorrectionPrivate> _d;
};

} // namespace imglib
} // namespace norvexa
