#pragma once

#include "DBasicImageOptionalData.h"
#include "DRect.h"
#include "foundation/image/DBasicImage.h"

namespace norvexa {
namespace imglib {

class DShmImage;

using DBasicImage = image::DBasicImage<image::StdAllocator>;

/// One 2-D detector frame with its metadata.
///
/// The pixels are always plain: every constructor from a DBasicImage decodes a
/// compressed container (setImageData does not: callers decode first). The element
/// width is a whole number of bytes. shape()[0] is the width, shape()[1] the height.
///
/// Metadata describes one exposure: copies, moves, conversions (asType, the converting
/// constructor) and in-place arithmetic keep it; out-of-place results (arithmetic,
/// negation, the filled constructors) are bare images. Arithmetic follows the rules of
/// DBasicImage (result types, saturation, division by zero, "Image sizes do not coincide").
class DImage {
public:
    template <class T>
    using PixelOnly = std::enable_if_t<datatypes::IsPixelType<T>::value>;

    /// Empty, INT of 32 bits.
    DImage();
    /// New pixels of `bytes * 8` bits, contents unspecified.
    DImage(int width, int height, datatypes::Type type, unsigned long bytes);
    /// New pixels of type T, every one `value` (a value equal to zero, or NaN, clears to zeros).
    template <class T, class = PixelOnly<T>>
    DImage(int width, int height, T value);
    /// `other`'s width and height, pixels of type T, every one `value`; no metadata.
    template <class T, class = PixelOnly<T>>
    DImage(const DImage& other, T value);
    DImage(const DImage& other);
    DImage(DImage&& other) noexcept;
    /// `other` converted by asType(type, bytes * 8), with its metadata.
    DImage(const DImage& other, datatypes::Type type, unsigned long bytes);
    /// The container, decoded; no metadata. DRuntimeException "Images of non-integer
    /// bytes are not supported" for a width that is not a multiple of 8 bits.
    explicit DImage(const DBasicImage& imageData);
    explicit DImage(DBasicImage&& imageData);
    DImage(const DBasicImage& imageData, const DImageOptionalData& optionalData);
    DImage(DBasicImage&& imageData, DImageOptionalData&& optionalData);

    /// A copy of an image that lies in a shared-memory segment, with its metadata.
    explicit DImage(const DShmImage& shared);

    ~DImage() = default;

    /// Copy and swap: the target is untouched if the copy fails.
    DImage& operator=(const DImage& other);
    /// Swaps: the source afterwards holds the target's old contents.
    DImage& operator=(DImage&& other) noexcept;
    void swap(DImage& other) noexcept;

    bool empty() const noexcept { return _imageData.empty(); }
    datatypes::Type type() const noexcept { return _imageData.type(); }
    unsigned long typeBits() const noexcept { return _imageData.typeBits(); }
    /// Bytes per pixel.
    unsigned long dataSize() const noexcept { return _imageData.typeBits() >> 3; }
    std::size_t size() const noexcept { return _imageData.size(); }
    int width() const noexcept;
    int height() const noexcept;
    const char* data() const noexcept { return _imageData.cdata(); }
    char* data() { return _imageData.data(); }
    const char* cdata() const noexcept { return _imageData.cdata(); }
    /// Pixel (x, y), with the index `width * y + x` as a 32-bit int. No bounds test.
    const char* data(int x, int y) const noexcept { return cdata() + byteOffset(x, y); }
    char* data(int x, int y) { return data() + byteOffset(x, y); }
    DBasicImage imageData() const { return _imageData; }
    /// Moves the container out, leaving an empty image of the same pixel type.
    DBasicImage takeImageData();
    /// The container itself, without the copy that imageData() makes.
    const DBasicImage& constImageData() const noexcept { return _imageData; }

    /// The container's resize2D; the pixel type stays, the contents don't.
    void resize(int width, int height);
    void setImageData(const DBasicImage& imageData);
    void setImageData(DBasicImage&& imageData);
    void clear();

