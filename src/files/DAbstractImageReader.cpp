#include "DAbstractImageReader.h"

#include "DDetector.h"
#include "foundation/DException.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <locale>
#include <sstream>
#include <sys/stat.h>

namespace norvexa {
namespace imglib {

namespace {

constexpr std::size_t kHeaderBytes = 4096;

bool isDelimiter(char c)
{
    return c == ' ' || c == ',' || c == ':' || c == '=' || c == '(' || c == ')';
}

/// Where the keyword's value begins in a "#" line, or 0 when the line does not carry
/// the keyword. Delimiters (space , : = ( )) may stand after "#" and around the keyword;
/// the keyword must be followed by one, so that "Detector" does not take a
/// "Detector_distance" line.
std::size_t cbfKeyword(const std::string& line, const std::string& keyword)
{
    if (line.size() < keyword.size() + 4 || line[0] != '#')
        return 0;
    std::size_t k = 1;
    while (k < line.size() && isDelimiter(line[k]))
        ++k;
    std::size_t i = 0;
    for (; i < keyword.size() && k + i < line.size(); ++i)
        if (line[k + i] != keyword[i])
            return 0;
    std::size_t end = k + i;
    if (i < keyword.size() || end == line.size())
        return 0;
    if (!isDelimiter(line[end]))
        return 0;
    while (end < line.size() && isDelimiter(line[end]))
        ++end;
    return end;
}

std::istringstream valueStream(const std::string& text)
{
    std::istringstream stream(text);
    stream.imbue(std::locale::classic());
    return stream;
}

/// The first number of type T in the stream: characters that don't start one are
/// dropped one by one, so that units and decoration may stand anywhere around it.
template <class T>
boost::optional<T> extractNumber(std::istream& stream)
{
    for (;;) {
        T value;
        if (stream >> value)
            return value;
        if (stream.rdstate() != std::ios::failbit)
            return boost::none;
        stream.clear();
        stream.ignore(1);
    }
}

/// The rest of the line as text, cleaned of leading white space and one trailing
/// carriage return; unchanged when its first word is empty or "nil".
std::istream& operator>>(std::istream& stream, boost::optional<std::string>& value)
{
    char buffer[1025] = {};
    stream.get(buffer, 1024, '\n');
    std::string text(buffer);
    const std::size_t first = text.find_first_not_of(" \t\n\v\f\r");
    text = first == std::string::npos ? std::string() : text.substr(first);
    if (!text.empty() && text.back() == '\r')
        text.pop_back();
    std::istringstream words(text);
    std::string word;
    words >> word;
    if (!word.empty() && word != "nil")
        value = text;
    return stream;
}

template <class T>
boost::optional<T> numberAt(const std::string& line, std::size_t position)
{
    std::istringstream stream = valueStream(position < line.size() ? line.substr(position) : std::string());
    return extractNumber<T>(stream);
}

boost::optional<std::string> textAt(const std::string& line, std::size_t position)
{
    std::istringstream stream = valueStream(line.substr(position));
    boost::optional<std::string> text;
    stream >> text;
    return text;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isDateSeparator(char c) { return c == '-' || c == '/'; }

bool isMonth(const char* t)
{
    static const char* const kMonths[] = {"jan/", "feb/", "mar/", "apr/", "may/", "jun/",
                                          "jul/", "aug/", "sep/", "oct/", "nov/", "dec/"};
    char lower[4];
    for (int k = 0; k < 4; ++k)
        lower[k] = static_cast<char>(std::tolower(static_cast<unsigned char>(t[k])));
    for (const char* month : kMonths)
        if (std::memcmp(lower, month, 4) == 0)
            return true;
    return false;
}

/// Copies the buffer with kPadding zero bytes behind it.
void assignPadded(DAbstractImageReader::Data& target, const char* bytes, std::size_t size)
{
    target.reserve(size + DAbstractImageReader::kPadding);
    target.resize(size);
    if (size)
        std::memcpy(target.data(), bytes, size);
    std::memset(target.data() + size, 0, DAbstractImageReader::kPadding);
}

} // namespace

DAbstractImageReader::DAbstractImageReader(const char* fileName, int /*timeout*/)
    : _fileName(fileName ? fileName : "")
{
    if (_fileName.empty())
        throw DRuntimeException("DAbstractImageReader: Passed empty string as filename");
    struct stat info;
    std::ifstream file;
    // A directory opens as a stream on this platform, but is no file to read.
    if (::stat(_fileName.c_str(), &info) == 0 && !S_ISDIR(info.st_mode))
        file.open(_fileName, std::ios::binary | std::ios::ate);
    const std::streamoff size = file.is_open() ? static_cast<std::streamoff>(file.tellg()) : -1;
    if (!file.is_open() || size < 0)
        throw DNoFileAccessException("Error accessing " + _fileName);
    _data.reserve(static_cast<std::size_t>(size) + kPadding);
    _data.resize(static_cast<std::size_t>(size));
    file.seekg(0);
    file.read(_data.data(), size);
    // A file that shrank under us leaves zeros, not stale memory.
    const std::size_t got = static_cast<std::size_t>(std::max<std::streamsize>(file.gcount(), 0));
    std::memset(_data.data() + got, 0, static_cast<std::size_t>(size) - got + kPadding);
}

DAbstractImageReader::DAbstractImageReader(const Data& data, const std::string& fileName)
    : _fileName(fileName)
{
    // A buffer that carries the zero padding in its own block already is shared, not
    // copied: a downloaded frame is tens of megabytes.
    const std::size_t size = data.size();
    if (size && data.capacity() - size >= kPadding &&
        std::all_of(data.cdata() + size, data.cdata() + size + kPadding, [](char c) { return c == 0; })) {
        _data = data;
        if (_data.cdata() == data.cdata())
            return;
    }
    assignPadded(_data, data.cdata(), size);
}

DAbstractImageReader::~DAbstractImageReader() = default;

void DAbstractImageReader::readData(DImage& image, const DImageOptionalData* optionalData) const
{
    const int w = width(), h = height();
    const datatypes::Type type = dataType();
    const unsigned long bits = typeBits();
    // Pixel positions are 32-bit ints: a header that claims more is damaged, and
    // allocating for it would only fail later or exhaust the memory.
    if (w < 0 || h < 0 || static_cast<long long>(w) * h > 0x7fffffffLL)
        throw DImageCorruptedException("Image " + _fileName + " has an invalid size of " +
                                       std::to_string(w) + " x " + std::to_string(h) + " pixels");
    checkBackedByFile(static_cast<std::uint64_t>(w) * static_cast<std::uint64_t>(h) * (bits >> 3));
    image = DImage(w, h, type, bits >> 3);
    readPixelData(image);

    DImageOptionalData metadata;
    if (optionalData) {
        metadata = *optionalData;
        readImageSpecificHeader(metadata);
    } else {
        readHeaderData(metadata);
        readRawHeader(metadata);
    }
    if (!metadata.pixelMaskSize())
        metadata.set_pixel_mask(DDetector::mask(image));
    image.setOptionalData(std::move(metadata));
    image.optionalData().setImageDescription(_fileName);
}

void DAbstractImageReader::readNorvexaHeader(DImageOptionalData& data) const
{
    const std::size_t length = std::min(_data.size(), kHeaderBytes);
    data.set_data_collection_date(utils::findDate(_data.cdata(), length));

    std::istringstream lines(std::string(_data.cdata() ? _data.cdata() : "", length));
    char buffer[1024];
    while (lines.getline(buffer, sizeof buffer), lines.gcount() > 0 || !lines.fail()) {
        if (lines.fail() && !lines.eof())
            break; // a line of 1024 characters or more ends the header
        const std::string line(buffer);
        if (!line.empty() && line[0] == '#') {
            std::size_t at;
            if ((at = cbfKeyword(line, "Detector"))) {
                data.set_description(textAt(line, at));
            } else if ((at = cbfKeyword(line, "Pixel_size"))) {
                const auto size = numberAt<float>(line, at);
                data.set_x_pixel_size(size);
                data.set_y_pixel_size(size);
            } else if ((at = cbfKeyword(line, "Silicon"))) {
                const std::size_t found = line.substr(at).find("thickness");
                if (found != std::string::npos) {
                    // Counted from the start of the line, not of the value: with the usual
                    // "# Silicon sensor, thickness 0.000320 m" this lands on the number.
                    data.set_sensor_thickness(numberAt<float>(line, found + 10));
                    data.set_sensor_material(std::string("Si"));
                }
            } else if ((at = cbfKeyword(line, "Exposure_time"))) {
                data.set_count_time(numberAt<float>(line, at));
            } else if ((at = cbfKeyword(line, "Exposure_period"))) {
                data.set_frame_time(numberAt<float>(line, at));
            } else if ((at = cbfKeyword(line, "Count_cutoff"))) {
                data.set_saturation_value(numberAt<int>(line, at));
            } else if ((at = cbfKeyword(line, "Threshold_setting"))) {
                const auto threshold = numberAt<int>(line, at);
                data.set_threshold_energy(threshold ? boost::optional<float>(static_cast<float>(*threshold))
                                                    : boost::none);
            } else if ((at = cbfKeyword(line, "Gain_setting"))) {
                data.set_gain_setting(textAt(line, at));
            } else if ((at = cbfKeyword(line, "N_excluded_pixels"))) {
                data.set_number_of_excluded_pixels(numberAt<int>(line, at));
            } else if ((at = cbfKeyword(line, "Wavelength"))) {
                data.set_wavelength(numberAt<float>(line, at));
            } else if ((at = cbfKeyword(line, "Detector_distance"))) {
                data.set_detector_distance(numberAt<float>(line, at));
            } else if ((at = cbfKeyword(line, "Beam_xy"))) {
                std::istringstream stream = valueStream(line.substr(at));
                data.set_beam_center_x(extractNumber<float>(stream));
                if (stream.fail() || stream.bad())
                    data.set_beam_center_y(boost::none);
                else
                    data.set_beam_center_y(extractNumber<float>(stream));
            } else if ((at = cbfKeyword(line, "Flux"))) {
                data.set_beam_flux(numberAt<float>(line, at));
            } else if ((at = cbfKeyword(line, "Filter_transmission"))) {
                data.set_filter_transmission(numberAt<float>(line, at));
            } else if ((at = cbfKeyword(line, "Start_angle"))) {
                data.set_rotation_angle(numberAt<float>(line, at));
            } else if ((at = cbfKeyword(line, "Angle_increment"))) {
                data.set_rotation_angle_step(numberAt<float>(line, at));
            } else if ((at = cbfKeyword(line, "Polarization"))) {
                data.set_polarisation(numberAt<float>(line, at));
            } else if ((at = cbfKeyword(line, "Retrigger_mode"))) {
                (void)numberAt<int>(line, at); // read and dropped: the metadata has no such item
            } else if ((at = cbfKeyword(line, "Ratecorr_lut_directory"))) {
                // This directory's name is what the metadata keeps as the bunch mode.
                data.set_countrate_correction_bunch_mode(textAt(line, at));
            }
        }
        if (lines.eof())
            break;
    }
    // Always 0, whatever a file says: the mode register is not taken from files.
    data.set_mode_register(0);
}

void DAbstractImageReader::readDetectorNumber(DImageOptionalData& data) const
{
    const auto description = data.description();
    if (!description)
        return;
    const std::size_t found = description->find("SN ");
    if (found == std::string::npos)
        return;
    std::size_t i = found + 3;
    while (i < description->size() && std::isspace(static_cast<unsigned char>((*description)[i])))
        ++i;
    std::string number;
    for (; i < description->size() && !std::isspace(static_cast<unsigned char>((*description)[i])); ++i) {
        const char c = (*description)[i];
        if (isDigit(c) || c == '-')
            number += c;
    }
    if (!number.empty())
        data.set_detector_number(number);
}

void DAbstractImageReader::readModules(DImageOptionalData& data) const
{
    boost::optional<float> vrf;
    if (DDetector::isBrennik(width(), height())) {
        data.set_bit_depth_readout(20);
        if (const auto gain = data.gain_setting()) {
            float value;
            if (std::sscanf(gain->c_str(), "%*s (vrf = %f", &value) == 1)
                vrf = value;
        }
    }
    std::vector<DImageModule> modules = DDetector::modules(width(), height());
    for (auto& module : modules) {
        if (vrf)
            module.setVrf(static_cast<double>(*vrf));
        module.setOptionalData(&data);
    }
    data.set_modules(std::move(modules));
}

namespace utils {

boost::optional<std::string> findDate(const char* text, unsigned long length)
{
    if (length == 0 || !text)
        return boost::none;
    std::size_t i = 0;
    while (length - i >= 12) {
        const char* t = text + i;
        if (!(isDigit(t[0]) && isDigit(t[1]) && isDigit(t[2]) && isDigit(t[3]) && isDateSeparator(t[4]))) {
            ++i;
            continue;
        }
        std::size_t day;
        if (isDigit(t[5]) && isDigit(t[6]) && isDateSeparator(t[7])) {
            day = i + 8;
        } else if (isMonth(t + 5)) {
            day = i + 9;
        } else {
            i += 6;
            continue;
        }
        const char* d = text + day;
        if (!(isDigit(d[0]) && isDigit(d[1]) && (d[2] == ' ' || d[2] == 'T'))) {
            i = day + 1;
            continue;
        }
        const std::size_t available = std::min<std::size_t>(length - i, 1024);
        std::size_t end = 0;
        while (end < available && end < 1023 && t[end] != '\n')
            ++end;
        std::string date(t, end);
        if (!date.empty() && date.back() == '\r')
            date.pop_back();
        return date;
    }
    return boost::none;
}

} // namespace utils

} // namespace imglib
} // namespace norvexa
