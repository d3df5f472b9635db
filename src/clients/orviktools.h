#pragma once

#include "DHttpClient.h"
#include "DTime.h"
#include "MonitorFrame.h"

#include <json/value.h>

#include <atomic>
#include <cstddef>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace norvexa {
namespace imglib {

/// What the REST clients of a detector share: one typed call per JSON exchange, and the
/// server's answers turned into exceptions. Every readable parameter is a JSON object
/// whose payload is the member "value"; a write is a PUT of such an object. Stateless:
/// one call is one exchange, with no retry.
///
/// Failures: status 408 DTimeoutException "Operation timed out after <ms>ms"; any status
/// outside 200 to 299 DHttpException with the reply's body; a content type that is given
/// and not JSON DRuntimeException "Expected application/json, got <type>"; a reply that
/// doesn't parse, or a key that is missing, null or of a wrong type, DRuntimeException
/// "Error while parsing json string"; transport failures as DHttpClient raises them.
namespace orviktools {

// ---- extraction of one JSON value into a C++ destination; false for a wrong JSON type.
/// Exactly a JSON string.
bool jsonToC(const Json::Value& value, std::string& destination);
/// Exactly a JSON boolean (1 is no boolean).
bool jsonToC(const Json::Value& value, bool& destination);
/// Any JSON number; a fraction is cut toward zero (1.5 gives 1). A number outside the
/// range of int is refused rather than wrapped.
bool jsonToC(const Json::Value& value, int& destination);
/// Any JSON number.
bool jsonToC(const Json::Value& value, double& destination);
/// An array of strings only.
bool jsonToC(const Json::Value& value, std::vector<std::string>& destination);
/// An array of strings only; duplicates collapse.
bool jsonToC(const Json::Value& value, std::set<std::string>& destination);

/// Fills a tuple element by element from the first elements of a JSON array; further
/// elements of the array are ignored, too few fail.
template <std::size_t I, class Tuple>
struct JsonToC {
    static bool fire(const Json::Value& array, Tuple& destination)
    {
        if constexpr (I == std::tuple_size<Tuple>::value) {
            return true;
        } else {
            if (!array.isArray() || array.size() <= I)
                return false;
            return jsonToC(array[static_cast<Json::ArrayIndex>(I)], std::get<I>(destination)) &&
                   JsonToC<I + 1, Tuple>::fire(array, destination);
        }
    }
};

/// An array of at least two numbers, as for int.
bool jsonToC(const Json::Value& value, std::tuple<int, int>& destination);

/// Parses `text` into `root` with comments collected; false when `text` is no JSON or
/// nests too deeply. Never throws.
bool parseJson(const std::string& text, Json::Value& root);

/// `value` as compact JSON text, as the clients send it.
std::string jsonText(const Json::Value& value);

namespace detail {
/// The member `key` of an object, or null when `root` is no object or the member is
/// missing or JSON null.
const Json::Value* member(const Json::Value& root, const std::string& key);
/// The body of a successful GET of `path` that asked for JSON, as text.
std::string getJsonText(const std::string& path, const DHttpClient& client,
                        const std::atomic<bool>& abort);
[[noreturn]] void throwJsonParseError();
} // namespace detail

/// The pairs of key and destination, in order; false at the first key that is missing,
/// null or of a wrong type (destinations before it are already filled).
inline bool jsonDictAt(const Json::Value&) { return true; }

template <class T, class... Rest>
bool jsonDictAt(const Json::Value& root, const std::string& key, T& destination, Rest&&... rest)
{
    const Json::Value* value = detail::member(root, key);
    if (!value || !jsonToC(*value, destination))
        return false;
    return jsonDictAt(root, std::forward<Rest>(rest)...);
}

/// Parses `text` and extracts the pairs as jsonDictAt does; false on a parse failure too.
template <class... Pairs>
bool parseJsonDict(const std::string& text, Pairs&&... pairs)
{
    Json::Value root;
    return parseJson(text, root) && jsonDictAt(root, std::forward<Pairs>(pairs)...);
}

/// GET `path` (asking for JSON) and fill the pairs of key and destination.
template <class... Pairs>
void httpGetKey(const std::string& path, const DHttpClient& client, const std::atomic<bool>& abort,
                Pairs&&... pairs)
{
    if (!parseJsonDict(detail::getJsonText(path, client, abort), std::forward<Pairs>(pairs)...))
        detail::throwJsonParseError();
}

/// GET `path` and return its member "value".
template <class T>
T httpGetValue(const std::string& path, const DHttpClient& client, const std::atomic<bool>& abort)
{
    T value{};
    httpGetKey(path, client, abort, "value", value);
    return value;
}

/// PUT {"value": value} as JSON on `path`; the reply's body is not looked at. The time for
/// a 408 is taken after the exchange, so such a report says about 0 ms. For bool, int,
/// double and std::string.
template <class T>
void httpPutValue(const std::string& path, const DHttpClient& client, const T& value,
                  const std::atomic<bool>& abort);

extern template void httpPutValue<bool>(const std::string&, const DHttpClient&, const bool&,
                                        const std::atomic<bool>&);
extern template void httpPutValue<int>(const std::string&, const DHttpClient&, const int&,
                                       const std::atomic<bool>&);
extern template void httpPutValue<double>(const std::string&, const DHttpClient&, const double&,
                                          const std::atomic<bool>&);
extern template void httpPutValue<std::string>(const std::string&, const DHttpClient&,
                                               const std::string&, const std::atomic<bool>&);

/// The "mode" parameter at `path` of the monitor, file writer and stream interfaces:
/// "enabled" reads as true, any other text as false; a write sends one of the two words.
bool httpGetEnabled(const std::string& path, const DHttpClient& client, const std::atomic<bool>& abort);
void httpPutEnabled(const std::string& path, const DHttpClient& client, bool enabled,
                    const std::atomic<bool>& abort);

/// A PUT without a body: how a detector is given a command.
void httpPut(const std::string& path, const DHttpClient& client, const std::atomic<bool>& abort);

/// Two exchanges: GET "/monitor/api/<version>/images/<name>?timeout=<timeout>" as a TIFF,
/// then the numbers under ".../status/<name>_image_number", which are believed to belong
/// to the image. The image is decoded last and named "http://<host>:<port>   Series: <s>
/// Image: <n>". A 408 stops before the numbers are asked for.
MonitorFrame httpGetImage(const DHttpClient& client, const std::string& version,
                          const std::string& name, int timeout, const std::atomic<bool>& abort);

/// Returns for a status of 200 to 299, else raises as told above; `start` is when the
/// exchange began, for the time of a 408.
void throwBadStatusException(const DHttpClient::QueryReturn& reply, const DTime& start);

} // namespace orviktools
} // namespace imglib
} // namespace norvexa
