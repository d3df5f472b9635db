#pragma once

#include "foundation/image/DAllocators.h"
#include "foundation/image/DBasicImageData.h"

#include <atomic>
#include <map>
#include <memory>
#include <string>

namespace norvexa {
namespace imglib {

/// A synchronous HTTP client bound to one host and port for its whole life. Plain
/// "http://" only; no time-out of its own (the server reports one, or the caller ends an
/// operation through the abort flag, which is polled every 50 ms during the transfer, also
/// while the server is silent). A status that is not 2xx is returned, not raised.
/// Transport failures are DRuntimeException "Http request failed: <reason>".
///
/// One client holds one connection handle and no lock: one thread at a time. Different
/// clients may work in different threads at once. The library-wide network set-up is
/// counted by the living clients: the first one sets it up, the last one tears it down.
class DHttpClient {
public:
    enum Method { Get = 0, Put = 1, Post = 2, Delete = 3 };

    struct QueryReturn {
        int status = 0;
        /// Reply header lines: keys lower-case and trimmed, values trimmed; of a repeated
        /// header the last one stands.
        std::map<std::string, std::string> headers;
        /// The reply's body; empty after a download. A body of announced length arrives
        /// in one buffer of that size, with a little room behind it for a parser's padding.
        image::DBasicImageData<image::StdAllocator> data;
    };

    class DHttpClientPrivate;

    /// `host` with or without "http://". DRuntimeException "Failed to initialize curl
    /// handle" when no handle can be made.
    DHttpClient(const std::string& host, int port);
    ~DHttpClient();
    DHttpClient(const DHttpClient&) = delete;
    DHttpClient& operator=(const DHttpClient&) = delete;

    /// One exchange with a memory body and a memory reply. After a transport failure the
    /// connection handle is replaced, so the client stays usable.
    QueryReturn query(const std::string& path, Method method,
                      const std::map<std::string, std::string>& headers,
                      const image::DBasicImageData<image::StdAllocator>& body) const;
    /// The same; setting `abort` from another thread ends the exchange with
    /// "Http request failed: ...". The flag is never reset here.
    QueryReturn query(const std::string& path, Method method, const std::atomic<bool>& abort,
                      const std::map<std::string, std::string>& headers,
                      const image::DBasicImageData<image::StdAllocator>& body) const;
    /// GETs `path` into "<localPath>.tmp" and renames that to `localPath` whatever the
    /// status was (a server's error page lands under the name; the caller judges the
    /// status). After a transport failure the ".tmp" file stays. A file that can't be
    /// written fails with "Writing data to <localPath> failed with errno <n>".
    QueryReturn download(const std::string& path, const std::string& localPath,
                         const std::atomic<bool>& abort,
                         const std::map<std::string, std::string>& headers) const;

    std::string host() const;
    int port() const;

private:
    std::unique_ptr<DHttpClientPrivate> _d;
};

} // namespace imglib
} // namespace norvexa