    DImageOptionalData& optionalData() noexcept { return _optionalData; }
    const DImageOptionalData& optionalData() const noexcept { return _optionalData; }
    void setOptionalData(const DImageOptionalData& optionalData);
    void setOptionalData(DImageOptionalData&& optionalData);

    /// The pixel converted to T, or `defaultValue` outside the image. As bool: whether the
    /// pixel is non-zero (for floating pixels: less or greater than zero).
    template <class T>
    T pixel(int x, int y, T defaultValue) const;
    /// Stores `value`, converted to the pixel type (BOOL: 1 for non-zero); nothing outside.
    template <class T>
    void setPixel(int x, int y, T value);

    /// Converted copy with the metadata.
    template <class T>
    DImage asType() const;

    DImage operator+(const DImage& other) const;
    DImage operator-(const DImage& other) const;
    DImage operator*(const DImage& other) const;
    DImage operator/(const DImage& other) const;
    DImage& operator+=(const DImage& other);
    DImage& operator-=(const DImage& other);
    DImage& operator*=(const DImage& other);
    DImage& operator/=(const DImage& other);
    template <class T, class = PixelOnly<T>>
    DImage operator+(const T& value) const;
    template <class T, class = PixelOnly<T>>
    DImage operator-(const T& value) const;
    template <class T, class = PixelOnly<T>>
    DImage operator*(const T& value) const;
    template <class T, class = PixelOnly<T>>
    DImage operator/(const T& value) const;
    template <class T, class = PixelOnly<T>>
    DImage& operator+=(const T& value);
    template <class T, class = PixelOnly<T>>
    DImage& operator-=(const T& value);
    template <class T, class = PixelOnly<T>>
    DImage& operator*=(const T& value);
    template <class T, class = PixelOnly<T>>
    DImage& operator/=(const T& value);
    /// The pixels times the int -1.
    DImage operator-() const;

    // ---- Regions, masks and cuts ----
    // A mask is an image of any pixel type and the frame's shape; a non-zero pixel (for
    // floating masks: less or greater than zero) excludes the pixel at its place.

    /// The pixels of `rect` cut to the frame (all of them for null), with no metadata but
    /// the `pixel_mask`, cut the same way. No overlap gives an empty image of the type.
    DImage extract(const DRect* rect) const;
    /// nx by ny pixels at (x0 + dx * i, y0 + dy * j); the steps may be negative. The end
    /// positions are exclusive, so -1 is allowed for them. DOutOfRangeException
    /// "Slicing parameters outside image borders". A `pixel_mask` is sliced along.
    DImage sliceExtract(int x0, int dx, int nx, int y0, int dy, int ny) const;
    /// `value`, converted to the pixel type, into every pixel of `rect` (cut to the frame)
    /// that the mask does not exclude. DRuntimeException "Mask has the wrong shape".
    template <class T>
    void fill(const T& value, const DRect* rect, const DImage* mask);
    /// `value`, converted to the pixel type, into every position of the slice.
    template <class T>
    void sliceFill(const T& value, int x0, int dx, int nx, int y0, int dy, int ny);
    /// `source`'s pixel (i, j), converted, to (x0 + dx * i, y0 + dy * j); the slice's
    /// extent is the source's width and height.
    void sliceFill(const DImage& source, int x0, int dx, int y0, int dy);
    /// Pixels below `limit` become `limit`, converted to the pixel type. The comparison is
    /// made in the common type of the pixel and T: lowCut<int>(-1) on an unsigned image
    /// compares as unsigned, lowCut<int>(300) on unsigned char stores 44 everywhere.
    template <class T>
    void lowCut(const T& limit);
    /// Pixels above `limit` become `limit`, as lowCut.
    template <class T>
    void highCut(const T& limit);
    /// Element-wise maximum with `limits`, whose pixels are converted to this type. Only
    /// the pixel counts must agree: DRuntimeException "Image sizes do not coincide".
    void lowCut(const DImage& limits);
    /// Element-wise minimum with `limits`, as lowCut.
    void highCut(const DImage& limits);
    /// UINT 32 of the same size, no metadata: 1 where low <= pixel <= high (`inside`), or
    /// where the pixel lies outside [low, high] (not `inside`), else 0.
    template <class T>
    DImage createMask(T low, T high, bool inside) const;
    /// Counts the unexcluded pixels of `rect` below both limits, up to the larger one
    /// (inclusive), and above both. The order of `a` and `b` does not matter.
    template <class T>
    void numberOfPixelsInInterval(int& below, int& inside, int& above, T a, T b,
                                  const DRect* rect, const DImage* mask) const;
    /// `numerator / pixel` in the pixels' common type with T, 0 where the quotient would
    /// not fit the output type (and so for zero pixels). The output keeps int, long long,
    /// float and double images' type; every other type gives INT 32.
    template <class T>
    DImage inverse(T numerator) const;
    /// inverse<int>(1).
    DImage inverse() const;

