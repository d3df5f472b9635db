// Masks from a value interval, counts by interval and the reciprocal image: one body per
// (pixel type, limit type), compared in their common type.

#include "DImage.h"
#include "image/kernels/PixelOps.h"

#include <cmath>
#include <limits>
#include <vector>

namespace norvexa {
namespace imglib {

namespace {
using kernels::Image;
using kernels::Stored;

/// int, long long, float and double images keep their type; all others give int.
template <class P>
using InverseType = std::conditional_t<
    std::is_same_v<P, long long> || std::is_floating_point_v<P>, P, int>;
} // namespace

template <class T>
DImage DImage::createMask(T low, T high, bool inside) const
{
    return DImage(kernels::dispatchPixels(_imageData, [&](auto tag) -> Image {
        using P = typename decltype(tag)::type;
        using C = decltype(P() + T());
        if (empty())
            return Image(static_cast<const unsigned int*>(nullptr));
        Image result(static_cast<const unsigned int*>(nullptr), static_cast<unsigned long>(width()),
                     static_cast<unsigned long>(height()));
        const Stored<P>* in = kernels::pixelsOf<P>(_imageData);
        unsigned int* out = reinterpret_cast<unsigned int*>(result.data());
        const C lo = static_cast<C>(low);
        const C hi = static_cast<C>(high);
        const std::size_t n = size();
        for (std::size_t i = 0; i < n; ++i) {
            const C v = static_cast<C>(kernels::loadPixel<P>(in[i]));
            const bool within = lo <= v && v <= hi;
            out[i] = inside ? within : (v > hi || v < lo);
        }
        return result;
    }));
}

template <class T>
void DImage::numberOfPixelsInInterval(int& below, int& inside, int& above, T a, T b,
                                      const DRect* rect, const DImage* mask) const
{
    if (mask)
        kernels::requireMaskShape(_imageData, mask->_imageData);
    int counts[3] = {0, 0, 0};
    kernels::dispatchPixels(_imageData, [&](auto tag) {
        using P = typename decltype(tag)::type;
        using C = decltype(P() + T());
        if (mask)
            kernels::dispatchPixels(mask->_imageData, [](auto) {});
        if (empty())
            return;
        const DRect r = kernels::region(_imageData, rect);
        if (r.width() <= 0 || r.height() <= 0)
            return;
        const C ca = static_cast<C>(a);
        const C cb = static_cast<C>(b);
        const std::size_t w = static_cast<std::size_t>(width());
        std::vector<std::uint8_t> excluded(static_cast<std::size_t>(r.width()), 0);
        for (int y = r.top(); y < r.bottom(); ++y) {
            const Stored<P>* row = kernels::pixelsOf<P>(_imageData) + y * w + r.left();
            if (mask)
                kernels::excludedBytes(mask->_imageData, y * w + r.left(), excluded.size(),
                                       excluded.data());
            for (int x = 0; x < r.width(); ++x) {
                if (excluded[x])
                    continue;
                const C v = static_cast<C>(kernels::loadPixel<P>(row[x]));
                ++counts[(v < ca && v < cb) ? 0 : (v <= ca || v <= cb) ? 1 : 2];
            }
        }
    });
    below = counts[0];
    inside = counts[1];
    above = counts[2];
}

template <class T>
DImage DImage::inverse(T numerator) const
{
    return DImage(kernels::dispatchPixels(_imageData, [&](auto tag) -> Image {
        using P = typename decltype(tag)::type;
        using O = InverseType<P>;
        using C = decltype(T() + P());
        if (empty())
            return Image(static_cast<const O*>(nullptr));
        Image result(static_cast<const O*>(nullptr), static_cast<unsigned long>(width()),
                     static_cast<unsigned long>(height()));
        // The largest finite output value: a quotient whose size reaches it gives 0.
        const double limit = static_cast<double>(std::numeric_limits<O>::max());
        const double absNumerator = std::fabs(static_cast<double>(numerator));
        const Stored<P>* in = kernels::pixelsOf<P>(_imageData);
        O* out = reinterpret_cast<O*>(result.data());
        const std::size_t n = size();
        for (std::size_t i = 0; i < n; ++i) {
            const P p = kernels::loadPixel<P>(in[i]);
            if (absNumerator >= std::fabs(static_cast<double>(p)) * limit)
                out[i] = O(0);
            else
                out[i] = kernels::convert<O>(static_cast<C>(static_cast<C>(numerator) /
                                                            static_cast<C>(p)));
        }
        return result;
    }));
}

#define NORVEXA_INSTANTIATE_MASK_COUNT(T, CLASS, BITS)                                             \
    template DImage DImage::createMask<T>(T, T, bool) const;                                       \
    template void DImage::numberOfPixelsInInterval<T>(int&, int&, int&, T, T, const DRect*,        \
                                                      const DImage*) const;                        \
    template DImage DImage::inverse<T>(T) const;
NORVEXA_PIXEL_TYPES(NORVEXA_INSTANTIATE_MASK_COUNT)
#undef NORVEXA_INSTANTIATE_MASK_COUNT

} // namespace imglib
} // namespace norvexa
