#pragma once

// Internal to the kernels: the per-pixel colour rule of DColorMap::rgb and the sampling
// of DContrast, as bodies per (pixel type, mask type). The bodies are instantiated in
// ColorMap*.cpp and Contrast.cpp, split by pixel type so that they compile in parallel.

#include "DImage.h"
#include "foundation/image/DDataTypes.h"

#include <cmath>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>

namespace norvexa {
namespace kernels {

using imglib::DImage;

/// Everything of one rgb call that does not depend on the pixel type, worked out once.
struct ColorSetup {
    // Colours already in the output format.
    const unsigned int* lin = nullptr;
    int linSize = 0;
    const unsigned int* log = nullptr;
    int logSize = 0;
    unsigned int defective = 0, saturated = 0, gap = 0;

    double high = 0, low = 0, logHigh = 0;
    double scale = 0, k = 0, offset = 0;
    bool useLog = false;
    int saturationValue = 0;
    bool showDefective = false, showSaturated = false;

    /// The part of the frame to map (the whole frame without a rectangle).
    int left = 0, top = 0, width = 0, height = 0;

    /// Checked inside the body, after dispatch, so that a type failure comes first.
    bool formatSupported = true;
    std::string format;
};

/// Raises the failures that ColorSetup records; out of line, once per call.
void checkColorSetup(const ColorSetup& setup);

/// `d` in the arithmetic of T: integers wrap as a conversion from a wide integer does
/// (the value truncated first), bool is whether `d` is non-zero, double keeps it.
template <class T>
inline T toPixelType(double d)
{
    if constexpr (std::is_same_v<T, bool> || std::is_floating_point_v<T>) {
        return static_cast<T>(d);
    } else {
        if (!std::isfinite(d))
            return T(0);
        constexpr double kTwo64 = 18446744073709551616.0;
        double m = std::fmod(std::trunc(d), kTwo64);
        if (m < 0)
            m += kTwo64;
        const unsigned long long u = m < kTwo64 ? static_cast<unsigned long long>(m) : 0ULL;
        return static_cast<T>(u);
    }
}

/// Index into a table of `size` entries, `x` truncated and held inside the table
/// (a NaN gives 0): arithmetic that rounds, or a wrapped difference, never reads outside.
inline int tableIndex(double x, int size)
{
    if (!(x >= 0))
        return 0;
    if (x >= size)
        return size - 1;
    return static_cast<int>(x);
}

/// `v >= s` by value, whatever the signedness of T.
template <class T>
inline bool atLeast(T v, int s)
{
    if constexpr (std::is_floating_point_v<T>)
        return static_cast<double>(v) >= s;
    else if constexpr (std::is_unsigned_v<T> || std::is_same_v<T, bool>)
        return s <= 0 || static_cast<unsigned long long>(v) >= static_cast<unsigned long long>(s);
    else
        return static_cast<long long>(v) >= s;
}

/// Rules 3 to 6 for one value, with the difference of rule 5 taken in D.
template <class D, class T>
inline unsigned int valueColor(const ColorSetup& s, T v)
{
    if (s.showSaturated && atLeast(v, s.saturationValue))
        return s.saturated;
    const double value = static_cast<double>(v);
    if (value >= s.high) {
        if (!s.useLog)
            return s.lin[s.linSize - 1];
        if (value >= s.logHigh)
            return s.log[s.logSize - 1];
        if (s.k == 0)
            return s.log[0];
        return s.log[tableIndex(std::log(value - s.low) * s.k + s.offset, s.logSize)];
    }
    if (value > s.low) {
        const D d = toPixelType<D>(value - s.low);
        return s.lin[tableIndex(static_cast<double>(d) * s.scale, s.linSize)];
    }
    return s.lin[0];
}

/// The colour image of `image` with `mask` (a null data pointer: no mask).
template <class L, class R>
DImage mapColors(const ColorSetup& setup, const DImage& image, const DImage& mask);

/// Proposed (high, low) of DContrast for `image` with `mask` (null data: no mask).
template <class L, class R>
std::pair<double, double> contrast(double factor, unsigned long samples, const DImage& image,
                                   const DImage& mask);

#define NORVEXA_COLOR_KERNELS_FOR(L, R)                                                            \
    extern template DImage mapColors<L, R>(const ColorSetup&, const DImage&, const DImage&);        \
    extern template std::pair<double, double> contrast<L, R>(double, unsigned long, const DImage&, \
                                                             const DImage&);
#define NORVEXA_COLOR_KERNELS_LEFT(L, CLASS, BITS)                                                 \
    NORVEXA_COLOR_KERNELS_FOR(L, bool)                                                             \
    NORVEXA_COLOR_KERNELS_FOR(L, char)                                                             \
    NORVEXA_COLOR_KERNELS_FOR(L, signed char)                                                      \
    NORVEXA_COLOR_KERNELS_FOR(L, short)                                                            \
    NORVEXA_COLOR_KERNELS_FOR(L, int)                                                              \
    NORVEXA_COLOR_KERNELS_FOR(L, long long)                                                        \
    NORVEXA_COLOR_KERNELS_FOR(L, unsigned char)                                                    \
    NORVEXA_COLOR_KERNELS_FOR(L, unsigned short)                                                   \
    NORVEXA_COLOR_KERNELS_FOR(L, unsigned int)                                                     \
    NORVEXA_COLOR_KERNELS_FOR(L, unsigned long long)                                               \
    NORVEXA_COLOR_KERNELS_FOR(L, float)                                                            \
    NORVEXA_COLOR_KERNELS_FOR(L, double)
NORVEXA_PIXEL_TYPES(NORVEXA_COLOR_KERNELS_LEFT)
#undef NORVEXA_COLOR_KERNELS_LEFT
#undef NORVEXA_COLOR_KERNELS_FOR

} // namespace kernels
} // namespace norvexa
