#pragma once

#include "foundation/image/DAllocators.h"

namespace norvexa {
namespace imglib {

/// The typed metadata of one image. For now it carries no items: the NeXus-backed
/// items arrive with the metadata classes. DImage already keeps or drops it by the
/// rule of what remains the same exposure, so that nothing there changes then.
template <class Allocator>
class DBasicImageOptionalData {
public:
    explicit DBasicImageOptionalData(const Allocator& allocator = Allocator()) : _allocator(allocator) {}

    void swap(DBasicImageOptionalData& other) noexcept { std::swap(_allocator, other._allocator); }

private:
    Allocator _allocator;
};

using DImageOptionalData = DBasicImageOptionalData<image::StdAllocator>;

} // namespace imglib
} // namespace norvexa
