#include "DTifReader.h"

#include "foundation/DException.h"

#include <algorithm>
#include <cstring>

namespace norvexa {
namespace imglib {

namespace {

const char* const INVALID_OFFSET = "Invalid data offset";
const char* const INVALID_TYPE = "Invalid field type.";
const char* const INVALID_BINARY = "Invalid binary data.";

enum FieldType : unsigned { SHORT = 3, LONG = 4, ASCII = 2 };
// Bytes of one element of the field types 1 (BYTE) to 11 (FLOAT).
constexpr std::uint32_t FIELD_SIZES[12] = {0, 1, 1, 2, 4, 8, 1, 1, 2, 4, 8, 4};

enum Tag : unsigned {
    IMAGE_WIDTH = 256,
    IMAGE_LENGTH = 257,
    BITS_PER_SAMPLE = 258,
    MODEL = 272,
    STRIP_OFFSETS = 273,
    ROWS_PER_STRIP = 278,
    SAMPLE_FORMAT = 339,
};

constexpr std::size_t RAW_HEADER_BYTES = 4096;

[[noreturn]] void corrupted(const std::string& fileName, const char* reason)
{
    throw DImageCorruptedException("Image " + fileName + " is corrupted. " + reason);
}

// Little-endian whatever the file's byte-order mark says; callers check the range.
inline std::uint32_t le16(const unsigned char* p) { return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8; }
inline std::uint32_t le32(const unsigned char* p)
{
    return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 |
           std::uint32_t(p[3]) << 24;
}

} // namespace

DTifReader::DTifReader(const char* fileName, int timeout) : DAbstractImageReader(fileName, timeout)
{
    _initialize(fileName);
}

DTifReader::DTifReader(const Data& data, const std::string& fileName)
    : DAbstractImageReader(data, fileName)
{
    _initialize(fileName);
}

DTifReader::~DTifReader() = default;

void DTifReader::_initialize(const std::string& fileName)
{
    _width = _height = _rowsPerStrip = _numberOfStrips = -1;
    _model.clear();
    _stripOffsets.clear();
    int bitsPerSample = -1;
    int sampleFormat = -1;

    const auto* bytes = reinterpret_cast<const unsigned char*>(fileData().cdata());
    const std::uint64_t size = fileData().size();
    auto fail = [&fileName](const char* reason) { corrupted(fileName, reason); };

    if (size < 8)
        fail(INVALID_OFFSET);
    std::uint64_t directory = le32(bytes + 4);
    if (directory >= size)
        fail(INVALID_OFFSET);

    // Directories of a sound chain are disjoint, so together they never take more bytes
    // than the file has; more means a loop or overlap, which would otherwise never end.
    std::uint64_t directoryBytes = 0;
    for (;;) {
        directoryBytes += 2;
        if (directory + 2 > size || directoryBytes > size)
            fail(INVALID_OFFSET);
        const std::uint32_t entries = le16(bytes + directory);
        for (std::uint32_t i = 0; i < entries; ++i) {
            const std::uint64_t entry = directory + 2 + 12 * std::uint64_t(i);
            if (entry + 8 > size)
                fail(INVALID_OFFSET);
            const std::uint32_t tag = le16(bytes + entry);
            const std::uint32_t type = le16(bytes + entry + 2);
            const std::uint32_t count = le32(bytes + entry + 4);
            if (type < 1 || type > 11)
                fail(INVALID_TYPE);
            // 32-bit on purpose: a count that wraps the size is caught where it is read.
            const std::uint32_t valueSize = FIELD_SIZES[type] * count;
            std::uint64_t value = entry + 8;
            if (valueSize > 4) {
                if (entry + 12 > size)
                    fail(INVALID_OFFSET);
                value = le32(bytes + entry + 8);
                if (value + valueSize > size)
                    fail(INVALID_OFFSET);
            }
            if (value + 4 > size)
                fail(INVALID_OFFSET);
            directoryBytes += 12;
            if (directoryBytes > size)
                fail(INVALID_OFFSET);

            const unsigned char* v = bytes + value;
            auto shortOrLong = [&]() -> std::int32_t {
                if (type == SHORT)
                    return static_cast<std::int32_t>(le16(v));
                if (type != LONG)
                    fail(INVALID_TYPE);
                return static_cast<std::int32_t>(le32(v));
            };
            switch (tag) {
            case IMAGE_WIDTH:
                _width = shortOrLong();
                break;
            case IMAGE_LENGTH:
                _height = shortOrLong();
                break;
            case BITS_PER_SAMPLE:
                if (type != SHORT)
                    fail(INVALID_TYPE);
                bitsPerSample = static_cast<int>(le16(v));
                break;
            case MODEL:
                if (type != ASCII)
                    fail(INVALID_TYPE);
                // Without its terminating NUL; a count of 0 has none to drop.
                _model.assign(reinterpret_cast<const char*>(v), count ? count - 1 : 0);
                break;
            case STRIP_OFFSETS: {
                if (count == 0) {
                    _numberOfStrips = 0;
                    _stripOffsets.clear();
                    break;
                }
                if (type != SHORT && type != LONG)
                    fail(INVALID_TYPE);
                const std::uint64_t element = type == SHORT ? 2 : 4;
                if (value + element * count > size)
                    fail(INVALID_OFFSET);
                _numberOfStrips = static_cast<std::int32_t>(count);
                _stripOffsets.resize(count);
                for (std::uint32_t s = 0; s < count; ++s)
                    _stripOffsets[s] = type == SHORT ? le16(v + 2 * s) : le32(v + 4 * s);
                break;
            }
            case ROWS_PER_STRIP:
                _rowsPerStrip = shortOrLong();
                break;
            case SAMPLE_FORMAT:
                if (type != SHORT)
                    fail(INVALID_TYPE);
                sampleFormat = static_cast<int>(le16(v));
                break;
            default:
                break;
            }
        }
        const std::uint64_t next = directory + 2 + 12 * std::uint64_t(entries);
        if (next + 4 > size)
            break;
        directory = le32(bytes + next);
        if (directory == 0 || directory + 14 >= size)
            break;
    }

    if (_width < 0)
        fail("Missing image width.");
    if (_height < 0)
        fail("Missing image height.");
    if (_numberOfStrips < 0)
        fail("Missing number of strips.");
    if (_rowsPerStrip < 0)
        fail("Missing rows per strips.");
    if (bitsPerSample < 0)
        fail("Missing bits per sample.");

    if (sampleFormat < 0)
        sampleFormat = 1;
    const bool integerBits = bitsPerSample == 8 || bitsPerSample == 16 || bitsPerSample == 32 ||
                             bitsPerSample == 64;
    if (sampleFormat == 1 && integerBits)
        _dataType = datatypes::UINT;
    else if (sampleFormat == 2 && integerBits)
        _dataType = datatypes::INT;
    else if (sampleFormat == 3 && bitsPerSample == 32)
        _dataType = datatypes::FLOAT;
    else
        fail("Unsupported tif data type.");
    _typeBits = static_cast<unsigned long>(bitsPerSample);
}

void DTifReader::checkBackedByFile(std::uint64_t imageBytes) const
{
    if (imageBytes > fileData().size())
        corrupted(fileName(), INVALID_BINARY);
}

void DTifReader::readPixelData(DImage& image) const
{
    if (_width == 0 || _height == 0)
        return;
    // The element size is the image's; any of the twelve pixel kinds is a plain byte copy.
    if (!datatypes::isPixelType(image.type(), image.typeBits()))
        return;
    if (_numberOfStrips < 1)
        return;
    if (_rowsPerStrip == 0) // no rows per strip gives no strip layout at all
        corrupted(fileName(), INVALID_BINARY);

    const std::uint64_t fileSize = fileData().size();
    const std::uint64_t pixelBytes = image.typeBits() >> 3;
    const std::uint64_t imageBytes = std::uint64_t(image.size()) * pixelBytes;
    const std::uint64_t rows = static_cast<std::uint64_t>(_rowsPerStrip);
    const std::uint64_t remainder = static_cast<std::uint64_t>(_height) % rows;
    const auto strips = static_cast<std::size_t>(_numberOfStrips);

    auto stripBytes = [&](std::size_t s) {
        std::uint64_t elements = static_cast<std::uint64_t>(_width) * rows;
        if (s + 1 == strips && remainder != 0)
            elements = remainder; // the remainder alone, not times the width
        std::uint64_t count = 0;
        if (__builtin_mul_overflow(elements, pixelBytes, &count))
            corrupted(fileName(), INVALID_BINARY);
        return count;
    };

    // Every strip goes to the start of the image, each over the one before. All are
    // checked first; then only the last two can leave a trace, since the earlier ones
    // are all as long as the last but one.
    for (std::size_t s = 0; s < strips; ++s) {
        const std::uint64_t count = stripBytes(s);
        const std::int64_t offset = _stripOffsets[s];
        if (offset < 0 || count > fileSize || static_cast<std::uint64_t>(offset) > fileSize - count)
            corrupted(fileName(), INVALID_BINARY);
        // A strip longer than the image it is copied into can't belong to it.
        if (count > imageBytes)
            corrupted(fileName(), INVALID_BINARY);
    }
    for (std::size_t s = strips >= 2 ? strips - 2 : 0; s < strips; ++s) {
        const std::uint64_t count = stripBytes(s);
        if (count)
            std::memcpy(image.data(), fileData().cdata() + _stripOffsets[s], count);
    }
}

void DTifReader::readImageSpecificHeader(DImageOptionalData& optionalData) const
{
    DImageOptionalData fromFile;
    readNorvexaHeader(fromFile);
    if (!_model.empty())
        fromFile.set_description(_model);
    readDetectorNumber(fromFile);
    fromFile.override(optionalData);
}

void DTifReader::readHeaderData(DImageOptionalData& optionalData) const
{
    readNorvexaHeader(optionalData);
    if (!_model.empty())
        optionalData.set_description(_model);
    readModules(optionalData);
    readDetectorNumber(optionalData);
}

void DTifReader::readRawHeader(DImageOptionalData& optionalData) const
{
    const std::size_t length = std::min(fileData().size(), RAW_HEADER_BYTES);
    optionalData.setRawHeader(std::string(fileData().cdata(), length));
}

} // namespace imglib
} // namespace norvexa
