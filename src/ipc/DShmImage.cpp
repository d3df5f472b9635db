#include "DShmImage.h"

#include "DImage.h"

namespace norvexa {
namespace imglib {

DShmImage::DShmImage(const DImage& image, const image::ShmAllocator& allocator)
    : _imageData(image.constImageData(), allocator), _optionalData(image.optionalData(), allocator)
{
}

DImage DShmImage::image() const { return DImage(*this); }

} // namespace imglib
} // namespace norvexa
