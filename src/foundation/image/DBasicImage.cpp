#include "foundation/image/DBasicImage.h"

#include "foundation/DException.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

namespace norvexa {
namespace image {

template <class Allocator>
DBasicImage<Allocator>::DBasicImage(const Allocator& allocator, datatypes::Type type,
                                    unsigned long typeBits)
    : _shape(1, 0UL, ShapeAllocator(allocator)), _type(type), _typeBits(typeBits), _data(allocator)
{
}

template <class Allocator>
DBasicImage<Allocator>::DBasicImage(unsigned long width, unsigned long height,
                                    const Allocator& allocator, datatypes::Type type,
                                    unsigned long typeBits)
    : _shape(ShapeAllocator(allocator)), _type(type), _typeBits(typeBits), _data(allocator)
{
    _shape.push_back(width);
    _shape.push_back(height);
    allocatePlain();
}

template <class Allocator>
DBasicImage<Allocator>::DBasicImage(const Shape& shape, const Allocator& allocator,
                                    datatypes::Type type, unsigned long typeBits)
    : _shape(shape.begin(), shape.end(), ShapeAllocator(allocator)), _type(type),
      _typeBits(typeBits), _data(allocator)
{
    allocatePlain();
}

template <class Allocator>
DBasicImage<Allocator>::DBasicImage(const DBasicImage& other)
    : _shape(other._shape), _type(other._type), _typeBits(other._typeBits),
      _filter(other._filter), _data(other._data)
{
}

template <class Allocator>
DBasicImage<Allocator>::DBasicImage(const DBasicImage& other, const Allocator& allocator)
    : _shape(other._shape.begin(), other._shape.end(), ShapeAllocator(allocator)),
      _type(other._type), _typeBits(other._typeBits), _filter(other._filter),
      _data(other._data, allocator)
{
}

template <class Allocator>
DBasicImage<Allocator>::DBasicImage(DBasicImage&& other) noexcept
    : _shape(std::move(other._shape)), _type(other._type), _typeBits(other._typeBits),
      _filter(other._filter), _data(std::move(other._data))
{
    // The source stays a valid empty container of its description.
    other._shape.assign(1, 0UL);
    other._filter = DCompression::FILTER_NONE;
}

template <class Allocator>
DBasicImage<Allocator>::DBasicImage(DBasicImage&& other, const Allocator& allocator)
    : DBasicImage(allocator, other._type, other._typeBits)
{
    if (other.allocator() == allocator)
        swap(other);
    else
        *this = DBasicImage(other, allocator);
}

template <class Allocator>
DBasicImage<Allocator>& DBasicImage<Allocator>::operator=(const DBasicImage& other)
{
    if (this != &other) {
        // Copy first into this allocator, so that a failure leaves the target untouched.
        DBasicImage copy(other, allocator());
        swap(copy);
    }
    return *this;
}

template <class Allocator>
DBasicImage<Allocator>& DBasicImage<Allocator>::operator=(DBasicImage&& other) noexcept
{
    if (this != &other) {
        if (allocator() == other.allocator()) {
            swap(other);
        } else {
            _shape.assign(other._shape.begin(), other._shape.end());
            _type = other._type;
            _typeBits = other._typeBits;
            _filter = other._filter;
            _data = other._data;
        }
    }
    return *this;
}

template <class Allocator>
std::size_t DBasicImage<Allocator>::size() const noexcept
{
    std::size_t n = 1;
    for (unsigned long extent : _shape)
        n *= extent;
    return n;
}

template <class Allocator>
std::size_t DBasicImage<Allocator>::plainBytes() const
{
    std::size_t n = 1;
    for (unsigned long extent : _shape)
        if (__builtin_mul_overflow(n, extent, &n))
            throw std::bad_alloc();
    std::size_t bits;
    if (__builtin_mul_overflow(n, _typeBits, &bits) || bits > SIZE_MAX - 7)
        throw std::bad_alloc();
    return (bits + 7) / 8;
}

template <class Allocator>
void DBasicImage<Allocator>::allocatePlain()
{
    Data fresh(_data.allocator());
    fresh.resize(plainBytes());
    _data.swap(fresh);
    _filter = DCompression::FILTER_NONE;
}

template <class Allocator>
void DBasicImage<Allocator>::resizeScalar()
{
    _shape.clear();
    allocatePlain();
}

template <class Allocator>
void DBasicImage<Allocator>::resize1D(unsigned long n)
{
    _shape.assign(1, n);
    allocatePlain();
}

template <class Allocator>
void DBasicImage<Allocator>::resize2D(unsigned long width, unsigned long height)
{
    if (_shape.size() == 2 && _shape[0] == width && _shape[1] == height &&
        _filter == DCompression::FILTER_NONE)
        return;
    _shape.clear();
    _shape.push_back(width);
    _shape.push_back(height);
    allocatePlain();
}

template <class Allocator>
void DBasicImage<Allocator>::clear()
{
    _shape.assign(1, 0UL);
    allocatePlain();
}

template <class Allocator>
void DBasicImage<Allocator>::swap(DBasicImage& other) noexcept
{
    using std::swap;
    _shape.swap(other._shape);
    swap(_type, other._type);
    swap(_typeBits, other._typeBits);
    swap(_filter, other._filter);
    _data.swap(other._data);
}

namespace {
/// A compressed chunk whose header announces another plain size than the shape needs (or
/// one that it cannot hold) is refused before anything is allocated for it.
template <class Data, class Shape>
void refuseChunkOfAnotherSize(DCompression::FILTER filter, const Data& data, const Shape& shape,
                              unsigned long typeBits)
{
    std::size_t bits = typeBits;
    for (unsigned long extent : shape)
        if (__builtin_mul_overflow(bits, extent, &bits))
            throw DImageCorruptedException(codec::text::SIZE_MISMATCH);
    if (bits > SIZE_MAX - 7)
        throw DImageCorruptedException(codec::text::SIZE_MISMATCH);
    if (const char* problem = codec::headerProblem(filter, data.cdata(), data.size(), (bits + 7) / 8))
        throw DImageCorruptedException(problem);
}
} // namespace

template <class Allocator>
void DBasicImage<Allocator>::setRawData(Data data, Shape shape, datatypes::Type type,
                                        unsigned long typeBits, FILTER filter)
{
    if (filter != DCompression::FILTER_NONE)
        refuseChunkOfAnotherSize(filter, data, shape, typeBits);
    _data.swap(data);
    _shape.swap(shape);
    _type = type;
    _typeBits = typeBits;
    _filter = filter;
}

template <class Allocator>
void DBasicImage<Allocator>::decodeInto(char* out, std::size_t outSize) const
{
    if (plainBytes() != outSize || (_filter == DCompression::FILTER_NONE && _data.size() != outSize))
        throw DBadParameterException("Image sizes do not coincide");
    if (_filter == DCompression::FILTER_NONE) {
        if (outSize)
            std::memcpy(out, _data.cdata(), outSize);
        return;
    }
    // The output is the caller's and has its size: the decode checks the chunk's header
    // against it, with nothing left to allocate.
    codec::decode(_filter, _data.cdata(), _data.size(), out, outSize);
}

template <class Allocator>
void DBasicImage<Allocator>::setFilter(FILTER filter, int /*parameter*/)
{
    if (filter == _filter)
        return;
    if (_filter != DCompression::FILTER_NONE) {
        refuseChunkOfAnotherSize(_filter, _data, _shape, _typeBits);
        Data plain(_data.allocator());
        plain.resize(plainBytes());
        decodeInto(plain.data(), plain.size());
        if (plain.size() == 0)
            plain = Data(_data.allocator());
        _data.swap(plain);
        _filter = DCompression::FILTER_NONE;
    }
    if (filter != DCompression::FILTER_NONE) {
        const std::vector<char> chunk = codec::encode(filter, _data.cdata(), _data.size());
        Data encoded(_data.allocator());
        encoded.resize(chunk.size());
        if (!chunk.empty())
            std::memcpy(encoded.data(), chunk.data(), chunk.size());
        _data.swap(encoded);
        _filter = filter;
    }
}

template class DBasicImage<StdAllocator>;
template class DBasicImage<ShmAllocator>;
template DBasicImage<StdAllocator>::DBasicImage(const DBasicImage<ShmAllocator>&,
                                                const StdAllocator&);
template DBasicImage<ShmAllocator>::DBasicImage(const DBasicImage<StdAllocator>&,
                                                const ShmAllocator&);

} // namespace image
} // namespace norvexa
