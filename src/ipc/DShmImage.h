#pragma once

#include "DBasicImageOptionalData.h"
#include "foundation/image/DAllocators.h"
#include "foundation/image/DBasicImage.h"

namespace norvexa {
namespace imglib {

class DImage;

/// The form of a DImage inside a shared-memory segment: its pixels and its metadata,
/// everything allocated in the segment and linked by offset pointers, so that another
/// process that maps the segment elsewhere reads the same image. It is built in the
/// segment (segment.construct<DShmImage>(name)(image, allocator)) and is not copied.
class DShmImage {
public:
    using ImageData = image::DBasicImage<image::ShmAllocator>;
    using OptionalData = DBasicImageOptionalData<image::ShmAllocator>;

    /// Copies the pixels and the metadata into the segment of `allocator`.
    DShmImage(const DImage& image, const image::ShmAllocator& allocator);
    DShmImage(const DShmImage&) = delete;
    DShmImage& operator=(const DShmImage&) = delete;

    /// A copy on the heap: the same as DImage(*this).
    DImage image() const;

    const ImageData& imageData() const noexcept { return _imageData; }
    const OptionalData& optionalData() const noexcept { return _optionalData; }

private:
    ImageData _imageData;
    OptionalData _optionalData;
};

} // namespace imglib
} // namespace norvexa
