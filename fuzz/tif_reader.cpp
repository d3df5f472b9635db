// Feeds arbitrary bytes to the TIFF reader from memory: the directory walk, the pixel
// copy and the text header. Frames too large to allocate here still go through the strip
// checks, into a one-pixel image.
#include "DTifReader.h"
#include "foundation/DException.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

constexpr std::uint64_t MAX_IMAGE_BYTES = 1 << 20; // keeps the runs fast and far from the memory limit

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    DAbstractImageReader::Data bytes;
    bytes.resize(size);
    if (size)
        std::memcpy(bytes.data(), data, size);
    try {
        const DTifReader reader(bytes, "fuzz.tif");
        if (reader.width() < 0 || reader.height() < 0)
            std::abort(); // the constructor refuses these
        const std::uint64_t imageBytes =
            std::uint64_t(reader.width()) * std::uint64_t(reader.height()) * (reader.typeBits() / 8);
        try {
            if (imageBytes <= MAX_IMAGE_BYTES) {
                DImage image;
                reader.readData(image, nullptr);
                DImageOptionalData caller;
                reader.readData(image, &caller);
            } else {
                DImage small(1, 1, datatypes::UINT, 1);
                reader.readPixelData(small);
            }
        } catch (const DException&) {
        }
        DImageOptionalData own, caller;
        reader.readHeaderData(own);
        reader.readRawHeader(own);
        reader.readImageSpecificHeader(caller);
    } catch (const DException&) {
    }
    return 0;
}
