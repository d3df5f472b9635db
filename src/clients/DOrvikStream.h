#pragma once

#include "DStreamObject.h"

#include <atomic>
#include <memory>
#include <string>

namespace norvexa {
namespace imglib {

/// A detector's live stream, as an application follows it: the stream interface's REST
/// control on `port` (switching the stream on, the detail of the headers, the count of
/// lost images) and the receiving socket on the same host's data port 9999.
///
/// Each REST method is one HTTP exchange and fails as the REST helpers do; `pop` is
/// DStreamClient::pop. The constructor talks to nobody: the socket connects in the
/// background, so a detector that is not up yet is no failure here. One thread at a
/// time; the abort flag is the way in from another thread.
class DOrvikStream {
public:
    class DOrvikStreamPrivate;

    /// The data port of a detector's stream.
    static constexpr int DATA_PORT = 9999;
    /// The version in the stream interface's paths.
    static constexpr const char* API_VERSION = "1.4.0";

    DOrvikStream(std::string host, int port);
    ~DOrvikStream();
    DOrvikStream(const DOrvikStream&) = delete;
    DOrvikStream& operator=(const DOrvikStream&) = delete;

    /// The server's version of the stream interface (not compared with API_VERSION).
    std::string version() const;
    /// Whether the mode is "enabled"; any other text is false.
    bool enabled(const std::atomic<bool>& abort) const;
    void setEnabled(bool enabled, const std::atomic<bool>& abort);
    std::string headerDetail(const std::atomic<bool>& abort) const;
    /// "none", "basic" or "all" make sense; the value is passed on unchecked.
    void setHeaderDetail(const std::string& detail, const std::atomic<bool>& abort);
    /// Images the detector could not send in the current series.
    int dropped(const std::atomic<bool>& abort) const;
    /// The next message of the stream (DStreamClient::pop).
    DStreamObject pop(double timeout, const std::atomic<bool>& abort);

private:
    std::unique_ptr<DOrvikStreamPrivate> _d;
};

} // namespace imglib
} // namespace norvexa
