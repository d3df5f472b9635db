#pragma once

#include "foundation/image/DAllocators.h"

#include <cstddef>
#include <memory>

namespace norvexa {
namespace image {

/// A contiguous byte buffer with a size and a capacity, generic in the allocator.
///
/// The handle is two machine words in the heap form (a pointer to the block and the
/// size in use; the capacity lives in a 16-byte header in front of the bytes, which
/// also keeps them 16-byte aligned), so that images, readers and metadata embed it
/// directly. In the shared form the pointer is an offset pointer and the block lies in
/// the segment.
///
/// Copies are values. In the heap form a copy shares the block until one of the handles
/// asks for a writable pointer (`data()`), which first gives that handle a block of its
/// own; `cdata()` and the const `data()` never unshare or allocate. A block whose
/// writable pointer was handed out is copied, not shared, from then on, since the
/// pointer may still be written through. The count of sharers is atomic, so copies may
/// live in different threads. Buffers in a shared-memory segment are always copied.
/// `data()` is null while nothing has been allocated.
/// `resize` keeps the contents up to the smaller size and grows the capacity by at
/// least half when it has to reallocate a non-empty block, so that appending is
/// amortised; a first allocation is exact.
template <class Allocator>
class DBasicImageData {
public:
    using allocator_type = Allocator;
    using pointer = typename std::allocator_traits<Allocator>::pointer;

    explicit DBasicImageData(const Allocator& allocator = Allocator());
    DBasicImageData(const DBasicImageData& other);
    DBasicImageData(const DBasicImageData& other, const Allocator& allocator);
    DBasicImageData(DBasicImageData&& other) noexcept;
    /// Copy from the other allocator's form.
    template <class OtherAllocator>
    DBasicImageData(const DBasicImageData<OtherAllocator>& other, const Allocator& allocator);
    ~DBasicImageData();

    DBasicImageData& operator=(const DBasicImageData& other);
    DBasicImageData& operator=(DBasicImageData&& other) noexcept;

    Allocator allocator() const { return _impl; }

    /// A writable pointer; unshares the block first (and so may allocate).
    char* data() { return writableData(); }
    const char* data() const noexcept { return cdata(); }
    const char* cdata() const noexcept
    {
        return _impl.block ? toRawPointer(_impl.block) + kHeader : nullptr;
    }

    std::size_t size() const noexcept { return _impl.size; }
    std::size_t capacity() const noexcept;

    /// Declares that no writable pointer into an unshared block is in use any more, so
    /// that copies may share it again (a block handed over by a moved-from owner).
    void allowSharing() noexcept;

    void reserve(std::size_t n);
    void resize(std::size_t n);
    void clear() noexcept { _impl.size = 0; }
    void swap(DBasicImageData& other) noexcept;

private:
    template <class>
    friend class DBasicImageData;

    static constexpr std::size_t kHeader = 16;

    // The allocator is a base so that the empty heap allocator takes no room.
    struct Impl : Allocator {
        explicit Impl(const Allocator& a) : Allocator(a) {}
        pointer block{};
        std::size_t size = 0;
    };

    void reallocate(std::size_t capacity);
    bool canShare(const DBasicImageData& other) const noexcept;
    bool share(const DBasicImageData& other) noexcept;
    bool shared() const noexcept;
    char* writableData();
    void release() noexcept;
    void assignBytes(const char* bytes, std::size_t n);

    Impl _impl;
};

template <class Allocator>
template <class OtherAllocator>
DBasicImageData<Allocator>::DBasicImageData(const DBasicImageData<OtherAllocator>& other,
                                            const Allocator& allocator)
    : _impl(allocator)
{
    assignBytes(other.cdata(), other.size());
}

extern template class DBasicImageData<StdAllocator>;
extern template class DBasicImageData<ShmAllocator>;
extern template DBasicImageData<StdAllocator>::DBasicImageData(const DBasicImageData<ShmAllocator>&,
                                                               const StdAllocator&);
extern template DBasicImageData<ShmAllocator>::DBasicImageData(const DBasicImageData<StdAllocator>&,
                                                               const ShmAllocator&);

} // namespace image
} // namespace norvexa
