#pragma once

#include "MonitorFrame.h"

#include <atomic>
#include <memory>
#include <string>

namespace norvexa {
namespace imglib {

class DHttpClient;

/// Reads single images out of a detector's monitor interface ("/monitor/api/1.0.0/..."),
/// which keeps a buffer of the last images and hands them out as TIFF, and controls that
/// buffer. The views "monitor" and "next" are the server's; the client carries the names.
/// `timeout` goes to the server in the address, in the server's unit; a 408 reply is
/// DTimeoutException with the time measured here. Failures are those of orviktools. One
/// thread at a time; `abort` set from another thread ends a waiting request.
class DOrvikMonitor {
public:
    DOrvikMonitor(const std::string& host, int port);
    ~DOrvikMonitor();
    DOrvikMonitor(const DOrvikMonitor&) = delete;
    DOrvikMonitor& operator=(const DOrvikMonitor&) = delete;

    std::string host() const;
    int port() const;

    std::string version(const std::atomic<bool>& abort) const;
    /// True when the mode is "enabled".
    bool enabled(const std::atomic<bool>& abort) const;
    /// Writes the mode "enabled" or "disabled" (a JSON string, not a boolean).
    void setEnabled(bool enabled, const std::atomic<bool>& abort);
    int bufferSize(const std::atomic<bool>& abort) const;
    void setBufferSize(int size, const std::atomic<bool>& abort);
    /// Empties the server's buffer.
    void clear(const std::atomic<bool>& abort);

    MonitorFrame monitorAll(int timeout, const std::atomic<bool>& abort);
    MonitorFrame nextAll(int timeout, const std::atomic<bool>& abort);
    DImage monitor(int timeout, const std::atomic<bool>& abort);
    DImage next(int timeout, const std::atomic<bool>& abort);

private:
    std::unique_ptr<DHttpClient> _client;
};

} // namespace imglib
} // namespace norvexa
