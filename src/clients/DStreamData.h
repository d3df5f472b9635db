#pragma once

#include "foundation/image/DBasicImage.h"

#include <cstdint>

namespace norvexa {
namespace imglib {

/// One image of a live series: the number the wire calls "frame" and the pixels in the
/// form in which they came (plain or a compressed chunk, see DBasicImage::filter()).
class DStreamData {
public:
    using Image = image::DBasicImage<image::StdAllocator>;

    DStreamData() = default;
    DStreamData(std::uint64_t imageId, Image data) : _imageId(imageId), _data(std::move(data)) {}

    std::uint64_t imageId() const noexcept { return _imageId; }
    /// A copy of the image; the buffer is shared until one side writes.
    Image data() const { return _data; }

private:
    std::uint64_t _imageId = 0;
    Image _data;
};

} // namespace imglib
} // namespace norvexa
