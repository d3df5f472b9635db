#include "Inputs.h"

#include "CliSupport.h"

#include "DDetector.h"
#include "foundation/hdf5/DH5File.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>

namespace norvexa {
namespace cli {

using namespace imglib;

bool isHdf5Path(const std::string& path)
{
    std::string ending = std::filesystem::path(path).extension().string();
    std::transform(ending.begin(), ending.end(), ending.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ending == ".h5" || ending == ".hdf5";
}

namespace {

/// The library takes a master's missing last data file for one not written yet, as in a
/// live series, and shows fewer images; a file to be read whole must have all of them.
void checkDataFiles(const std::string& path)
{
    const hdf5::DH5File file(path, "r");
    if (!file.groups().count("entry") || !file.group("/entry").groups().count("data"))
        return;
    const hdf5::DH5Group data = file.group("/entry/data");
    for (const std::string& name : data.links())
        if (name.compare(0, 5, "data_") == 0 && !data.linkIsValid(name))
            throw failure(path, "The data file of /entry/data/" + name + " is missing");
}

} // namespace

std::unique_ptr<DImageSeries> openSeries(const std::string& path)
{
    // The library would report a missing file as a format or header problem.
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error))
        throw failure(path, std::filesystem::exists(path, error) ? "Not a file" : "No such file");
    try {
        if (isHdf5Path(path))
            checkDataFiles(path);
        auto series = std::make_unique<DImageSeries>(path);
        if (series->empty())
            throw failure(path, "No images");
        return series;
    } catch (const ExitError&) {
        throw;
    } catch (const std::exception& e) {
        throw failure(path, e.what());
    }
}

DImage readFrame(const DImageSeries& series, const std::string& path, long number)
{
    if (number < 0)
        number = series.first();
    if (number < series.first() || number > series.last())
        throw failure(path, "Image " + std::to_string(number) + " outside the series' images " +
                                std::to_string(series.first()) + ".." + std::to_string(series.last()));
    try {
        return series[static_cast<unsigned long>(number)];
    } catch (const std::exception& e) {
        throw failure(path, e.what());
    }
}

DImage maskOf(const DImage& frame)
{
    // An HDF5 series hands out an all-zero mask when its file has none; the gaps are gaps
    // whatever a file says, so the two masks go together.
    DImage mask = DDetector::mask(frame);
    const auto size = frame.optionalData().pixelMaskSize();
    if (size && long(size->first) == frame.width() && long(size->second) == frame.height()) {
        const DImage own = frame.optionalData().pixel_mask()->asType<unsigned int>();
        const auto* from = reinterpret_cast<const unsigned int*>(own.cdata());
        auto* to = reinterpret_cast<unsigned int*>(mask.data());
        for (std::size_t i = 0; i < mask.size(); ++i)
            to[i] |= from[i];
    }
    return mask;
}

Hdf5Names hdf5Names(const std::filesystem::path& out, int imagesPerFile)
{
    if (imagesPerFile == 0)
        return {out.filename().string(), out.filename().string()};
    std::string base = out.stem().string();
    const std::string suffix = "_master";
    if (base.size() > suffix.size() && base.compare(base.size() - suffix.size(), suffix.size(), suffix) == 0)
        base.resize(base.size() - suffix.size());
    return {base + out.extension().string(), base + suffix + out.extension().string()};
}

std::pair<long, long> parseRange(const std::string& text, const DImageSeries& series, const std::string& path)
{
    long first = series.first(), last = series.last();
    const auto number = [&](const std::string& part, long& value) {
        if (part.empty())
            return;
        char* end = nullptr;
        value = std::strtol(part.c_str(), &end, 10);
        if (*end != '\0')
            throw usageError("--range " + text + ": expected FIRST:LAST with image numbers");
    };
    const auto colon = text.find(':');
    if (colon == std::string::npos) {
        number(text, first);
        last = first;
    } else {
        number(text.substr(0, colon), first);
        number(text.substr(colon + 1), last);
    }
    if (first > last)
        throw usageError("--range " + text + ": FIRST is after LAST");
    if (first < series.first() || last > series.last())
        throw failure(path, "--range " + text + " outside the series' images " + std::to_string(series.first()) +
                                ".." + std::to_string(series.last()));
    return {first, last};
}

} // namespace cli
} // namespace norvexa