    // ---- Neighbourhood filters and statistics ----
    // Windows are m columns by n rows, both odd, centred on the pixel, and shrink at the
    // borders. Excluded pixels are left out of every window and are 0 in a filter's
    // result. A filter's result has the frame's type and size and no metadata. An empty
    // frame gives an empty result before the oddness check (DException
    // "DImage::meanFilter: m and n must be odd", or "DImage::medianFilter: ..."); a mask of
    // the wrong shape is reported first of all.

    /// Window mean computed in the pixel's own type: integer sums wrap at its width and
    /// the quotient truncates; for BOOL the sum is "any set" and the result (any / count).
    DImage meanFilter(int m, int n, const DImage* mask) const;
    /// Window median: the element of rank count / 2; for an even count the mean of it and
    /// the one below (integers: their sum divided by 2 in the pixel's arithmetic, so
    /// 32- and 64-bit sums wrap; floating: times 0.5).
    DImage medianFilter(int m, int n, const DImage* mask) const;
    /// Sample variance of the window, converted to the pixel type (truncated, saturated):
    /// the mean and count leave excluded pixels out, the squared deviations take in every
    /// window pixel. A count below 2 gives 0.
    DImage varianceFilter(int m, int n, const DImage* mask) const;
    /// Mean of the pixels of `rect` (cut to the frame) not excluded by `mask` and with
    /// low <= value <= high, summed in double in row order; 0.0 for none.
    double mean(const DRect* rect, const DImage* mask, double low, double high) const;
    /// Sample variance of the same pixels; 0.0 for fewer than two.
    double variance(const DRect* rect, const DImage* mask, double low, double high) const;
    /// The square root of variance(): the sample standard deviation.
    double rms(const DRect* rect, const DImage* mask, double low, double high) const;
    /// Median of the unexcluded pixels of `rect`, in the pixel's type (the rule of
    /// medianFilter), then converted to T. 0 for an empty region or all pixels excluded.
    template <class T>
    T median(const DRect* rect, const DImage* mask) const;

    // ---- Spline background ----

    /// The smooth background of the frame over the rectangles of its metadata's modules:
    /// a tensor B-spline of nx by ny coefficients of orders kx and ky (at most 20 is
    /// meaningful), fitted by least squares to the pixels that are not excluded, not
    /// within `border` of a module's edge and not above 10,000,000, then evaluated on
    /// every module pixel (converted, truncated for integers). Pixels outside the modules
    /// are 0. No modules or an empty frame give an empty DImage. A singular system prints
    /// "Error in LeastSquaresSolving." and the result is what the partial solution gives.
    /// DBadParameterException "Spline orders must lie between 1 and the number of
    /// coefficients" for kx < 1, ky < 1, nx < kx or ny < ky.
    DImage splineFit(int nx, int kx, int ny, int ky, int border, const DImage* mask) const;

private:
    long byteOffset(int x, int y) const noexcept;

