#include "DOrvikFileWriter.h"

#include "DHttpClient.h"
#include "foundation/DException.h"
#include "orviktools.h"

#include <stdexcept>

namespace norvexa {
namespace imglib {

namespace {
const std::string kPrefix = "/filewriter/api/1.5.0";
}

DOrvikFileWriter::DOrvikFileWriter(const std::string& host, int port)
    : _client(std::make_unique<DHttpClient>(host, port))
{
}

DOrvikFileWriter::~DOrvikFileWriter() = default;

std::string DOrvikFileWriter::host() const { return _client->host(); }

int DOrvikFileWriter::port() const { return _client->port(); }

std::string DOrvikFileWriter::version(const std::atomic<bool>& abort) const
{
    return orviktools::httpGetValue<std::string>("/filewriter/api/version/", *_client, abort);
}

bool DOrvikFileWriter::enabled(const std::atomic<bool>& abort) const
{
    return orviktools::httpGetEnabled(kPrefix + "/config/mode", *_client, abort);
}

void DOrvikFileWriter::setEnabled(bool enabled, const std::atomic<bool>& abort)
{
    orviktools::httpPutEnabled(kPrefix + "/config/mode", *_client, enabled, abort);
}

std::vector<std::string> DOrvikFileWriter::listFiles(const std::atomic<bool>& abort) const
{
    return orviktools::httpGetValue<std::vector<std::string>>(kPrefix + "/data/", *_client, abort);
}

void DOrvikFileWriter::remove(const std::string& name, const std::atomic<bool>& abort) const
{
    const DTime start = DTime::now();
    const DHttpClient::QueryReturn reply = _client->query(
        "/data/" + name, DHttpClient::Delete, abort, {}, image::DBasicImageData<image::StdAllocator>());
    orviktools::throwBadStatusException(reply, start);
}

std::int64_t DOrvikFileWriter::download(const std::string& name, const std::string& directory,
                                        const std::atomic<bool>& abort) const
{
    const DTime start = DTime::now();
    DHttpClient::QueryReturn reply = _client->download("/data/" + name, directory + "/" + name, abort, {});
    orviktools::throwBadStatusException(reply, start);
    const auto found = reply.headers.find("content-length");
    // A missing header and a number beyond 64 bits share their words.
    if (found == reply.headers.end())
        throw DRuntimeException("Missing content-length in http return header");
    try {
        return static_cast<std::int64_t>(std::stoll(found->second, nullptr, 10));
    } catch (const std::out_of_range&) {
        throw DRuntimeException("Missing content-length in http return header");
    } catch (const std::invalid_argument&) {
        throw DRuntimeException("Invalid content-length " + found->second);
    }
}

} // namespace imglib
} // namespace norvexa
