#include "DImage.h"

#include "DShmImage.h"
#include "foundation/DException.h"
#include "foundation/image/DBinaryDispatcher.h"
#include "image/kernels/PixelMath.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace norvexa {
namespace imglib {

namespace {
void requireWholeBytes(const DBasicImage& imageData)
{
    if (imageData.typeBits() % 8 != 0)
        throw DRuntimeException("Images of non-integer bytes are not supported");
}

template <class T>
DBasicImage filled(int width, int height, T value)
{
    DBasicImage image(static_cast<const T*>(nullptr), static_cast<unsigned long>(width),
                      static_cast<unsigned long>(height));
    // Zero, negative zero and NaN all clear to zero bytes; only other values are stored.
    if (!(value < T(0)) && !(value > T(0))) {
        if (image.usedBytes())
            std::memset(image.data(), 0, image.usedBytes());
    } else {
        std::fill_n(reinterpret_cast<T*>(image.data()), image.size(), value);
    }
    return image;
}
} // namespace

DImage::DImage() = default;

DImage::DImage(int width, int height, datatypes::Type type, unsigned long bytes)
    : _imageData(static_cast<unsigned long>(width), static_cast<unsigned long>(height),
                 image::StdAllocator(), type, bytes * 8)
{
}

template <class T, class>
DImage::DImage(int width, int height, T value) : _imageData(filled(width, height, value))
{
}

template <class T, class>
DImage::DImage(const DImage& other, T value)
    : _imageData(filled(other.width(), other.height(), value))
{
}

DImage::DImage(const DImage& other) = default;

DImage::DImage(DImage&& other) noexcept
    : _imageData(std::move(other._imageData)), _optionalData(std::move(other._optionalData))
{
}

DImage::DImage(const DImage& other, datatypes::Type type, unsigned long bytes)
    : _imageData(other._imageData.asType(type, bytes * 8)), _optionalData(other._optionalData)
{
}

DImage::DImage(const DBasicImage& imageData) : _imageData(imageData)
{
    requireWholeBytes(_imageData);
    _imageData.setFilter(DBasicImage::FILTER(image::DCompression::FILTER_NONE), 0);
}

DImage::DImage(DBasicImage&& imageData) : _imageData(std::move(imageData))
{
    requireWholeBytes(_imageData);
    _imageData.setFilter(image::DCompression::FILTER_NONE, 0);
}

DImage::DImage(const DBasicImage& imageData, const DImageOptionalData& optionalData)
    : DImage(imageData)
{
    _optionalData = optionalData;
}

DImage::DImage(DBasicImage&& imageData, DImageOptionalData&& optionalData)
    : DImage(std::move(imageData))
{
    _optionalData = std::move(optionalData);
}

DImage::DImage(const DShmImage& shared)
    : _imageData(shared.imageData(), image::StdAllocator()),
      _optionalData(shared.optionalData(), image::StdAllocator())
{
}

DImage& DImage::operator=(const DImage& other)
{
    if (this != &other) {
        DImage copy(other);
        swap(copy);
    }
    return *this;
}

DImage& DImage::operator=(DImage&& other) noexcept
{
    if (this != &other)
        swap(other);
    return *this;
}

void DImage::swap(DImage& other) noexcept
{
    _imageData.swap(other._imageData);
    _optionalData.swap(other._optionalData);
}

int DImage::width() const noexcept
{
    return empty() ? 0 : static_cast<int>(static_cast<unsigned int>(_imageData.shape()[0]));
}

int DImage::height() const noexcept
{
    return empty() ? 0 : static_cast<int>(static_cast<unsigned int>(_imageData.shape()[1]));
}

long DImage::byteOffset(int x, int y) const noexcept
{
    // The index is a 32-bit int by definition; wrap it as such rather than overflow.
    const int index = static_cast<int>(static_cast<unsigned int>(
        static_cast<long long>(width()) * y + static_cast<long long>(x)));
    return (static_cast<long>(typeBits()) * index) >> 3;
}

DBasicImage DImage::takeImageData()
{
    DBasicImage taken(std::move(_imageData));
    return taken;
}

void DImage::resize(int width, int height)
{
    _imageData.resize2D(static_cast<unsigned long>(width), static_cast<unsigned long>(height));
}

void DImage::setImageData(const DBasicImage& imageData)
{
    requireWholeBytes(imageData);
    if (&imageData != &_imageData)
        _imageData = imageData;
}

void DImage::setImageData(DBasicImage&& imageData)
{
    requireWholeBytes(imageData);
    if (&imageData != &_imageData)
        _imageData = std::move(imageData);
}

void DImage::clear()
{
    _imageData.clear();
    _optionalData = DImageOptionalData();
}

void DImage::setOptionalData(const DImageOptionalData& optionalData)
{
    if (&optionalData != &_optionalData)
        _optionalData = optionalData;
}

void DImage::setOptionalData(DImageOptionalData&& optionalData)
{
    if (&optionalData != &_optionalData)
        _optionalData = std::move(optionalData);
}

template <class T>
T DImage::pixel(int x, int y, T defaultValue) const
{
    if (x < 0 || y < 0 || x >= width() || y >= height())
        return defaultValue;
    const std::size_t index = static_cast<std::size_t>(width()) * y + x;
    return datatypes::dispatchType(type(), typeBits(), [&](auto tag) -> T {
        using S = typename decltype(tag)::type;
        const S value = reinterpret_cast<const S*>(cdata())[index];
        if constexpr (std::is_same_v<S, T>)
            return value;
        else if constexpr (std::is_same_v<T, bool>)
            return value < S(0) || value > S(0); // NaN is not "non-zero" here
        else
            return kernels::convert<T>(value);
    });
}

template <class T>
void DImage::setPixel(int x, int y, T value)
{
    if (x < 0 || y < 0 || x >= width() || y >= height())
        return;
    const std::size_t index = static_cast<std::size_t>(width()) * y + x;
    datatypes::dispatchType(type(), typeBits(), [&](auto tag) {
        using S = typename decltype(tag)::type;
        reinterpret_cast<S*>(data())[index] = kernels::convert<S>(value);
    });
}

template <class T>
DImage DImage::asType() const
{
    return DImage(_imageData.asType<T>(), DImageOptionalData(_optionalData));
}

DImage DImage::operator+(const DImage& other) const { return DImage(_imageData + other._imageData); }
DImage DImage::operator-(const DImage& other) const { return DImage(_imageData - other._imageData); }
DImage DImage::operator*(const DImage& other) const { return DImage(_imageData * other._imageData); }
DImage DImage::operator/(const DImage& other) const { return DImage(_imageData / other._imageData); }

DImage& DImage::operator+=(const DImage& other)
{
    _imageData += other._imageData;
    return *this;
}
DImage& DImage::operator-=(const DImage& other)
{
    _imageData -= other._imageData;
    return *this;
}
DImage& DImage::operator*=(const DImage& other)
{
    _imageData *= other._imageData;
    return *this;
}
DImage& DImage::operator/=(const DImage& other)
{
    _imageData /= other._imageData;
    return *this;
}

#define NORVEXA_DIMAGE_SCALAR_OPERATOR(SYMBOL)                                                     \
    template <class T, class>                                                                      \
    DImage DImage::operator SYMBOL(const T& value) const                                           \
    {                                                                                              \
        return DImage(_imageData SYMBOL value);                                                    \
    }                                                                                              \
    template <class T, class>                                                                      \
    DImage& DImage::operator SYMBOL##=(const T& value)                                             \
    {                                                                                              \
        _imageData SYMBOL## = value;                                                               \
        return *this;                                                                              \
    }
NORVEXA_DIMAGE_SCALAR_OPERATOR(+)
NORVEXA_DIMAGE_SCALAR_OPERATOR(-)
NORVEXA_DIMAGE_SCALAR_OPERATOR(*)
NORVEXA_DIMAGE_SCALAR_OPERATOR(/)
#undef NORVEXA_DIMAGE_SCALAR_OPERATOR

DImage DImage::operator-() const { return DImage(_imageData * -1); }

#define NORVEXA_INSTANTIATE_DIMAGE_PER_TYPE(T, CLASS, BITS)                                        \
    template DImage::DImage(int, int, T);                                                          \
    template DImage::DImage(const DImage&, T);                                                     \
    template T DImage::pixel<T>(int, int, T) const;                                                \
    template void DImage::setPixel<T>(int, int, T);                                                \
    template DImage DImage::asType<T>() const;                                                     \
    template DImage DImage::operator+(const T&) const;                                             \
    template DImage DImage::operator-(const T&) const;                                             \
    template DImage DImage::operator*(const T&) const;                                             \
    template DImage DImage::operator/(const T&) const;                                             \
    template DImage& DImage::operator+=(const T&);                                                 \
    template DImage& DImage::operator-=(const T&);                                                 \
    template DImage& DImage::operator*=(const T&);                                                 \
    template DImage& DImage::operator/=(const T&);
NORVEXA_PIXEL_TYPES(NORVEXA_INSTANTIATE_DIMAGE_PER_TYPE)
#undef NORVEXA_INSTANTIATE_DIMAGE_PER_TYPE

} // namespace imglib
} // namespace norvexa
