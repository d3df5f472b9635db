#include "DEdfReader.h"

#include "foundation/DException.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <locale>
#include <sstream>

namespace norvexa {
namespace imglib {

namespace {

const char* const HEADER_CORRUPTED = "DEdfReader: Header corrupted";
const char* const LOW_BYTE_FIRST = "LowByteFirst";
const char* const HIGH_BYTE_FIRST = "HighByteFirst";

// The accepted names of the one pixel type read.
const char signedIntTypes[][64] = {"SignedInteger", "Signed32", "SignedLong"};

[[noreturn]] void corrupted(const char* text) { throw DImageCorruptedException(text); }

inline char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

template <class T>
void extract(std::istringstream& in, T& value)
{
    T read{};
    if (!(in >> read))
        corrupted(HEADER_CORRUPTED);
    value = read;
}

// A string value's words, each behind a single blank.
void extract(std::istringstream& in, std::string& value)
{
    std::string word;
    if (!(in >> word))
        corrupted(HEADER_CORRUPTED);
    std::string joined = word;
    while (in >> word)
        joined += " " + word;
    value = joined;
}

/// The value of the first "keyword = value ;" in the text, the keyword found in any case
/// and also at the end of a longer key. False, with `value` untouched, when the keyword
/// isn't there; "DEdfReader: Header corrupted" when it is there without a readable value.
template <class T>
bool getKeyword(const char* text, unsigned long long length, const std::string& keyword, T& value)
{
    const unsigned long long keyLength = keyword.size();
    if (keyLength > length)
        return false;
    unsigned long long match = length;
    for (unsigned long long i = 0; i + keyLength <= length && match == length; ++i) {
        unsigned long long k = 0;
        while (k < keyLength && lower(text[i + k]) == lower(keyword[k]))
            ++k;
        if (k == keyLength)
            match = i;
    }
    if (match == length)
        return false;

    const char* end = text + length;
    const char* behind = text + match + keyLength;
    if (behind == end)
        corrupted(HEADER_CORRUPTED);
    const char* equals = std::find(behind, end, '=');
    if (equals == end)
        corrupted(HEADER_CORRUPTED);
    const char* semicolon = std::find(equals + 1, end, ';');
    if (semicolon == end)
        corrupted(HEADER_CORRUPTED);
    const std::string valueText(equals + 1, semicolon);
    if (valueText.find('=') != std::string::npos) // a semicolon is missing
        corrupted(HEADER_CORRUPTED);

    std::istringstream in(valueText);
    in.imbue(std::locale::classic());
    extract(in, value);
    return true;
}

// The header's lines, each up to and including its first ";", each ending in a line feed.
// The lines come through a buffer as long as the header, so a header without any line
// feed doesn't fit and gives no text at all.
std::string cleanHeader(const char* begin, const char* end)
{
    std::string text;
    if (std::find(begin, end, '\n') == end)
        return text;
    for (const char* line = begin; line < end;) {
        const char* lineEnd = std::find(line, end, '\n');
        const char* semicolon = std::find(line, lineEnd, ';');
        text.append(line, semicolon == lineEnd ? lineEnd : semicolon + 1);
        text += '\n';
        line = lineEnd == end ? end : lineEnd + 1;
    }
    return text;
}

} // namespace

DEdfReader::DEdfReader(const char* fileName, int timeout) : DAbstractImageReader(fileName, timeout)
{
    _initialize();
}

DEdfReader::DEdfReader(const Data& data, const std::string& fileName)
    : DAbstractImageReader(data, fileName)
{
    _initialize();
}

DEdfReader::~DEdfReader() = default;

void DEdfReader::_initialize()
{
    const char* bytes = fileData().cdata();
    const std::uint64_t size = fileData().size();

    const char* open = size ? static_cast<const char*>(std::memchr(bytes, '{', size)) : nullptr;
    const char* close = open ? static_cast<const char*>(std::memchr(open + 1, '}', bytes + size - open - 1))
                             : nullptr;
    if (!open || !close)
        corrupted("DEdfReader: Missing header");
    _headerStart = static_cast<std::uint64_t>(open - bytes);
    _headerEnd = static_cast<std::uint64_t>(close - bytes);
    _header = cleanHeader(open, close);
    const char* header = _header.data();
    const unsigned long long length = _header.size();

    _byteOrder = LOW_BYTE_FIRST;
    getKeyword(header, length, "ByteOrder", _byteOrder);
    if (_byteOrder != LOW_BYTE_FIRST && _byteOrder != HIGH_BYTE_FIRST)
        corrupted("DEdfReader: Undefined byte order");

    if (!getKeyword(header, length, "DataType", _dataType))
        corrupted("DEdfReader: Missing data type (DataType)");
    // Every image is read as INT 32 whatever the name, but a name of another type means
    // the pixels are something else.
    if (std::none_of(std::begin(signedIntTypes), std::end(signedIntTypes),
                     [this](const char* name) { return _dataType == name; }))
        corrupted(HEADER_CORRUPTED);

    if (!getKeyword(header, length, "Dim_1", _width))
        corrupted("DEdfReader: Missing width (Dim_1)");
    if (!getKeyword(header, length, "Dim_2", _height))
        corrupted("DEdfReader: Missing height (Dim_2)");
    if (!getKeyword(header, length, "Size", _dataSize))
        corrupted("DEdfReader: Missing data size (Size)");
    // In 64 bits: a product that overflows an int, or a negative extent, matches no size.
    const std::int64_t pixels = std::int64_t(_width) * _height;
    if (_width < 0 || _height < 0 || pixels > INT32_MAX / 4 || pixels * 4 != _dataSize)
        corrupted("DEdfReader: Inconsistent image dimensions");

    // The pixels begin behind the "}" and one line feed. The pointer may stand one byte
    // past the file's end, in the zero padding behind it, when the size is 0.
    const std::uint64_t first = _headerEnd + 2;
    _data = bytes + first;
    const std::uint64_t available = first <= size ? size - first : 0;
    if (available < static_cast<std::uint64_t>(_dataSize))
        corrupted("DEdfReader: Image size larger than file size");
}

void DEdfReader::readPixelData(DImage& image) const
{
    char* out = image.data();
    const std::uint64_t imageBytes = std::uint64_t(image.size()) * image.dataSize();
    if (_byteOrder == LOW_BYTE_FIRST) {
        const std::uint64_t n = std::min<std::uint64_t>(static_cast<std::uint64_t>(_dataSize), imageBytes);
        if (n)
            std::memcpy(out, _data, n);
        return;
    }
    // One byte per pixel, sign-extended, its four bytes reversed; the source advances by
    // one byte. Only "LowByteFirst" files read as what they hold.
    const std::int64_t pixels = std::int64_t(_width) * _height;
    for (std::int64_t i = 0; i < pixels && std::uint64_t(i + 1) * 4 <= imageBytes; ++i) {
        const auto widened = static_cast<std::uint32_t>(static_cast<std::int32_t>(static_cast<signed char>(_data[i])));
        const std::uint32_t reversed = __builtin_bswap32(widened);
        std::memcpy(out + 4 * i, &reversed, 4);
    }
}

void DEdfReader::_readDateAndCountTime(DImageOptionalData& optionalData) const
{
    std::string date;
    if (getKeyword(_header.data(), _header.size(), "Date", date))
        optionalData.set_data_collection_date(date);
    float countTime = 0;
    if (getKeyword(_header.data(), _header.size(), "count_time", countTime))
        optionalData.set_count_time(countTime);
}

void DEdfReader::readImageSpecificHeader(DImageOptionalData& optionalData) const
{
    DImageOptionalData fromFile;
    _readDateAndCountTime(fromFile);
    fromFile.override(optionalData);
}

void DEdfReader::readHeaderData(DImageOptionalData& optionalData) const
{
    _readDateAndCountTime(optionalData);
    readModules(optionalData);
}

void DEdfReader::readRawHeader(DImageOptionalData& optionalData) const
{
    optionalData.setRawHeader(
        std::string(fileData().cdata() + _headerStart, fileData().cdata() + _headerEnd));
}

} // namespace imglib
} // namespace norvexa
