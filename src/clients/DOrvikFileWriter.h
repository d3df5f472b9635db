#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace norvexa {
namespace imglib {

class DHttpClient;

/// Drives the file writer of a detector's server ("/filewriter/api/1.5.0/..."): switches
/// the writing on and off, lists, fetches and deletes the files. A single file lives in
/// the server's file area "/data/<name>", without the interface's prefix; `name` is passed
/// as it is, without escaping. A stateless facade; failures are those of orviktools. One
/// thread at a time; `abort` set from another thread ends a running exchange.
class DOrvikFileWriter {
public:
    DOrvikFileWriter(const std::string& host, int port);
    ~DOrvikFileWriter();
    DOrvikFileWriter(const DOrvikFileWriter&) = delete;
    DOrvikFileWriter& operator=(const DOrvikFileWriter&) = delete;

    std::string host() const;
    int port() const;

    std::string version(const std::atomic<bool>& abort) const;
    /// True when the mode is "enabled".
    bool enabled(const std::atomic<bool>& abort) const;
    /// Writes the mode "enabled" or "disabled" (a JSON string, not a boolean).
    void setEnabled(bool enabled, const std::atomic<bool>& abort);
    std::vector<std::string> listFiles(const std::atomic<bool>& abort) const;
    /// DELETE "/data/<name>".
    void remove(const std::string& name, const std::atomic<bool>& abort) const;
    /// Fetches "/data/<name>" into `directory` + "/" + `name` and returns the size the
    /// reply's "content-length" states. The file is in place before the status is judged:
    /// after a 404 it holds the server's page. DRuntimeException "Missing content-length in
    /// http return header" when the header is missing or too large, "Invalid content-length
    /// <value>" when it does not begin with a number; the file stays in both cases. A
    /// sub-directory in `name` must exist locally.
    std::int64_t download(const std::string& name, const std::string& directory,
                          const std::atomic<bool>& abort) const;

private:
    std::unique_ptr<DHttpClient> _client;
};

} // namespace imglib
} // namespace norvexa
