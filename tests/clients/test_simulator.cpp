#include "DHttpClient.h"
#include "DOrvikDetector.h"
#include "SimulatorFixture.h"

#include <gtest/gtest.h>


using namespace norvexa;
using namespace norvexa::imglib;
using namespace norvexa::simulator;

TEST(SimulatorCommandLine, OptionsAndRefusals)
{
    const char* good[] = {"sim", "--port", "8080", "--width", "100", "--uninitialized", "--delay-ms", "5"};
    const SimulatorOptions options = parseCommandLine(8, good);
    EXPECT_EQ(options.port, 8080);
    EXPECT_EQ(options.width, 100);
    EXPECT_EQ(options.height, 512);
    EXPECT_TRUE(options.uninitialized);
    EXPECT_EQ(options.delayMs, 5);

    struct Case {
        std::vector<const char*> argv;
        const char* message;
    };
    const std::vector<Case> cases{
        {{"sim", "--port"}, "--port needs a value"},
        {{"sim", "--port", "70000"}, "--port needs a whole number from 0 to 65535, not \"70000\""},
        {{"sim", "--width", "12x"}, "--width needs a whole number from 1 to 20000, not \"12x\""},
        {{"sim", "--colour"}, "unknown option --colour"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        EXPECT_THROW_MSG(parseCommandLine(static_cast<int>(c.argv.size()), c.argv.data()), std::invalid_argument,
                         c.message);
    }
}

TEST(SimulatorServerTest, UninitializedDetectorAndTheControlEndpoints)
{
    SimulatorOptions options;
    options.width = 32;
    options.height = 32;
    options.uninitialized = true;
    SimulatorServer server(options);
    const int port = server.start();
    const std::atomic<bool> abort{false};
    DOrvikDetector detector("127.0.0.1", port);
    EXPECT_EQ(detector.status(abort), "na");
    EXPECT_EQ(httpFailure([&] { detector.arm(abort); }), std::make_pair(400, std::string("Command arm not allowed in state na")));
    detector.initialize(abort);
    EXPECT_EQ(detector.status(abort), "idle");

    // Unknown names, versions and read-only parameters, as a real server answers them.
    DHttpClient client("127.0.0.1", port);
    auto status = [&](const std::string& path, DHttpClient::Method method, const std::string& body = "") {
        return client.query(path, method, {}, httpBytes(body)).status;
    };
    EXPECT_EQ(status("/detector/api/9.9.9/config/count_time", DHttpClient::Get), 404);
    EXPECT_EQ(status("/detector/api/1.0.0/config/no_such", DHttpClient::Get), 404);
    EXPECT_EQ(status("/detector/api/1.0.0/config/description", DHttpClient::Put, R"({"value":"x"})"), 405);
    EXPECT_EQ(status("/detector/api/1.0.0/config/nimages", DHttpClient::Put, R"({"value":2.5})"), 400);
    EXPECT_EQ(status("/detector/api/1.0.0/config/nimages", DHttpClient::Put, "not json"), 400);
    EXPECT_EQ(status("/detector/api/1.0.0/command/selfdestruct", DHttpClient::Put), 404);
    EXPECT_EQ(status("/data/../../etc/passwd", DHttpClient::Get), 404);

    // A fault set over HTTP, and the log read over HTTP, as a separate process would.
    EXPECT_EQ(status("/simulator/faults", DHttpClient::Put, R"({"path_prefix": "/detector/", "status": 503, "count": 1})"),
              204);
    EXPECT_EQ(status("/detector/api/version/", DHttpClient::Get), 503);
    EXPECT_EQ(status("/detector/api/version/", DHttpClient::Get), 200);
    const auto reply = client.query("/simulator/requests", DHttpClient::Get, {}, httpBytes(""));
    const std::string log(reply.data.cdata(), reply.data.size());
    EXPECT_NE(log.find(R"("target":"/detector/api/1.0.0/config/nimages")"), std::string::npos);
    EXPECT_EQ(log.find("/simulator/"), std::string::npos);
    server.stop();
}
