#pragma once

#include "DDrawingPrimitives.h"
#include "foundation/image/DAllocators.h"

#include <cstdint>
#include <memory>
#include <type_traits>

namespace norvexa {
namespace imglib {

/// A sequence of drawing primitives of mixed classes, stored by value in one flat byte
/// array and found through a table of byte offsets. Nothing in it is a pointer, so a list
/// moves between the heap and a shared-memory segment by two block copies.
///
/// Both arrays grow by the factor 1.3 (rounded up), starting from 10 offsets and 1024
/// bytes; copies keep the capacities, so memsize() (the bytes allocated) is the same on
/// both sides of a copy. In the shared-memory form the array pointers and the allocator
/// are offset pointers, so the list itself may lie in the segment.
template <class Allocator>
class DDrawingList {
public:
    using allocator_type = Allocator;

    /// Empty, nothing allocated.
    explicit DDrawingList(const Allocator& allocator = Allocator());
    DDrawingList(const DDrawingList& other);
    /// A copy in `allocator`, from either form.
    template <class OtherAllocator>
    DDrawingList(const DDrawingList<OtherAllocator>& other, const Allocator& allocator);
    DDrawingList(DDrawingList&& other) noexcept;
    ~DDrawingList();

    /// Copy and swap. In the shared form, a value from another segment is first copied
    /// into this list's segment.
    DDrawingList& operator=(DDrawingList other);
    /// A copy from the other form, into this list's allocator.
    template <class OtherAllocator, class = std::enable_if_t<!std::is_same_v<OtherAllocator, Allocator>>>
    DDrawingList& operator=(const DDrawingList<OtherAllocator>& other);
    /// Exchanges contents and counters; in the shared form the allocators too.
    void swap(DDrawingList& other) noexcept;

    /// Frees both arrays: the state of a new list.
    void clear() noexcept;

    /// The item as its base class; cast by type() to the concrete class.
    /// DOutOfRangeException "Error: Access to DDrawingList is out of range" for i >= size().
    DDrawingPrimitive& operator[](unsigned long i);
    const DDrawingPrimitive& operator[](unsigned long i) const;

    unsigned long size() const noexcept { return _numberOfItemsUsed; }
    /// The bytes allocated (offset slots and primitive array), not the bytes in use.
    unsigned long memsize() const noexcept;

    /// Appends a copy of the primitive's concrete class, chosen by type(): `primitive`
    /// must really be an object of that class (its bytes beyond the base are copied).
    /// A type outside the four is dropped silently.
    void pushBack(const DDrawingPrimitive& primitive);

    Allocator allocator() const { return _allocator; }

private:
    template <class>
    friend class DDrawingList;

    using OffsetAllocator = typename std::allocator_traits<Allocator>::template rebind_alloc<std::uint64_t>;
    using OffsetPointer = typename std::allocator_traits<OffsetAllocator>::pointer;
    using BytePointer = typename std::allocator_traits<Allocator>::pointer;

    template <class T>
    void _pushBack(const DDrawingPrimitive& primitive);
    /// Makes room for one more item of `bytes` bytes.
    void _increase(unsigned long bytes);
    /// Takes over a copy of `other`'s arrays and counters; this list must be empty.
    template <class OtherAllocator>
    void _copyFrom(const DDrawingList<OtherAllocator>& other);
    const char* _item(unsigned long i) const;

    Allocator _allocator;
    OffsetPointer _offsets;
    BytePointer _primitiveArray;
    unsigned long _numberOfItemsUsed;
    unsigned long _numberOfItems;
    unsigned long _primitiveArrayUsedSize;
    unsigned long _primitiveArraySize;
};

template <class Allocator>
inline void swap(DDrawingList<Allocator>& a, DDrawingList<Allocator>& b) noexcept
{
    a.swap(b);
}

/// The heap form.
using DStdDrawingList = DDrawingList<image::StdAllocator>;
/// The form in a managed shared-memory segment.
using DShmDrawingList = DDrawingList<image::ShmAllocator>;

extern template class DDrawingList<image::StdAllocator>;
extern template class DDrawingList<image::ShmAllocator>;
extern template DDrawingList<image::StdAllocator>::DDrawingList(const DDrawingList<image::ShmAllocator>&,
                                                                const image::StdAllocator&);
extern template DDrawingList<image::StdAllocator>::DDrawingList(const DDrawingList<image::StdAllocator>&,
                                                                const image::StdAllocator&);
extern template DDrawingList<image::ShmAllocator>::DDrawingList(const DDrawingList<image::StdAllocator>&,
                                                                const image::ShmAllocator&);
extern template DDrawingList<image::ShmAllocator>::DDrawingList(const DDrawingList<image::ShmAllocator>&,
                                                                const image::ShmAllocator&);
extern template DDrawingList<image::StdAllocator>&
DDrawingList<image::StdAllocator>::operator=(const DDrawingList<image::ShmAllocator>&);
extern template DDrawingList<image::ShmAllocator>&
DDrawingList<image::ShmAllocator>::operator=(const DDrawingList<image::StdAllocator>&);

} // namespace imglib
} // namespace norvexa
