#include "DCbfReader.h"

#include "DMd5.h"
#include "foundation/DAssert.h"
#include "foundation/DException.h"

#include <cstdint>
#include <cstring>
#include <istream>
#include <locale>
#include <streambuf>
#include <string_view>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace norvexa {
namespace imglib {

namespace {

constexpr std::string_view MAGIC("\x0C\x1A\x04\xD5", 4);

constexpr std::string_view KEY_BINARY_SIZE = "X-Binary-Size: ";
constexpr std::string_view KEY_WIDTH = "X-Binary-Size-Fastest-Dimension: ";
constexpr std::string_view KEY_HEIGHT = "X-Binary-Size-Second-Dimension: ";
constexpr std::string_view KEY_MD5 = "Content-MD5: ";
constexpr std::string_view KEY_BYTE_OFFSET = "conversions=\"x-CBF_BYTE_OFFSET\"";
constexpr std::string_view KEY_NONE = "conversions=\"x-CBF_NONE\"";
constexpr std::string_view KEY_INT32 = "signed 32-bit integer";

constexpr const char* NO_MAGIC = "Magic number not found.";
constexpr const char* NO_BINARY_SIZE = "Binary size not found.";
constexpr const char* NO_WIDTH = "Width not found.";
constexpr const char* NO_HEIGHT = "Height not found.";
constexpr const char* NO_COMPRESSION = "No compression algorithm found.";
constexpr const char* NO_DATA_TYPE = "Data type not found or not supported.";
constexpr const char* SIZE_TOO_LARGE = "Binary size too large.";
constexpr const char* MD5_MISMATCH = "Md5 sum does not match";
constexpr const char* WRONG_DATA_TYPE = "Wrong data type";
constexpr const char* CONTENT_INVALID = "Binary content not valid";

[[noreturn]] void headerCorrupted(const char* fileName, const char* reason)
{
    throw DImageCorruptedException(std::string("Image ") + fileName + " is corrupted. " + reason);
}

[[noreturn]] void pixelsCorrupted(const std::string& fileName, const char* reason)
{
    throw DImageCorruptedException(fileName + " corrupted. " + reason);
}

// A stream over bytes in place, so that a value is parsed where it stands.
class ByteRangeBuffer : public std::streambuf {
public:
    ByteRangeBuffer(const char* begin, const char* end)
    {
        char* first = const_cast<char*>(begin); // only ever read
        setg(first, first, const_cast<char*>(end));
    }
};

// The first number or word of the text, leading white space skipped; a number that
// doesn't parse is 0, a word that isn't there is empty.
template <class T>
T firstValue(std::string_view text)
{
    ByteRangeBuffer buffer(text.data(), text.data() + text.size());
    std::istream stream(&buffer);
    stream.imbue(std::locale::classic());
    T value{};
    stream >> value;
    return value;
}

inline std::int16_t loadLe16(const unsigned char* p)
{
    std::uint16_t v;
    std::memcpy(&v, p, 2);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap16(v);
#endif
    return static_cast<std::int16_t>(v);
}

inline std::uint32_t loadLe32(const unsigned char* p)
{
    std::uint32_t v;
    std::memcpy(&v, p, 4);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap32(v);
#endif
    return v;
}

#if defined(__SSE2__)
// Sixteen one-byte differences into sixteen pixels. `running` holds the running value
// in all four lanes, before and after. The prefix sums of eight differences fit 16 bits,
// so the scan runs on eight lanes at a time and only the two totals carry in 32 bits.
inline void decodeSixteen(__m128i bytes, __m128i& running, std::int32_t* out)
{
    __m128i low = _mm_srai_epi16(_mm_unpacklo_epi8(bytes, bytes), 8);
    __m128i high = _mm_srai_epi16(_mm_unpackhi_epi8(bytes, bytes), 8);
    low = _mm_add_epi16(low, _mm_slli_si128(low, 2));
    high = _mm_add_epi16(high, _mm_slli_si128(high, 2));
    low = _mm_add_epi16(low, _mm_slli_si128(low, 4));
    high = _mm_add_epi16(high, _mm_slli_si128(high, 4));
    low = _mm_add_epi16(low, _mm_slli_si128(low, 8));
    high = _mm_add_epi16(high, _mm_slli_si128(high, 8));

    const __m128i low0 = _mm_srai_epi32(_mm_unpacklo_epi16(low, low), 16);
    const __m128i low1 = _mm_srai_epi32(_mm_unpackhi_epi16(low, low), 16);
    const __m128i high0 = _mm_srai_epi32(_mm_unpacklo_epi16(high, high), 16);
    const __m128i high1 = _mm_srai_epi32(_mm_unpackhi_epi16(high, high), 16);
    const __m128i lowTotal = _mm_shuffle_epi32(low1, 0xFF);
    const __m128i highTotal = _mm_shuffle_epi32(high1, 0xFF);

    const __m128i middle = _mm_add_epi32(running, lowTotal);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_add_epi32(running, low0));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 4), _mm_add_epi32(running, low1));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 8), _mm_add_epi32(middle, high0));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 12), _mm_add_epi32(middle, high1));
    running = _mm_add_epi32(middle, highTotal);
}
#endif