    DBasicImage _imageData;
    DImageOptionalData _optionalData;
};

inline void swap(DImage& a, DImage& b) noexcept { a.swap(b); }

/// The worker of DImage::splineFit on raw row-major arrays of width x height: samples
/// `in` over `rects` as DImage::splineFit does (a mask pixel that is non-zero excludes;
/// `mask` may be null), fits, and writes every pixel of the rectangles into `out`,
/// converted to T (truncated for integers). Pixels outside the rectangles are not
/// written; rectangles are cut to the frame.
template <class T, class M>
void splineFit(T* out, const T* in, const M* mask, unsigned long width, unsigned long height,
               const std::vector<DRect>& rects, int nx, int kx, int ny, int ky, int border);

/// Calls X(T, M) for each of the twelve pixel types M, in dispatch order.
#define NORVEXA_SPLINE_MASK_TYPES(X, T)                                                            \
    X(T, bool) X(T, char) X(T, signed char) X(T, short) X(T, int) X(T, long long)                  \
    X(T, unsigned char) X(T, unsigned short) X(T, unsigned int) X(T, unsigned long long)           \
    X(T, float) X(T, double)
#define NORVEXA_EXTERN_SPLINE(T, M)                                                                \
    extern template void splineFit<T, M>(T*, const T*, const M*, unsigned long, unsigned long,     \
                                         const std::vector<DRect>&, int, int, int, int, int);
#define NORVEXA_EXTERN_SPLINE_FOR(T, CLASS, BITS) NORVEXA_SPLINE_MASK_TYPES(NORVEXA_EXTERN_SPLINE, T)
NORVEXA_PIXEL_TYPES(NORVEXA_EXTERN_SPLINE_FOR)
#undef NORVEXA_EXTERN_SPLINE_FOR
#undef NORVEXA_EXTERN_SPLINE

#define NORVEXA_EXTERN_DIMAGE_PER_TYPE(T, CLASS, BITS)                                             \
    extern template DImage::DImage(int, int, T);                                                   \
    extern template DImage::DImage(const DImage&, T);                                              \
    extern template T DImage::pixel<T>(int, int, T) const;                                         \
    extern template void DImage::setPixel<T>(int, int, T);                                         \
    extern template DImage DImage::asType<T>() const;                                              \
    extern template DImage DImage::operator+(const T&) const;                                      \
    extern template DImage DImage::operator-(const T&) const;                                      \
    extern template DImage DImage::operator*(const T&) const;                                      \
    extern template DImage DImage::operator/(const T&) const;                                      \
    extern template DImage& DImage::operator+=(const T&);                                          \
    extern template DImage& DImage::operator-=(const T&);                                          \
    extern template DImage& DImage::operator*=(const T&);                                          \
    extern template DImage& DImage::operator/=(const T&);
NORVEXA_PIXEL_TYPES(NORVEXA_EXTERN_DIMAGE_PER_TYPE)
#undef NORVEXA_EXTERN_DIMAGE_PER_TYPE

#define NORVEXA_EXTERN_DIMAGE_PIXEL_OPS(T, CLASS, BITS)                                            \
    extern template void DImage::fill<T>(const T&, const DRect*, const DImage*);                   \
    extern template void DImage::sliceFill<T>(const T&, int, int, int, int, int, int);            \
    extern template void DImage::lowCut<T>(const T&);                                              \
    extern template void DImage::highCut<T>(const T&);                                             \
    extern template DImage DImage::createMask<T>(T, T, bool) const;                                \
    extern template void DImage::numberOfPixelsInInterval<T>(int&, int&, int&, T, T, const DRect*, \
                                                             const DImage*) const;                 \
    extern template DImage DImage::inverse<T>(T) const;                                            \
    extern template T DImage::median<T>(const DRect*, const DImage*) const;
NORVEXA_PIXEL_TYPES(NORVEXA_EXTERN_DIMAGE_PIXEL_OPS)
#undef NORVEXA_EXTERN_DIMAGE_PIXEL_OPS

} // namespace imglib
} // namespace norvexa
