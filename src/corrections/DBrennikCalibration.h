#pragma once

#include "DImage.h"

#include <memory>
#include <utility>
#include <vector>

namespace norvexa {
namespace imglib {

/// Evaluates a threshold scan: a stack of images of one scene, one per value of a swept
/// parameter (the x values). For each pixel it finds where the pixel's curve over the
/// stack passes a level and writes that position to the result image. Pixels are read as
/// float.
///
/// The stack is given with setStack. Where the curve leaves the stack (the nearest image
/// is the first or the last, or its neighbour lies outside), XAtY gives the nearest
/// image's x value instead of reading beyond the stack; InvflectionPoint cuts its windows
/// to the stack, which matters only below six images.
class DBrennikCalibration {
public:
    /// Images a stack may hold.
    static constexpr int maxImages = 1000;

    DBrennikCalibration();
    ~DBrennikCalibration();
    DBrennikCalibration(const DBrennikCalibration&) = delete;
    DBrennikCalibration& operator=(const DBrennikCalibration&) = delete;

    /// The stack and its x values, one per image. DOutOfRangeException "Calibration stack
    /// longer than 1000 images"; DBadParameterException "Calibration x values don't match
    /// the images" for another count of x values, "Calibration images differ in size" for
    /// images of different sizes.
    void setStack(std::vector<DImage> images, std::vector<double> xValues);
    /// Images in use.
    int count() const;
    /// The last XAtY or InvflectionPoint: the first image's size and type.
    const DImage& result() const;
    /// (bin position, count) of the results of the last XAtY, one bin per image.
    const std::vector<std::pair<double, double>>& histogram() const;

    /// Per pixel, the stack index at which the curve passes `level`, found by lines fitted
    /// through four shrinking windows; at the grain of the windows' ends.
    void InvflectionPoint(double level);
    /// Per pixel, the x value at which the curve passes `level`, interpolated between the
    /// nearest image and its neighbour towards the level; pixels whose mask value is 1
    /// keep the first image's value (pixels outside the mask count as unmasked).
    void XAtY(double level, const DImage& mask);

    /// Least-squares line through (x[i], y[i]) for i in [from, to); slope and intercept 0
    /// when the x values don't spread (|n Sxx - Sx^2| <= 1e-10).
    static void LinearRegression(int from, int to, const double* x, const double* y, double& intercept,
                                 double& slope);
    /// Index of the value nearest to `x` (ties to the earlier); 0 when none lies within 1e6.
    static int GetIndexOfX(double x, const double* values, int count);

private:
    class DBrennikCalibrationPrivate;
    std::unique_ptr<DBrennikCalibrationPrivate> _d;
};

} // namespace imglib
} // namespace norvexa
