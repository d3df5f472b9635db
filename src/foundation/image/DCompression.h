#pragma once

#include <cstddef>
#include <vector>

namespace norvexa {
namespace image {

/// The forms in which a container's buffer can hold its pixels. The values are fixed:
/// they are compared with what a detector's stream says and passed to the HDF5 layer.
struct DCompression {
    enum FILTER : int {
        FILTER_NONE = -1,    ///< plain little-endian pixels ("<")
        FILTER_LZ4 = 0,      ///< a chunk in the framing of the HDF5 LZ4 filter ("lz4<")
        FILTER_BS16_LZ4 = 1, ///< a chunk of the HDF5 bitshuffle/LZ4 filter, 16-bit elements ("bs16-lz4<")
        FILTER_BS32_LZ4 = 2, ///< the same with 32-bit elements ("bs32-lz4<")
    };
};

/// The chunk codecs behind DBasicImage::setFilter, also used by the HDF5 filters.
///
/// FILTER_LZ4 chunks: 8 bytes big-endian total plain size, 4 bytes big-endian block size,
/// then for each block (the last one may be shorter) 4 bytes big-endian compressed length
/// and an LZ4 block; a block whose compressed length equals its plain length is stored
/// raw. The encoder writes one block whose block size is the low 32 bits of the total, as
/// the stream frames it, and stores it raw when LZ4 does not make it shorter; an empty
/// input is the 12-byte header alone.
///
/// FILTER_BS16_LZ4 / FILTER_BS32_LZ4 chunks: 8 bytes big-endian total plain size, 4 bytes
/// big-endian block size in bytes, then for each block of elements a 4-byte big-endian
/// compressed length and an LZ4 block holding the bit-shuffled block (DBitshuffle.h); a
/// last, shorter block of the remaining elements rounded down to a multiple of 8; and the
/// last (count % 8) elements raw. The element size is 2 or 4 bytes by the filter, whatever
/// the pixel type. The encoder uses blocks of 8192 bytes (4096 or 2048 elements).
///
/// The live stream hands over bitshuffle chunks that lack their last byte. A bitshuffle
/// chunk that is exactly one byte short of what its last piece (the final LZ4 block or
/// the raw tail) declares decodes as if that byte were zero. For an LZ4 block that byte is
/// a literal: the top bit plane of the last 8 elements, zero for counts below 2^15
/// (16-bit) or 2^31 (32-bit); for a raw tail it is the top byte of the last element. Any
/// other shortfall is a truncated chunk. Bytes after the last piece are ignored, as the
/// HDF5 filters do.
///
/// Every length field is checked before use. decode raises DImageCorruptedException with:
/// - "Unknown compression filter": `filter` is none of the four forms;
/// - "Compressed chunk is truncated": a header, a length field or a block reaches past
///   `chunkSize` (beyond the one-byte allowance above), or the chunk has fewer than
///   1/256 of `outSize` bytes, which no LZ4 data can expand to (see headerProblem);
/// - "Compressed chunk does not match the image size": the total size in the header is not
///   `outSize` (or, for FILTER_NONE, `chunkSize` is not `outSize`), or a bitshuffle total
///   is not a whole number of elements;
/// - "LZ4 block size is invalid": a zero block size in a non-empty FILTER_LZ4 chunk;
/// - "Bitshuffle block size is invalid": a block size that is not a positive multiple of
///   8 elements, or a block that no LZ4 block can hold (over LZ4_MAX_INPUT_SIZE);
/// - "LZ4 block does not decode": an LZ4 block that is malformed or does not decode to
///   exactly its plain length.
/// The header is checked before the blocks: a chunk too short for its header is truncated,
/// then the total size, then the chunk's length against it, then the block size. encode
/// raises DBadParameterException with
/// "Unknown compression filter", "Chunk is too large to encode" (FILTER_LZ4 over LZ4's
/// limit of 2 113 929 216 bytes) or "Size is not a multiple of the element size"
/// (bitshuffle forms).
namespace codec {

/// The failure texts of decode and encode, in one place.
namespace text {
inline constexpr const char* UNKNOWN_FILTER = "Unknown compression filter";
inline constexpr const char* TRUNCATED = "Compressed chunk is truncated";
inline constexpr const char* SIZE_MISMATCH = "Compressed chunk does not match the image size";
inline constexpr const char* LZ4_BLOCK_SIZE = "LZ4 block size is invalid";
inline constexpr const char* BITSHUFFLE_BLOCK_SIZE = "Bitshuffle block size is invalid";
inline constexpr const char* LZ4_BLOCK = "LZ4 block does not decode";
inline constexpr const char* TOO_LARGE = "Chunk is too large to encode";
inline constexpr const char* NOT_WHOLE_ELEMENTS = "Size is not a multiple of the element size";
inline constexpr const char* LZ4_COMPRESS = "LZ4 compression failed";
} // namespace text

/// What a chunk's header says against a plain size of `outSize` bytes, before anything
/// is allocated for the decode: null when it agrees, else the text of decode's failure
/// ("Compressed chunk is truncated" for a chunk shorter than its header, or too short for
/// LZ4 to produce `outSize` bytes from, since a block expands at most 255-fold;
/// "Compressed chunk does not match the image size" for another announced total;
/// "Unknown compression filter"). FILTER_NONE: the sizes must be equal. Reads at most the
/// 12 bytes of the header.
const char* headerProblem(DCompression::FILTER filter, const char* chunk, std::size_t chunkSize,
                          std::size_t outSize) noexcept;

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
