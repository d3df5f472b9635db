#include "DColorMap.h"

#include "DGlobal.h"
#include "foundation/DAssert.h"
#include "foundation/DException.h"
#include "foundation/image/DBinaryDispatcher.h"
#include "display/kernels/ColorMap.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>
#include <vector>

namespace norvexa {
namespace kernels {

void checkColorSetup(const ColorSetup& setup)
{
    if (!setup.formatSupported)
        throw DRuntimeException("Format string \"" + setup.format + "\" unsupported");
    if (setup.linSize == 0)
        throw DBadParameterException("Colour table has no linear data");
}

} // namespace kernels

namespace imglib {

namespace {

/// The Rgb functor: the colour image of the left image with the right one as its mask.
struct Rgb {
    const kernels::ColorSetup* setup;

    template <class L, class R>
    DImage fire(const DImage& image, const DImage& mask) const
    {
        kernels::checkColorSetup(*setup);
        return kernels::mapColors<L, R>(*setup, image, mask);
    }
};

/// 0xAARRGGBB as 0xRRGGBBAA.
unsigned int rotateToRgba(unsigned int color) { return (color << 8) | (color >> 24); }

double toFloatRange(double value)
{
    // A float row can't hold more; saying so keeps the conversion defined.
    constexpr double kMax = std::numeric_limits<float>::max();
    return value > kMax ? std::numeric_limits<double>::infinity()
                        : value < -kMax ? -std::numeric_limits<double>::infinity() : value;
}

// ---- The scale helpers. Each returns false where the published algorithm has no
// answer (limits not finite or not ordered, steps beyond an int), so that the colour
// bar can go without ticks where the public helpers raise.

constexpr double kDel = 1e-12;

bool validLimits(double lower, double upper, int intervals)
{
    return std::isfinite(lower) && std::isfinite(upper) && upper > lower && intervals >= 1;
}

/// `nal`, the power of ten of `a` (one less below 1), and `b`, `a` in units of it.
bool decade(double a, int& nal, double& b)
{
    if (!(a > 0) || !std::isfinite(a))
        return false;
    nal = static_cast<int>(std::log10(a));
    if (a < 1)
        --nal;
    b = a / std::pow(10.0, nal);
    return std::isfinite(b);
}

bool fitsInt(double x) { return x > -2147483000.0 && x < 2147483000.0; }

bool lowerIndex(double value, double dist, int& m1)
{
    const double fm1 = value / dist;
    if (!fitsInt(fm1))
        return false;
    m1 = static_cast<int>(std::floor(fm1));
    if (std::fabs(m1 + 1 - fm1) < kDel)
        ++m1;
    return true;
}

bool upperIndex(double value, double dist, int& m2)
{
    const double fm2 = value / dist + 1;
    if (!fitsInt(fm2))
        return false;
    m2 = static_cast<int>(std::floor(fm2));
    if (std::fabs(fm2 - m2) < kDel)
        --m2;
    return true;
}

void clampToData(double lower, double upper, double& scaleMin, double& scaleMax)
{
    if (scaleMin > lower)
        scaleMin = lower;
    if (scaleMax < upper)
        scaleMax = upper;
}

bool scale1(double lower, double upper, int n, double& scaleMin, double& scaleMax, double& dist, int& m2)
{
    static const double vint[] = {1, 2, 5, 10};
    static const double sqr[] = {1.414214, 3.162278, 7.071068};
    int nal;
    double b;
    if (!validLimits(lower, upper, n) || !decade((upper - lower) / n, nal, b))
        return false;
    // Raised while b is below the entry: the walk stops at the first entry b reaches.
    int i = 0;
    while (i <= 2 && b < sqr[i])
        ++i;
    dist = std::pow(10.0, nal) * vint[i];
    int m1;
    if (!lowerIndex(lower, dist, m1) || !upperIndex(upper, dist, m2))
        return false;
    scaleMin = m1 * dist;
    scaleMax = m2 * dist;
    clampToData(lower, upper, scaleMin, scaleMax);
    return true;
}

bool scale2(double lower, double upper, int n, double& scaleMin, double& scaleMax, double& dist)
{
    static const double vint[] = {1, 2, 5, 10, 20};
    int nal;
    double b;
    if (!validLimits(lower, upper, n) || !decade((upper - lower) / n, nal, b))
        return false;
    std::size_t i = 0;
    while (i <= 2 && b < vint[i] + kDel)
        ++i;
    long long np;
    for (;;) {
        NORVEXA_ASSERT(i < sizeof(vint)/sizeof(double), "scale_463_2");
        dist = std::pow(10.0, nal) * vint[i];
        int m1, m2;
        if (!lowerIndex(lower, dist, m1) || !upperIndex(upper, dist, m2))
            return false;
        scaleMin = m1 * dist;
        scaleMax = m2 * dist;
        np = static_cast<long long>(m2) - m1;
        if (np <= n)
            break;
        ++i;
    }
    scaleMin -= static_cast<double>((n - np) / 2) * dist;
    scaleMax += n * dist;
    clampToData(lower, upper, scaleMin, scaleMax);
    return true;
}

bool scale3(double lower, double upper, int n, double& scaleMin, double& scaleMax, double& factor)
{
    static const double vint[] = {10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0.5};
    if (!validLimits(lower, upper, n) || !(lower > 0))
        return false;
    const double logLower = std::log10(lower), logUpper = std::log10(upper);
    int nal;
    double b;
    if (!decade((logUpper - logLower) / n, nal, b))
        return false;
    std::size_t i = 0;
    while (i <= 8 && b < 10 / vint[i] + kDel)
        ++i;
    long long np;
    double dist, logMin, logMax;
    for (;;) {
        NORVEXA_ASSERT(i < sizeof(vint)/sizeof(double), "scale_463_3");
        dist = std::pow(10.0, nal + 1) / vint[i];
        int m1, m2;
        if (!lowerIndex(logLower, dist, m1) || !upperIndex(logUpper, dist, m2))
            return false;
        logMin = m1 * dist;
        logMax = m2 + dist;
        np = static_cast<long long>(m2) - m1;
        if (np <= n)
            break;
        ++i;
    }
    logMin -= static_cast<double>((n - np) / 2) * dist;
    logMax += n * dist;
    factor = std::pow(10.0, dist);
    scaleMin = std::pow(10.0, logMin);
    scaleMax = std::pow(10.0, logMax);
    clampToData(lower, upper, scaleMin, scaleMax);
    return true;
}

/// More steps than any sensible scale has; limits of no sense stop here.
constexpr int kMaxTickWalk = 10000;

[[noreturn]] void throwInvalidScale() { throw DBadParameterException("Invalid scale limits"); }

} // namespace

DImage DColorMap::rgb(const DImage& image, double high, double low, double logHigh,
                      const DColorTable& table, const std::string& format, const DImage* mask,
                      DRect* rect, int saturationValue, bool showDefective, bool showSaturated)
{
    // The mask: the given one, else the stored one, and none of another size. Only read,
    // so it is referred to rather than copied.
    const DImage none;
    boost::optional<DImage> stored;
    const DImage* maskImage = mask;
    if (!maskImage) {
        const auto storedSize = image.optionalData().pixelMaskSize();
        if (storedSize && storedSize->first == static_cast<unsigned long>(image.width()) &&
            storedSize->second == static_cast<unsigned long>(image.height())) {
            stored = image.optionalData().pixel_mask();
            maskImage = stored.get_ptr();
        }
    }
    if (!maskImage || maskImage->width() != image.width() || maskImage->height() != image.height())
        maskImage = &none;

    kernels::ColorSetup setup;
    std::string upper = format;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    const bool rgba = upper == "RGBA";
    setup.formatSupported = rgba || upper == "ARGB";
    setup.format = format;

    std::vector<unsigned int> rotated;
    setup.linSize = table.linDataSize();
    setup.logSize = table.logDataSize();
    setup.lin = table.linData();
    setup.log = table.logData();
    setup.defective = table.defectiveColor();
    setup.saturated = table.saturatedColor();
    setup.gap = 0xff000000u;
    if (rgba) {
        rotated.reserve(static_cast<std::size_t>(setup.linSize) + setup.logSize);
        rotated.insert(rotated.end(), setup.lin, setup.lin + setup.linSize);
        rotated.insert(rotated.end(), setup.log, setup.log + setup.logSize);
        for (unsigned int& color : rotated)
            color = rotateToRgba(color);
        setup.lin = rotated.data();
        setup.log = rotated.data() + setup.linSize;
        setup.defective = rotateToRgba(setup.defective);
        setup.saturated = rotateToRgba(setup.saturated);
        setup.gap = rotateToRgba(setup.gap);
    }

    setup.high = high;
    setup.low = low;
    setup.logHigh = logHigh;
    setup.scale = high != low ? setup.linSize / (high - low) : 0;
    setup.useLog = setup.logSize > 0 && logHigh > high;
    if (setup.logSize > 0 && logHigh > low && high > low) {
        setup.k = (setup.logSize - 1) / std::log((logHigh - low) / (high - low));
        setup.offset = -(std::log(high - low) * setup.k);
    }
    setup.saturationValue = saturationValue;
    setup.showDefective = showDefective;
    setup.showSaturated = showSaturated;
    setup.left = rect ? rect->left() : 0;
    setup.top = rect ? rect->top() : 0;
    setup.width = rect ? rect->width() : image.width();
    setup.height = rect ? rect->height() : image.height();

    return datatypes::PixelDispatcher<Rgb, const DImage, const DImage, DImage>::Go(image, *maskImage,
                                                                                  Rgb{&setup});
}

void DColorMap::legend(DImage& image, std::map<int, double>& ticks, double high, double low,
                       double logHigh, const DColorTable& table, const std::string& format)
{
    const int width = image.width(), height = image.height();
    int linRows = height, logRows = 0;
    double k = 0, offset = 0;
    if (table.logDataSize() > 0 && logHigh > high && high > low) {
        linRows = logRows = height / 2;
        k = (logRows - 1) / std::log((logHigh - low) / (high - low));
        offset = -(std::log(high - low) * k);
    }
    const double step = high > low ? (high - low) / (linRows - 1) : 0;

    DImage bar(width, height, 0.0f);
    const auto fillRow = [&](int y, double value) {
        std::fill_n(reinterpret_cast<float*>(bar.data(0, y)), width,
                    static_cast<float>(toFloatRange(value)));
    };
    for (int y = 0; y < linRows; ++y) {
        if (step > 0)
            fillRow(y, y * step + low);
        else if (y < linRows / 2)
            fillRow(y, low - (y * 100) / linRows);
        else
            fillRow(y, high + (y * 100) / linRows);
    }
    for (int y = 0; y < logRows; ++y)
        fillRow(linRows + y, std::exp((y - offset) / k) + low);
    image = rgb(bar, high, low, logHigh, table, format, nullptr, nullptr, 0, false, false);

    double scaleMin, scaleMax, interval;
    if (step > 0) {
        bool found = false;
        for (int n = 5; n <= 14; ++n) {
            found = scale2(low, high, n, scaleMin, scaleMax, interval);
            if (!found)
                break;
            const double first = std::ceil((low - scaleMin) / interval);
            const double last = std::floor((high + 1e-8 - scaleMin) / interval);
            if (std::trunc(last - first) > 4)
                break;
        }
        // The last two tests end a walk whose step no longer moves the value, or that
        // limits of no sense would make endless.
        int walked = 0;
        for (double t = scaleMin; found && t < scaleMax && t + interval > t && walked < kMaxTickWalk;
             t += interval, ++walked) {
            const int row = round((t - low) / step);
            if (row >= 0 && row <= linRows)
                ticks[row] = t;
        }
    } else if (step == 0) {
        ticks[0] = low - 100;
        ticks[linRows - 1] = low + 100;
    }

    if (logRows > 0 && scale3(high, logHigh, 7, scaleMin, scaleMax, interval)) {
        int walked = 0;
        for (double t = scaleMin; t < scaleMax && walked < kMaxTickWalk; t *= interval, ++walked) {
            // The rows rise with t: past the bar the walk is over. The position is tested
            // before it is rounded, which would wrap a far one into the bar.
            const double position = std::log(t - low) * k + offset + linRows;
            if (position >= linRows + logRows + 1)
                break;
            const int row = position >= linRows - 1 ? round(position) : -1;
            if (row >= linRows && row <= linRows + logRows) {
                bool crowded = false;
                for (int key = row - 10; key <= row + 9 && !crowded; ++key)
                    crowded = ticks.count(key) != 0;
                if (!crowded)
                    ticks[row] = t;
            }
            if (!(t * interval > t))
                break;
        }
    }
}

int scale_463_1(double lower, double upper, int intervals, double& scaleMin, double& scaleMax,
                double& interval)
{
    int m2;
    if (!scale1(lower, upper, intervals, scaleMin, scaleMax, interval, m2))
        throwInvalidScale();
    return m2;
}

void scale_463_2(double lower, double upper, int intervals, double& scaleMin, double& scaleMax,
                 double& interval)
{
    if (!scale2(lower, upper, intervals, scaleMin, scaleMax, interval))
        throwInvalidScale();
}

void scale_463_3(double lower, double upper, int intervals, double& scaleMin, double& scaleMax,
                 double& interval)
{
    if (!scale3(lower, upper, intervals, scaleMin, scaleMax, interval))
        throwInvalidScale();
}

} // namespace imglib
} // namespace norvexa
