#include "DOrvikMonitor.h"

#include "DHttpClient.h"
#include "orviktools.h"

namespace norvexa {
namespace imglib {

namespace {
const std::string kVersion = "1.0.0";
const std::string kPrefix = "/monitor/api/" + kVersion;
} // namespace

DOrvikMonitor::DOrvikMonitor(const std::string& host, int port)
    : _client(std::make_unique<DHttpClient>(host, port))
{
}

DOrvikMonitor::~DOrvikMonitor() = default;

std::string DOrvikMonitor::host() const { return _client->host(); }

int DOrvikMonitor::port() const { return _client->port(); }

std::string DOrvikMonitor::version(const std::atomic<bool>& abort) const
{
    return orviktools::httpGetValue<std::string>("/monitor/api/version/", *_client, abort);
}

bool DOrvikMonitor::enabled(const std::atomic<bool>& abort) const
{
    return orviktools::httpGetEnabled(kPrefix + "/config/mode", *_client, abort);
}

void DOrvikMonitor::setEnabled(bool enabled, const std::atomic<bool>& abort)
{
    orviktools::httpPutEnabled(kPrefix + "/config/mode", *_client, enabled, abort);
}

int DOrvikMonitor::bufferSize(const std::atomic<bool>& abort) const
{
    return orviktools::httpGetValue<int>(kPrefix + "/config/buffer_size", *_client, abort);
}

void DOrvikMonitor::setBufferSize(int size, const std::atomic<bool>& abort)
{
    orviktools::httpPutValue(kPrefix + "/config/buffer_size", *_client, size, abort);
}

void DOrvikMonitor::clear(const std::atomic<bool>& abort)
{
    orviktools::httpPut(kPrefix + "/command/clear", *_client, abort);
}

MonitorFrame DOrvikMonitor::monitorAll(int timeout, const std::atomic<bool>& abort)
{
    return orviktools::httpGetImage(*_client, kVersion, "monitor", timeout, abort);
}

MonitorFrame DOrvikMonitor::nextAll(int timeout, const std::atomic<bool>& abort)
{
    return orviktools::httpGetImage(*_client, kVersion, "next", timeout, abort);
}

DImage DOrvikMonitor::monitor(int timeout, const std::atomic<bool>& abort)
{
    return monitorAll(timeout, abort).image;
}

DImage DOrvikMonitor::next(int timeout, const std::atomic<bool>& abort)
{
    return nextAll(timeout, abort).image;
}

} // namespace imglib
} // namespace norvexa
