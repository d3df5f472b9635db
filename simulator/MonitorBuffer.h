#pragma once

#include "DetectorStateMachine.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace norvexa {
namespace simulator {

/// The monitor: while its mode is "enabled", it keeps the last frames (as many as
/// "buffer_size") and hands them out as TIFF files of 32-bit pixels (DImageWriter's TIFF). "monitor" is
/// the newest frame, "next" the oldest one that "next" has not handed out yet; both wait
/// for a frame up to their time-out. The numbers of what each view handed out last go to
/// "status"/"<view>_image_number".
class MonitorBuffer : public SeriesObserver {
public:
    struct Image {
        std::shared_ptr<const std::string> tiff;
        int series = 0;
        int imageNumber = 0;
    };

    /// `scratch` is a directory for encoding the TIFF files.
    MonitorBuffer(ParameterStore& store, std::filesystem::path scratch);

    void frameProduced(const SeriesInfo& info, int imageNumber, const imglib::DImage& frame) override;
    bool wantsPixels() const override { return _store.value("monitor", "config", "mode").asString() == "enabled"; }

    /// "monitor" or "next"; nothing when no frame came within `timeout` or the buffer was
    /// stopped.
    std::optional<Image> take(const std::string& view, std::chrono::milliseconds timeout);
    void clear();
    /// Wakes every waiting request, which then gets nothing.
    void stop();

private:
    struct Entry {
        std::uint64_t sequence;
        int series;
        int imageNumber;
        imglib::DImage frame;
        std::shared_ptr<const std::string> tiff;
    };
    std::shared_ptr<const std::string> encode(const imglib::DImage& frame);

    ParameterStore& _store;
    std::filesystem::path _scratch;
    std::mutex _mutex;
    std::condition_variable _arrived;
    std::deque<Entry> _entries;
    std::uint64_t _sequence = 0;
    std::uint64_t _nextTaken = 0;
    bool _stopped = false;
    std::uint64_t _encodings = 0;
};

} // namespace simulator
} // namespace norvexa
