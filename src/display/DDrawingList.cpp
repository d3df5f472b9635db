#include "DDrawingList.h"

#include "foundation/DAssert.h"
#include "foundation/DException.h"

#include <cmath>
#include <cstring>
#include <utility>

namespace norvexa {
namespace imglib {

using image::ShmAllocator;
using image::StdAllocator;
using image::toRawPointer;

template <class Allocator>
DDrawingList<Allocator>::DDrawingList(const Allocator& allocator)
    : _allocator(allocator), _offsets(), _primitiveArray(), _numberOfItemsUsed(0), _numberOfItems(0),
      _primitiveArrayUsedSize(0), _primitiveArraySize(0)
{
}

template <class Allocator>
DDrawingList<Allocator>::DDrawingList(const DDrawingList& other) : DDrawingList(other._allocator)
{
    _copyFrom(other);
}

template <class Allocator>
template <class OtherAllocator>
DDrawingList<Allocator>::DDrawingList(const DDrawingList<OtherAllocator>& other, const Allocator& allocator)
    : DDrawingList(allocator)
{
    _copyFrom(other);
}

template <class Allocator>
DDrawingList<Allocator>::DDrawingList(DDrawingList&& other) noexcept
    : _allocator(other._allocator), _offsets(other._offsets), _primitiveArray(other._primitiveArray),
      _numberOfItemsUsed(other._numberOfItemsUsed), _numberOfItems(other._numberOfItems),
      _primitiveArrayUsedSize(other._primitiveArrayUsedSize), _primitiveArraySize(other._primitiveArraySize)
{
    other._offsets = OffsetPointer();
    other._primitiveArray = BytePointer();
    other._numberOfItemsUsed = other._numberOfItems = 0;
    other._primitiveArrayUsedSize = other._primitiveArraySize = 0;
}

template <class Allocator>
DDrawingList<Allocator>::~DDrawingList()
{
    clear();
}

template <class Allocator>
DDrawingList<Allocator>& DDrawingList<Allocator>::operator=(DDrawingList other)
{
    if constexpr (std::is_same_v<Allocator, ShmAllocator>) {
        // The value must end up in this list's segment, not in the one it came from.
        if (other._allocator.get_segment_manager() != _allocator.get_segment_manager()) {
            DDrawingList local(other, _allocator);
            swap(local);
            return *this;
        }
    }
    swap(other);
    return *this;
}

template <class Allocator>
template <class OtherAllocator, class>
DDrawingList<Allocator>& DDrawingList<Allocator>::operator=(const DDrawingList<OtherAllocator>& other)
{
    DDrawingList copy(other, _allocator);
    swap(copy);
    return *this;
}

template <class Allocator>
void DDrawingList<Allocator>::swap(DDrawingList& other) noexcept
{
    using std::swap;
    if constexpr (std::is_same_v<Allocator, ShmAllocator>)
        swap(_allocator, other._allocator);
    swap(_offsets, other._offsets);
    swap(_primitiveArray, other._primitiveArray);
    swap(_numberOfItemsUsed, other._numberOfItemsUsed);
    swap(_numberOfItems, other._numberOfItems);
    swap(_primitiveArrayUsedSize, other._primitiveArrayUsedSize);
    swap(_primitiveArraySize, other._primitiveArraySize);
}

template <class Allocator>
void DDrawingList<Allocator>::clear() noexcept
{
    if (_offsets)
        OffsetAllocator(_allocator).deallocate(_offsets, _numberOfItems);
    if (_primitiveArray)
        _allocator.deallocate(_primitiveArray, _primitiveArraySize);
    _offsets = OffsetPointer();
    _primitiveArray = BytePointer();
    _numberOfItemsUsed = _numberOfItems = 0;
    _primitiveArrayUsedSize = _primitiveArraySize = 0;
}

template <class Allocator>
const char* DDrawingList<Allocator>::_item(unsigned long i) const
{
    if (i >= _numberOfItemsUsed)
        throw DOutOfRangeException("Error: Access to DDrawingList is out of range");
    return toRawPointer(_primitiveArray) + toRawPointer(_offsets)[i];
}

template <class Allocator>
DDrawingPrimitive& DDrawingList<Allocator>::operator[](unsigned long i)
{
    return *reinterpret_cast<DDrawingPrimitive*>(const_cast<char*>(_item(i)));
}

template <class Allocator>
const DDrawingPrimitive& DDrawingList<Allocator>::operator[](unsigned long i) const
{
    return *reinterpret_cast<const DDrawingPrimitive*>(_item(i));
}

template <class Allocator>
unsigned long DDrawingList<Allocator>::memsize() const noexcept
{
    return _numberOfItems * sizeof(std::uint64_t) + _primitiveArraySize;
}

template <class Allocator>
void DDrawingList<Allocator>::pushBack(const DDrawingPrimitive& primitive)
{
    switch (primitive.type()) {
    case DDrawingPrimitive::PIXEL: _pushBack<DDrawingPixel>(primitive); break;
    case DDrawingPrimitive::LINE: _pushBack<DDrawingLine>(primitive); break;
    case DDrawingPrimitive::STRING: _pushBack<DDrawingString>(primitive); break;
    case DDrawingPrimitive::ELLIPSE: _pushBack<DDrawingEllipse>(primitive); break;
    default: break;
    }
}

template <class Allocator>
template <class T>
void DDrawingList<Allocator>::_pushBack(const DDrawingPrimitive& primitive)
{
    _increase(sizeof(T));
    toRawPointer(_offsets)[_numberOfItemsUsed] = _primitiveArrayUsedSize;
    std::memcpy(toRawPointer(_primitiveArray) + _primitiveArrayUsedSize, &static_cast<const T&>(primitive),
                sizeof(T));
    ++_numberOfItemsUsed;
    NORVEXA_ASSERT(_numberOfItemsUsed <= _numberOfItems, "DDrawingList::_pushBack");
    _primitiveArrayUsedSize += sizeof(T);
    NORVEXA_ASSERT(_primitiveArrayUsedSize <= _primitiveArraySize, "DDrawingList::_pushBack");
}

template <class Allocator>
void DDrawingList<Allocator>::_increase(unsigned long bytes)
{
    if (_numberOfItemsUsed == _numberOfItems) {
        const unsigned long newSize =
            _numberOfItems == 0 ? 10 : static_cast<unsigned long>(std::ceil(_numberOfItems * 1.3));
        NORVEXA_ASSERT(newSize > _numberOfItems, "DDrawingList::_increase");
        OffsetAllocator offsetAllocator(_allocator);
        const OffsetPointer offsets = offsetAllocator.allocate(newSize);
        if (_numberOfItems)
            std::memcpy(toRawPointer(offsets), toRawPointer(_offsets), _numberOfItems * sizeof(std::uint64_t));
        if (_offsets)
            offsetAllocator.deallocate(_offsets, _numberOfItems);
        _offsets = offsets;
        _numberOfItems = newSize;
    }
    if (_primitiveArraySize - _primitiveArrayUsedSize < bytes) {
        const unsigned long newSize =
            _primitiveArraySize == 0 ? 1024 : static_cast<unsigned long>(std::ceil(_primitiveArraySize * 1.3));
        NORVEXA_ASSERT(newSize > _primitiveArraySize, "DDrawingList::_increase");
        const BytePointer array = _allocator.allocate(newSize);
        if (_primitiveArraySize)
            std::memcpy(toRawPointer(array), toRawPointer(_primitiveArray), _primitiveArraySize);
        if (_primitiveArray)
            _allocator.deallocate(_primitiveArray, _primitiveArraySize);
        _primitiveArray = array;
        _primitiveArraySize = newSize;
    }
}

template <class Allocator>
template <class OtherAllocator>
void DDrawingList<Allocator>::_copyFrom(const DDrawingList<OtherAllocator>& other)
{
    // Whole blocks, spare bytes included, so that the capacities survive the copy.
    OffsetAllocator offsetAllocator(_allocator);
    if (other._numberOfItems) {
        _offsets = offsetAllocator.allocate(other._numberOfItems);
        std::memcpy(toRawPointer(_offsets), toRawPointer(other._offsets),
                    other._numberOfItems * sizeof(std::uint64_t));
    }
    if (other._primitiveArraySize) {
        try {
            _primitiveArray = _allocator.allocate(other._primitiveArraySize);
        } catch (...) {
            if (_offsets)
                offsetAllocator.deallocate(_offsets, other._numberOfItems);
            _offsets = OffsetPointer();
            throw;
        }
        std::memcpy(toRawPointer(_primitiveArray), toRawPointer(other._primitiveArray), other._primitiveArraySize);
    }
    _numberOfItemsUsed = other._numberOfItemsUsed;
    _numberOfItems = other._numberOfItems;
    _primitiveArrayUsedSize = other._primitiveArrayUsedSize;
    _primitiveArraySize = other._primitiveArraySize;
}

template class DDrawingList<StdAllocator>;
template class DDrawingList<ShmAllocator>;
template DDrawingList<StdAllocator>::DDrawingList(const DDrawingList<ShmAllocator>&, const StdAllocator&);
template DDrawingList<StdAllocator>::DDrawingList(const DDrawingList<StdAllocator>&, const StdAllocator&);
template DDrawingList<ShmAllocator>::DDrawingList(const DDrawingList<StdAllocator>&, const ShmAllocator&);
template DDrawingList<ShmAllocator>::DDrawingList(const DDrawingList<ShmAllocator>&, const ShmAllocator&);
template DDrawingList<StdAllocator>& DDrawingList<StdAllocator>::operator=(const DDrawingList<ShmAllocator>&);
template DDrawingList<ShmAllocator>& DDrawingList<ShmAllocator>::operator=(const DDrawingList<StdAllocator>&);

} // namespace imglib
} // namespace norvexa
