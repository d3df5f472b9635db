#pragma once

#include "DBasicImageOptionalData.h"
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

private:
    long byteOffset(int x, int y) const noexcept;

    DBasicImage _imageData;
    DImageOptionalData _optionalData;
};

inline void swap(DImage& a, DImage& b) noexcept { a.swap(b); }

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

} // namespace imglib
} // namespace norvexa
