#include "orviktools.h"

#include "DHttpException.h"
#include "DTifReader.h"
#include "foundation/DException.h"

#include <json/reader.h>
#include <json/writer.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <sstream>

namespace norvexa {
namespace imglib {
namespace orviktools {

namespace {

using Data = image::DBasicImageData<image::StdAllocator>;

std::string toText(const Data& data)
{
    return data.size() ? std::string(data.cdata(), data.size()) : std::string();
}

Data toData(const std::string& text)
{
    Data data;
    data.resize(text.size());
    if (!text.empty())
        std::memcpy(data.data(), text.data(), text.size());
    return data;
}

bool isNumber(const Json::Value& value)
{
    const Json::ValueType type = value.type();
    return type == Json::intValue || type == Json::uintValue || type == Json::realValue;
}

template <class Container>
bool stringArray(const Json::Value& value, Container& destination)
{
    if (!value.isArray())
        return false;
    Container result;
    for (const Json::Value& element : value) {
        if (element.type() != Json::stringValue)
            return false;
        result.insert(result.end(), element.asString());
    }
    destination = std::move(result);
    return true;
}

} // namespace

bool jsonToC(const Json::Value& value, std::string& destination)
{
    if (value.type() != Json::stringValue)
        return false;
    destination = value.asString();
    return true;
}

bool jsonToC(const Json::Value& value, bool& destination)
{
    if (value.type() != Json::booleanValue)
        return false;
    destination = value.asBool();
    return true;
}

bool jsonToC(const Json::Value& value, int& destination)
{
    if (!isNumber(value))
        return false;
    // A number beyond int would make the JSON library throw its own exception.
    if (value.type() == Json::realValue) {
        const double real = value.asDouble();
        if (!(real >= static_cast<double>(INT_MIN) && real <= static_cast<double>(INT_MAX)))
            return false;
    } else if (!value.isInt()) {
        return false;
    }
    destination = value.asInt();
    return true;
}

bool jsonToC(const Json::Value& value, double& destination)
{
    if (!isNumber(value))
        return false;
    destination = value.asDouble();
    return true;
}

bool jsonToC(const Json::Value& value, std::vector<std::string>& destination)
{
    return stringArray(value, destination);
}

bool jsonToC(const Json::Value& value, std::set<std::string>& destination)
{
    return stringArray(value, destination);
}

bool jsonToC(const Json::Value& value, std::tuple<int, int>& destination)
{
    return JsonToC<0, std::tuple<int, int>>::fire(value, destination);
}

bool parseJson(const std::string& text, Json::Value& root)
{
    // The builder's defaults are the lenient reading of the classic reader, with comments
    // collected; deep nesting is refused by its stack limit.
    Json::CharReaderBuilder builder;
    builder["collectComments"] = true;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    try {
        return reader->parse(text.data(), text.data() + text.size(), &root, &errors);
    } catch (const std::exception&) {
        return false;
    }
}

std::string jsonText(const Json::Value& value)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

namespace detail {

const Json::Value* member(const Json::Value& root, const std::string& key)
{
    if (!root.isObject())
        return nullptr;
    const Json::Value* value = root.find(key.data(), key.data() + key.size());
    return value && !value->isNull() ? value : nullptr;
}

std::string getJsonText(const std::string& path, const DHttpClient& client,
                        const std::atomic<bool>& abort)
{
    const std::map<std::string, std::string> headers{{"accept", "application/json"}};
    const DTime start = DTime::now();
    DHttpClient::QueryReturn reply = client.query(path, DHttpClient::Get, abort, headers, Data());
    throwBadStatusException(reply, start);
    const std::string& contentType = reply.headers["content-type"];
    if (!contentType.empty() && contentType.find("application/json") == std::string::npos)
        throw DRuntimeException("Expected application/json, got " + contentType);
    return toText(reply.data);
}

void throwJsonParseError() { throw DRuntimeException("Error while parsing json string"); }

} // namespace detail

template <class T>
void httpPutValue(const std::string& path, const DHttpClient& client, const T& value,
                  const std::atomic<bool>& abort)
{
    Json::Value object(Json::objectValue);
    object["value"] = Json::Value(value);
    const std::map<std::string, std::string> headers{
        {"content-type", "application/json; charset=utf-8"}};
    const DHttpClient::QueryReturn reply =
        client.query(path, DHttpClient::Put, abort, headers, toData(jsonText(object)));
    // Taken after the exchange on purpose: a 408 on a write reports about 0 ms.
    const DTime start = DTime::now();
    throwBadStatusException(reply, start);
}

template void httpPutValue<bool>(const std::string&, const DHttpClient&, const bool&,
                                 const std::atomic<bool>&);
template void httpPutValue<int>(const std::string&, const DHttpClient&, const int&,
                                const std::atomic<bool>&);
template void httpPutValue<double>(const std::string&, const DHttpClient&, const double&,
                                   const std::atomic<bool>&);
template void httpPutValue<std::string>(const std::string&, const DHttpClient&, const std::string&,
                                        const std::atomic<bool>&);

bool httpGetEnabled(const std::string& path, const DHttpClient& client, const std::atomic<bool>& abort)
{
    return httpGetValue<std::string>(path, client, abort) == "enabled";
}

void httpPutEnabled(const std::string& path, const DHttpClient& client, bool enabled,
                    const std::atomic<bool>& abort)
{
    httpPutValue<std::string>(path, client, enabled ? "enabled" : "disabled", abort);
}

void httpPut(const std::string& path, const DHttpClient& client, const std::atomic<bool>& abort)
{
    const DHttpClient::QueryReturn reply = client.query(path, DHttpClient::Put, abort, {}, Data());
    const DTime start = DTime::now();
    throwBadStatusException(reply, start);
}

MonitorFrame httpGetImage(const DHttpClient& client, const std::string& version,
                          const std::string& name, int timeout, const std::atomic<bool>& abort)
{
    const std::string base = "/monitor/api/" + version + "/";
    const std::map<std::string, std::string> headers{{"accept", "application/tiff"}};
    const DTime start = DTime::now();
    DHttpClient::QueryReturn reply = client.query(
        base + "images/" + name + "?timeout=" + std::to_string(timeout), DHttpClient::Get, abort,
        headers, Data());
    throwBadStatusException(reply, start);

    std::tuple<int, int> numbers;
    httpGetKey(base + "status/" + name + "_image_number", client, abort, "value", numbers);

    MonitorFrame frame;
    frame.series = std::get<0>(numbers);
    frame.imageNumber = std::get<1>(numbers);
    const std::string imageName = "http://" + client.host() + ":" + std::to_string(client.port()) +
                                  "   Series: " + std::to_string(frame.series) +
                                  "   Image: " + std::to_string(frame.imageNumber);
    // The reader takes the body as it is, without a copy, if the padding it needs fits
    // behind the bytes (the client leaves room for it).
    Data& body = reply.data;
    if (body.size() && body.capacity() - body.size() >= DAbstractImageReader::kPadding) {
        std::memset(body.data() + body.size(), 0, DAbstractImageReader::kPadding);
        body.allowSharing();
    }
    DTifReader(body, imageName).readData(frame.image, nullptr);
    return frame;
}

void throwBadStatusException(const DHttpClient::QueryReturn& reply, const DTime& start)
{
    if (reply.status == 408) {
        const double elapsed = start.elapsed();
        std::ostringstream text;
        text << "Operation timed out after " << elapsed * 1000.0 << "ms";
        throw DTimeoutException(elapsed, text.str());
    }
    if (reply.status >= 200 && reply.status <= 299)
        return;
    throw DHttpException(reply.status, toText(reply.data));
}

} // namespace orviktools
} // namespace imglib
} // namespace norvexa
