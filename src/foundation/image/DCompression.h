#pragma once

#include <cstddef>
#include <vector>

namespace norvexa {
namespace image {

/// The forms in which a container's buffer can hold its pixels. The values are fixed:
/// they are compared with what a detector's stream says and passed to the HDF5 layer.
struct DCompression {
    enum FILTER {
        FILTER_NONE = -1,    ///< plain little-endian pixels ("<")
        FILTER_LZ4 = 0,      ///< a chunk in the framing of the HDF5 LZ4 filter ("lz4<")
        FILTER_BS16_LZ4 = 1, ///< a chunk of the HDF5 bitshuffle/LZ4 filter, 16-bit elements ("bs16-lz4<")
        FILTER_BS32_LZ4 = 2, ///< the same with 32-bit elements ("bs32-lz4<")
    };
};

/// The chunk codecs behind DBasicImage::setFilter, also used by the HDF5 filters.
namespace codec {

/// Decodes `chunk` (`chunkSize` bytes, in the form `filter`) into `out`, which must
/// receive exactly `outSize` bytes. Raises DImageCorruptedException on a chunk that
/// does not decode to exactly `outSize` bytes; never reads or writes outside the two
/// buffers. FILTER_NONE copies (the sizes must match).
void decode(DCompression::FILTER filter, const char* chunk, std::size_t chunkSize, char* out,
            std::size_t outSize);

/// Encodes `size` plain bytes into a chunk of the given form.
std::vector<char> encode(DCompression::FILTER filter, const char* plain, std::size_t size);

} // namespace codec
} // namespace image
} // namespace norvexa
