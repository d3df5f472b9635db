#include "FileArea.h"

#include "DBasicImageOptionalData.h"
#include "DHdf5Writer.h"

#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

namespace norvexa {
namespace simulator {

namespace fs = std::filesystem;

FileArea::FileArea(fs::path root, ParameterStore& store) : _root(std::move(root)), _store(store)
{
    fs::create_directories(_root);
}

FileArea::~FileArea() = default;

void FileArea::seriesStarted(const SeriesInfo& info)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _writer.reset();
    if (_store.value("filewriter", "config", "mode").asString() != "enabled")
        return;
    std::string base = _store.value("filewriter", "config", "name_pattern").asString();
    const std::size_t id = base.find("$id");
    if (id != std::string::npos)
        base.replace(id, 3, std::to_string(info.series));
    const std::string compression = _store.value("filewriter", "config", "compression").asString();
    const auto filter = compression == "lz4"     ? image::DCompression::FILTER_LZ4
                        : compression == "bslz4" ? image::DCompression::FILTER_BS32_LZ4
                                                 : image::DCompression::FILTER_NONE;
    imglib::DImageOptionalData metadata;
    metadata.set_count_time(static_cast<float>(info.config["count_time"].asDouble()));
    metadata.set_frame_time(static_cast<float>(info.config["frame_time"].asDouble()));
    metadata.set_threshold_energy(static_cast<float>(info.config["threshold_energy"].asDouble()));
    metadata.set_nimages(info.nImages);
    metadata.set_description(info.config["description"].asString());
    metadata.set_detector_number(info.config["detector_number"].asString());
    try {
        _writer = std::make_unique<imglib::DHdf5Writer>(
            (_root / (base + ".h5")).string(),
            _store.value("filewriter", "config", "nimages_per_file").asInt(), metadata.neXus(), filter);
    } catch (const std::exception& e) {
        // A real file writer goes on acquiring when its disk fails; it reports the error.
        std::cerr << "file writer: " << e.what() << "\n";
        _writer.reset();
    }
}

bool FileArea::wantsPixels() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _writer != nullptr;
}

void FileArea::frameProduced(const SeriesInfo&, int, const imglib::DImage& frame)
{
    std::lock_guard<std::mutex> lock(_mutex);
    if (_writer)
        _writer->write(frame);
}

void FileArea::seriesEnded(const SeriesInfo&, int, bool)
{
    std::lock_guard<std::mutex> lock(_mutex);
    if (_writer)
        _writer->close();
    _writer.reset();
}

std::vector<std::string> FileArea::list() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(_root))
        if (entry.is_regular_file())
            names.push_back(fs::relative(entry.path(), _root).generic_string());
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<fs::path> FileArea::resolve(const std::string& name) const
{
    const fs::path relative = fs::path(name).lexically_normal();
    if (name.empty() || relative.is_absolute() || *relative.begin() == "..")
        return std::nullopt;
    const fs::path path = _root / relative;
    std::error_code error;
    if (!fs::is_regular_file(path, error))
        return std::nullopt;
    return path;
}

std::optional<std::string> FileArea::read(const std::string& name) const
{
    std::lock_guard<std::mutex> lock(_mutex);
    const auto path = resolve(name);
    if (!path)
        return std::nullopt;
    std::ifstream in(*path, std::ios::binary);
    if (!in)
        return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool FileArea::remove(const std::string& name)
{
    std::lock_guard<std::mutex> lock(_mutex);
    const auto path = resolve(name);
    std::error_code error;
    return path && fs::remove(*path, error);
}

void FileArea::clear()
{
    std::lock_guard<std::mutex> lock(_mutex);
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(_root, error))
        fs::remove_all(entry.path(), error);
}

} // namespace simulator
} // namespace norvexa
