#include "DHttpException.h"
#include "DOrvikDetector.h"
#include "DOrvikFileWriter.h"
#include "DOrvikMonitor.h"
#include "SimulatorFixture.h"

#include "foundation/DException.h"

#include <chrono>
#include <filesystem>
#include <fstream>

using namespace norvexa;
using namespace norvexa::imglib;
using norvexa::simulator::Fault;

using DetectorClientTest = SimulatorTest;

TEST_F(DetectorClientTest, ParametersAndTheirLimits)
{
    DOrvikDetector detector("127.0.0.1", port);
    EXPECT_EQ(detector.version(noAbort), "1.8.0");
    EXPECT_EQ(detector.description(noAbort), "Norvexa simulated detector");
    EXPECT_EQ(detector.detectorNumber(noAbort), "SIM-0001");

    detector.setCountTime(1, noAbort);
    EXPECT_EQ(lastRequest().body, R"({"value":1.0})");
    const RangedValue<double> countTime = detector.countTime(noAbort);
    EXPECT_EQ(countTime.value, 1.0);
    EXPECT_EQ(countTime.max, 3600.0);
    // The server keeps the frame time at least as long as the count time.
    EXPECT_EQ(detector.frameTime(noAbort).value, 1.0);

    detector.setNImages(3, noAbort);
    const RangedValue<int> nImages = detector.nImages(noAbort);
    EXPECT_EQ(std::make_tuple(nImages.value, nImages.min, nImages.max), std::make_tuple(3, 1, 1000000));

    detector.setElement("Mo", noAbort);
    const ChoiceValue element = detector.element(noAbort);
    EXPECT_EQ(element.value, "Mo");
    EXPECT_EQ(element.allowed.count("Cu"), 1u);
    EXPECT_NEAR(detector.photonEnergy(noAbort).value, 17479.3, 1e-9);
    EXPECT_NEAR(detector.thresholdEnergy(noAbort).value, 17479.3 / 2, 1e-9);
    EXPECT_EQ(detector.triggerMode(noAbort).value, "ints");

    detector.setPixelMaskApplied(false, noAbort);
    EXPECT_FALSE(detector.pixelMaskApplied(noAbort));
    EXPECT_TRUE(detector.flatfieldCorrectionApplied(noAbort));
    detector.setVirtualPixelCorrectionApplied(false, noAbort);
    EXPECT_EQ(lastRequest().target, "/detector/api/1.0.0/config/virtual_pixel_correction_applied");

    // Refusals come back with the server's status and text.
    struct Case {
        const char* label;
        std::function<void()> call;
        int status;
        const char* message;
    };
    const std::vector<Case> cases{
        {"above max", [&] { detector.setCountTime(5000, noAbort); }, 400,
         "count_time: value 5000 out of range [1e-05, 3600]"},
        {"not allowed", [&] { detector.setTriggerMode("later", noAbort); }, 400,
         "trigger_mode: value later is not among the allowed values"},
        {"below min", [&] { detector.setThresholdEnergy(-1, noAbort); }, 400,
         "threshold_energy: value -1 out of range [1000, 25000]"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(httpFailure(c.call), std::make_pair(c.status, std::string(c.message)));
    }
}

TEST_F(DetectorClientTest, RepliesOfTheWrongShape)
{
    DOrvikDetector detector("127.0.0.1", port);
    struct Case {
        const char* label;
        std::string path;
        std::string body;
        std::function<void()> call;
    };
    const std::vector<Case> cases{
        {"range without max", "/detector/api/1.0.0/config/count_time", R"({"value": 1, "min": 0})",
         [&] { detector.countTime(noAbort); }},
        {"choice without allowed values", "/detector/api/1.0.0/config/trigger_mode", R"({"value": "ints"})",
         [&] { detector.triggerMode(noAbort); }},
        {"boolean sent as 1", "/detector/api/1.0.0/config/pixel_mask_applied", R"({"value": 1})",
         [&] { detector.pixelMaskApplied(noAbort); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        faultOnce(c.path, c.body);
        EXPECT_THROW_MSG(c.call(), DRuntimeException, "Error while parsing json string");
    }
    // The state resource answers under "value"; "state" is not there.
    EXPECT_EQ(detector.status(noAbort), "idle");
    EXPECT_THROW_MSG(detector.isError(noAbort), DRuntimeException, "Error while parsing json string");
    faultOnce("/detector/api/1.0.0/status/state", R"({"state": "normal"})");
    EXPECT_FALSE(detector.isError(noAbort));
}

TEST_F(DetectorClientTest, StateMachineAndFiles)
{
    DOrvikDetector detector("127.0.0.1", port);
    DOrvikFileWriter writer("127.0.0.1", port);
    auto refusedWith = [](const std::function<void()>& call, const std::string& message) {
        EXPECT_EQ(httpFailure(call), std::make_pair(400, message));
    };
    refusedWith([&] { detector.trigger(noAbort); }, "Command trigger not allowed in state idle");
    EXPECT_EQ(writer.version(noAbort), "1.8.0");
    writer.setEnabled(true, noAbort);
    EXPECT_EQ(lastRequest().body, R"({"value":"enabled"})");
    EXPECT_TRUE(writer.enabled(noAbort));
    EXPECT_TRUE(writer.listFiles(noAbort).empty());

    detector.setNImages(3, noAbort);
    detector.arm(noAbort);
    EXPECT_EQ(detector.status(noAbort), "ready");
    refusedWith([&] { detector.arm(noAbort); }, "Command arm not allowed in state ready");
    detector.trigger(noAbort);
    waitForIdle();
    EXPECT_EQ(detector.status(noAbort), "idle");

    const std::vector<std::string> names = writer.listFiles(noAbort);
    EXPECT_EQ(names, (std::vector<std::string>{"series_1_data_000001.h5", "series_1_master.h5"}));
    const std::string local = files.path().string();
    const std::int64_t size = writer.download("series_1_master.h5", local, noAbort);
    EXPECT_EQ(size, static_cast<std::int64_t>(std::filesystem::file_size(files.path() / "series_1_master.h5")));
    EXPECT_GT(size, 0);

    writer.remove("series_1_master.h5", noAbort);
    EXPECT_EQ(lastRequest().method, "DELETE");
    EXPECT_EQ(lastRequest().target, "/data/series_1_master.h5");
    // No body: a DELETE after a download must not become a chunked upload.
    EXPECT_EQ(lastRequest().headers.count("transfer-encoding"), 0u);
    EXPECT_EQ(writer.listFiles(noAbort).size(), 1u);
    EXPECT_EQ(httpFailure([&] { writer.remove("series_1_master.h5", noAbort); }).first, 404);

    // Abort ends a long series at once; disarm in idle is harmless.
    detector.setNImages(100000, noAbort);
    detector.setFrameTime(0.01, noAbort);
    detector.arm(noAbort);
    detector.trigger(noAbort);
    refusedWith([&] { detector.setCountTime(0.001, noAbort); }, "Configuration refused in state acquire");
    detector.abort(noAbort);
    EXPECT_EQ(detector.status(noAbort), "idle");
    detector.disarm(noAbort);
    detector.initialize(noAbort);
}

TEST_F(DetectorClientTest, DownloadEdgeCases)
{
    DOrvikFileWriter writer("127.0.0.1", port);
    const std::filesystem::path area = files.path() / "area";
    std::ofstream(area / "f.bin", std::ios::binary) << "0123456789";
    const std::string local = files.path().string();

    struct Case {
        const char* label;
        Fault fault;
        std::string message;
    };
    // A chunked body may carry a content-length line, which the client reads (libcurl itself
    // refuses one that begins with letters, so "Invalid content-length" can't be provoked).
    auto chunked = [](const std::string& length) {
        Fault f;
        f.chunked = true;
        if (!length.empty())
            f.headers["Content-Length"] = length;
        return f;
    };
    const std::vector<Case> cases{
        {"chunked, no content-length", chunked(""), "Missing content-length in http return header"},
        {"beyond 64 bits", chunked("99999999999999999999"), "Missing content-length in http return header"},
        {"digits, then letters", chunked("12abc"), ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        Fault f = c.fault;
        f.pathPrefix = "/data/";
        f.count = 1;
        fault(f);
        if (c.message.empty())
            EXPECT_EQ(writer.download("f.bin", local, noAbort), 12);
        else
            EXPECT_THROW_MSG(writer.download("f.bin", local, noAbort), DRuntimeException, c.message);
        // The file is there all the same.
        EXPECT_EQ(std::filesystem::file_size(files.path() / "f.bin"), 10u);
    }

    // A 404 raises with the server's text, and its page stays under the name.
    EXPECT_EQ(httpFailure([&] { writer.download("none.bin", local, noAbort); }).first, 404);
    EXPECT_TRUE(std::filesystem::exists(files.path() / "none.bin"));
    // A name with a directory needs that directory here.
    std::filesystem::create_directories(area / "d");
    std::ofstream(area / "d" / "g.bin") << "abc";
    EXPECT_THROW(writer.download("d/g.bin", local, noAbort), DRuntimeException);
    std::filesystem::create_directories(files.path() / "d");
    EXPECT_EQ(writer.download("d/g.bin", local, noAbort), 3);
}

TEST_F(DetectorClientTest, MonitorImages)
{
    DOrvikDetector detector("127.0.0.1", port);
    DOrvikMonitor monitor("127.0.0.1", port);
    EXPECT_TRUE(monitor.enabled(noAbort));
    monitor.setEnabled(false, noAbort);
    EXPECT_EQ(lastRequest().body, R"({"value":"disabled"})");
    monitor.setEnabled(true, noAbort);
    monitor.setBufferSize(3, noAbort);
    EXPECT_EQ(monitor.bufferSize(noAbort), 3);
    EXPECT_EQ(monitor.version(noAbort), "1.8.0");

    // Nothing yet: 408, and the numbers are not asked for.
    server->clearRequests();
    const auto start = std::chrono::steady_clock::now();
    try {
        monitor.monitor(50, noAbort);
        ADD_FAILURE();
    } catch (const DTimeoutException& e) {
        EXPECT_GT(e.time(), 0.04);
        EXPECT_EQ(std::string(e.what()).rfind("Operation timed out after ", 0), 0u);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_EQ(server->requests().size(), 1u);
    EXPECT_EQ(lastRequest().target, "/monitor/api/1.0.0/images/monitor?timeout=50");
    EXPECT_EQ(lastRequest().headers.find("accept")->second, "application/tiff");

    detector.setNImages(5, noAbort);
    detector.arm(noAbort);
    detector.trigger(noAbort);
    waitForIdle();

    const MonitorFrame newest = monitor.monitorAll(1000, noAbort);
    EXPECT_EQ(std::make_tuple(newest.series, newest.imageNumber), std::make_tuple(1, 5));
    EXPECT_EQ(newest.image.width(), 64);
    EXPECT_EQ(newest.image.height(), 48);
    EXPECT_EQ(newest.image.type(), datatypes::INT);
    const DImage same = monitor.monitor(1000, noAbort);
    EXPECT_EQ(same.width(), 64);
    EXPECT_EQ(same.pixel<int>(10, 10, 0), newest.image.pixel<int>(10, 10, 0));

    // "next" walks the buffer of three from its oldest frame.
    for (int expected : {3, 4, 5})
        EXPECT_EQ(monitor.nextAll(1000, noAbort).imageNumber, expected);
    EXPECT_THROW(monitor.next(50, noAbort), DTimeoutException);
    monitor.clear(noAbort);
    EXPECT_THROW(monitor.monitor(50, noAbort), DTimeoutException);

    // A body that is no TIFF fails in the reader, after the numbers were read.
    detector.arm(noAbort);
    detector.trigger(noAbort);
    waitForIdle();
    faultOnce("/monitor/api/1.0.0/images/", "not a tiff");
    EXPECT_THROW(monitor.monitor(1000, noAbort), DImageCorruptedException);
    EXPECT_EQ(lastRequest().target, "/monitor/api/1.0.0/status/monitor_image_number");
}
