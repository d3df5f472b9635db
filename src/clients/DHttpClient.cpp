#include "DHttpClient.h"

#include "foundation/DException.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdint>
#include <cstring>
#include <mutex>

namespace norvexa {
namespace imglib {

namespace {

using Data = image::DBasicImageData<image::StdAllocator>;
using Headers = std::map<std::string, std::string>;

/// The largest announced body that is allocated before it arrives.
constexpr std::uint64_t kMaxReserve = std::uint64_t(1) << 30;
/// Room behind a body of announced length, where a parser may put its zero padding
/// without copying the body.
constexpr std::size_t kParserSlack = 64;

struct CurlDeleter {
    void operator()(CURL* curl) const noexcept { curl_easy_cleanup(curl); }
};
using Curl = std::unique_ptr<CURL, CurlDeleter>;

struct MultiDeleter {
    void operator()(CURLM* multi) const noexcept { curl_multi_cleanup(multi); }
};
using Multi = std::unique_ptr<CURLM, MultiDeleter>;

struct SlistDeleter {
    void operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, SlistDeleter>;

struct FileCloser {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

struct UploadCursor {
    const char* next;
    std::size_t left;
};

std::string prune(const std::string& s)
{
    std::size_t begin = 0, end = s.size();
    while (begin < end && std::isspace(static_cast<unsigned char>(s[begin])))
        ++begin;
    while (end > begin && std::isspace(static_cast<unsigned char>(s[end - 1])))
        --end;
    return s.substr(begin, end - begin);
}

std::string lowerCase(std::string s)
{
    for (char& c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

HeaderList makeHeaderList(const Headers& headers)
{
    HeaderList list;
    bool hasExpect = false;
    auto append = [&list](const std::string& line) {
        curl_slist* grown = curl_slist_append(list.get(), line.c_str());
        if (!grown)
            throw std::bad_alloc();
        list.release();
        list.reset(grown);
    };
    for (const auto& [key, value] : headers) {
        const std::string cleaned = lowerCase(prune(key));
        hasExpect = hasExpect || cleaned == "expect";
        append(cleaned + ":" + value);
    }
    // A bare "Expect:" stops libcurl from waiting for a continue reply before an upload.
    if (!hasExpect)
        append("Expect:");
    return list;
}

int progressCallback(void* flag, curl_off_t, curl_off_t, curl_off_t, curl_off_t)
{
    return static_cast<const std::atomic<bool>*>(flag)->load() ? 1 : 0;
}

/// Where a reply's body goes: its buffer, and the handle that knows the announced length.
struct BodySink {
    Data& data;
    CURL* curl;
};

std::size_t writeToDataCallback(char* bytes, std::size_t size, std::size_t count, void* userData)
{
    BodySink& sink = *static_cast<BodySink*>(userData);
    Data& data = sink.data;
    const std::size_t n = size * count;
    const std::size_t oldSize = data.size();
    const std::size_t newSize = oldSize + n;
    if (oldSize == 0 && newSize > 0) {
        // A body of known length (a monitor frame is tens of megabytes) goes into one
        // buffer of its size: growing by steps would copy it over and over, and fault in
        // each new buffer. A length that can't be had is left to the growth below.
        curl_off_t length = -1;
        if (curl_easy_getinfo(sink.curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) == CURLE_OK &&
            static_cast<std::uint64_t>(length) > newSize && static_cast<std::uint64_t>(length) <= kMaxReserve) {
            try {
                data.reserve(static_cast<std::size_t>(length) + kParserSlack);
            } catch (const std::bad_alloc&) {
            }
        }
    }
    // Growing by a factor keeps a reply of many pieces at a logarithmic number of moves.
    if (newSize > data.capacity())
        data.reserve(static_cast<std::size_t>(std::ceil(static_cast<double>(newSize) * 1.4)));
    data.resize(newSize);
    if (n)
        std::memcpy(data.data() + oldSize, bytes, n);
    return n;
}

std::size_t headerCallback(char* line, std::size_t size, std::size_t count, void* userData)
{
    Headers& headers = *static_cast<Headers*>(userData);
    const std::size_t n = size * count;
    const char* colon = static_cast<const char*>(std::memchr(line, ':', n));
    if (!colon)
        return n;
    const std::size_t keyLength = static_cast<std::size_t>(colon - line);
    const std::string key = lowerCase(prune(std::string(line, keyLength)));
    const std::string value =
        keyLength + 1 < n ? prune(std::string(colon + 1, n - keyLength - 1)) : std::string();
    headers[key] = value;
    return n;
}

std::size_t readCallback(char* buffer, std::size_t size, std::size_t count, void* userData)
{
    UploadCursor& cursor = *static_cast<UploadCursor*>(userData);
    const std::size_t n = std::min(size * count, cursor.left);
    if (n)
        std::memcpy(buffer, cursor.next, n);
    cursor.next += n;
    cursor.left -= n;
    return n;
}

void clearMethod(CURL* curl)
{
    // POSTFIELDS first: setting it, even to null, makes libcurl's method a POST, which the
    // POST 0 after it takes back. Last, it would turn a DELETE into a chunked upload.
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, static_cast<char*>(nullptr));
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, static_cast<char*>(nullptr));
    curl_easy_setopt(curl, CURLOPT_HTTPGET, 0L);
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 0L);
    curl_easy_setopt(curl, CURLOPT_POST, 0L);
}

void setMethodOnCurlHandle(CURL* curl, DHttpClient::Method method)
{
    clearMethod(curl);
    switch (method) {
    case DHttpClient::Get:
        curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
        break;
    case DHttpClient::Put:
        curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
        break;
    case DHttpClient::Post:
        // The body comes from the read callback.
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, static_cast<char*>(nullptr));
        break;
    case DHttpClient::Delete:
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "DELETE");
        break;
    default:
        throw DRuntimeException("Http method not implemented");
    }
}

void setProgress(CURL* curl, const std::atomic<bool>& abort)
{
    // The transfer-info callback is the current name of the progress callback; perform()
    // looks at the flag between its waits as well.
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &progressCallback);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, const_cast<std::atomic<bool>*>(&abort));
}

