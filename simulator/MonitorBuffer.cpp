#include "MonitorBuffer.h"

#include "DImageWriter.h"

#include <fstream>
#include <iterator>

namespace norvexa {
namespace simulator {

MonitorBuffer::MonitorBuffer(ParameterStore& store, std::filesystem::path scratch)
    : _store(store), _scratch(std::move(scratch))
{
    std::filesystem::create_directories(_scratch);
}

void MonitorBuffer::frameProduced(const SeriesInfo& info, int imageNumber, const imglib::DImage& frame)
{
    if (_store.value("monitor", "config", "mode").asString() != "enabled")
        return;
    const std::size_t capacity =
        static_cast<std::size_t>(std::max(1, _store.value("monitor", "config", "buffer_size").asInt()));
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _entries.push_back(Entry{++_sequence, info.series, imageNumber, frame, nullptr});
        while (_entries.size() > capacity)
            _entries.pop_front();
    }
    _arrived.notify_all();
}

std::optional<MonitorBuffer::Image> MonitorBuffer::take(const std::string& view,
                                                        std::chrono::milliseconds timeout)
{
    const bool next = view == "next";
    std::unique_lock<std::mutex> lock(_mutex);
    auto available = [&]() -> Entry* {
        if (_entries.empty())
            return nullptr;
        if (!next)
            return &_entries.back();
        for (Entry& entry : _entries)
            if (entry.sequence > _nextTaken)
                return &entry;
        return nullptr;
    };
    _arrived.wait_for(lock, timeout, [&] { return _stopped || available(); });
    Entry* entry = _stopped ? nullptr : available();
    if (!entry)
        return std::nullopt;
    if (next)
        _nextTaken = entry->sequence;
    // Encoded once per frame: repeated requests for the newest frame cost no encoding.
    if (!entry->tiff)
        entry->tiff = encode(entry->frame);
    Json::Value numbers(Json::arrayValue);
    numbers.append(entry->series);
    numbers.append(entry->imageNumber);
    _store.setValue("monitor", "status", view + "_image_number", numbers);
    return Image{entry->tiff, entry->series, entry->imageNumber};
}

std::shared_ptr<const std::string> MonitorBuffer::encode(const imglib::DImage& frame)
{
    const std::filesystem::path file = _scratch / ("monitor_" + std::to_string(++_encodings) + ".tif");
    imglib::DImageWriter::write(frame, file.string(), imglib::DImageWriter::TIF);
    std::ifstream in(file, std::ios::binary);
    auto bytes = std::make_shared<const std::string>(std::istreambuf_iterator<char>(in),
                                                     std::istreambuf_iterator<char>());
    std::error_code error;
    std::filesystem::remove(file, error);
    return bytes;
}

void MonitorBuffer::clear()
{
    std::lock_guard<std::mutex> lock(_mutex);
    _entries.clear();
}

void MonitorBuffer::stop()
{
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _stopped = true;
    }
    _arrived.notify_all();
}

} // namespace simulator
} // namespace norvexa
