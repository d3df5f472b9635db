#include "DetectorStateMachine.h"

#include <algorithm>
#include <chrono>
#include <map>

namespace norvexa {
namespace simulator {

namespace {

const char* const kDetector = "detector";

CommandResult refused(const std::string& command, const std::string& state)
{
    return {400, "Command " + command + " not allowed in state " + state, Json::Value()};
}

Json::Value sequenceId(int series)
{
    Json::Value body(Json::objectValue);
    body["sequence id"] = series;
    return body;
}

} // namespace

DetectorStateMachine::DetectorStateMachine(ParameterStore& store, FrameSource frames, bool initialized)
    : _store(store), _frames(std::move(frames))
{
    setState(initialized ? "idle" : "na");
}

DetectorStateMachine::~DetectorStateMachine() { stopAcquisition(); }

void DetectorStateMachine::addObserver(SeriesObserver* observer) { _observers.push_back(observer); }

std::string DetectorStateMachine::state() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _state;
}

bool DetectorStateMachine::acceptsConfiguration() const { return state() != "acquire"; }

void DetectorStateMachine::setState(const std::string& state)
{
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _state = state;
    }
    _store.setValue(kDetector, "status", "state", state);
}

CommandResult DetectorStateMachine::command(const std::string& name)
{
    std::lock_guard<std::mutex> commandLock(_commandMutex);
    const std::string now = state();
    if (name == "initialize") {
        stopAcquisition();
        endSeries(true);
        setState("idle");
        return {};
    }
    if (name == "arm") {
        if (now != "idle")
            return refused(name, now);
        SeriesInfo info;
        info.config = _store.snapshot(kDetector, "config");
        info.nImages = info.config["nimages"].asInt() * info.config["ntrigger"].asInt();
        info.width = info.config["x_pixels_in_detector"].asInt();
        info.height = info.config["y_pixels_in_detector"].asInt();
        info.frameTime = info.config["frame_time"].asDouble();
        {
            std::lock_guard<std::mutex> lock(_mutex);
            info.series = ++_series;
            _info = info;
            _seriesOpen = true;
            _framesProduced = 0;
        }
        for (SeriesObserver* observer : _observers)
            observer->seriesStarted(info);
        setState("ready");
        return {200, "", sequenceId(info.series)};
    }
    if (name == "trigger") {
        if (now != "ready")
            return refused(name, now);
        const std::string mode = _store.value(kDetector, "config", "trigger_mode").asString();
        if (mode != "ints")
            return {400, "Command trigger needs the trigger mode ints, the mode is " + mode, Json::Value()};
        stopAcquisition();
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _stop = false;
        }
        setState("acquire");
        _worker = std::thread(&DetectorStateMachine::acquire, this);
        return {200, "", sequenceId(_info.series)};
    }
    if (name == "disarm" || name == "abort") {
        if (now == "na")
            return refused(name, now);
        stopAcquisition();
        endSeries(name == "abort");
        setState("idle");
        return {200, "", sequenceId(_series)};
    }
    return {404, "Unknown command " + name, Json::Value()};
}

void DetectorStateMachine::stopAcquisition()
{
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _stop = true;
    }
    _wake.notify_all();
    if (_worker.joinable())
        _worker.join();
}

void DetectorStateMachine::acquire()
{
    SeriesInfo info;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        info = _info;
    }
    const auto period = std::chrono::duration<double>(info.frameTime);
    for (int image = 1; image <= info.nImages; ++image) {
        {
            std::unique_lock<std::mutex> lock(_mutex);
            if (_wake.wait_for(lock, period, [this] { return _stop; }))
                return; // the command that stopped us ends the series
        }
        const bool wanted = std::any_of(_observers.begin(), _observers.end(),
                                        [](const SeriesObserver* o) { return o->wantsPixels(); });
        const imglib::DImage frame =
            wanted ? _frames(info.width, info.height, static_cast<std::uint32_t>(info.series * 100003 + image))
                   : imglib::DImage();
        for (SeriesObserver* observer : _observers)
            observer->frameProduced(info, image, frame);
        std::lock_guard<std::mutex> lock(_mutex);
        ++_framesProduced;
    }
    // The files are complete before anyone can see the detector idle again.
    endSeries(false);
    setState("idle");
}

void DetectorStateMachine::endSeries(bool aborted)
{
    SeriesInfo info;
    int frames = 0;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        if (!_seriesOpen)
            return;
        _seriesOpen = false;
        info = _info;
        frames = _framesProduced;
    }
    for (SeriesObserver* observer : _observers)
        observer->seriesEnded(info, frames, aborted);
}

std::vector<std::string> DetectorStateMachine::configure(const std::string& name)
{
    auto get = [this](const char* n) { return _store.value(kDetector, "config", n).asDouble(); };
    auto set = [this](const char* n, double v) { _store.setValue(kDetector, "config", n, v); };
    if (name == "count_time" && get("frame_time") < get("count_time")) {
        set("frame_time", get("count_time"));
        return {"frame_time"};
    }
    if (name == "frame_time" && get("count_time") > get("frame_time")) {
        set("count_time", get("frame_time"));
        return {"count_time"};
    }
    if (name == "photon_energy") {
        set("threshold_energy", get("photon_energy") / 2);
        return {"threshold_energy"};
    }
    if (name == "element") {
        // K-alpha lines in eV.
        static const std::map<std::string, double> lines{
            {"Ag", 22163.0}, {"Cr", 5414.7}, {"Cu", 8046.3}, {"Fe", 6404.0},
            {"Ga", 9251.7},  {"In", 24210.0}, {"Mo", 17479.3}, {"Ti", 4510.8}};
        const auto line = lines.find(_store.value(kDetector, "config", "element").asString());
        if (line != lines.end()) {
            set("photon_energy", line->second);
            set("threshold_energy", line->second / 2);
            return {"photon_energy", "threshold_energy"};
        }
    }
    return {};
}

} // namespace simulator
} // namespace norvexa
