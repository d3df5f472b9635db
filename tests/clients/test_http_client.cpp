#include "DHttpClient.h"
#include "ReaderHelpers.h"
#include "SimulatorFixture.h"

#include "foundation/DException.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;
using norvexa::simulator::Fault;
using Data = image::DBasicImageData<image::StdAllocator>;

namespace {

std::string text(const Data& data) { return data.size() ? std::string(data.cdata(), data.size()) : ""; }

std::string readFile(const std::filesystem::path& path) { return norvexa_test::fileBytes<std::string>(path); }

const std::string kVersionPath = "/detector/api/version/";
const std::string kAborted = "Http request failed: Operation was aborted by an application callback";

} // namespace

using HttpClientTest = SimulatorTest;

TEST_F(HttpClientTest, AddressFormsReachTheSameResource)
{
    struct Case {
        const char* label;
        std::string host;
        std::string path;
        int status;
    };
    const std::vector<Case> cases{
        {"bare host, leading slash", "127.0.0.1", kVersionPath, 200},
        {"scheme, no leading slash", "http://127.0.0.1", kVersionPath.substr(1), 200},
        {"empty path ends with the port", "127.0.0.1", "", 404},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        DHttpClient client(c.host, port);
        EXPECT_EQ(client.host(), c.host);
        EXPECT_EQ(client.port(), port);
        EXPECT_EQ(client.query(c.path, DHttpClient::Get, {}, Data()).status, c.status);
        EXPECT_EQ(lastRequest().target, c.path.empty() ? "/" : "/" + c.path.substr(c.path[0] == '/'));
    }
    // A scheme in capitals is not recognised: "http://HTTP://..." names no reachable host.
    DHttpClient upper("HTTP://127.0.0.1", port);
    EXPECT_THROW(upper.query(kVersionPath, DHttpClient::Get, {}, Data()), DRuntimeException);
}

TEST_F(HttpClientTest, RequestHeadersAndTheExpectLine)
{
    DHttpClient client("127.0.0.1", port);
    // A PUT with a body: libcurl would wait for "100 Continue" unless told not to.
    client.query("/detector/api/1.0.0/config/nimages", DHttpClient::Put,
                 {{" X-Token ", "a b "}}, httpBytes("{\"value\":2}"));
    auto request = lastRequest();
    EXPECT_EQ(request.headers.count("expect"), 0u);
    ASSERT_EQ(request.headers.count("x-token"), 1u);
    EXPECT_EQ(request.headers.find("x-token")->second, "a b");
    EXPECT_EQ(request.body, "{\"value\":2}");

    client.query("/detector/api/1.0.0/config/nimages", DHttpClient::Put,
                 {{" EXPECT ", "100-continue"}}, httpBytes("{\"value\":3}"));
    request = lastRequest();
    ASSERT_EQ(request.headers.count("expect"), 1u);
    EXPECT_EQ(request.headers.find("expect")->second, "100-continue");
    EXPECT_EQ(request.body, "{\"value\":3}");
}

TEST_F(HttpClientTest, MethodsBodiesAndReplies)
{
    DHttpClient client("127.0.0.1", port);
    // A GET carries no body even when given one.
    auto reply = client.query(kVersionPath, DHttpClient::Get, {}, httpBytes("ignored"));
    EXPECT_EQ(lastRequest().method, "GET");
    EXPECT_EQ(lastRequest().body, "");
    EXPECT_EQ(text(reply.data), "{\"value\":\"1.8.0\",\"value_type\":\"string\"}");
    EXPECT_EQ(reply.headers.at("content-type"), "application/json; charset=utf-8");

    client.query("/somewhere", DHttpClient::Post, {}, httpBytes("posted"));
    EXPECT_EQ(lastRequest().method, "POST");
    EXPECT_EQ(lastRequest().body, "posted");
    client.query("/data/none", DHttpClient::Delete, {}, Data());
    EXPECT_EQ(lastRequest().method, "DELETE");
    // The handle keeps no method of an earlier call.
    client.query(kVersionPath, DHttpClient::Get, {}, Data());
    EXPECT_EQ(lastRequest().method, "GET");

    EXPECT_THROW_MSG(client.query(kVersionPath, static_cast<DHttpClient::Method>(4), {}, Data()),
                     DRuntimeException, "Http method not implemented");

    // Reply headers: keys lower-case, values trimmed, an empty value kept; a failure status is
    // no failure here.
    Fault f;
    f.pathPrefix = "/detector/api/version";
    f.status = 500;
    f.body = "broken";
    f.contentType = "  text/x-odd  ";
    fault(f);
    reply = client.query(kVersionPath, DHttpClient::Get, {}, Data());
    EXPECT_EQ(reply.status, 500);
    EXPECT_EQ(text(reply.data), "broken");
    EXPECT_EQ(reply.headers.at("content-type"), "text/x-odd");
}

