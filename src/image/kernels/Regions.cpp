// Rectangles and slices taken out or written in, the two-image cuts and the mask bytes
// that the masked bodies share.

#include "DImage.h"
#include "image/kernels/PixelOps.h"

#include <algorithm>
#include <cstring>

namespace norvexa {
namespace kernels {

void excludedBytes(const Image& mask, std::size_t begin, std::size_t n, std::uint8_t* out)
{
    dispatchPixels(mask, [&](auto tag) {
        using M = typename decltype(tag)::type;
        const Stored<M>* m = pixelsOf<M>(mask) + begin;
        for (std::size_t i = 0; i < n; ++i)
            out[i] = excludes(m[i]) ? 1 : 0;
    });
}

std::vector<std::uint8_t> excludedBytes(const Image* mask)
{
    std::vector<std::uint8_t> bytes;
    if (mask && !mask->empty()) {
        bytes.resize(mask->size());
        excludedBytes(*mask, 0, mask->size(), bytes.data());
    }
    return bytes;
}

} // namespace kernels

namespace imglib {

namespace {
using kernels::Image;

Image extractPixels(const Image& image, const DRect* rect)
{
    return kernels::dispatchPixels(image, [&](auto tag) -> Image {
        using T = typename decltype(tag)::type;
        const DRect r = kernels::region(image, rect);
        if (r.width() <= 0 || r.height() <= 0)
            return Image(static_cast<const T*>(nullptr), image.allocator());
        Image result(static_cast<const T*>(nullptr), static_cast<unsigned long>(r.width()),
                     static_cast<unsigned long>(r.height()), image.allocator());
        const std::size_t width = static_cast<std::size_t>(kernels::widthOf(image));
        const T* in = reinterpret_cast<const T*>(image.cdata());
        T* out = reinterpret_cast<T*>(result.data());
        for (int y = 0; y < r.height(); ++y)
            std::memcpy(out + static_cast<std::size_t>(y) * r.width(),
                        in + (static_cast<std::size_t>(r.top()) + y) * width + r.left(),
                        sizeof(T) * static_cast<std::size_t>(r.width()));
        return result;
    });
}

Image slicePixels(const Image& image, int x0, int dx, int nx, int y0, int dy, int ny)
{
    const int width = kernels::widthOf(image);
    const int height = kernels::heightOf(image);
    kernels::requireSlice(width, height, x0, dx, nx, y0, dy, ny);
    return kernels::dispatchPixels(image, [&](auto tag) -> Image {
        using T = typename decltype(tag)::type;
        // A negative count passes the bounds test with a step of the other sign; it
        // slices nothing.
        Image result = kernels::zeroImage<T>(std::max(nx, 0), std::max(ny, 0));
        const T* in = reinterpret_cast<const T*>(image.cdata());
        T* out = reinterpret_cast<T*>(result.data());
        kernels::forEachSlicePixel(width, x0, dx, nx, y0, dy, ny,
                                   [&](std::size_t at, std::size_t from) { out[at] = in[from]; });
        return result;
    });
}

/// The cut of one image by another: LessThan raises pixels to the limits (lowCut),
/// otherwise they are lowered to them.
template <bool LessThan>
struct CutImage {
    template <class L, class R>
    void fire(Image& image, const Image& limits) const
    {
        if (image.size() != limits.size())
            throw DRuntimeException("Image sizes do not coincide");
        using C = decltype(L() + R());
        kernels::Stored<L>* p = kernels::pixelsOf<L>(image);
        const kernels::Stored<R>* l = kernels::pixelsOf<R>(limits);
        const std::size_t n = image.size();
        for (std::size_t i = 0; i < n; ++i) {
            const C pixel = static_cast<C>(kernels::loadPixel<L>(p[i]));
            const C limit = static_cast<C>(kernels::loadPixel<R>(l[i]));
            if (LessThan ? pixel < limit : pixel > limit)
                p[i] = kernels::convert<L>(kernels::loadPixel<R>(l[i]));
        }
    }
};

struct SliceFill {
    int x0, dx, y0, dy;

    template <class L, class R>
    void fire(Image& target, const Image& source) const
    {
        const kernels::Stored<R>* in = kernels::pixelsOf<R>(source);
        kernels::Stored<L>* out = kernels::pixelsOf<L>(target);
        kernels::forEachSlicePixel(kernels::widthOf(target), x0, dx, kernels::widthOf(source), y0, dy,
                                   kernels::heightOf(source), [&](std::size_t from, std::size_t at) {
                                       out[at] = kernels::convert<L>(kernels::loadPixel<R>(in[from]));
                                   });
    }
};
} // namespace

DImage DImage::extract(const DRect* rect) const
{
    DImage result(extractPixels(_imageData, rect));
    if (boost::optional<DImage> mask = _optionalData.pixel_mask())
        result._optionalData.set_pixel_mask(mask->extract(rect));
    return result;
}

DImage DImage::sliceExtract(int x0, int dx, int nx, int y0, int dy, int ny) const
{
    DImage result(slicePixels(_imageData, x0, dx, nx, y0, dy, ny));
    if (boost::optional<DImage> mask = _optionalData.pixel_mask())
        result._optionalData.set_pixel_mask(mask->sliceExtract(x0, dx, nx, y0, dy, ny));
    return result;
}

void DImage::sliceFill(const DImage& source, int x0, int dx, int y0, int dy)
{
    kernels::requireSlice(width(), height(), x0, dx, source.width(), y0, dy, source.height());
    datatypes::PixelDispatcher<SliceFill, Image, const Image, void>::Go(
        _imageData, source._imageData, SliceFill{x0, dx, y0, dy});
}

void DImage::lowCut(const DImage& limits)
{
    datatypes::PixelDispatcher<CutImage<true>, Image, const Image, void>::Go(
        _imageData, limits._imageData, CutImage<true>{});
}

void DImage::highCut(const DImage& limits)
{
    datatypes::PixelDispatcher<CutImage<false>, Image, const Image, void>::Go(
        _imageData, limits._imageData, CutImage<false>{});
}

DImage DImage::inverse() const { return inverse<int>(1); }

} // namespace imglib
} // namespace norvexa
