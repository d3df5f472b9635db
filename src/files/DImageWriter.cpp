#include "DImageWriter.h"

#include "DAbstractImageReader.h"
#include "DImage.h"
#include "DMd5.h"
#include "foundation/DAssert.h"
#include "foundation/DException.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <locale>
#include <memory>
#include <sstream>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace norvexa {
namespace imglib {

namespace detail {

std::size_t byteOffsetEncode(const std::int32_t* pixels, std::size_t count,
                             unsigned char* out) noexcept
{
    // At most count / 4 pixels of 7 bytes and the rest of at most 3 bytes fill 4 * count
    // bytes: giving up at the first 7-byte form beyond that bound keeps every write inside
    // the buffer without a test per byte.
    const std::size_t longFormLimit = count / 4;
    std::size_t longForms = 0;
    unsigned char* const begin = out;
    std::uint32_t previous = 0;

    // One pixel in the byte-offset form. The difference -2147483648 has no positive
    // magnitude and goes out as one byte (0x00), as the format has always been written.
    auto encodeOne = [&](std::uint32_t value) -> bool {
        const std::uint32_t d = value - previous;
        previous = value;
        if (d + 127u <= 254u || d == 0x80000000u) {
            *out++ = static_cast<unsigned char>(d);
        } else if (d + 32767u <= 65534u) {
            out[0] = 0x80;
            out[1] = static_cast<unsigned char>(d);
            out[2] = static_cast<unsigned char>(d >> 8);
            out += 3;
        } else {
            if (++longForms > longFormLimit)
                return false;
            out[0] = 0x80;
            out[1] = 0x00;
            out[2] = 0x80;
            out[3] = static_cast<unsigned char>(d);
            out[4] = static_cast<unsigned char>(d >> 8);
            out[5] = static_cast<unsigned char>(d >> 16);
            out[6] = static_cast<unsigned char>(d >> 24);
            out += 7;
        }
        return true;
    };

    if (count == 0)
        return 0;
    if (!encodeOne(static_cast<std::uint32_t>(pixels[0])))
        return kByteOffsetGivenUp;
    std::size_t i = 1; // the vector loop reads the pixel before each block

#ifdef __SSE2__
    // Detector frames are mostly small differences: 16 pixels whose differences all fit
    // one byte are packed at once; any other block goes through the scalar form.
    const __m128i high = _mm_set1_epi32(127);
    const __m128i low = _mm_set1_epi32(-127);
    for (; i + 16 <= count; i += 16) {
        const auto* p = reinterpret_cast<const __m128i*>(pixels + i);
        const auto* q = reinterpret_cast<const __m128i*>(pixels + i - 1);
        const __m128i d0 = _mm_sub_epi32(_mm_loadu_si128(p), _mm_loadu_si128(q));
        const __m128i d1 = _mm_sub_epi32(_mm_loadu_si128(p + 1), _mm_loadu_si128(q + 1));
        const __m128i d2 = _mm_sub_epi32(_mm_loadu_si128(p + 2), _mm_loadu_si128(q + 2));
        const __m128i d3 = _mm_sub_epi32(_mm_loadu_si128(p + 3), _mm_loadu_si128(q + 3));
        const __m128i outside = _mm_or_si128(
            _mm_or_si128(_mm_or_si128(_mm_cmpgt_epi32(d0, high), _mm_cmplt_epi32(d0, low)),
                         _mm_or_si128(_mm_cmpgt_epi32(d1, high), _mm_cmplt_epi32(d1, low))),
            _mm_or_si128(_mm_or_si128(_mm_cmpgt_epi32(d2, high), _mm_cmplt_epi32(d2, low)),
                         _mm_or_si128(_mm_cmpgt_epi32(d3, high), _mm_cmplt_epi32(d3, low))));
        if (_mm_movemask_epi8(outside) == 0) {
            const __m128i bytes = _mm_packs_epi16(_mm_packs_epi32(d0, d1), _mm_packs_epi32(d2, d3));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out), bytes);
            out += 16;
            previous = static_cast<std::uint32_t>(pixels[i + 15]);
        } else {
            for (std::size_t k = i; k < i + 16; ++k)
                if (!encodeOne(static_cast<std::uint32_t>(pixels[k])))
                    return kByteOffsetGivenUp;
        }
    }
#endif
    for (; i < count; ++i)
        if (!encodeOne(static_cast<std::uint32_t>(pixels[i])))
            return kByteOffsetGivenUp;
    return static_cast<std::size_t>(out - begin);
}

} // namespace detail

