#pragma once

#include <atomic>
#include <memory>
#include <set>
#include <string>

namespace norvexa {
namespace imglib {

class DHttpClient;

/// A parameter's value with the limits the server states for it.
template <class T>
struct RangedValue {
    T value{};
    T min{};
    T max{};
};

/// A parameter's value with the values the server allows for it.
struct ChoiceValue {
    std::string value;
    std::set<std::string> allowed;
};

/// The remote control of one detector over its REST interface
/// ("/detector/api/1.0.0/..."). A stateless facade: every method is one HTTP exchange,
/// nothing is cached or validated, no order of commands is enforced; limits and states are
/// the server's, and a refusal comes back as DHttpException with the server's status and
/// text. Failures are those of orviktools. One thread at a time; `abort` set from another
/// thread ends a running exchange.
///
/// Some parameters can only be written (auto_summation, calibration_type, the count-rate
/// correction items, virtual_pixel_correction_applied), as the server's interface has them.
class DOrvikDetector {
public:
    DOrvikDetector(const std::string& host, int port);
    ~DOrvikDetector();
    DOrvikDetector(const DOrvikDetector&) = delete;
    DOrvikDetector& operator=(const DOrvikDetector&) = delete;

    std::string host() const;
    int port() const;

    /// The server's interface version (not compared with the client's).
    std::string version(const std::atomic<bool>& abort) const;
    /// The server's state text under "value".
    std::string status(const std::atomic<bool>& abort) const;
    /// True when the member "state" of the state resource differs from "normal"; a server
    /// that answers only under "value" fails with "Error while parsing json string".
    bool isError(const std::atomic<bool>& abort) const;

    std::string description(const std::atomic<bool>& abort) const;
    std::string detectorNumber(const std::atomic<bool>& abort) const;
    RangedValue<double> countTime(const std::atomic<bool>& abort) const;
    void setCountTime(double value, const std::atomic<bool>& abort);
    RangedValue<double> frameTime(const std::atomic<bool>& abort) const;
    void setFrameTime(double value, const std::atomic<bool>& abort);
    RangedValue<int> nImages(const std::atomic<bool>& abort) const;
    void setNImages(int value, const std::atomic<bool>& abort);
    RangedValue<double> photonEnergy(const std::atomic<bool>& abort) const;
    void setPhotonEnergy(double value, const std::atomic<bool>& abort);
    RangedValue<double> thresholdEnergy(const std::atomic<bool>& abort) const;
    void setThresholdEnergy(double value, const std::atomic<bool>& abort);
    /// The only getter that is not const, as the interface has always had it.
    ChoiceValue element(const std::atomic<bool>& abort);
    void setElement(const std::string& value, const std::atomic<bool>& abort);
    ChoiceValue triggerMode(const std::atomic<bool>& abort) const;
    void setTriggerMode(const std::string& value, const std::atomic<bool>& abort);
    bool flatfieldCorrectionApplied(const std::atomic<bool>& abort) const;
    void setFlatfieldCorrectionApplied(bool value, const std::atomic<bool>& abort);
    bool pixelMaskApplied(const std::atomic<bool>& abort) const;
    void setPixelMaskApplied(bool value, const std::atomic<bool>& abort);
    void setAutoSummation(bool value, const std::atomic<bool>& abort);
    void setCalibrationType(const std::string& value, const std::atomic<bool>& abort);
    void setCountrateCorrectionApplied(bool value, const std::atomic<bool>& abort);
    void setCountrateCorrectionBunchMode(const std::string& value, const std::atomic<bool>& abort);
    void setVirtualPixelCorrectionApplied(bool value, const std::atomic<bool>& abort);

    void initialize(const std::atomic<bool>& abort);
    void arm(const std::atomic<bool>& abort);
    void trigger(const std::atomic<bool>& abort);
    void disarm(const std::atomic<bool>& abort);
    void abort(const std::atomic<bool>& abort);

private:
    template <class... Pairs>
    void getParam(const std::string& name, const std::atomic<bool>& abort, Pairs&&... pairs) const;
    template <class T>
    T plain(const std::string& name, const std::atomic<bool>& abort) const;
    template <class T>
    void setParam(const std::string& name, const T& value, const std::atomic<bool>& abort);
    void command(const std::string& name, const std::atomic<bool>& abort);
    template <class T>
    RangedValue<T> ranged(const std::string& name, const std::atomic<bool>& abort) const;
    ChoiceValue choice(const std::string& name, const std::atomic<bool>& abort) const;

    std::unique_ptr<DHttpClient> _client;
};

} // namespace imglib
} // namespace norvexa