// Decodes the byte-offset block [src, end) into out[0, count). An escape is read whole
// even where the block ends inside it, up to six bytes past `end`: the caller's buffer
// has at least that many readable bytes there. False when pixels are full and bytes remain.
bool decodeByteOffset(const unsigned char* src, const unsigned char* end, std::int32_t* out,
                      std::size_t count)
{
    const unsigned char* p = src;
    std::int32_t* const outEnd = out + count;
    std::uint32_t value = 0; // wraps around as the format wants
    for (;;) {
        // Single-byte elements are decoded here until a group holds an escape byte (0x80);
        // the scalar loop below then goes on past the group's last one, so that escapes
        // that come close together cost one return here.
        const unsigned char* resume = end;
#if defined(__SSE2__)
        if (end - p >= 16 && outEnd - out >= 16) {
            const __m128i escape = _mm_set1_epi8(static_cast<char>(0x80));
            __m128i running = _mm_set1_epi32(static_cast<int>(value));
            do {
                const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
                const int mask = _mm_movemask_epi8(_mm_cmpeq_epi8(bytes, escape));
                if (mask != 0) {
                    resume = p + (31 - __builtin_clz(static_cast<unsigned>(mask)));
                    break;
                }
                decodeSixteen(bytes, running, out);
                p += 16;
                out += 16;
            } while (end - p >= 16 && outEnd - out >= 16);
            value = static_cast<std::uint32_t>(_mm_cvtsi128_si32(running));
        }
#endif
        do {
            if (out == outEnd)
                return p >= end;
            if (p >= end)
                return true;
            std::uint32_t difference = static_cast<std::uint32_t>(static_cast<std::int8_t>(*p++));
            if (difference == 0xFFFFFF80u) {
                const std::int16_t shortDifference = loadLe16(p);
                p += 2;
                if (shortDifference == 0) {
                    // 0x80 0x00 0x00 starts the values again from zero without a pixel.
                    value = 0;
                    continue;
                }
                if (shortDifference == -32768) {
                    difference = loadLe32(p);
                    p += 4;
                } else {
                    difference = static_cast<std::uint32_t>(shortDifference);
                }
            }
            value += difference;
            *out++ = static_cast<std::int32_t>(value);
        } while (p <= resume);
    }
}

// Copies whole little-endian words; the last may reach up to three bytes past the block.
// False when pixels are full and bytes remain.
bool copyWords(const unsigned char* src, std::size_t size, std::int32_t* out, std::size_t count)
{
    if (size == 0)
        return true;
    const std::size_t words = size / 4 + (size % 4 != 0);
    const std::size_t copied = words < count ? words : count;
    if (copied != 0)
        std::memcpy(out, src, copied * 4);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    for (std::size_t i = 0; i < copied; ++i)
        out[i] = static_cast<std::int32_t>(__builtin_bswap32(static_cast<std::uint32_t>(out[i])));
#endif
    return words <= count;
}

} // namespace

DCbfReader::DCbfReader(const char* fileName, int timeout) : DAbstractImageReader(fileName, timeout)
{
    _initialize(fileName);
}

DCbfReader::DCbfReader(const Data& data, const std::string& fileName)
    : DAbstractImageReader(data, fileName)
{
    _initialize(fileName.c_str());
}