namespace {

using boost::none;

constexpr std::size_t kTifHeaderSize = 4096;
constexpr std::size_t kCbfPadding = 4095;
// The Model text is cut so that it and the three values behind it stay inside the TIFF
// header: align4(184 + length + 1) + 8 + 8 + 7 <= 4096.
constexpr std::size_t kMaxModelLength = 3887;

constexpr unsigned char kZeros[kCbfPadding] = {};
constexpr char kCbfFooter[] = "\r\n--CIF-BINARY-FORMAT-SECTION----\r\n;\r\n\r\n";

// White space and printable characters of the classic locale, whatever the global one is.
bool isWhite(unsigned char c) { return c == ' ' || (c >= 9 && c <= 13); }
bool isPrintable(unsigned char c) { return c >= 32 && c <= 126; }

bool startWithKeyword(const std::string& line, const std::string& keyword)
{
    if (line.size() < 2 || line[0] != '#' || !isWhite(static_cast<unsigned char>(line[1])))
        return false;
    std::size_t i = 1;
    while (i < line.size() && isWhite(static_cast<unsigned char>(line[i])))
        ++i;
    return line.size() - i >= keyword.size() && line.compare(i, keyword.size(), keyword) == 0;
}

// "# Silicon sensor, thickness 0.000320 m" and lines like it. The walk over the material
// word stops at an index (not a character) in 9..13 or 32, so "sensor" is recognised only
// where it begins at index 9 or behind white space that begins there: files in the field
// rely on exactly this recognition.
bool isSensorLine(const std::string& line)
{
    if (line.size() < 2 || line[0] != '#' || !isWhite(static_cast<unsigned char>(line[1])))
        return false;
    std::size_t i = 2;
    while (i < line.size() && isWhite(static_cast<unsigned char>(line[i])))
        ++i;
    while (i < line.size() && !(i >= 9 && i <= 13) && i != 32 &&
           isPrintable(static_cast<unsigned char>(line[i])))
        ++i;
    while (i < line.size() && isWhite(static_cast<unsigned char>(line[i])))
        ++i;
    if (line.size() - i < 6)
        return false;
    static const char sensor[] = "sensor";
    for (std::size_t k = 0; k < 6; ++k) {
        const auto c = static_cast<unsigned char>(line[i + k]);
        const char lower = static_cast<char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
        if (lower != sensor[k])
            return false;
    }
    return true;
}

// A threshold in whole eV: the float plus 0.5, rounded down; out-of-range values saturate
// and NaN gives 0 instead of an undefined conversion.
int thresholdEv(float value)
{
    const double rounded = std::floor(static_cast<double>(value) + 0.5);
    if (!(rounded == rounded))
        return 0;
    if (rounded <= std::numeric_limits<int>::min())
        return std::numeric_limits<int>::min();
    if (rounded >= std::numeric_limits<int>::max())
        return std::numeric_limits<int>::max();
    return static_cast<int>(rounded);
}

using D = DImageOptionalData;

// "# <keyword> <value><unit>\r\n" when the item is present; the item is then cleared so
// that its line is written only once.
template <class Value, boost::optional<Value> (D::*get)() const,
          void (D::*set)(boost::optional<Value>)>
bool takeItem(std::ostream& out, D& data, const char* keyword, const char* unit)
{
    const boost::optional<Value> value = (data.*get)();
    if (!value)
        return false;
    out << "# " << keyword << ' ' << *value << unit << "\r\n";
    (data.*set)(none);
    return true;
}

bool takeThreshold(std::ostream& out, D& data, const char* keyword, const char* unit)
{
    const auto value = data.threshold_energy();
    if (!value)
        return false;
    out << "# " << keyword << ' ' << thresholdEv(*value) << unit << "\r\n";
    data.set_threshold_energy(none);
    return true;
}

bool takeBeamXy(std::ostream& out, D& data, const char* keyword, const char* unit)
{
    const auto x = data.beam_center_x();
    const auto y = data.beam_center_y();
    if (!x || !y)
        return false;
    out << "# " << keyword << " ( " << *x << ", " << *y << ")" << unit << "\r\n";
    data.set_beam_center_x(none);
    data.set_beam_center_y(none);
    return true;
}

struct KeywordLine {
    const char* keyword;
    const char* unit;
    bool (*take)(std::ostream&, D&, const char* keyword, const char* unit);
};

// The items with a keyword line, in the order the raw header's lines are tested.
const KeywordLine kKeywordLines[] = {
    {"Start_angle", " deg", takeItem<float, &D::rotation_angle, &D::set_rotation_angle>},
    {"Angle_increment", " deg",
     takeItem<float, &D::rotation_angle_step, &D::set_rotation_angle_step>},
    {"Exposure_time", " s", takeItem<float, &D::count_time, &D::set_count_time>},
    {"Exposure_period", " s", takeItem<float, &D::frame_time, &D::set_frame_time>},
    {"Count_cutoff", " counts", takeItem<int, &D::saturation_value, &D::set_saturation_value>},
    {"Threshold_setting", " eV", takeThreshold},
    {"N_excluded_pixels", " ",
     takeItem<int, &D::number_of_excluded_pixels, &D::set_number_of_excluded_pixels>},
    {"Gain_setting", " ", takeItem<std::string, &D::gain_setting, &D::set_gain_setting>},
    {"Beam_xy", " pixels", takeBeamXy},
    {"Wavelength", " A", takeItem<float, &D::wavelength, &D::set_wavelength>},
    {"Detector_distance", " m", takeItem<float, &D::detector_distance, &D::set_detector_distance>},
    {"Filter_transmission", " ",
     takeItem<float, &D::filter_transmission, &D::set_filter_transmission>},
};
// Phase 2 writes the gain before the excluded pixels, unlike phase 1.
constexpr int kPhase2Order[] = {0, 1, 2, 3, 4, 5, 7, 6, 8, 9, 10, 11};

bool takeLine(std::ostream& out, D& data, const KeywordLine& line)
{
    return line.take(out, data, line.keyword, line.unit);
}

bool takeDetectorLine(std::ostream& out, DImageOptionalData& data)
{
    const auto description = data.description();
    if (!description)
        return false;
    out << "# Detector: " << *description;
    // The number travels in the Detector line only when the description lacks it.
    if (const auto number = data.detector_number())
        if (description->find(*number) == std::string::npos)
            out << ", " << *number;
    out << " \r\n";
    data.set_description(none);
    return true;
}

bool takeDateLine(std::ostream& out, DImageOptionalData& data)
{
    const auto date = data.data_collection_date();
    if (!date)
        return false;
    out << *date << "\r\n"; // the date stands alone, without "# " in front
    data.set_data_collection_date(none);
    return true;
}

bool takeSensorLine(std::ostream& out, DImageOptionalData& data)
{
    const auto material = data.sensor_material();
    const auto thickness = data.sensor_thickness();
    if (!material && !thickness)
        return false;
    const std::string name = !material || *material == "Si" ? std::string("Silicon") : *material;
    out << "# " << name << " sensor, thickness "
        << static_cast<double>(thickness ? *thickness : 0.0f) << " m\r\n";
    data.set_sensor_material(none);
    data.set_sensor_thickness(none);
    return true;
}

// The "#" text header: the raw header's "# " lines with the known ones replaced where they
// stand (phase 1), then what the metadata has that no line took (phase 2). Each field is
// cleared once written, which is why the metadata comes by value.
std::string setNorvexaHeader(DImageOptionalData data)
{
    std::ostringstream out;
    out.imbue(std::locale::classic()); // "0.1", never "0,1", whatever the global locale

    if (const auto rawHeader = data.rawHeader()) {
        std::istringstream lines(*rawHeader);
        char buffer[1024];
        bool afterDetectorLine = false;
        // A line of 1024 characters or more fails getline and ends the phase.
        while (lines.getline(buffer, sizeof buffer)) {
            const std::size_t length =
                static_cast<std::size_t>(lines.gcount()) - (lines.eof() ? 0 : 1);
            const std::string line(buffer, length);
            // CIF and MIME lines and the binary bytes of a raw header go.
            if (line.size() < 2 || line[0] != '#' || line[1] != ' ')
                continue;
            const bool lineAfterDetector = afterDetectorLine;
            afterDetectorLine = false;

            if (data.description() && startWithKeyword(line, "Detector")) {
                takeDetectorLine(out, data);
                afterDetectorLine = true;
                continue;
            }
            // The new date goes right behind the new Detector line, and the line that held
            // the old one still goes on to the tests below (and usually stays).
            if (lineAfterDetector && data.data_collection_date() &&
                utils::findDate(line.data(), line.size()))
                takeDateLine(out, data);

            if (std::any_of(std::begin(kKeywordLines), std::end(kKeywordLines), [&](const auto& k) {
                    return startWithKeyword(line, k.keyword) && takeLine(out, data, k);
                }))
                continue;
            if ((data.sensor_material() || data.sensor_thickness()) && isSensorLine(line)) {
                takeSensorLine(out, data);
                continue;
            }
            out << line << '\n'; // a carriage return at its end stays
        }
    }

    takeDetectorLine(out, data);
    takeDateLine(out, data);
    for (const int index : kPhase2Order)
        takeLine(out, data, kKeywordLines[index]);
    takeSensorLine(out, data);
    return out.str();
}

void put16(char* at, unsigned value)
{
    at[0] = static_cast<char>(value);
    at[1] = static_cast<char>(value >> 8);
}

void put32(char* at, std::uint32_t value)
{
    put16(at, value & 0xffff);
    put16(at + 2, value >> 16);
}

std::size_t align4(std::size_t position) { return (position + 3) & ~std::size_t(3); }

// A little-endian TIFF header of 4096 bytes for pixels that begin at byte 4096: 14
// directory entries, their out-of-line values from byte 184, then the text header when
// it fits before byte 4096.
template <class Image>
void tifHeader(char* buffer, const Image& image, DImageWriter::Format outFormat)
{
    NORVEXA_ASSERT(outFormat == DImageWriter::TIF_INT || outFormat == DImageWriter::TIF_FLOAT,
                   "tifHeader");
    enum : unsigned { ASCII = 2, SHORT = 3, LONG = 4, RATIONAL = 5 };

    std::memset(buffer, 0, kTifHeaderSize);
    std::memcpy(buffer, "II", 2);
    put16(buffer + 2, 42);
    put32(buffer + 4, 8);
    put16(buffer + 8, 14);

    char* entry = buffer + 10;
    std::size_t free = 182;
    auto addEntry = [&](unsigned tag, unsigned type, std::uint32_t count, std::uint32_t value) {
        put16(entry, tag);
        put16(entry + 2, type);
        put32(entry + 4, count);
        put32(entry + 8, value);
        entry += 12;
    };
    // A value that doesn't go into the entry: copied to the free position, whose offset the
    // entry holds. The position is aligned after every entry, used or not.
    auto placeValue = [&](const void* bytes, std::size_t size) {
        const auto offset = static_cast<std::uint32_t>(free);
        std::memcpy(buffer + free, bytes, size);
        free += size;
        return offset;
    };
    auto next = [&] { free = align4(free); };

    const auto width = static_cast<std::uint32_t>(image.width());
    const auto height = static_cast<std::uint32_t>(image.height());
    std::string model = image.optionalData().description().value_or(std::string());
    if (model.size() > kMaxModelLength)
        model.resize(kMaxModelLength);
    const char rational[8] = {1, 0, 0, 0, 1, 0, 0, 0};

    addEntry(256, SHORT, 1, width & 0xffff);
    next();
    addEntry(257, SHORT, 1, height & 0xffff);
    next();
    addEntry(258, SHORT, 1, 32);
    next();
    addEntry(259, SHORT, 1, 1);
    next();
    addEntry(262, SHORT, 1, 0);
    next();
    const auto modelCount = static_cast<std::uint32_t>(model.size() + 1);
    if (model.size() < 2) {
        addEntry(272, ASCII, modelCount, 0);
        std::memcpy(entry - 4, model.c_str(), modelCount); // the text and its NUL in the entry
    } else {
        addEntry(272, ASCII, modelCount, placeValue(model.c_str(), modelCount));
    }
    next();
    addEntry(273, SHORT, 1, static_cast<std::uint32_t>(kTifHeaderSize));
    next();
    addEntry(278, SHORT, 1, height & 0xffff);
    next();
    addEntry(279, LONG, 1, width * height * 4u);
    next();
    addEntry(282, RATIONAL, 1, placeValue(rational, sizeof rational));
    next();
    addEntry(283, RATIONAL, 1, placeValue(rational, sizeof rational));
    next();
    addEntry(296, SHORT, 1, 1);
    next();
    addEntry(305, ASCII, 7, placeValue("FENWIK", 7));
    next();
    // Both halves of the field carry the sample format.
    addEntry(339, SHORT, 1, outFormat == DImageWriter::TIF_INT ? 0x00020002u : 0x00030003u);
    next();
    put32(buffer + 178, 0);

    const std::string header = setNorvexaHeader(image.optionalData());
    if (header.size() + free <= kTifHeaderSize)
        std::memcpy(buffer + free, header.data(), header.size());
}

// "data_" and the file's name without its directory and its ending.
std::string dataBlockName(const std::string& fileName)
{
    std::string name = fileName.substr(fileName.find_last_of('/') + 1);
    const auto dot = name.find_last_of('.');
    if (dot != std::string::npos)
        name.erase(dot);
    return "data_" + name;
}

std::string cbfHeader(const std::string& dataBlock, const std::string& textHeader, bool compressed,
                      std::size_t binarySize, const std::string& digest, std::size_t width,
                      std::size_t height)
{
    std::string header;
    header.reserve(1024 + textHeader.size());
    auto line = [&](const std::string& text) { header.append(text).append("\r\n"); };
    line("###CBF: VERSION 1.5, CBFlib v0.7.8 - SLS/NORVEXA BRENNIK detectors");
    line("");
    line(dataBlock);
    line("");
    line("_array_data.header_convention \"SLS_1.0\"");
    line("_array_data.header_contents");
    line(";");
    line(textHeader + ";");
    line("");
    line("_array_data.data");
    line(";");
    line("--CIF-BINARY-FORMAT-SECTION--");
    line("Content-Type: application/octet-stream;");
    line(std::string("     conversions=\"") + (compressed ? "x-CBF_BYTE_OFFSET" : "x-CBF_NONE") +
         "\"");
    line("Content-Transfer-Encoding: BINARY");
    line("X-Binary-Size: " + std::to_string(binarySize));
    line("X-Binary-ID: 1");
    line("X-Binary-Element-Type: \"signed 32-bit integer\"");
    line("X-Binary-Element-Byte-Order: LITTLE_ENDIAN");
    line("Content-MD5: " + digest);
    line("X-Binary-Number-of-Elements: " + std::to_string(width * height));
    line("X-Binary-Size-Fastest-Dimension: " + std::to_string(width));
    line("X-Binary-Size-Second-Dimension: " + std::to_string(height));
    line("X-Binary-Size-Padding: 4095");
    line("");
    header.append("\x0c\x1a\x04\xd5", 4);
    return header;
}

void writeCbf(std::ofstream& file, const DImage& image, const std::string& fileName)
{
    // An INT 32 image is used as it stands: the conversion would only copy it.
    DImage converted;
    const DImage* source = &image;
    if (image.type() != datatypes::INT || image.typeBits() != 32) {
        converted = image.asType<int>();
        source = &converted;
    }
    const std::size_t count = source->size();
    const auto* pixels = reinterpret_cast<const std::int32_t*>(source->cdata());

    // Room for the worst case the encoder allows; only the pages that the compressed stream
    // reaches are ever touched. The padding is written from a block of zeros.
    std::unique_ptr<unsigned char[]> buffer(new unsigned char[4 * count]);
    const unsigned char* block = buffer.get();
    std::size_t size = count ? detail::byteOffsetEncode(pixels, count, buffer.get()) : 0;
    const bool compressed = size != detail::kByteOffsetGivenUp;
    if (!compressed) {
        block = reinterpret_cast<const unsigned char*>(pixels); // the pixels as they stand
        size = 4 * count;
    }

    DMd5 md5;
    md5.hash(block, size);
    const std::string header =
        cbfHeader(dataBlockName(fileName), setNorvexaHeader(source->optionalData()), compressed,
                  size, md5.toBase64(), static_cast<std::size_t>(source->width()),
                  static_cast<std::size_t>(source->height()));

    file.write(header.data(), static_cast<std::streamsize>(header.size()));
    file.write(reinterpret_cast<const char*>(block), static_cast<std::streamsize>(size));
    file.write(reinterpret_cast<const char*>(kZeros), kCbfPadding);
    file.write(kCbfFooter, sizeof kCbfFooter - 1);
}

template <class T>
void writeTif(std::ofstream& file, const DImage& image, DImageWriter::Format outFormat)
{
    std::array<char, kTifHeaderSize> header;
    tifHeader(header.data(), image, outFormat);
    file.write(header.data(), header.size());

    const auto bytes = static_cast<std::streamsize>(image.size() * 4);
    if (image.type() == datatypes::PixelTraits<T>::type && image.typeBits() == 32) {
        file.write(image.cdata(), bytes);
    } else {
        const DImage converted = image.asType<T>();
        file.write(converted.cdata(), bytes);
    }
}

} // namespace

