#include "foundation/image/DBasicImageData.h"

#include "foundation/image/DLargeBlocks.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

namespace norvexa {
namespace image {

namespace {
// The header in front of the bytes: the capacity (8 bytes); whether the block is large
// (byte 8); whether a writable pointer to it was handed out (byte 9); and, in the heap
// form, how many handles share it (bytes 12 to 15).
constexpr std::size_t kLargeFlagOffset = 8;
constexpr std::size_t kLeakedFlagOffset = 9;
constexpr std::size_t kCountOffset = 12;

template <class Allocator>
constexpr bool usesLargeBlocks()
{
    return std::is_same_v<Allocator, StdAllocator>;
}

/// Only heap buffers are shared between copies; a segment's are always copied.
template <class Allocator>
constexpr bool sharesBlocks()
{
    return std::is_same_v<Allocator, StdAllocator>;
}

std::uint32_t* countOf(char* raw) { return reinterpret_cast<std::uint32_t*>(raw + kCountOffset); }
} // namespace

template <class Allocator>
DBasicImageData<Allocator>::DBasicImageData(const Allocator& allocator) : _impl(allocator)
{
}

template <class Allocator>
DBasicImageData<Allocator>::DBasicImageData(const DBasicImageData& other)
    : _impl(static_cast<const Allocator&>(other._impl))
{
    if (!share(other))
        assignBytes(other.cdata(), other.size());
}

template <class Allocator>
DBasicImageData<Allocator>::DBasicImageData(const DBasicImageData& other, const Allocator& allocator)
    : _impl(allocator)
{
    if (!share(other))
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
    if (this != &other) {
        if (canShare(other)) {
            DBasicImageData copy(other);
            swap(copy);
        } else {
            assignBytes(other.cdata(), other.size());
        }
    }
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
    const std::size_t blockBytes = capacity + kHeader;
    if (blockBytes < capacity)
        throw std::bad_alloc();
    pointer block;
    unsigned char large = 0;
    if constexpr (usesLargeBlocks<Allocator>()) {
        if (blockBytes >= DLargeBlocks::kThreshold) {
            block = static_cast<char*>(DLargeBlocks::allocate(blockBytes));
            large = 1;
        } else {
            block = std::allocator_traits<Allocator>::allocate(allocator, blockBytes);
        }
    } else {
        block = std::allocator_traits<Allocator>::allocate(allocator, blockBytes);
    }
    char* raw = toRawPointer(block);
    std::memcpy(raw, &capacity, sizeof capacity);
    raw[kLargeFlagOffset] = static_cast<char>(large);
    raw[kLeakedFlagOffset] = 0;
    *countOf(raw) = 1;
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
        const std::size_t blockBytes = capacity() + kHeader;
        char* raw = toRawPointer(_impl.block);
        if (sharesBlocks<Allocator>() && __atomic_sub_fetch(countOf(raw), 1, __ATOMIC_ACQ_REL) > 0) {
            _impl.block = pointer(); // still in use by another handle
            _impl.size = 0;
            return;
        }
        if (usesLargeBlocks<Allocator>() && raw[kLargeFlagOffset])
            DLargeBlocks::release(raw, blockBytes);
        else
            std::allocator_traits<Allocator>::deallocate(allocator, _impl.block, blockBytes);
        _impl.block = pointer();
    }
    _impl.size = 0;
}

template <class Allocator>
bool DBasicImageData<Allocator>::canShare(const DBasicImageData& other) const noexcept
{
    if constexpr (sharesBlocks<Allocator>()) {
        return other._impl.block && !toRawPointer(other._impl.block)[kLeakedFlagOffset];
    } else {
        return false;
    }
}

template <class Allocator>
bool DBasicImageData<Allocator>::share(const DBasicImageData& other) noexcept
{
    if (!canShare(other))
        return false;
    __atomic_add_fetch(countOf(toRawPointer(other._impl.block)), 1, __ATOMIC_RELAXED);
    _impl.block = other._impl.block;
    _impl.size = other._impl.size;
    return true;
}

template <class Allocator>
bool DBasicImageData<Allocator>::shared() const noexcept
{
    if constexpr (sharesBlocks<Allocator>()) {
        return _impl.block &&
               __atomic_load_n(countOf(toRawPointer(_impl.block)), __ATOMIC_ACQUIRE) > 1;
    } else {
        return false;
    }
}

template <class Allocator>
char* DBasicImageData<Allocator>::writableData()
{
    if (!_impl.block)
        return nullptr;
    if (shared())
        reallocate(capacity());
    char* raw = toRawPointer(_impl.block);
    // A writable pointer may be kept: from now on copies of this block are real copies.
    raw[kLeakedFlagOffset] = 1;
    return raw + kHeader;
}

template <class Allocator>
void DBasicImageData<Allocator>::allowSharing() noexcept
{
    if (_impl.block && !shared())
        toRawPointer(_impl.block)[kLeakedFlagOffset] = 0;
}

template <class Allocator>
void DBasicImageData<Allocator>::assignBytes(const char* bytes, std::size_t n)
{
    if (n > capacity() || shared()) {
        _impl.size = 0; // nothing worth copying into the new block
        reallocate(n);
    }
    if (n)
        std::memmove(toRawPointer(_impl.block) + kHeader, bytes, n);
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
