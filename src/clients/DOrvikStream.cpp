#include "DOrvikStream.h"

#include "DHttpClient.h"
#include "DStreamClient.h"
#include "orviktools.h"

namespace norvexa {
namespace imglib {

class DOrvikStream::DOrvikStreamPrivate {
public:
    DOrvikStreamPrivate(const std::string& host, int port)
        : rest(host, port), stream(host, DATA_PORT)
    {
    }

    static std::string config(const char* name)
    {
        return std::string("/stream/api/") + API_VERSION + "/config/" + name;
    }

    // Made in this order and released in the other.
    DHttpClient rest;
    DStreamClient stream;
};

DOrvikStream::DOrvikStream(std::string host, int port) : _d(new DOrvikStreamPrivate(host, port)) {}

DOrvikStream::~DOrvikStream() = default;

std::string DOrvikStream::version() const
{
    const std::atomic<bool> never(false);
    return orviktools::httpGetValue<std::string>("/stream/api/version/", _d->rest, never);
}

bool DOrvikStream::enabled(const std::atomic<bool>& abort) const
{
    return orviktools::httpGetEnabled(DOrvikStreamPrivate::config("mode"), _d->rest, abort);
}

void DOrvikStream::setEnabled(bool enabled, const std::atomic<bool>& abort)
{
    orviktools::httpPutEnabled(DOrvikStreamPrivate::config("mode"), _d->rest, enabled, abort);
}

std::string DOrvikStream::headerDetail(const std::atomic<bool>& abort) const
{
    return orviktools::httpGetValue<std::string>(DOrvikStreamPrivate::config("header_detail"),
                                                 _d->rest, abort);
}

void DOrvikStream::setHeaderDetail(const std::string& detail, const std::atomic<bool>& abort)
{
    orviktools::httpPutValue<std::string>(DOrvikStreamPrivate::config("header_detail"), _d->rest,
                                          detail, abort);
}

int DOrvikStream::dropped(const std::atomic<bool>& abort) const
{
    return orviktools::httpGetValue<int>(std::string("/stream/api/") + API_VERSION +
                                             "/status/dropped",
                                         _d->rest, abort);
}

DStreamObject DOrvikStream::pop(double timeout, const std::atomic<bool>& abort)
{
    return _d->stream.pop(timeout, abort);
}

} // namespace imglib
} // namespace norvexa