DImageWriter::DImageWriter() = default;

DImageWriter::DImageWriter(const std::string& fileName, Format format) : _format(format)
{
    setFileName(fileName);
}

void DImageWriter::setFileName(const std::string& fileName)
{
    _fileName = fileName;
    if (_format != NONE)
        return;
    const auto dot = fileName.find_last_of('.');
    if (dot == std::string::npos)
        return;
    const std::string ending = fileName.substr(dot);
    if (ending == ".cbf")
        _format = CBF;
    else if (ending == ".tif")
        _format = TIF;
}

void DImageWriter::write(const DImage& image) const
{
    if (_format == NONE)
        throw DUnknownFormatException("DImageWriter: File format is NONE");
    std::ofstream file(_fileName, std::ios::binary | std::ios::trunc);
    if (!file)
        throw DNoFileAccessException("No write access to " + _fileName);

    const datatypes::Type type = image.type();
    switch (_format) {
    case CBF:
        writeCbf(file, image, _fileName);
        break;
    case TIF_INT:
        writeTif<int>(file, image, TIF_INT);
        break;
    case TIF:
        if (type == datatypes::INT || type == datatypes::UINT)
            writeTif<int>(file, image, TIF_INT);
        else if (type == datatypes::FLOAT)
            writeTif<float>(file, image, TIF_FLOAT);
        // Any other pixel type leaves the empty file.
        break;
    case TIF_FLOAT:
        // Unsigned images go out as integers even when floats were asked for.
        if (type == datatypes::UINT)
            writeTif<int>(file, image, TIF_INT);
        else
            writeTif<float>(file, image, TIF_FLOAT);
        break;
    case NONE:
        break;
    }
}

void DImageWriter::write(const DImage& image, const std::string& fileName, Format format)
{
    DImageWriter writer;
    writer.setFormat(format);
    writer.setFileName(fileName);
    writer.write(image);
}

} // namespace imglib
} // namespace norvexa
