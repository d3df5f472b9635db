#pragma once

#include "ParameterStore.h"

#include "DImage.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace norvexa {
namespace simulator {

/// What a series is made with: fixed at "arm".
struct SeriesInfo {
    /// The sequence id that "arm" answers, from 1.
    int series = 0;
    int nImages = 0;
    int width = 0;
    int height = 0;
    double frameTime = 0.0;
    /// Every value of the detector's configuration at "arm", by name.
    Json::Value config;
};

/// Told of every series: started at "arm", one call per frame (numbers from 1) on the
/// acquisition's thread, ended once, at its last frame or at "disarm"/"abort". The calls
/// of one series never overlap. A consumer of frames (file writer, monitor, a data stream)
/// is one of these.
class SeriesObserver {
public:
    virtual ~SeriesObserver() = default;
    virtual void seriesStarted(const SeriesInfo&) {}
    virtual void frameProduced(const SeriesInfo&, int /*imageNumber*/, const imglib::DImage&) {}
    /// Whether frameProduced reads the frame's pixels now; when no observer does, the frame
    /// is not computed, and a stream of large frames runs at its own pace.
    virtual bool wantsPixels() const { return true; }
    virtual void seriesEnded(const SeriesInfo&, int /*framesProduced*/, bool /*aborted*/) {}
};

/// The answer to a command: a status, a text for a refusal, a JSON body for a success.
struct CommandResult {
    int status = 200;
    std::string message;
    Json::Value body;
};

/// The detector's states and commands. "na" until "initialize" (unless built initialized),
/// then "idle"; "arm" makes it "ready", "trigger" (in the internal trigger mode "ints")
/// "acquire", and after the last frame, or at "disarm" or "abort", it is "idle" again. A
/// command in a state that doesn't take it is refused with 400 and a text. The state is
/// kept in the store's "detector"/"status" table under "state".
class DetectorStateMachine {
public:
    using FrameSource = std::function<imglib::DImage(int width, int height, std::uint32_t seed)>;

    DetectorStateMachine(ParameterStore& store, FrameSource frames, bool initialized);
    /// Ends a running acquisition.
    ~DetectorStateMachine();
    DetectorStateMachine(const DetectorStateMachine&) = delete;
    DetectorStateMachine& operator=(const DetectorStateMachine&) = delete;

    /// Not owned; add before the first command.
    void addObserver(SeriesObserver* observer);

    /// "initialize", "arm", "trigger", "disarm", "abort"; 404 for any other name.
    CommandResult command(const std::string& name);
    std::string state() const;
    /// False while acquiring: the configuration is then refused with 400.
    bool acceptsConfiguration() const;
    /// Brings the values that follow from a written parameter up to date (the frame time
    /// that must hold the count time, the energies of an element) and returns their names.
    std::vector<std::string> configure(const std::string& name);

private:
    void setState(const std::string& state);
    void stopAcquisition();
    void acquire();
    void endSeries(bool aborted);

    ParameterStore& _store;
    FrameSource _frames;
    std::vector<SeriesObserver*> _observers;

    // Serialises commands; _mutex below only guards the fields the worker shares.
    std::mutex _commandMutex;
    mutable std::mutex _mutex;
    std::condition_variable _wake;
    std::string _state;
    bool _stop = false;
    bool _seriesOpen = false;
    int _framesProduced = 0;
    int _series = 0;
    SeriesInfo _info;
    std::thread _worker;
};

} // namespace simulator
} // namespace norvexa
