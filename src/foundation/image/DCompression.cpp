#include "foundation/image/DCompression.h"

#include "foundation/DException.h"
#include "foundation/image/DBitshuffle.h"

#include <lz4.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>

namespace norvexa {
namespace image {
namespace codec {

namespace {

using std::size_t;
using std::uint32_t;
using std::uint64_t;

constexpr size_t HEADER_SIZE = 12;   // total size (8 bytes) and block size (4 bytes)
constexpr size_t LENGTH_SIZE = 4;    // compressed length in front of each block
constexpr size_t TARGET_BLOCK_BYTES = 8192;
constexpr size_t MIN_BLOCK_ELEMENTS = 128;

[[noreturn]] void corrupted(const char* text) { throw DImageCorruptedException(text); }

uint64_t readBe64(const char* p)
{
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i)
        v = (v << 8) | static_cast<unsigned char>(p[i]);
    return v;
}

uint32_t readBe32(const char* p)
{
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i)
        v = (v << 8) | static_cast<unsigned char>(p[i]);
    return v;
}

void writeBe64(char* p, uint64_t v)
{
    for (int i = 7; i >= 0; --i, v >>= 8)
        p[i] = static_cast<char>(v & 0xFF);
}

void writeBe32(char* p, uint32_t v)
{
    for (int i = 3; i >= 0; --i, v >>= 8)
        p[i] = static_cast<char>(v & 0xFF);
}

size_t elementSizeOf(DCompression::FILTER filter) { return filter == DCompression::FILTER_BS16_LZ4 ? 2 : 4; }

void copyBytes(char* out, const char* in, size_t n)
{
    if (n)
        std::memcpy(out, in, n);
}

void decodeLz4(const char* chunk, size_t chunkSize, char* out, size_t outSize)
{
    if (chunkSize < HEADER_SIZE)
        corrupted(text::TRUNCATED);
    const uint64_t total = readBe64(chunk);
    const uint32_t blockSize = readBe32(chunk + 8);
    if (total != outSize)
        corrupted(text::SIZE_MISMATCH);
    if (total > 0 && blockSize == 0)
        corrupted(text::LZ4_BLOCK_SIZE);
    size_t pos = HEADER_SIZE;
    size_t written = 0;
    while (written < outSize) {
        const size_t plain = std::min<size_t>(blockSize, outSize - written);
        if (chunkSize - pos < LENGTH_SIZE)
            corrupted(text::TRUNCATED);
        const uint32_t length = readBe32(chunk + pos);
        pos += LENGTH_SIZE;
        if (length > chunkSize - pos)
            corrupted(text::TRUNCATED);
        if (length == plain) {
            std::memcpy(out + written, chunk + pos, plain);
        } else {
            if (length > INT_MAX || plain > INT_MAX)
                corrupted(text::LZ4_BLOCK);
            const int n = LZ4_decompress_safe(chunk + pos, out + written, static_cast<int>(length),
                                              static_cast<int>(plain));
            if (n < 0 || static_cast<size_t>(n) != plain)
                corrupted(text::LZ4_BLOCK);
        }
        pos += length;
        written += plain;
    }
}

void decodeBitshuffleLz4(const char* chunk, size_t chunkSize, char* out, size_t outSize, size_t elementSize)
{
    if (chunkSize < HEADER_SIZE)
        corrupted(text::TRUNCATED);
    const uint64_t total = readBe64(chunk);
    const uint32_t blockBytes = readBe32(chunk + 8);
    if (total != outSize || outSize % elementSize != 0)
        corrupted(text::SIZE_MISMATCH);
    if (blockBytes == 0 || blockBytes % elementSize != 0 || (blockBytes / elementSize) % 8 != 0)
        corrupted(text::BITSHUFFLE_BLOCK_SIZE);

    const size_t count = outSize / elementSize;
    const size_t blockElements = blockBytes / elementSize;
    const size_t fullBlocks = count / blockElements;
    const size_t lastElements = (count % blockElements) / 8 * 8;
    const size_t tailElements = count % 8;
    const size_t blocks = fullBlocks + (lastElements ? 1 : 0);
    const size_t scratchBytes = (fullBlocks ? blockElements : lastElements) * elementSize;
    if (scratchBytes > LZ4_MAX_INPUT_SIZE)
        corrupted(text::BITSHUFFLE_BLOCK_SIZE);

    // One block at a time through a scratch buffer small enough to stay in cache.
    std::unique_ptr<char[]> scratch(scratchBytes ? new char[scratchBytes] : nullptr);
    size_t pos = HEADER_SIZE;
    size_t offset = 0;
    for (size_t b = 0; b < blocks; ++b) {
        const size_t elements = b < fullBlocks ? blockElements : lastElements;
        const size_t plain = elements * elementSize;
        if (chunkSize - pos < LENGTH_SIZE)
            corrupted(text::TRUNCATED);
        const uint32_t length = readBe32(chunk + pos);
        pos += LENGTH_SIZE;
        const char* block = chunk + pos;
        std::unique_ptr<char[]> padded;
        if (length > chunkSize - pos) {
            const bool lastPiece = b + 1 == blocks && tailElements == 0;
            if (!lastPiece || length - (chunkSize - pos) != 1)
                corrupted(text::TRUNCATED);
            if (length > INT_MAX)
                corrupted(text::LZ4_BLOCK);
            // The stream's chunk lacks its last byte, a literal: decode it as zero.
            padded.reset(new char[length]);
            std::memcpy(padded.get(), block, length - 1);
            padded[length - 1] = 0;
            block = padded.get();
        }
        if (length > INT_MAX)
            corrupted(text::LZ4_BLOCK);
        const int n = LZ4_decompress_safe(block, scratch.get(), static_cast<int>(length), static_cast<int>(plain));
        if (n < 0 || static_cast<size_t>(n) != plain)
            corrupted(text::LZ4_BLOCK);
        bitunshuffle(scratch.get(), out + offset, elements, elementSize);
        pos += std::min<size_t>(length, chunkSize - pos);
        offset += plain;
    }

    const size_t tailBytes = tailElements * elementSize;
    const size_t available = chunkSize - pos;
    if (available >= tailBytes) {
        copyBytes(out + offset, chunk + pos, tailBytes);
    } else if (tailBytes - available == 1) {
        copyBytes(out + offset, chunk + pos, available);
        out[offset + tailBytes - 1] = 0;
    } else {
        corrupted(text::TRUNCATED);
    }
}

std::vector<char> encodeLz4(const char* plain, size_t size)
{
    if (size > LZ4_MAX_INPUT_SIZE)
        throw DBadParameterException(text::TOO_LARGE);
    std::vector<char> chunk(HEADER_SIZE);
    writeBe64(chunk.data(), size);
    writeBe32(chunk.data() + 8, static_cast<uint32_t>(size));
    if (size == 0)
        return chunk;
    const int bound = LZ4_compressBound(static_cast<int>(size));
    chunk.resize(HEADER_SIZE + LENGTH_SIZE + static_cast<size_t>(bound));
    char* block = chunk.data() + HEADER_SIZE + LENGTH_SIZE;
    const int n = LZ4_compress_default(plain, block, static_cast<int>(size), bound);
    if (n > 0 && static_cast<size_t>(n) < size) {
        writeBe32(chunk.data() + HEADER_SIZE, static_cast<uint32_t>(n));
        chunk.resize(HEADER_SIZE + LENGTH_SIZE + static_cast<size_t>(n));
    } else {
        // Not shorter: stored raw, which a length equal to the plain length announces.
        std::memcpy(block, plain, size);
        writeBe32(chunk.data() + HEADER_SIZE, static_cast<uint32_t>(size));
        chunk.resize(HEADER_SIZE + LENGTH_SIZE + size);
    }
    return chunk;
}

std::vector<char> encodeBitshuffleLz4(const char* plain, size_t size, size_t elementSize)
{
    if (size % elementSize != 0)
        throw DBadParameterException(text::NOT_WHOLE_ELEMENTS);
    const size_t count = size / elementSize;
    const size_t blockElements = std::max(TARGET_BLOCK_BYTES / elementSize / 8 * 8, MIN_BLOCK_ELEMENTS);
    const size_t blockBytes = blockElements * elementSize;
    const size_t fullBlocks = count / blockElements;
    const size_t lastElements = (count % blockElements) / 8 * 8;
    const size_t blocks = fullBlocks + (lastElements ? 1 : 0);
    const size_t tailBytes = (count % 8) * elementSize;
    const size_t bound = static_cast<size_t>(LZ4_compressBound(static_cast<int>(blockBytes)));

    std::vector<char> chunk(HEADER_SIZE + blocks * (LENGTH_SIZE + bound) + tailBytes);
    writeBe64(chunk.data(), size);
    writeBe32(chunk.data() + 8, static_cast<uint32_t>(blockBytes));
    std::unique_ptr<char[]> scratch(new char[blockBytes]);
    size_t pos = HEADER_SIZE;
    size_t offset = 0;
    for (size_t b = 0; b < blocks; ++b) {
        const size_t elements = b < fullBlocks ? blockElements : lastElements;
        const size_t bytes = elements * elementSize;
        bitshuffle(plain + offset, scratch.get(), elements, elementSize);
        const int n = LZ4_compress_default(scratch.get(), chunk.data() + pos + LENGTH_SIZE, static_cast<int>(bytes),
                                           static_cast<int>(bound));
        if (n <= 0)
            throw DRuntimeException(text::LZ4_COMPRESS); // not with a buffer of the bound's size
        writeBe32(chunk.data() + pos, static_cast<uint32_t>(n));
        pos += LENGTH_SIZE + static_cast<size_t>(n);
        offset += bytes;
    }
    copyBytes(chunk.data() + pos, plain + offset, tailBytes);
    chunk.resize(pos + tailBytes);
    return chunk;
}

} // namespace

const char* headerProblem(DCompression::FILTER filter, const char* chunk, std::size_t chunkSize,
                          std::size_t outSize) noexcept
{
    switch (filter) {
    case DCompression::FILTER_NONE:
        return chunkSize == outSize ? nullptr : text::SIZE_MISMATCH;
    case DCompression::FILTER_LZ4:
    case DCompression::FILTER_BS16_LZ4:
    case DCompression::FILTER_BS32_LZ4:
        if (chunkSize < HEADER_SIZE)
            return text::TRUNCATED;
        if (readBe64(chunk) != outSize)
            return text::SIZE_MISMATCH;
        // Every LZ4 byte yields at most 255 plain bytes, raw pieces one: a header that
        // promises more than that is damage, and must not become a huge allocation.
        return outSize / 256 > chunkSize ? text::TRUNCATED : nullptr;
    }
    return text::UNKNOWN_FILTER;
}

void decode(DCompression::FILTER filter, const char* chunk, std::size_t chunkSize, char* out, std::size_t outSize)
{
    if (const char* problem = headerProblem(filter, chunk, chunkSize, outSize))
        corrupted(problem);
    switch (filter) {
    case DCompression::FILTER_NONE:
        if (chunkSize != outSize)
            corrupted(text::SIZE_MISMATCH);
        copyBytes(out, chunk, outSize);
        return;
    case DCompression::FILTER_LZ4:
        decodeLz4(chunk, chunkSize, out, outSize);
        return;
    case DCompression::FILTER_BS16_LZ4:
    case DCompression::FILTER_BS32_LZ4:
        decodeBitshuffleLz4(chunk, chunkSize, out, outSize, elementSizeOf(filter));
        return;
    }
    corrupted(text::UNKNOWN_FILTER);
}

std::vector<char> encode(DCompression::FILTER filter, const char* plain, std::size_t size)
{
    switch (filter) {
    case DCompression::FILTER_NONE:
        return std::vector<char>(plain, plain + size);
    case DCompression::FILTER_LZ4:
        return encodeLz4(plain, size);
    case DCompression::FILTER_BS16_LZ4:
    case DCompression::FILTER_BS32_LZ4:
        return encodeBitshuffleLz4(plain, size, elementSizeOf(filter));
    }
    throw DBadParameterException(text::UNKNOWN_FILTER);
}

} // namespace codec
} // namespace image
} // namespace norvexa
