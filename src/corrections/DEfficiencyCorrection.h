#pragma once

#include "DDataCorrection.h"

#include <memory>
#include <vector>

namespace norvexa {
namespace imglib {

/// Corrects an image for the quantum efficiency of a silicon sensor: the fraction of
/// photons absorbed in the sensor along the slanted path through it, and the loss in the
/// dead layers above it (Al 0.6 um, SiN 0.4 um, Si 0.45 um), pixel by pixel by the angle
/// of incidence. The factors are built once per parameter set over the mask and multiply
/// every image.
///
/// Metadata used: sensor_thickness, wavelength, beam_center_x/y, x/y_pixel_size,
/// detector_distance, sensor_material ("Si" only). The factors are reused while each of
/// these stays within its tolerance of the stored value (thickness 1e-6, wavelength 0.001,
/// beam centre 0.001, pixel sizes 1e-9, distance 1e-6) and the material is the same; the
/// image's size and the mask are not compared, so a new mask keeps the old factors.
///
/// The factor image is a FLOAT 64 image of the mask's size, filled with 1.0, into whose
/// buffer the factors are written as 32-bit floats, pixel i at byte offset 4 * i; this
/// stored form is kept as it is, so an image is multiplied by that buffer read as doubles
/// (two factors' bytes per element in the front half, 1.0 in the back half). An image of
/// another size than the mask raises "Image sizes do not coincide".
class DEfficiencyCorrection : public DDataCorrection {
public:
    DEfficiencyCorrection();
    ~DEfficiencyCorrection() override;

    /// Reads a table of quantum efficiency: a first row "<word> angle..." in degrees, then
    /// rows "keV efficiency...". Lines beginning with "#" are passed over; rows of another
    /// length than the first are kept as they are. DNoFileAccessException "Error accessing
    /// <path>" when the file can't be opened.
    void _readQETable(const char* path);
    /// The efficiency at the wavelength (angstrom) and angle of incidence (radians),
    /// interpolated bilinearly in the table read by _readQETable; between 1e-6 and 1. A
    /// table without two energy rows and two angles, or a value missing from a short row,
    /// counts as 0 (so 1e-6).
    double _qe(double wavelength, double angle) const;

protected:
    void _initCorrection() override;
    void _correctImage(DImage& image) override;

private:
    class DEfficiencyCorrectionPrivate;
    std::unique_ptr<DEfficiencyCorrectionPrivate> _d;
};

} // namespace imglib
} // namespace norvexa
