#pragma once

#include "DHttpClient.h"
#include "DHttpException.h"
#include "DOrvikDetector.h"
#include "SimulatorServer.h"
#include "TestHelpers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <utility>

/// The status and text of the DHttpException that `call` raises; {0, "accepted"} if none.
template <class Call>
std::pair<int, std::string> httpFailure(Call call)
{
    try {
        call();
    } catch (const norvexa::imglib::DHttpException& e) {
        return {e.status(), e.what()};
    }
    return {0, "accepted"};
}

/// `text` as the bytes of a query's body or reply.
inline norvexa::image::DBasicImageData<norvexa::image::StdAllocator>
httpBytes(const std::string& text)
{
    norvexa::image::DBasicImageData<norvexa::image::StdAllocator> data;
    data.resize(text.size());
    if (!text.empty())
        std::memcpy(data.data(), text.data(), text.size());
    return data;
}

/// A simulated detector server on a free port of 127.0.0.1 for each test, with small frames
/// and a fast frame time so that a series takes milliseconds.
class SimulatorTest : public ::testing::Test {
protected:
    void SetUp() override { startServer(); }

    /// Starts the server; a non-empty `streamMaster` is a file whose chunks the stream replays.
    void startServer(const std::string& streamMaster = "")
    {
        norvexa::simulator::SimulatorOptions options;
        options.width = 64;
        options.height = 48;
        options.dataDirectory = files.path() / "area";
        options.streamMaster = streamMaster;
        server = std::make_unique<norvexa::simulator::SimulatorServer>(options);
        port = server->start();
        auto& store = server->parameters();
        store.setValue("detector", "config", "frame_time", 0.001);
        store.setValue("detector", "config", "count_time", 0.001);
    }

    void TearDown() override
    {
        if (!server)
            return;
        server->stop();
        // What the client sent, to tell a client fault from a server fault.
        if (HasFailure())
            for (const auto& r : server->requests())
                std::cerr << r.method << " " << r.target << " [" << r.body.substr(0, 60) << "]\n";
    }

    /// Waits until the detector has left "acquire" (bounded).
    void waitForIdle() const
    {
        norvexa::imglib::DOrvikDetector detector("127.0.0.1", port);
        for (int i = 0; i < 500 && detector.status(noAbort) != "idle"; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

    /// The last recorded request whose target begins with `prefix`.
    norvexa::simulator::RecordedRequest lastRequest(const std::string& prefix = "") const
    {
        const auto all = server->requests();
        for (auto it = all.rbegin(); it != all.rend(); ++it)
            if (it->target.compare(0, prefix.size(), prefix) == 0)
                return *it;
        ADD_FAILURE() << "no request under " << prefix;
        return {};
    }

    void fault(norvexa::simulator::Fault f) { server->addFault(std::move(f)); }

    /// The next request under `prefix` is answered with `body` instead.
    void faultOnce(const std::string& prefix, const std::string& body)
    {
        norvexa::simulator::Fault f;
        f.pathPrefix = prefix;
        f.count = 1;
        f.body = body;
        fault(std::move(f));
    }

    norvexa_test::TempDir files;
    std::unique_ptr<norvexa::simulator::SimulatorServer> server;
    int port = 0;
    const std::atomic<bool> noAbort{false};
};
