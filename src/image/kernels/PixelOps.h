#pragma once

// Internal to the kernels: what the region, filter, statistics and spline bodies share.

#include "DRect.h"
#include "foundation/DException.h"
#include "foundation/image/DBinaryDispatcher.h"
#include "foundation/image/DBasicImage.h"
#include "image/kernels/PixelMath.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

namespace norvexa {
namespace kernels {

using Image = image::DBasicImage<image::StdAllocator>;

inline int widthOf(const Image& image)
{
    return image.empty() ? 0 : static_cast<int>(image.shape()[0]);
}
inline int heightOf(const Image& image)
{
    return image.empty() ? 0 : static_cast<int>(image.shape()[1]);
}

/// DRuntimeException "Mask has the wrong shape" unless the shapes agree element by element.
inline void requireMaskShape(const Image& image, const Image& mask)
{
    if (!(image.shape() == mask.shape()))
        throw DRuntimeException("Mask has the wrong shape");
}

/// The whole frame, or its intersection with `*rect`.
inline imglib::DRect region(const Image& image, const imglib::DRect* rect)
{
    const imglib::DRect whole(0, 0, widthOf(image), heightOf(image));
    return rect ? whole.intersection(*rect) : whole;
}

/// Whether a mask pixel excludes: non-zero, and for floating masks less or greater than
/// zero (NaN does not exclude).
template <class M>
inline bool excludes(M m)
{
    if constexpr (std::is_floating_point_v<M>)
        return m < M(0) || m > M(0);
    else
        return m != M(0);
}

/// Mask pixels [begin, begin + n) as 1 (excluded) or 0; the mask's pixel type is walked
/// once per call, so the bodies that take these bytes exist once per image type and not
/// once per pair.
void excludedBytes(const Image& mask, std::size_t begin, std::size_t n, std::uint8_t* out);

/// The whole mask as bytes, or an empty vector for no mask.
std::vector<std::uint8_t> excludedBytes(const Image* mask);

/// The pixel type of `image` walked first (so an unknown type is named before the
/// mask's), then `f(TypeTag<T>{})`.
template <class F>
decltype(auto) dispatchPixels(const Image& image, F&& f)
{
    return datatypes::dispatchType(image.type(), image.typeBits(), std::forward<F>(f));
}

/// Pixel reinterpretation: BOOL bytes are read as bytes, so that a stored value other
/// than 0 or 1 is still just "non-zero".
template <class T>
using Stored = std::conditional_t<std::is_same_v<T, bool>, std::uint8_t, T>;

template <class T>
inline const Stored<T>* pixelsOf(const Image& image)
{
    return reinterpret_cast<const Stored<T>*>(image.cdata());
}
template <class T>
inline Stored<T>* pixelsOf(Image& image)
{
    return reinterpret_cast<Stored<T>*>(image.data());
}

/// A stored pixel as a value: BOOL bytes as 0 or 1.
template <class P>
inline Stored<P> valueOf(Stored<P> v)
{
    if constexpr (std::is_same_v<P, bool>)
        return v != 0;
    else
        return v;
}

/// A stored pixel as its pixel type: BOOL bytes as false or true.
template <class P>
inline P loadPixel(Stored<P> v)
{
    if constexpr (std::is_same_v<P, bool>)
        return v != 0;
    else
        return v;
}

/// DOutOfRangeException "Slicing parameters outside image borders" unless the slice
/// starts inside the frame and ends (exclusively) no further than one position beyond
/// either edge. Computed wide so that no product overflows.
inline void requireSlice(int width, int height, int x0, int dx, int nx, int y0, int dy, int ny)
{
    const long long xEnd = x0 + static_cast<long long>(dx) * nx;
    const long long yEnd = y0 + static_cast<long long>(dy) * ny;
    if (x0 < 0 || x0 >= width || xEnd < -1 || xEnd > width || y0 < 0 || y0 >= height ||
        yEnd < -1 || yEnd > height)
        throw DOutOfRangeException("Slicing parameters outside image borders");
}

/// `f(sliceIndex, frameIndex)` for each slice position, row by row. A slice that passed
/// requireSlice lies inside the frame at every position (the steps are linear and both
/// ends are in range), so no pixel is bounds-checked; a count of zero or less walks nothing.
template <class F>
inline void forEachSlicePixel(int width, int x0, int dx, int nx, int y0, int dy, int ny, F&& f)
{
    for (int j = 0; j < ny; ++j) {
        const std::size_t row = static_cast<std::size_t>(y0 + static_cast<long long>(dy) * j) * width;
        const std::size_t sliceRow = static_cast<std::size_t>(j) * nx;
        for (int i = 0; i < nx; ++i)
            f(sliceRow + i, row + static_cast<std::size_t>(x0 + static_cast<long long>(dx) * i));
    }
}

/// A new width x height image of the pixel type of T, cleared to zero bytes.
template <class T>
Image zeroImage(int width, int height)
{
    Image image(static_cast<const T*>(nullptr), static_cast<unsigned long>(width),
                static_cast<unsigned long>(height));
    if (image.usedBytes())
        std::memset(image.data(), 0, image.usedBytes());
    return image;
}

} // namespace kernels
} // namespace norvexa
