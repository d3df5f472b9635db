#pragma once

#include "DetectorStateMachine.h"
#include "ParameterStore.h"

#include <memory>
#include <string>
#include <vector>

namespace norvexa {
namespace simulator {

/// The simulated detector's data stream, one more consumer of each series: a PUSH socket
/// bound to 127.0.0.1 on the data port, on which "arm" pushes the header message at the
/// configured detail, each frame of the acquisition one image message, and the series'
/// end the end message.
///
/// Its REST parameters are the "stream" interface's tables of the store:
/// - config "mode": "enabled" or "disabled" (default); a disabled stream sends nothing;
/// - config "header_detail": "none", "basic" (default) or "all";
/// - config "encoding": "<", "lz4<", "bs16-lz4<" or "bs32-lz4<" (default), made by the
///   library's own encoders; config "pixel_type": "uint32" (default), "uint16", "float32";
/// - fault knobs: config "drop_every" n (0 = off) drops every n-th frame,
///   "stop_before_end" leaves the end message out, "malformed" ("" = off, else "json",
///   "htype", "shape", "type", "size" or "parts") sends one malformed message of that
///   kind before the first image;
/// - status "dropped": the frames of the current series not sent, the dropped ones and
///   those that nobody took within a second.
///
/// Frames are the demo's diffraction frame for the series' size, a few distinct seeds
/// encoded at "arm" and cycled, or, with a master file given, that file's frames replayed
/// with their stored chunks as they stand (cycled too; a chunk the wire can't carry goes
/// plain). The header's configuration part has every key of the detector's configuration
/// at "arm", and plausible values for the rest. Frame numbers run from 1.
class SimulatedStream : public SeriesObserver {
public:
    /// Defines the "stream" tables in `store` and binds "tcp://127.0.0.1:<port>" (port 0:
    /// a free one); std::runtime_error when that fails.
    SimulatedStream(ParameterStore& store, int port, std::string master = "");
    ~SimulatedStream() override;
    SimulatedStream(const SimulatedStream&) = delete;
    SimulatedStream& operator=(const SimulatedStream&) = delete;

    /// The data port bound.
    int port() const { return _port; }

    void seriesStarted(const SeriesInfo& info) override;
    void frameProduced(const SeriesInfo& info, int imageNumber, const imglib::DImage&) override;
    /// The stream sends the frames it prepared when the series started.
    bool wantsPixels() const override { return false; }
    void seriesEnded(const SeriesInfo& info, int framesProduced, bool aborted) override;

private:
    struct Series;
    bool send(const std::vector<std::string>& parts);
    void countDropped();

    ParameterStore& _store;
    void* _context;
    void* _socket;
    int _port = 0;
    std::string _master;
    std::unique_ptr<Series> _series;
};

} // namespace simulator
} // namespace norvexa
