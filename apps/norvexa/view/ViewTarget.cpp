#include "ViewTarget.h"

#include "DGlobal.h"
#include "DImageSeries.h"
#include "DStreamClient.h"
#include "DStreamTables.h"
#include "DTerminateException.h"
#include "foundation/DException.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <regex>
#include <sstream>

using namespace norvexa::imglib;

namespace norvexa {
namespace view {

namespace {

std::string valueText(float v)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", static_cast<double>(v));
    return text;
}
std::string valueText(int v) { return std::to_string(v); }
std::string valueText(bool v) { return v ? "yes" : "no"; }
std::string valueText(const std::string& v) { return v; }

/// The metadata items that the frame knows, with their units.
std::vector<HeaderItem> headerItems(const DImageOptionalData& data)
{
    std::vector<HeaderItem> items;
#define NORVEXA_VIEW_HEADER_ITEM(NAME, VALUE, STORED, UNIT, PATH1, PATH2, PATH3)                   \
    if (const auto value = data.NAME())                                                            \
        items.push_back({#NAME, valueText(*value), UNIT});
    NORVEXA_METADATA_ITEMS(NORVEXA_VIEW_HEADER_ITEM)
#undef NORVEXA_VIEW_HEADER_ITEM
    return items;
}

constexpr std::size_t kRecentImages = 4;

std::shared_ptr<const DImage> shared(DImage flags)
{
    return flags.empty() ? nullptr : std::make_shared<const DImage>(std::move(flags));
}

} // namespace

const DImage& flagsOf(const ViewFrame& frame)
{
    static const DImage none;
    return frame.flags ? *frame.flags : none;
}

namespace {

} // namespace

/// The newest image of the stream, as it came, and whether a page has taken it.
struct ViewTarget::Pending {
    DStreamData::Image pixels;
    std::uint64_t sequence = 0;
    std::uint64_t imageId = 0;
    std::shared_ptr<SeriesState> series;
    bool taken = false;
};

/// What a series' header says once for all its images.
struct ViewTarget::SeriesState {
    std::uint64_t id = 0;
    std::vector<HeaderItem> header;
    std::shared_ptr<const DImage> flags; ///< from the header's mask; else from the first image's layout
    bool flagsKnown = false;
    boost::optional<int> saturation;
};

bool ViewTarget::isStreamAddress(const std::string& target, std::string& host, int& port)
{
    std::error_code error;
    if (std::filesystem::exists(target, error))
        return false;
    static const std::regex address(R"(^([A-Za-z0-9][A-Za-z0-9.\-]*):([0-9]{1,5})$)");
    std::smatch match;
    if (!std::regex_match(target, match, address))
        return false;
    const int number = std::stoi(match[2].str());
    if (number < 1 || number > 65535)
        return false;
    host = match[1].str();
    port = number;
    return true;
}

ViewTarget::ViewTarget(const std::string& target) : _name(target)
{
    if (isStreamAddress(target, _host, _port)) {
        _live = true;
        _follower = std::thread([this] { follow(); });
        return;
    }
    _series = std::make_unique<DImageSeries>(target);
    _first = _series->first();
    _last = _series->last();
    if (_last < _first)
        throw DRuntimeException("No images in " + target);
}

ViewTarget::~ViewTarget()
{
    _stop = true;
    _arrived.notify_all();
    if (_follower.joinable())
        _follower.join();
}

FramePtr ViewTarget::image(int number)
{
    if (_live || number < _first || number > _last)
        throw DOutOfRangeException("Image " + std::to_string(number) + " is outside the series");
    std::lock_guard<std::mutex> lock(_seriesMutex);
    for (const FramePtr& frame : _recent)
        if (frame->number == number)
            return frame;
    auto frame = std::make_shared<ViewFrame>();
    frame->image = (*_series)[static_cast<unsigned long>(number)];
    frame->number = number;
    frame->flags = shared(maskFlags(frame->image));
    frame->limits = autoLimits(frame->image, flagsOf(*frame));
    frame->header = headerItems(frame->image.optionalData());
    if (const auto saturation = frame->image.optionalData().saturation_value()) {
        frame->saturationValue = *saturation;
        frame->hasSaturation = true;
    }
    if (_recent.size() >= kRecentImages)
        _recent.erase(_recent.begin());
    _recent.push_back(frame);
    return frame;
}

void ViewTarget::follow()
{
    std::unique_ptr<DStreamClient> client;
    try {
        client = std::make_unique<DStreamClient>(_host, _port);
    } catch (const std::exception& e) {
        std::lock_guard<std::mutex> lock(_liveMutex);
        ++_counts.errors;
        _counts.lastError = e.what();
        return;
    }
    while (!_stop) {
        DStreamObject message;
        try {
            // No time-out: the flag ends the wait.
            message = client->pop(0, _stop);
        } catch (const DTerminateException&) {
            break;
        } catch (const std::exception& e) {
            // A malformed message: count it and go on with the next one.
            std::lock_guard<std::mutex> lock(_liveMutex);
            ++_counts.errors;
            _counts.lastError = e.what();
            continue;
        }
        switch (message.type()) {
        case DStreamObject::CONFIG: {
            auto state = std::make_shared<SeriesState>();
            const DStreamConfig config = message.config();
            state->id = config.seriesId();
            DImageOptionalData data;
            data.neXus() = config.config();
            state->header = headerItems(data);
            state->saturation = data.saturation_value();
            if (data.pixelMaskSize()) {
                state->flags = shared(flagsOfMask(*data.pixel_mask()));
                state->flagsKnown = state->flags != nullptr;
            }
            std::lock_guard<std::mutex> lock(_liveMutex);
            _seriesState = state;
            _counts.series = state->id;
            _counts.seriesImages = 0;
            _counts.seriesEnded = false;
            break;
        }
        case DStreamObject::DATA: {
            const DStreamData data = message.data();
            auto pending = std::make_shared<Pending>();
            pending->pixels = data.data();
            pending->imageId = data.imageId();
            std::lock_guard<std::mutex> lock(_liveMutex);
            if (!_seriesState)
                _seriesState = std::make_shared<SeriesState>(); // joined in mid-series
            pending->series = _seriesState;
            pending->sequence = ++_sequence;
            // Only the newest image is kept: the one it replaces was never drawn.
            if (_pending && !_pending->taken)
                ++_counts.skipped;
            _pending = pending;
            ++_counts.received;
            ++_counts.seriesImages;
            _arrived.notify_all();
            break;
        }
        case DStreamObject::END: {
            std::lock_guard<std::mutex> lock(_liveMutex);
            _counts.seriesEnded = true;
            break;
        }
        }
    }
}

FramePtr ViewTarget::newest(std::uint64_t after, double waitSeconds)
{
    if (!_live)
        throw DRuntimeException("Invalid operation");
    std::shared_ptr<Pending> pending;
    {
        std::unique_lock<std::mutex> lock(_liveMutex);
        _arrived.wait_for(lock, std::chrono::duration<double>(std::max(0.0, waitSeconds)),
                          [&] { return (_pending && _pending->sequence > after) || _stop; });
        if (!_pending || _pending->sequence <= after)
            return nullptr;
        pending = _pending;
        if (!pending->taken) {
            pending->taken = true;
            ++_counts.displayed;
        }
    }
    // One decoding at a time: a second request for the same image waits and reuses it.
    std::lock_guard<std::mutex> decoding(_decodeMutex);
    {
        std::lock_guard<std::mutex> lock(_liveMutex);
        if (_shown && _shown->sequence >= pending->sequence)
            return _shown;
    }
    auto frame = std::make_shared<ViewFrame>();
    frame->image = DImage(pending->pixels);
    SeriesState& series = *pending->series;
    if (!series.flagsKnown) {
        // The detector's layout, taken once per series from its first image drawn.
        series.flags = shared(maskFlags(frame->image));
        series.flagsKnown = true;
    }
    if (series.flags && series.flags->width() == frame->image.width() &&
        series.flags->height() == frame->image.height())
        frame->flags = series.flags;
    frame->limits = autoLimits(frame->image, flagsOf(*frame));
    frame->header = series.header;
    if (series.saturation) {
        frame->saturationValue = *series.saturation;
        frame->hasSaturation = true;
    }
    frame->number = static_cast<int>(pending->imageId);
    frame->sequence = pending->sequence;
    frame->series = series.id;
    std::lock_guard<std::mutex> lock(_liveMutex);
    _shown = frame;
    return frame;
}

FramePtr ViewTarget::shown() const
{
    std::lock_guard<std::mutex> lock(_liveMutex);
    return _shown;
}

LiveCounts ViewTarget::counts() const
{
    std::lock_guard<std::mutex> lock(_liveMutex);
    LiveCounts counts = _counts;
    counts.waiting = _pending && !_pending->taken ? 1 : 0;
    return counts;
}

} // namespace view
} // namespace norvexa
