// Feeds arbitrary bytes to the CBF reader as a file in memory: the header region's keys,
// the size and sum checks, both decoders and the metadata. A byte-offset block that
// decodes is decoded again by the plain rule, one element at a time, and must agree.
#include "DCbfReader.h"
#include "foundation/DException.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

using norvexa::imglib::DAbstractImageReader;
using norvexa::imglib::DCbfReader;
using norvexa::imglib::DImage;
using norvexa::imglib::DImageOptionalData;

namespace {

// Past the longest input no pixel is reached; bigger images only make the runs slow.
constexpr long long MAX_PIXELS = 1 << 16;
constexpr std::int32_t FILL = 0x6B6B6B6B;

// The byte-offset rule with no shortcut; the pixels it reaches, and the bytes it used.
std::vector<std::int32_t> referenceDecode(const unsigned char* block, std::size_t size, std::size_t count,
                                          std::size_t& consumed)
{
    std::vector<std::int32_t> pixels;
    std::uint32_t value = 0;
    consumed = 0;
    while (pixels.size() < count && consumed < size) {
        std::int32_t d = static_cast<std::int8_t>(block[consumed++]);
        if (d == -128) {
            const auto d16 = static_cast<std::int16_t>(block[consumed] | block[consumed + 1] << 8);
            consumed += 2;
            if (d16 == 0) {
                value = 0;
                continue;
            }
            d = d16;
            if (d16 == -32768) {
                d = static_cast<std::int32_t>(std::uint32_t(block[consumed]) | std::uint32_t(block[consumed + 1]) << 8 |
                                              std::uint32_t(block[consumed + 2]) << 16 |
                                              std::uint32_t(block[consumed + 3]) << 24);
                consumed += 4;
            }
        }
        value += static_cast<std::uint32_t>(d);
        pixels.push_back(static_cast<std::int32_t>(value));
    }
    return pixels;
}

// Where the block is and how long, read as the reader reads it; false for an
// uncompressed block.
bool byteOffsetBlock(const DAbstractImageReader::Data& bytes, std::size_t& offset, unsigned long& size)
{
    const std::string_view file(bytes.cdata(), bytes.size());
    const std::size_t magic = file.find(std::string_view("\x0C\x1A\x04\xD5", 4));
    const std::string_view header = file.substr(0, magic);
    if (header.find("conversions=\"x-CBF_BYTE_OFFSET\"") == std::string_view::npos)
        return false;
    const std::size_t key = header.find("X-Binary-Size: ");
    std::istringstream(std::string(header.substr(key + 15))) >> size;
    offset = magic + 4;
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // Zeros behind the bytes, as the reader has them, for the reference's look past a cut escape.
    DAbstractImageReader::Data bytes;
    bytes.reserve(size + DAbstractImageReader::kPadding);
    bytes.resize(size);
    if (size)
        std::memcpy(bytes.data(), data, size);
    std::memset(bytes.data() + size, 0, DAbstractImageReader::kPadding);
    try {
        const DCbfReader reader(bytes, "fuzz.cbf");
        const long long pixels = static_cast<long long>(reader.width()) * reader.height();
        if (reader.width() < 0 || reader.height() < 0 || pixels > MAX_PIXELS)
            return 0; // the image's allocation, not the reader, would answer

        DImage image(reader.width(), reader.height(), reader.dataType(), reader.typeBits() >> 3);
        for (std::size_t i = 0; i < image.size(); ++i)
            reinterpret_cast<std::int32_t*>(image.data())[i] = FILL;
        std::string failure;
        try {
            reader.readPixelData(image);
        } catch (const norvexa::DImageCorruptedException& e) {
            failure = e.what();
        }
        const bool decoded = failure.empty() || failure == "fuzz.cbf corrupted. Binary content not valid";
        std::size_t offset = 0;
        unsigned long blockSize = 0;
        if (decoded && byteOffsetBlock(bytes, offset, blockSize)) {
            std::size_t consumed = 0;
            const auto expected = referenceDecode(reinterpret_cast<const unsigned char*>(bytes.cdata()) + offset,
                                                  blockSize, image.size(), consumed);
            const auto* got = reinterpret_cast<const std::int32_t*>(image.data());
            for (std::size_t i = 0; i < image.size(); ++i)
                if (got[i] != (i < expected.size() ? expected[i] : FILL))
                    std::abort();
            // Bytes left over, and nothing else, fail a block that decodes.
            if (failure.empty() != (consumed >= blockSize))
                std::abort();
        }

        // Both ways to the metadata; the pixels have been read above.
        DImageOptionalData fromFile;
        reader.readHeaderData(fromFile);
        reader.readRawHeader(fromFile);
        DImageOptionalData caller;
        caller.set_count_time(1.0f);
        DImage read;
        reader.readData(read, &caller);
    } catch (const norvexa::DException&) {
    }
    return 0;
}
