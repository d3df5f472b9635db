#pragma once

#include <json/json.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace norvexa {
namespace simulator {

/// The simulated detector's data stream: a PUSH socket bound to 127.0.0.1 on the data
/// port, on which each trigger pushes one series: a header message at the configured
/// detail, one image message per frame, then the end message.
///
/// Settings (the stream interface's config, read and written as JSON values):
/// - "mode": "enabled" or "disabled" (default); a disabled stream sends nothing;
/// - "header_detail": "none", "basic" (default) or "all";
/// - "encoding": "<", "lz4<", "bs16-lz4<" or "bs32-lz4<" (default), made by the library's
///   own encoders (a replayed file sends its stored chunks and their encoding instead);
/// - fault knobs: "drop_every" n (int, 0 = off) drops every n-th frame and counts it,
///   "stop_before_end" (bool) leaves the end message out, "malformed" ("" = off, else
///   "json", "htype", "shape", "type", "size" or "parts") sends one malformed message of
///   that kind before the first image.
/// Frames not sent because nobody took them within a second are counted as dropped too.
/// Status: "dropped", the frames dropped in the last series.
///
/// The detector side gives, at arm: the configuration JSON (keys as the header's
/// configuration part has them, missing ones filled with plausible values), the number of
/// images, the frame time (seconds between frames, 0 = as fast as possible), the frame
/// size and pixel type ("uint16", "uint32", "float32"). Frames are the demo's diffraction
/// frame for a seed, a few distinct ones cycled, or the frames of an HDF5 master file
/// replayed with their stored chunks as they stand. Frame numbers run from 1.
class SimulatedStream {
public:
    struct Acquisition {
        Json::Value config = Json::objectValue;
        int nimages = 1;
        double frameTime = 0;
        int width = 2463;
        int height = 2527;
        std::string type = "uint32";
        unsigned seed = 7;
    };

    /// Binds "tcp://127.0.0.1:<port>"; throws std::runtime_error when that fails.
    /// `master`, when not empty, is an HDF5 master file whose frames are replayed.
    SimulatedStream(int port, std::string master = "");
    ~SimulatedStream();
    SimulatedStream(const SimulatedStream&) = delete;
    SimulatedStream& operator=(const SimulatedStream&) = delete;

    /// A setting by name; null for an unknown name.
    Json::Value setting(const std::string& name) const;
    /// Changes a setting; false for an unknown name or a value of the wrong kind.
    bool setSetting(const std::string& name, const Json::Value& value);
    /// A status value by name ("dropped"); null for an unknown name.
    Json::Value status(const std::string& name) const;

    /// Prepares the next series (frames encoded in advance, so that a trigger streams at
    /// the frame rate). Waits for a series still being sent.
    void arm(const Acquisition& acquisition);
    /// Starts pushing the armed series from a thread of its own and returns.
    void trigger();
    /// Waits until the series being sent is out.
    void wait();
    /// Forgets the armed series.
    void disarm();

private:
    struct Series;
    void send(std::shared_ptr<Series> series);

    mutable std::mutex _mutex;
    void* _context;
    void* _socket;
    std::string _master;
    Json::Value _settings;
    std::atomic<int> _dropped{0};
    unsigned long long _seriesId = 0;
    std::shared_ptr<Series> _armed;
    std::thread _sender;
};

} // namespace simulator
} // namespace norvexa
