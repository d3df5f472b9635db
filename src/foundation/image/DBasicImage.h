#pragma once

#include "foundation/image/DAllocators.h"
#include "foundation/image/DBasicImageData.h"
#include "foundation/image/DCompression.h"
#include "foundation/image/DDataTypes.h"

#include <boost/container/vector.hpp>

#include <memory>

namespace norvexa {
namespace image {

/// An n-dimensional array of elements whose type is known at run time, in one
/// contiguous buffer, on the heap or in a shared-memory segment (by the allocator).
///
/// Element 0 of the shape is the fast axis (the width, x), element 1 the height (y):
/// pixel (x, y) of a 2-D image has the index `width * y + x`. `size()` is the product
/// of the shape: a scalar has the empty shape and size 1; an empty container has the
/// shape {0}, size 0 and a null data pointer.
///
/// The buffer holds the pixels plain (`FILTER_NONE`) or as a compressed chunk, as it
/// came from a detector (`setRawData`); `setFilter(FILTER_NONE, 0)` decodes in place.
/// Pixels may be read only from a plain container.
///
/// Arithmetic (heap form only, all twelve pixel types on either side):
/// - Size: the two shapes must be equal, else DRuntimeException "Image sizes do not coincide".
/// - In place (`+=`, `-=`, `*=`, `/=`): the left image keeps its pixel type, whatever the
///   right operand's type is. An integer image times a `double` factor image stays an
///   integer image, each pixel rounded to the nearest value.
/// - Out of place with two images: the result has the narrowest pixel type that holds
///   every value of both operand types, the left one on a tie (int16 and uint8 give
///   int16, int32 and uint32 give int64, float and int32 give double, uint64 and a signed
///   type give double, char and signed char give the left one's).
/// - Out of place with a scalar: the same rule, except that a floating image with an
///   integer scalar keeps its own type (negation, `* -1`, of a float image stays float;
///   of a uint16 image gives int32).
/// - Each pair is computed in a type that holds its result, so that nothing overflows
///   before the store: in `double` when either side is floating (a 64-bit integer beyond
///   2^53 is first rounded to the nearest double); else exactly, in 64-bit integers
///   (unsigned 64-bit for a product of two unsigned types, as uint32 * uint32 needs) or,
///   with a 64-bit operand, in 128-bit integers, where a product beyond their range stands
///   for the limit of its sign.
/// - The value is then stored in the result type. Integers saturate at the type's limits
///   (no wrap-around; a negative difference in an unsigned image gives 0). A floating
///   value stored into an integer type is rounded to the nearest integer, halves away from
///   zero, exactly for every double (0.49999999999999994 gives 0, -2.5 gives -3, an odd
///   integer above 2^52 stays itself), then saturates at the type's limits (every double
///   within them, such as 2^63 - 1024 in int64, is kept exactly; +-inf gives the limit);
///   NaN gives 0. Into float, the nearest float (+-inf beyond its range). BOOL stores 1
///   for any value but zero, NaN included.
/// - Division: integer quotients truncate toward zero and a quotient by zero is 0; in
///   floating arithmetic division by zero follows IEEE 754 (+-inf or NaN), which an integer
///   result then stores as above (the limit, or 0 for NaN).
///
/// Conversion (`asType`, and DImage's pixel access, whose reading as bool alone counts
/// NaN as zero) is the ordinary numeric conversion between the two machine types
/// (integers wrap modulo 2^bits, floating values truncate toward zero, BOOL is 1 for any
/// value but zero, NaN included), except that floating values beyond an integer type's
/// range saturate at its limits and NaN gives 0, where the language leaves the result
/// undefined. Every double within the range converts exactly.
template <class Allocator>
class DBasicImage {
public:
    using allocator_type = Allocator;
    using ShapeAllocator =
        typename std::allocator_traits<Allocator>::template rebind_alloc<unsigned long>;
    using Shape = boost::container::vector<unsigned long, ShapeAllocator>;
    using Data = DBasicImageData<Allocator>;
    using FILTER = DCompression::FILTER;
    /// Limits the scalar operators to the twelve pixel types.
    template <class T>
    using PixelOnly = std::enable_if_t<datatypes::IsPixelType<T>::value>;