TEST_F(HttpClientTest, AbortFlagAndFailuresLeaveTheClientUsable)
{
    DHttpClient client("127.0.0.1", port);
    const std::atomic<bool> set{true};
    EXPECT_THROW_MSG(client.query(kVersionPath, DHttpClient::Get, set, {}, Data()), DRuntimeException, kAborted);

    // Set from another thread while the server is slow.
    Fault slow;
    slow.delayMs = 5000;
    slow.count = 1;
    fault(slow);
    std::atomic<bool> abort{false};
    std::thread setter([&abort] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        abort = true;
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW_MSG(client.query(kVersionPath, DHttpClient::Get, abort, {}, Data()), DRuntimeException, kAborted);
    setter.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
    EXPECT_TRUE(abort.load()); // never reset

    struct Case {
        const char* label;
        Fault fault;
    };
    Fault truncated, huge;
    truncated.truncate = true;
    truncated.count = 1;
    huge.hugeHeader = 200000;
    huge.count = 1;
    for (const Case& c : {Case{"connection closed mid-reply", truncated}, Case{"huge header", huge}}) {
        SCOPED_TRACE(c.label);
        fault(c.fault);
        try {
            client.query(kVersionPath, DHttpClient::Get, {}, Data());
            ADD_FAILURE() << "no failure";
        } catch (const DRuntimeException& e) {
            EXPECT_EQ(std::string(e.what()).rfind("Http request failed: ", 0), 0u) << e.what();
        }
        // The next query on the same client works.
        EXPECT_EQ(client.query(kVersionPath, DHttpClient::Get, {}, Data()).status, 200);
    }
}

TEST_F(HttpClientTest, UnreachableServer)
{
    const int freePort = port;
    server->stop();
    DHttpClient client("127.0.0.1", freePort);
    EXPECT_THROW_MSG(client.query(kVersionPath, DHttpClient::Get, {}, Data()), DRuntimeException,
                     "Http request failed: Couldn't connect to server");
}

TEST_F(HttpClientTest, ClientsInSeveralThreads)
{
    // Clients come and go in several threads at once: the shared set-up is counted.
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 6; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 10; ++i) {
                DHttpClient client("127.0.0.1", port);
                if (client.query(kVersionPath, DHttpClient::Get, {}, Data()).status == 200)
                    ++good;
            }
        });
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(good.load(), 60);
}

TEST_F(HttpClientTest, Download)
{
    const std::filesystem::path area = files.path() / "area";
    std::filesystem::create_directories(area / "sub");
    std::ofstream(area / "sub" / "file.bin", std::ios::binary) << std::string(5000, 'z');
    const std::filesystem::path local = files.path() / "local.bin";
    DHttpClient client("127.0.0.1", port);

    auto reply = client.download("/data/sub/file.bin", local.string(), noAbort, {});
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.headers.at("content-length"), "5000");
    EXPECT_EQ(reply.data.size(), 0u);
    EXPECT_EQ(readFile(local), std::string(5000, 'z'));
    EXPECT_FALSE(std::filesystem::exists(local.string() + ".tmp"));

    // The server's page lands under the name, whatever the status.
    reply = client.download("/data/missing", local.string(), noAbort, {});
    EXPECT_EQ(reply.status, 404);
    EXPECT_EQ(readFile(local), "File missing not found");

    // A transport failure keeps the ".tmp" file and leaves the old file alone.
    const std::atomic<bool> set{true};
    EXPECT_THROW_MSG(client.download("/data/sub/file.bin", local.string(), set, {}), DRuntimeException, kAborted);
    EXPECT_TRUE(std::filesystem::exists(local.string() + ".tmp"));
    EXPECT_EQ(readFile(local), "File missing not found");

    const std::string nowhere = (files.path() / "no-such-dir" / "x").string();
    EXPECT_THROW_MSG(client.download("/data/sub/file.bin", nowhere, noAbort, {}), DRuntimeException,
                     "Writing data to " + nowhere + " failed with errno 2");
}
