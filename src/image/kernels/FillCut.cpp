// Values written into a rectangle or a slice, and the cuts by a scalar limit: one body
// per (pixel type, value type), the value converted or compared in their common type.

#include "DImage.h"
#include "image/kernels/PixelOps.h"

#include <vector>

namespace norvexa {
namespace imglib {

namespace {
using kernels::Image;
using kernels::Stored;

template <bool LessThan, class T>
void cut(Image& image, const T& limit)
{
    kernels::dispatchPixels(image, [&](auto tag) {
        using P = typename decltype(tag)::type;
        using C = decltype(P() + T());
        const Stored<P> stored = kernels::valueOf<P>(kernels::convert<P>(limit));
        const C bound = static_cast<C>(limit);
        Stored<P>* p = kernels::pixelsOf<P>(image);
        const std::size_t n = image.size();
        for (std::size_t i = 0; i < n; ++i) {
            const C pixel = static_cast<C>(kernels::loadPixel<P>(p[i]));
            if (LessThan ? pixel < bound : pixel > bound)
                p[i] = stored;
        }
    });
}

} // namespace

template <class T>
void DImage::fill(const T& value, const DRect* rect, const DImage* mask)
{
    if (mask)
        kernels::requireMaskShape(_imageData, mask->_imageData);
    kernels::dispatchPixels(_imageData, [&](auto tag) {
        using P = typename decltype(tag)::type;
        if (mask) // the mask's type is walked before any pixel is written
            kernels::dispatchPixels(mask->_imageData, [](auto) {});
        if (empty())
            return;
        const DRect r = kernels::region(_imageData, rect);
        if (r.width() <= 0 || r.height() <= 0)
            return;
        const Stored<P> stored = kernels::valueOf<P>(kernels::convert<P>(value));
        const std::size_t w = static_cast<std::size_t>(width());
        std::vector<std::uint8_t> excluded(mask ? static_cast<std::size_t>(r.width()) : 0);
        for (int y = r.top(); y < r.bottom(); ++y) {
            Stored<P>* row = kernels::pixelsOf<P>(_imageData) + y * w + r.left();
            if (!mask) {
                std::fill_n(row, r.width(), stored);
                continue;
            }
            kernels::excludedBytes(mask->_imageData, y * w + r.left(), excluded.size(),
                                   excluded.data());
            for (int x = 0; x < r.width(); ++x)
                if (!excluded[x])
                    row[x] = stored;
        }
    });
}

template <class T>
void DImage::sliceFill(const T& value, int x0, int dx, int nx, int y0, int dy, int ny)
{
    kernels::requireSlice(width(), height(), x0, dx, nx, y0, dy, ny);
    kernels::dispatchPixels(_imageData, [&](auto tag) {
        using P = typename decltype(tag)::type;
        const Stored<P> stored = kernels::valueOf<P>(kernels::convert<P>(value));
        Stored<P>* out = kernels::pixelsOf<P>(_imageData);
        kernels::forEachSlicePixel(width(), x0, dx, nx, y0, dy, ny,
                                   [&](std::size_t, std::size_t at) { out[at] = stored; });
    });
}

template <class T>
void DImage::lowCut(const T& limit)
{
    cut<true>(_imageData, limit);
}

template <class T>
void DImage::highCut(const T& limit)
{
    cut<false>(_imageData, limit);
}

#define NORVEXA_INSTANTIATE_FILL_CUT(T, CLASS, BITS)                                               \
    template void DImage::fill<T>(const T&, const DRect*, const DImage*);                          \
    template void DImage::sliceFill<T>(const T&, int, int, int, int, int, int);                   \
    template void DImage::lowCut<T>(const T&);                                                     \
    template void DImage::highCut<T>(const T&);
NORVEXA_PIXEL_TYPES(NORVEXA_INSTANTIATE_FILL_CUT)
#undef NORVEXA_INSTANTIATE_FILL_CUT

} // namespace imglib
} // namespace norvexa