    /// Empty container of the given element type.
    explicit DBasicImage(const Allocator& allocator = Allocator(),
                         datatypes::Type type = datatypes::INT, unsigned long typeBits = 32);
    /// 2-D array, contents unspecified.
    DBasicImage(unsigned long width, unsigned long height, const Allocator& allocator,
                datatypes::Type type, unsigned long typeBits);
    /// n-D array of the given shape, contents unspecified.
    DBasicImage(const Shape& shape, const Allocator& allocator, datatypes::Type type,
                unsigned long typeBits);
    /// Type-tag image: empty, of the pixel type of T (the pointer only selects the type).
    template <class T, class = std::enable_if_t<datatypes::IsPixelType<T>::value>>
    DBasicImage(const T*, const Allocator& allocator = Allocator())
        : DBasicImage(allocator, datatypes::PixelTraits<T>::type, datatypes::PixelTraits<T>::bits)
    {
    }
    /// 2-D array of the pixel type of T, contents unspecified.
    template <class T, class = std::enable_if_t<datatypes::IsPixelType<T>::value>>
    DBasicImage(const T*, unsigned long width, unsigned long height,
                const Allocator& allocator = Allocator())
        : DBasicImage(width, height, allocator, datatypes::PixelTraits<T>::type,
                      datatypes::PixelTraits<T>::bits)
    {
    }

    DBasicImage(const DBasicImage& other);
    DBasicImage(const DBasicImage& other, const Allocator& allocator);
    DBasicImage(DBasicImage&& other) noexcept;
    /// Moves, or copies where the allocators differ.
    DBasicImage(DBasicImage&& other, const Allocator& allocator);
    /// Copy across allocators: shape, description, filter and bytes as they are.
    template <class OtherAllocator>
    DBasicImage(const DBasicImage<OtherAllocator>& other, const Allocator& allocator);
    ~DBasicImage() = default;

    DBasicImage& operator=(const DBasicImage& other);
    DBasicImage& operator=(DBasicImage&& other) noexcept;

    Allocator allocator() const { return _data.allocator(); }
    const Shape& shape() const noexcept { return _shape; }
    std::size_t size() const noexcept;
    bool empty() const noexcept { return size() == 0; }
    datatypes::Type type() const noexcept { return _type; }
    unsigned long typeBits() const noexcept { return _typeBits; }
    /// Bytes of the buffer in use: the plain length, or the chunk's length when compressed.
    std::size_t usedBytes() const noexcept { return _data.size(); }
    /// Writable: unshares a shared buffer first.
    char* data() { return _data.data(); }
    const char* data() const noexcept { return _data.cdata(); }
    const char* cdata() const noexcept { return _data.cdata(); }
    FILTER filter() const noexcept { return _filter; }

    void setType(datatypes::Type type) noexcept { _type = type; }
    void setTypeBits(unsigned long typeBits) noexcept { _typeBits = typeBits; }
    void resizeScalar();
    void resize1D(unsigned long n);
    /// Old contents do not survive.
    void resize2D(unsigned long width, unsigned long height);
    /// Drops all elements and the buffer; the description stays.
    void clear();
    void swap(DBasicImage& other) noexcept;
    /// Takes over a buffer as it stands; nothing is decoded here. A compressed chunk whose
    /// header announces another plain size than the shape needs, or more than it can hold
    /// (codec::headerProblem), raises DImageCorruptedException and changes nothing.
    void setRawData(Data data, Shape shape, datatypes::Type type, unsigned long typeBits,
                    FILTER filter);
    /// Writes the plain pixels into `out`, which receives exactly `outSize` bytes: a copy
    /// of a plain container, the decode of a compressed one, without a buffer of its own
    /// (a stack of frames decodes each into its slot). DBadParameterException "Image sizes
    /// do not coincide" when the plain size is not `outSize`; DImageCorruptedException when
    /// the chunk does not decode to it.
    void decodeInto(char* out, std::size_t outSize) const;
    /// See DBasicImageData::allowSharing.
    void allowSharing() noexcept { _data.allowSharing(); }
    /// Brings the buffer into the given form in place: FILTER_NONE decodes (a no-op on a
    /// plain container), another filter encodes the plain pixels. The parameter is
    /// reserved and must be 0. A chunk that does not decode raises
    /// DImageCorruptedException (see DCompression.h) and leaves the container as it was;
    /// one whose header disagrees with the shape does so before the decode allocates.
    void setFilter(FILTER filter, int parameter);

