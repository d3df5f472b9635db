#include "DOrvikDetector.h"

#include "DHttpClient.h"
#include "orviktools.h"

namespace norvexa {
namespace imglib {

namespace {
const std::string kPrefix = "/detector/api/1.0.0";
}

DOrvikDetector::DOrvikDetector(const std::string& host, int port)
    : _client(std::make_unique<DHttpClient>(host, port))
{
}

DOrvikDetector::~DOrvikDetector() = default;

std::string DOrvikDetector::host() const { return _client->host(); }

int DOrvikDetector::port() const { return _client->port(); }

template <class... Pairs>
void DOrvikDetector::getParam(const std::string& name, const std::atomic<bool>& abort,
                              Pairs&&... pairs) const
{
    orviktools::httpGetKey(kPrefix + "/config/" + name, *_client, abort, std::forward<Pairs>(pairs)...);
}

template <class T>
T DOrvikDetector::plain(const std::string& name, const std::atomic<bool>& abort) const
{
    return orviktools::httpGetValue<T>(kPrefix + "/config/" + name, *_client, abort);
}

template <class T>
void DOrvikDetector::setParam(const std::string& name, const T& value, const std::atomic<bool>& abort)
{
    orviktools::httpPutValue(kPrefix + "/config/" + name, *_client, value, abort);
}

void DOrvikDetector::command(const std::string& name, const std::atomic<bool>& abort)
{
    orviktools::httpPut(kPrefix + "/command/" + name, *_client, abort);
}

template <class T>
RangedValue<T> DOrvikDetector::ranged(const std::string& name, const std::atomic<bool>& abort) const
{
    RangedValue<T> result;
    getParam(name, abort, "value", result.value, "min", result.min, "max", result.max);
    return result;
}

ChoiceValue DOrvikDetector::choice(const std::string& name, const std::atomic<bool>& abort) const
{
    ChoiceValue result;
    getParam(name, abort, "value", result.value, "allowed_values", result.allowed);
    return result;
}

std::string DOrvikDetector::version(const std::atomic<bool>& abort) const
{
    return orviktools::httpGetValue<std::string>("/detector/api/version/", *_client, abort);
}

std::string DOrvikDetector::status(const std::atomic<bool>& abort) const
{
    return orviktools::httpGetValue<std::string>(kPrefix + "/status/state", *_client, abort);
}

bool DOrvikDetector::isError(const std::atomic<bool>& abort) const
{
    std::string state;
    orviktools::httpGetKey(kPrefix + "/status/state", *_client, abort, "state", state);
    return state != "normal";
}

std::string DOrvikDetector::description(const std::atomic<bool>& abort) const
{
    return plain<std::string>("description", abort);
}

std::string DOrvikDetector::detectorNumber(const std::atomic<bool>& abort) const
{
    return plain<std::string>("detector_number", abort);
}

RangedValue<double> DOrvikDetector::countTime(const std::atomic<bool>& abort) const
{
    return ranged<double>("count_time", abort);
}

void DOrvikDetector::setCountTime(double value, const std::atomic<bool>& abort)
{
    setParam("count_time", value, abort);
}

RangedValue<double> DOrvikDetector::frameTime(const std::atomic<bool>& abort) const
{
    return ranged<double>("frame_time", abort);
}

void DOrvikDetector::setFrameTime(double value, const std::atomic<bool>& abort)
{
    setParam("frame_time", value, abort);
}

RangedValue<int> DOrvikDetector::nImages(const std::atomic<bool>& abort) const
{
    return ranged<int>("nimages", abort);
}

void DOrvikDetector::setNImages(int value, const std::atomic<bool>& abort)
{
    setParam("nimages", value, abort);
}

RangedValue<double> DOrvikDetector::photonEnergy(const std::atomic<bool>& abort) const
{
    return ranged<double>("photon_energy", abort);
}

void DOrvikDetector::setPhotonEnergy(double value, const std::atomic<bool>& abort)
{
    setParam("photon_energy", value, abort);
}

RangedValue<double> DOrvikDetector::thresholdEnergy(const std::atomic<bool>& abort) const
{
    return ranged<double>("threshold_energy", abort);
}

void DOrvikDetector::setThresholdEnergy(double value, const std::atomic<bool>& abort)
{
    setParam("threshold_energy", value, abort);
}

ChoiceValue DOrvikDetector::element(const std::atomic<bool>& abort) { return choice("element", abort); }

void DOrvikDetector::setElement(const std::string& value, const std::atomic<bool>& abort)
{
    setParam("element", value, abort);
}

ChoiceValue DOrvikDetector::triggerMode(const std::atomic<bool>& abort) const
{
    return choice("trigger_mode", abort);
}

void DOrvikDetector::setTriggerMode(const std::string& value, const std::atomic<bool>& abort)
{
    setParam("trigger_mode", value, abort);
}

bool DOrvikDetector::flatfieldCorrectionApplied(const std::atomic<bool>& abort) const
{
    return plain<bool>("flatfield_correction_applied", abort);
}

void DOrvikDetector::setFlatfieldCorrectionApplied(bool value, const std::atomic<bool>& abort)
{
    setParam("flatfield_correction_applied", value, abort);
}

bool DOrvikDetector::pixelMaskApplied(const std::atomic<bool>& abort) const
{
    return plain<bool>("pixel_mask_applied", abort);
}

void DOrvikDetector::setPixelMaskApplied(bool value, const std::atomic<bool>& abort)
{
    setParam("pixel_mask_applied", value, abort);
}

void DOrvikDetector::setAutoSummation(bool value, const std::atomic<bool>& abort)
{
    setParam("auto_summation", value, abort);
}

void DOrvikDetector::setCalibrationType(const std::string& value, const std::atomic<bool>& abort)
{
    setParam("calibration_type", value, abort);
}

void DOrvikDetector::setCountrateCorrectionApplied(bool value, const std::atomic<bool>& abort)
{
    setParam("countrate_correction_applied", value, abort);
}

void DOrvikDetector::setCountrateCorrectionBunchMode(const std::string& value,
                                                     const std::atomic<bool>& abort)
{
    setParam("countrate_correction_bunch_mode", value, abort);
}

void DOrvikDetector::setVirtualPixelCorrectionApplied(bool value, const std::atomic<bool>& abort)
{
    setParam("virtual_pixel_correction_applied", value, abort);
}

void DOrvikDetector::initialize(const std::atomic<bool>& abort) { command("initialize", abort); }
void DOrvikDetector::arm(const std::atomic<bool>& abort) { command("arm", abort); }
void DOrvikDetector::trigger(const std::atomic<bool>& abort) { command("trigger", abort); }
void DOrvikDetector::disarm(const std::atomic<bool>& abort) { command("disarm", abort); }
void DOrvikDetector::abort(const std::atomic<bool>& abort) { command("abort", abort); }

} // namespace imglib
} // namespace norvexa
