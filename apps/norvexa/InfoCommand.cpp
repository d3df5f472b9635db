// norvexa info PATH...: what a file or series holds, for people and (--json) for scripts.

#include "CliSupport.h"
#include "Commands.h"
#include "Inputs.h"

#include "DDetector.h"
#include "DImage.h"
#include "DImageSeries.h"
#include "foundation/image/DDataTypes.h"

#include <CLI/CLI.hpp>
#include <json/json.h>

#include <filesystem>
#include <iomanip>
#include <iostream>
#include <limits>
#include <memory>
#include <sstream>

namespace norvexa {
namespace cli {

using namespace imglib;

namespace {

struct InfoOptions {
    std::vector<std::string> paths;
    long frame = -1;
    bool json = false;
};

/// One metadata item: its name, its value as text and as JSON, its unit.
struct Item {
    std::string name;
    Json::Value value;
    std::string unit;
};

Json::Value jsonOf(float v)
{
    // A float's own digits, not its double expansion: 0.1, not 0.10000000149011612.
    return Json::Value(std::stod(number(v, 7)));
}
Json::Value jsonOf(int v)
{
    return Json::Value(v);
}
Json::Value jsonOf(bool v)
{
    return Json::Value(v);
}
Json::Value jsonOf(const std::string& v)
{
    return Json::Value(v);
}

std::string textOf(const Json::Value& v)
{
    if (v.isString())
        return v.asString();
    if (v.isBool())
        return v.asBool() ? "true" : "false";
    if (v.isInt())
        return std::to_string(v.asInt());
    return number(v.asDouble(), 7);
}

std::vector<Item> itemsOf(const DImageOptionalData& metadata)
{
    std::vector<Item> items;
    // The library's own table of items: every one that is present, with its unit.
#define NORVEXA_CLI_ITEM(NAME, VALUE, STORED, UNIT, ...)                                          \
    if (const auto value = metadata.NAME())                                                       \
        items.push_back({#NAME, jsonOf(*value), UNIT});
    NORVEXA_METADATA_ITEMS(NORVEXA_CLI_ITEM)
#undef NORVEXA_CLI_ITEM
    if (const auto v = metadata.rotation_angle())
        items.push_back({"rotation_angle", jsonOf(*v), "deg"});
    if (const auto v = metadata.rotation_angle_step())
        items.push_back({"rotation_angle_step", jsonOf(*v), "deg"});
    if (const auto modules = metadata.modules())
        items.push_back({"modules", Json::Value(static_cast<int>(modules->size())), ""});
    if (const auto mask = metadata.pixelMaskSize())
        items.push_back({"pixel_mask", Json::Value(std::to_string(mask->first) + " x " + std::to_string(mask->second)), ""});
    return items;
}

std::string detectorModel(const DImage& frame)
{
    const auto family = DDetector::isBrennik(frame) ? "Brennik" : DDetector::isOrvik(frame) ? "Orvik" : "";
    if (!*family)
        return "unknown (no detector family has this size)";
    const auto modules = DDetector::modules(frame.width(), frame.height());
    // Orvik modules come as two halves each.
    const std::size_t count = DDetector::isOrvik(frame) ? modules.size() / 2 : modules.size();
    return std::string(family) + ", " + std::to_string(count) + " modules";
}

std::string formatOf(const std::string& path)
{
    if (isHdf5Path(path))
        return "HDF5 master";
    const std::string ending = std::filesystem::path(path).extension().string();
    if (ending == ".cbf")
        return "CBF series";
    if (ending == ".tif" || ending == ".tiff")
        return "TIFF series";
    if (ending == ".edf")
        return "EDF series";
    return "file series";
}

struct Statistics {
    double min = 0, max = 0, mean = 0;
    std::size_t valid = 0, excluded = 0;
};

Statistics statisticsOf(const DImage& frame)
{
    const DImage mask = maskOf(frame).asType<unsigned int>();
    const DImage values = frame.asType<double>();
    const auto* v = reinterpret_cast<const double*>(values.cdata());
    const auto* m = reinterpret_cast<const unsigned int*>(mask.cdata());
    Statistics s;
    s.min = std::numeric_limits<double>::infinity();
    s.max = -s.min;
    double sum = 0;
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (m[i]) {
            ++s.excluded;
            continue;
        }
        ++s.valid;
        sum += v[i];
        s.min = std::min(s.min, v[i]);
        s.max = std::max(s.max, v[i]);
    }
    if (s.valid)
        s.mean = sum / s.valid;
    else
        s.min = s.max = 0;
    return s;
}

void describe(const std::string& path, const InfoOptions& options)
{
    const auto series = openSeries(path);
    const DImage frame = readFrame(*series, path, options.frame);
    const long imageNumber = options.frame < 0 ? series->first() : options.frame;
    const auto items = itemsOf(frame.optionalData());
    const Statistics stats = statisticsOf(frame);
    const std::string type = datatypes::typeStr(frame.type()) + " " + std::to_string(frame.typeBits());

    if (options.json) {
        Json::Value out(Json::objectValue);
        out["path"] = path;
        out["format"] = formatOf(path);
        out["detector"] = detectorModel(frame);
        out["width"] = frame.width();
        out["height"] = frame.height();
        out["pixel_type"] = type;
        out["first"] = series->first();
        out["last"] = series->last();
        Json::Value metadata(Json::objectValue);
        for (const Item& item : items) {
            Json::Value entry(Json::objectValue);
            entry["value"] = item.value;
            if (!item.unit.empty())
                entry["unit"] = item.unit;
            metadata[item.name] = entry;
        }
        out["metadata"] = metadata;
        Json::Value s(Json::objectValue);
        s["image"] = static_cast<Json::Int64>(imageNumber);
        s["min"] = stats.min;
        s["max"] = stats.max;
        s["mean"] = stats.mean;
        s["valid_pixels"] = static_cast<Json::UInt64>(stats.valid);
        s["excluded_pixels"] = static_cast<Json::UInt64>(stats.excluded);
        out["statistics"] = s;
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        builder["precision"] = 15; // enough for a double, and 0.1 stays 0.1
        std::cout << Json::writeString(builder, out) << "\n";
        return;
    }

    std::cout << path << "\n"
              << "  format      " << formatOf(path) << "\n"
              << "  detector    " << detectorModel(frame) << "\n"
              << "  size        " << frame.width() << " x " << frame.height() << "\n"
              << "  pixel type  " << type << "\n"
              << "  images      " << series->first() << ".." << series->last() << " (" << series->size()
              << ")\n"
              << "  metadata\n";
    std::size_t width = 0;
    for (const Item& item : items)
        width = std::max(width, item.name.size());
    for (const Item& item : items)
        std::cout << "    " << std::left << std::setw(static_cast<int>(width)) << item.name << "  "
                  << textOf(item.value) << (item.unit.empty() ? "" : " " + item.unit) << "\n";
    std::cout << "  image " << imageNumber << ": min " << number(stats.min) << ", max " << number(stats.max)
              << ", mean " << number(stats.mean) << " over " << stats.valid << " pixels; " << stats.excluded
              << " excluded by the mask\n";
}

} // namespace

void addInfoCommand(CLI::App& app)
{
    auto options = std::make_shared<InfoOptions>();
    CLI::App* sub = app.add_subcommand("info", "Show what a file or series holds: detector, size, pixel type, "
                                               "images, metadata with units, pixel statistics of one image");
    sub->add_option("PATH", options->paths, "CBF, TIFF or EDF file (its numbered series), or HDF5 master")
        ->required();
    sub->add_option("--frame", options->frame, "Image number for the statistics (default: the first)");
    sub->add_flag("--json", options->json, "One JSON object per input, one a line");
    sub->footer("Example:\n  norvexa info run_master.h5\n  norvexa info --json run_00001.cbf | jq .metadata");
    sub->callback([options] {
        for (const std::string& path : options->paths)
            describe(path, *options);
    });
}

} // namespace cli
} // namespace norvexa