/// curl_easy_perform through the client's multi handle, which keeps the connections from
/// one exchange to the next as the easy interface does. The flag is looked at every 50 ms
/// also while the server is silent: libcurl calls the progress callback only about once a
/// second then, too late for a caller that ends a wait on Ctrl-C.
CURLcode perform(CURLM* multi, CURL* curl, const std::atomic<bool>& abort)
{
    if (abort)
        return CURLE_ABORTED_BY_CALLBACK;
    if (curl_multi_add_handle(multi, curl) != CURLM_OK)
        return CURLE_FAILED_INIT;
    CURLcode result = CURLE_OK;
    for (;;) {
        int running = 0;
        CURLMcode state = curl_multi_perform(multi, &running);
        if (state == CURLM_OK && running == 0) {
            int left = 0;
            while (CURLMsg* message = curl_multi_info_read(multi, &left))
                if (message->msg == CURLMSG_DONE && message->easy_handle == curl)
                    result = message->data.result;
            break;
        }
        if (state == CURLM_OK && abort)
            result = CURLE_ABORTED_BY_CALLBACK;
        else if (state == CURLM_OK)
            state = curl_multi_poll(multi, nullptr, 0, 50, nullptr);
        if (state != CURLM_OK)
            result = state == CURLM_OUT_OF_MEMORY ? CURLE_OUT_OF_MEMORY : CURLE_FAILED_INIT;
        if (result != CURLE_OK)
            break;
    }
    curl_multi_remove_handle(multi, curl);
    return result;
}

[[noreturn]] void throwRequestFailed(CURLcode code)
{
    throw DRuntimeException(std::string("Http request failed: ") + curl_easy_strerror(code));
}

int responseCode(CURL* curl)
{
    long code = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
    return static_cast<int>(code);
}

} // namespace

class DHttpClient::DHttpClientPrivate {
public:
    std::string host;
    int port;
    Curl curl;
    Multi multi;

    static std::mutex _curlInitMutex;
    static unsigned _curlInitNumber;
};

std::mutex DHttpClient::DHttpClientPrivate::_curlInitMutex;
unsigned DHttpClient::DHttpClientPrivate::_curlInitNumber = 0;

