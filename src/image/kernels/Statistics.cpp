// One number for a frame or a rectangle: mean, variance, rms and median.

#include "DImage.h"
#include "image/kernels/Median.h"
#include "image/kernels/PixelOps.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace norvexa {
namespace imglib {

namespace {
using kernels::Image;
using kernels::Stored;

/// Pixels of the region not excluded and within [low, high], as the statistics count
/// them, walked row by row with the mask as bytes.
template <class P, class Visit>
void forCounted(const Image& image, const DRect& r, const Image* mask, double low, double high,
                Visit&& visit)
{
    const std::size_t w = static_cast<std::size_t>(kernels::widthOf(image));
    std::vector<std::uint8_t> excluded(static_cast<std::size_t>(r.width()), 0);
    for (int y = r.top(); y < r.bottom(); ++y) {
        const std::size_t begin = y * w + r.left();
        const Stored<P>* row = kernels::pixelsOf<P>(image) + begin;
        if (mask)
            kernels::excludedBytes(*mask, begin, excluded.size(), excluded.data());
        for (int x = 0; x < r.width(); ++x) {
            const double v = static_cast<double>(kernels::valueOf<P>(row[x]));
            if (low <= v && v <= high && !excluded[x])
                visit(v);
        }
    }
}

/// Exact integer sums of the counted pixels of a row: the sum, the sum of magnitudes
/// and the count. Limits are integers here, equivalent to the double comparison.
template <class S>
NORVEXA_HOT_LOOP void integerRowSums(const S* row, const std::uint8_t* excluded, int n,
                                     long long lo, long long hi, long long& sum,
                                     unsigned long long& magnitude, long long& count)
{
    long long s = 0, c = 0;
    unsigned long long a = 0;
    for (int x = 0; x < n; ++x) {
        const long long v = static_cast<long long>(row[x]);
        const bool take = v >= lo && v <= hi && !excluded[x];
        s += take ? v : 0;
        a += take ? static_cast<unsigned long long>(v < 0 ? -v : v) : 0;
        c += take;
    }
    sum += s;
    magnitude += a;
    count += c;
}

/// The running sum of squared deviations over a row, pixel by pixel in order. A pixel
/// not counted adds +0.0, which leaves a sum of non-negative terms as it is; so the
/// chain has no branch.
template <class S>
NORVEXA_HOT_LOOP double squaresRow(const S* row, const std::uint8_t* excluded, int n, double low,
                                   double high, double mean, double sum)
{
    for (int x = 0; x < n; ++x) {
        const double v = static_cast<double>(row[x]);
        const bool take = (low <= v) & (v <= high) & !excluded[x];
        const double d = v - mean;
        sum += take ? d * d : 0.0;
    }
    return sum;
}

struct Moments {
    double mean = 0.0;
    long long count = 0;
};

template <class P>
Moments meanOf(const Image& image, const DRect& r, const Image* mask, double low, double high)
{
    Moments result;
    if constexpr (std::is_integral_v<P> && !std::is_same_v<P, bool> && sizeof(P) <= 4) {
        // The double sum in row order is exact while every partial sum stays within 2^53,
        // which the sum of magnitudes bounds; then the exact integer sum is the same
        // number and the pass can run without the serial floating chain.
        double loD = std::ceil(low), hiD = std::floor(high);
        if (!(loD <= hiD))
            return result;
        loD = std::max(loD, static_cast<double>(std::numeric_limits<Stored<P>>::min()));
        hiD = std::min(hiD, static_cast<double>(std::numeric_limits<Stored<P>>::max()));
        if (!(loD <= hiD))
            return result;
        const long long lo = static_cast<long long>(loD), hi = static_cast<long long>(hiD);
        const std::size_t w = static_cast<std::size_t>(kernels::widthOf(image));
        std::vector<std::uint8_t> excluded(static_cast<std::size_t>(r.width()), 0);
        long long sum = 0, count = 0;
        unsigned long long magnitude = 0;
        for (int y = r.top(); y < r.bottom(); ++y) {
            const std::size_t begin = y * w + r.left();
            if (mask)
                kernels::excludedBytes(*mask, begin, excluded.size(), excluded.data());
            integerRowSums(kernels::pixelsOf<P>(image) + begin, excluded.data(), r.width(), lo,
                           hi, sum, magnitude, count);
        }
        if (magnitude <= (1ULL << 53)) {
            result.count = count;
            result.mean = count ? static_cast<double>(sum) / static_cast<double>(count) : 0.0;
            return result;
        }
    }
    double sum = 0.0;
    long long count = 0;
    forCounted<P>(image, r, mask, low, high, [&](double v) {
        sum += v;
        ++count;
    });
    result.count = count;
    result.mean = count ? sum / static_cast<double>(count) : 0.0;
    return result;
}

const Image* givenMask(const Image& image, const DImage* mask)
{
    if (!mask || mask->empty())
        return nullptr;
    kernels::requireMaskShape(image, mask->constImageData());
    return &mask->constImageData();
}

double varianceOf(const Image& image, const DRect* rect, const DImage* mask, double low,
                  double high, bool meanOnly)
{
    if (image.empty())
        return 0.0;
    const Image* m = givenMask(image, mask);
    return kernels::dispatchPixels(image, [&](auto tag) -> double {
        using P = typename decltype(tag)::type;
        if (m)
            kernels::dispatchPixels(*m, [](auto) {});
        const DRect r = kernels::region(image, rect);
        if (r.width() <= 0 || r.height() <= 0)
            return 0.0;
        const Moments moments = meanOf<P>(image, r, m, low, high);
        if (meanOnly)
            return moments.mean;
        if (moments.count < 2)
            return 0.0;
        // Squared deviations are rounded one by one, so they are summed in the defined order.
        double sum = 0.0;
        const double mean = moments.mean;
        if constexpr (std::is_same_v<P, bool>) {
            forCounted<P>(image, r, m, low, high, [&](double v) { sum += (v - mean) * (v - mean); });
        } else {
            const std::size_t w = static_cast<std::size_t>(kernels::widthOf(image));
            std::vector<std::uint8_t> excluded(static_cast<std::size_t>(r.width()), 0);
            for (int y = r.top(); y < r.bottom(); ++y) {
                const std::size_t begin = y * w + r.left();
                if (m)
                    kernels::excludedBytes(*m, begin, excluded.size(), excluded.data());
                sum = squaresRow(kernels::pixelsOf<P>(image) + begin, excluded.data(), r.width(), low,
                                 high, mean, sum);
            }
        }
        return sum / static_cast<double>(moments.count - 1);
    });
}
} // namespace

double DImage::mean(const DRect* rect, const DImage* mask, double low, double high) const
{
    return varianceOf(_imageData, rect, mask, low, high, true);
}

double DImage::variance(const DRect* rect, const DImage* mask, double low, double high) const
{
    return varianceOf(_imageData, rect, mask, low, high, false);
}

double DImage::rms(const DRect* rect, const DImage* mask, double low, double high) const
{
    return std::sqrt(variance(rect, mask, low, high));
}

template <class T>
T DImage::median(const DRect* rect, const DImage* mask) const
{
    if (empty())
        return T(0);
    if (mask && mask->empty())
        mask = nullptr; // an empty mask counts as none, as in mean()
    if (mask)
        kernels::requireMaskShape(_imageData, mask->_imageData);
    return kernels::dispatchPixels(_imageData, [&](auto tag) -> T {
        using P = typename decltype(tag)::type;
        if (mask)
            kernels::dispatchPixels(mask->_imageData, [](auto) {});
        const DRect r = kernels::region(_imageData, rect);
        const int area = r.width() * r.height();
        if (area < 1)
            return T(0);
        std::vector<Stored<P>> scratch(static_cast<std::size_t>(area));
        std::vector<std::uint8_t> excluded(static_cast<std::size_t>(r.width()), 0);
        const std::size_t w = static_cast<std::size_t>(width());
        std::size_t count = 0;
        for (int y = r.top(); y < r.bottom(); ++y) {
            const std::size_t begin = y * w + r.left();
            const Stored<P>* row = kernels::pixelsOf<P>(_imageData) + begin;
            if (mask)
                kernels::excludedBytes(mask->_imageData, begin, excluded.size(), excluded.data());
            for (int x = 0; x < r.width(); ++x)
                if (!excluded[x])
                    scratch[count++] = kernels::valueOf<P>(row[x]);
        }
        if (count == 0)
            return T(0);
        return kernels::convert<T>(kernels::selectMedian(scratch.data(), count));
    });
}

#define NORVEXA_INSTANTIATE_MEDIAN(T, CLASS, BITS)                                                 \
    template T DImage::median<T>(const DRect*, const DImage*) const;
NORVEXA_PIXEL_TYPES(NORVEXA_INSTANTIATE_MEDIAN)
#undef NORVEXA_INSTANTIATE_MEDIAN

} // namespace imglib
} // namespace norvexa
