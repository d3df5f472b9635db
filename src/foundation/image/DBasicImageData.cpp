#include "foundation/image/DBasicImageData.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace norvexa {
namespace image {

template <class Allocator>
DBasicImageData<Allocator>::DBasicImageData(const Allocator& allocator) : _impl(allocator)
{
}

template <class Allocator>
DBasicImageData<Allocator>::DBasicImageData(const DBasicImageData& other)
    : _impl(static_cast<const Allocator&>(other._impl))
{
    assignBytes(other.cdata(), other.size());
}

template <class Allocator>
DBasicImageData<Allocator>::DBasicImageData(const DBasicImageData& other, const Allocator& allocator)
    : _impl(allocator)
{
    assignBytes(other.cdata(), other.size());
}

template <class Allocator>
DBasicImageData<Allocator>::DBasicImageData(DBasicImageData&& other) noexcept
    : _impl(static_cast<const Allocator&>(other._impl))
{
    swap(other);
}

template <class Allocator>
DBasicImageData<Allocator>::~DBasicImageData()
{
    release();
}

template <class Allocator>
DBasicImageData<Allocator>& DBasicImageData<Allocator>::operator=(const DBasicImageData& other)
{
    if (this != &other)
        assignBytes(other.cdata(), other.size());
    return *this;
}

template <class Allocator>
DBasicImageData<Allocator>& DBasicImageData<Allocator>::operator=(DBasicImageData&& other) noexcept
{
    if (this != &other) {
        if (static_cast<const Allocator&>(_impl) == static_cast<const Allocator&>(other._impl)) {
            swap(other);
        } else {
            // Different segments: the bytes must move into this allocator's memory.
            assignBytes(other.cdata(), other.size());
        }
    }
    return *this;
}

template <class Allocator>
std::size_t DBasicImageData<Allocator>::capacity() const noexcept
{
    if (!_impl.block)
        return 0;
    std::size_t capacity;
    std::memcpy(&capacity, toRawPointer(_impl.block), sizeof capacity);
    return capacity;
}

template <class Allocator>
void DBasicImageData<Allocator>::reallocate(std::size_t capacity)
{
    Allocator& allocator = _impl;
    pointer block = std::allocator_traits<Allocator>::allocate(allocator, capacity + kHeader);
    char* raw = toRawPointer(block);
    std::memcpy(raw, &capacity, sizeof capacity);
    if (_impl.size)
        std::memcpy(raw + kHeader, cdata(), _impl.size);
    const std::size_t size = _impl.size;
    release();
    _impl.block = block;
    _impl.size = size;
}

template <class Allocator>
void DBasicImageData<Allocator>::release() noexcept
{
    if (_impl.block) {
        Allocator& allocator = _impl;
        std::allocator_traits<Allocator>::deallocate(allocator, _impl.block, capacity() + kHeader);
        _impl.block = pointer();
    }
    _impl.size = 0;
}

template <class Allocator>
void DBasicImageData<Allocator>::assignBytes(const char* bytes, std::size_t n)
{
    if (n > capacity()) {
        _impl.size = 0; // nothing worth copying into the new block
        reallocate(n);
    }
    if (n)
        std::memmove(data(), bytes, n);
    _impl.size = n;
}

template <class Allocator>
void DBasicImageData<Allocator>::reserve(std::size_t n)
{
    if (n > capacity())
        reallocate(n);
}

template <class Allocator>
void DBasicImageData<Allocator>::resize(std::size_t n)
{
    const std::size_t cap = capacity();
    if (n > cap)
        reallocate(cap ? std::max(n, cap + cap / 2) : n);
    _impl.size = n;
}

template <class Allocator>
void DBasicImageData<Allocator>::swap(DBasicImageData& other) noexcept
{
    using std::swap;
    swap(static_cast<Allocator&>(_impl), static_cast<Allocator&>(other._impl));
    swap(_impl.block, other._impl.block);
    swap(_impl.size, other._impl.size);
}

template class DBasicImageData<StdAllocator>;
template class DBasicImageData<ShmAllocator>;
template DBasicImageData<StdAllocator>::DBasicImageData(const DBasicImageData<ShmAllocator>&,
                                                        const StdAllocator&);
template DBasicImageData<ShmAllocator>::DBasicImageData(const DBasicImageData<StdAllocator>&,
                                                        const ShmAllocator&);

} // namespace image
} // namespace norvexa