    /// Converted copy (see the class comment); the source is unchanged.
    template <class T>
    DBasicImage asType() const;
    DBasicImage asType(datatypes::Type type, unsigned long typeBits) const;

    DBasicImage operator+(const DBasicImage& other) const;
    DBasicImage operator-(const DBasicImage& other) const;
    DBasicImage operator*(const DBasicImage& other) const;
    DBasicImage operator/(const DBasicImage& other) const;
    DBasicImage& operator+=(const DBasicImage& other);
    DBasicImage& operator-=(const DBasicImage& other);
    DBasicImage& operator*=(const DBasicImage& other);
    DBasicImage& operator/=(const DBasicImage& other);
    template <class T, class = PixelOnly<T>>
    DBasicImage operator+(const T& value) const;
    template <class T, class = PixelOnly<T>>
    DBasicImage operator-(const T& value) const;
    template <class T, class = PixelOnly<T>>
    DBasicImage operator*(const T& value) const;
    template <class T, class = PixelOnly<T>>
    DBasicImage operator/(const T& value) const;
    template <class T, class = PixelOnly<T>>
    DBasicImage& operator+=(const T& value);
    template <class T, class = PixelOnly<T>>
    DBasicImage& operator-=(const T& value);
    template <class T, class = PixelOnly<T>>
    DBasicImage& operator*=(const T& value);
    template <class T, class = PixelOnly<T>>
    DBasicImage& operator/=(const T& value);

private:
    template <class>
    friend class DBasicImage;

    /// Bytes of the plain pixels, rounded up to whole bytes; std::bad_alloc when the
    /// shape's product overflows, so that an absurd shape never yields a short buffer.
    std::size_t plainBytes() const;
    /// A fresh plain buffer of plainBytes() for the current shape; an empty one is null.
    void allocatePlain();

    Shape _shape;
    datatypes::Type _type;
    unsigned long _typeBits;
    FILTER _filter = DCompression::FILTER_NONE;
    Data _data;
};

template <class Allocator>
template <class OtherAllocator>
DBasicImage<Allocator>::DBasicImage(const DBasicImage<OtherAllocator>& other,
                                    const Allocator& allocator)
    : _shape(other._shape.begin(), other._shape.end(), ShapeAllocator(allocator)),
      _type(other._type), _typeBits(other._typeBits), _filter(other._filter),
      _data(other._data, allocator)
{
}

template <class Allocator>
inline void swap(DBasicImage<Allocator>& a, DBasicImage<Allocator>& b) noexcept
{
    a.swap(b);
}

extern template class DBasicImage<StdAllocator>;
extern template class DBasicImage<ShmAllocator>;
extern template DBasicImage<StdAllocator>::DBasicImage(const DBasicImage<ShmAllocator>&,
                                                       const StdAllocator&);
extern template DBasicImage<ShmAllocator>::DBasicImage(const DBasicImage<StdAllocator>&,
                                                       const ShmAllocator&);

#define NORVEXA_EXTERN_BASIC_IMAGE_PER_TYPE(T, CLASS, BITS)                                        \
    extern template DBasicImage<StdAllocator> DBasicImage<StdAllocator>::asType<T>() const;        \
    extern template DBasicImage<StdAllocator> DBasicImage<StdAllocator>::operator+(const T&) const; \
    extern template DBasicImage<StdAllocator> DBasicImage<StdAllocator>::operator-(const T&) const; \
    extern template DBasicImage<StdAllocator> DBasicImage<StdAllocator>::operator*(const T&) const; \
    extern template DBasicImage<StdAllocator> DBasicImage<StdAllocator>::operator/(const T&) const; \
    extern template DBasicImage<StdAllocator>& DBasicImage<StdAllocator>::operator+=(const T&);    \
    extern template DBasicImage<StdAllocator>& DBasicImage<StdAllocator>::operator-=(const T&);    \
    extern template DBasicImage<StdAllocator>& DBasicImage<StdAllocator>::operator*=(const T&);    \
    extern template DBasicImage<StdAllocator>& DBasicImage<StdAllocator>::operator/=(const T&);
NORVEXA_PIXEL_TYPES(NORVEXA_EXTERN_BASIC_IMAGE_PER_TYPE)
#undef NORVEXA_EXTERN_BASIC_IMAGE_PER_TYPE

} // namespace image
} // namespace norvexa