DCbfReader::~DCbfReader() = default;

int DCbfReader::width() const { return _width; }

int DCbfReader::height() const { return _height; }

datatypes::Type DCbfReader::dataType() const { return _dataType; }

unsigned long DCbfReader::typeBits() const { return _typeBits; }

void DCbfReader::_initialize(const char* fileName)
{
    const Data& data = fileData();
    const std::string_view file(data.size() ? data.cdata() : "", data.size());

    const std::size_t magic = file.find(MAGIC);
    if (magic == std::string_view::npos)
        headerCorrupted(fileName, NO_MAGIC);
    _binaryOffset = magic + MAGIC.size();

    // Every key is looked for before the magic only, and its value is read from the
    // rest of that region.
    const std::string_view header = file.substr(0, magic);
    const auto behind = [&header](std::string_view key) {
        const std::size_t at = header.find(key);
        return at == std::string_view::npos ? std::string_view::npos : at + key.size();
    };

    std::size_t at = behind(KEY_BINARY_SIZE);
    if (at == std::string_view::npos)
        headerCorrupted(fileName, NO_BINARY_SIZE);
    _binarySize = firstValue<unsigned long>(header.substr(at));

    at = behind(KEY_WIDTH);
    if (at == std::string_view::npos)
        headerCorrupted(fileName, NO_WIDTH);
    _width = firstValue<int>(header.substr(at));

    at = behind(KEY_HEIGHT);
    if (at == std::string_view::npos)
        headerCorrupted(fileName, NO_HEIGHT);
    _height = firstValue<int>(header.substr(at));

    at = behind(KEY_MD5);
    if (at != std::string_view::npos)
        _md5Sum = firstValue<std::string>(header.substr(at));

    if (header.find(KEY_BYTE_OFFSET) != std::string_view::npos)
        _compression = BYTE_OFFSET;
    else if (header.find(KEY_NONE) != std::string_view::npos)
        _compression = NONE;
    else
        headerCorrupted(fileName, NO_COMPRESSION);

    if (header.find(KEY_INT32) == std::string_view::npos)
        headerCorrupted(fileName, NO_DATA_TYPE);
    _dataType = datatypes::INT;
    _typeBits = 32;
}

void DCbfReader::readPixelData(DImage& image) const
{
    const Data& data = fileData();
    // The magic lies inside the file, so the offset never passes its size.
    if (_binarySize > data.size() - _binaryOffset)
        pixelsCorrupted(fileName(), SIZE_TOO_LARGE);
    const auto* block = reinterpret_cast<const unsigned char*>(data.cdata()) + _binaryOffset;

    if (!_md5Sum.empty()) {
        DMd5 md5;
        md5.hash(block, _binarySize);
        if (md5.toBase64() != _md5Sum)
            pixelsCorrupted(fileName(), MD5_MISMATCH);
    }

    if (dataType() != datatypes::INT || typeBits() != 32)
        pixelsCorrupted(fileName(), WRONG_DATA_TYPE);

    // The decoders write image.size() 32-bit pixels; narrower pixels would overflow.
    NORVEXA_ASSERT(image.typeBits() == 32, "DCbfReader::readPixelData");
    auto* pixels = reinterpret_cast<std::int32_t*>(image.data());
    const bool complete = _compression == BYTE_OFFSET
                              ? decodeByteOffset(block, block + _binarySize, pixels, image.size())
                              : copyWords(block, _binarySize, pixels, image.size());
    if (!complete)
        pixelsCorrupted(fileName(), CONTENT_INVALID);
}

void DCbfReader::readHeaderData(DImageOptionalData& optionalData) const
{
    readNorvexaHeader(optionalData);
    readModules(optionalData);
    readDetectorNumber(optionalData);
}

void DCbfReader::readRawHeader(DImageOptionalData& optionalData) const
{
    optionalData.setRawHeader(std::string(fileData().cdata(), _binaryOffset));
}

void DCbfReader::readImageSpecificHeader(DImageOptionalData& optionalData) const
{
    DImageOptionalData fromFile;
    readNorvexaHeader(fromFile);
    readDetectorNumber(fromFile);
    readRawHeader(fromFile);
    fromFile.override(optionalData);
}

} // namespace imglib
} // namespace norvexa