DHttpClient::DHttpClient(const std::string& host, int port)
    : _d(new DHttpClientPrivate{host, port, Curl(curl_easy_init()), Multi(curl_multi_init())})
{
    if (!_d->curl || !_d->multi)
        throw DRuntimeException("Failed to initialize curl handle");
    curl_easy_setopt(_d->curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(_d->curl.get(), CURLOPT_TCP_NODELAY, 1L);
    // The first handle exists before the global set-up; libcurl tolerates that order.
    std::lock_guard<std::mutex> lock(DHttpClientPrivate::_curlInitMutex);
    if (DHttpClientPrivate::_curlInitNumber++ == 0)
        curl_global_init(CURL_GLOBAL_ALL);
}

DHttpClient::~DHttpClient()
{
    _d->multi.reset(); // closes the kept connections while libcurl is still set up
    {
        std::lock_guard<std::mutex> lock(DHttpClientPrivate::_curlInitMutex);
        if (DHttpClientPrivate::_curlInitNumber-- == 1)
            curl_global_cleanup();
    }
    // Deliberately after the global clean-up of the last client: the handle goes when the
    // private object does, which keeps construction and destruction mirror images.
    _d.reset();
}

std::string DHttpClient::host() const { return _d->host; }

int DHttpClient::port() const { return _d->port; }

namespace {

std::string url(const std::string& host, int port, const std::string& path)
{
    // Case-sensitive on purpose: "HTTP://" gets a scheme written in front of it.
    std::string address = host.compare(0, 7, "http://") == 0 ? "" : "http://";
    address += host + ":" + std::to_string(port);
    if (!path.empty() && path[0] != '/')
        address += "/";
    return address + path;
}

} // namespace

DHttpClient::QueryReturn DHttpClient::query(const std::string& path, Method method,
                                            const std::map<std::string, std::string>& headers,
                                            const Data& body) const
{
    static const std::atomic<bool> never{false};
    return query(path, method, never, headers, body);
}

DHttpClient::QueryReturn DHttpClient::query(const std::string& path, Method method,
                                            const std::atomic<bool>& abort,
                                            const std::map<std::string, std::string>& headers,
                                            const Data& body) const
{
    CURL* curl = _d->curl.get();
    const std::string address = url(_d->host, _d->port, path);
    curl_easy_setopt(curl, CURLOPT_URL, address.c_str());
    setProgress(curl, abort);
    HeaderList headerList = makeHeaderList(headers);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headerList.get());

    QueryReturn result;
    BodySink sink{result.data, curl};
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &writeToDataCallback);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &headerCallback);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &result.headers);
    curl_easy_setopt(curl, CURLOPT_USERAGENT, "libcurl-agent/1.0");

    UploadCursor cursor{body.cdata(), body.size()};
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, &readCallback);
    curl_easy_setopt(curl, CURLOPT_READDATA, &cursor);
    curl_easy_setopt(curl, CURLOPT_INFILESIZE, static_cast<long>(body.size()));
    setMethodOnCurlHandle(curl, method);

    const CURLcode code = perform(_d->multi.get(), curl, abort);
    if (code != CURLE_OK) {
        // A fresh handle, so that a broken connection can't spoil the next query. It gets
        // neither NOSIGNAL nor TCP_NODELAY again, as it always has.
        _d->curl.reset(curl_easy_init());
        throwRequestFailed(code);
    }
    result.status = responseCode(curl);
    return result;
}

DHttpClient::QueryReturn DHttpClient::download(const std::string& path, const std::string& localPath,
                                               const std::atomic<bool>& abort,
                                               const std::map<std::string, std::string>& headers) const
{
    CURL* curl = _d->curl.get();
    const std::string address = url(_d->host, _d->port, path);
    const std::string temporary = localPath + ".tmp";
    curl_easy_setopt(curl, CURLOPT_URL, address.c_str());
    setProgress(curl, abort);
    HeaderList headerList = makeHeaderList(headers);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headerList.get());

    QueryReturn result;
    File file(std::fopen(temporary.c_str(), "wb"));
    // libcurl would write to standard output without a file.
    if (!file)
        throw DRuntimeException("Writing data to " + localPath + " failed with errno " +
                                std::to_string(errno));
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, static_cast<curl_write_callback>(nullptr));
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, file.get());
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &headerCallback);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &result.headers);
    curl_easy_setopt(curl, CURLOPT_USERAGENT, "libcurl-agent/1.0");
    clearMethod(curl);
    curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);

    const CURLcode code = perform(_d->multi.get(), curl, abort);
    if (code != CURLE_OK)
        throwRequestFailed(code);
    if (std::fclose(file.release()) < 0)
        throw DRuntimeException("Writing data to " + localPath + " failed with errno " +
                                std::to_string(errno));
    // Renamed whatever the status: the caller looks at the status and decides.
    std::rename(temporary.c_str(), localPath.c_str());
    result.status = responseCode(curl);
    return result;
}

} // namespace imglib
} // namespace norvexa
