#include "DGlobal.h"
#include "DHttpException.h"
#include "DTerminateException.h"
#include "SimulatorFixture.h"
#include "orviktools.h"

#include "foundation/DException.h"

#include <set>
#include <tuple>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;
using norvexa::simulator::Fault;

namespace {

DHttpClient::QueryReturn reply(int status, const std::string& body)
{
    DHttpClient::QueryReturn r;
    r.status = status;
    r.data = httpBytes(body);
    return r;
}

} // namespace

TEST(OrviktoolsJson, AcceptedTypesPerDestination)
{
    struct Case {
        const char* text;
        bool asString, asBool, asInt, asDouble, asStrings;
    };
    // Which JSON value under "value" each destination takes.
    const std::vector<Case> cases{
        {R"({"value": "x"})", true, false, false, false, false},
        {R"({"value": true})", false, true, false, false, false},
        {R"({"value": 1})", false, false, true, true, false},
        {R"({"value": 1.5})", false, false, true, true, false},
        {R"({"value": 4000000000})", false, false, false, true, false},
        {R"({"value": 1e300})", false, false, false, true, false},
        {R"({"value": null})", false, false, false, false, false},
        {R"({"value": ["a", "b"]})", false, false, false, false, true},
        {R"({"value": ["a", 1]})", false, false, false, false, false},
        {R"({"other": 1})", false, false, false, false, false},
        {R"(["value"])", false, false, false, false, false},
        {R"(not json)", false, false, false, false, false},
        {R"(/* comment */ {"value": 2} // more)", false, false, true, true, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        std::string s;
        bool b = false;
        int i = 0;
        double d = 0;
        std::vector<std::string> v;
        EXPECT_EQ(orviktools::parseJsonDict(c.text, "value", s), c.asString);
        EXPECT_EQ(orviktools::parseJsonDict(c.text, "value", b), c.asBool);
        EXPECT_EQ(orviktools::parseJsonDict(c.text, "value", i), c.asInt);
        EXPECT_EQ(orviktools::parseJsonDict(c.text, "value", d), c.asDouble);
        EXPECT_EQ(orviktools::parseJsonDict(c.text, "value", v), c.asStrings);
    }
    int i = 0;
    ASSERT_TRUE(orviktools::parseJsonDict(R"({"value": -1.9})", "value", i));
    EXPECT_EQ(i, -1);
}

TEST(OrviktoolsJson, PairsTuplesAndSets)
{
    double value = 0, min = 0, max = 0;
    EXPECT_TRUE(orviktools::parseJsonDict(R"({"value": 1, "min": 0.5, "max": 2})", "value", value, "min",
                                          min, "max", max));
    EXPECT_EQ(std::make_tuple(value, min, max), std::make_tuple(1.0, 0.5, 2.0));
    // A missing later key fails the whole read.
    EXPECT_FALSE(orviktools::parseJsonDict(R"({"value": 1, "min": 0.5})", "value", value, "min", min,
                                           "max", max));

    std::tuple<int, int> numbers;
    EXPECT_FALSE(orviktools::parseJsonDict(R"({"value": [7]})", "value", numbers));
    EXPECT_FALSE(orviktools::parseJsonDict(R"({"value": [7, "8"]})", "value", numbers));
    EXPECT_TRUE(orviktools::parseJsonDict(R"({"value": [7, 8.9, "x"]})", "value", numbers));
    EXPECT_EQ(numbers, std::make_tuple(7, 8));

    std::string text;
    std::set<std::string> allowed;
    EXPECT_TRUE(orviktools::parseJsonDict(R"({"value": "a", "allowed_values": ["b", "a", "b"]})", "value",
                                          text, "allowed_values", allowed));
    EXPECT_EQ(allowed, (std::set<std::string>{"a", "b"}));
}

TEST(OrviktoolsStatus, StatusToException)
{
    for (int status : {200, 204, 299})
        EXPECT_NO_THROW(orviktools::throwBadStatusException(reply(status, "x"), DTime::now()));
    for (int status : {199, 300, 404, 500}) {
        SCOPED_TRACE(status);
        EXPECT_EQ(httpFailure([&] { orviktools::throwBadStatusException(reply(status, "no"), DTime::now()); }),
                  std::make_pair(status, std::string("no")));
    }
    try {
        orviktools::throwBadStatusException(reply(408, "late"), DTime(DTime::now().seconds() - 0.25));
        ADD_FAILURE();
    } catch (const DTimeoutException& e) {
        EXPECT_NEAR(e.time(), 0.25, 0.2);
        const std::string what = e.what();
        EXPECT_EQ(what.rfind("Operation timed out after 2", 0), 0u) << what;
        EXPECT_EQ(what.substr(what.size() - 2), "ms");
    }
}

TEST(OrviktoolsExceptions, ForwardedByClass)
{
    EXPECT_EQ(httpFailure([] { forwardException(DHttpException(503, "busy")); }), std::make_pair(503, std::string("busy")));
    // Not in the chain: narrowed to the root with its text.
    try {
        forwardException(DTerminateException("called off"));
    } catch (const DTerminateException&) {
        ADD_FAILURE() << "kept its class";
    } catch (const DException& e) {
        EXPECT_STREQ(e.what(), "called off");
    }
}

using OrviktoolsHttpTest = SimulatorTest;

TEST_F(OrviktoolsHttpTest, GetAndPutOverHttp)
{
    DHttpClient client("127.0.0.1", port);
    const std::string path = "/detector/api/1.0.0/config/nimages";
    orviktools::httpPutValue(path, client, 7, noAbort);
    auto request = lastRequest(path);
    EXPECT_EQ(request.method, "PUT");
    EXPECT_EQ(request.body, R"({"value":7})");
    EXPECT_EQ(request.headers.find("content-type")->second, "application/json; charset=utf-8");
    EXPECT_EQ(orviktools::httpGetValue<int>(path, client, noAbort), 7);
    EXPECT_EQ(lastRequest(path).headers.find("accept")->second, "application/json");

    orviktools::httpPut("/detector/api/1.0.0/command/arm", client, noAbort);
    EXPECT_EQ(lastRequest().body, "");

    struct Case {
        const char* label;
        std::optional<std::string> contentType;
        std::string body;
        std::string message;
    };
    const std::vector<Case> cases{
        {"plain text type with JSON body", "text/plain", R"({"value": 1})", "Expected application/json, got text/plain"},
        {"type with parameters", "application/json; charset=utf-8", R"({"value": 3})", ""},
        {"truncated JSON", std::nullopt, R"({"value": )", "Error while parsing json string"},
        {"wrong type", std::nullopt, R"({"value": "3"})", "Error while parsing json string"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        Fault f;
        f.pathPrefix = path;
        f.count = 1;
        f.contentType = c.contentType;
        f.body = c.body;
        fault(f);
        if (c.message.empty())
            EXPECT_EQ(orviktools::httpGetValue<int>(path, client, noAbort), 3);
        else
            EXPECT_THROW_MSG(orviktools::httpGetValue<int>(path, client, noAbort), DRuntimeException, c.message);
    }
}
