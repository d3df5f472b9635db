// The REST clients against the detector simulator on loopback, each beside the limit of its
// design: a bare libcurl exchange of the same request on a reused handle.
//   parameter read  DOrvikDetector::countTime    vs  GET of the same path
//   parameter write DOrvikDetector::setCountTime vs  PUT of the same body
//   monitor image   DOrvikMonitor::monitor (fetch, numbers, TIFF decode) of a 4148 x 4362
//                   frame of 32-bit pixels       vs  GET of the same reply, into a buffer
//                                                    reused from one run to the next and
//                                                    into a fresh one each time

#include "DHttpClient.h"
#include "DOrvikDetector.h"
#include "DOrvikMonitor.h"
#include "SimulatorServer.h"
#include "common/DetectorFrames.h"

#include <curl/curl.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

const std::string kCountTime = "/detector/api/1.0.0/config/count_time";
const std::string kImage = "/monitor/api/1.0.0/images/monitor?timeout=1000";

/// One simulator for the whole run, holding one 4148 x 4362 frame in its monitor.
int simulatorPort()
{
    static const auto server = [] {
        const norvexa_bench::Layout layout = norvexa_bench::layout16M();
        simulator::SimulatorOptions options;
        options.width = layout.width;
        options.height = layout.height;
        auto s = std::make_unique<simulator::SimulatorServer>(options);
        s->start();
        s->parameters().setValue("filewriter", "config", "mode", "disabled");
        s->parameters().setValue("detector", "config", "frame_time", 0.001);
        const std::atomic<bool> abort{false};
        DOrvikDetector detector("127.0.0.1", s->port());
        detector.arm(abort);
        detector.trigger(abort);
        while (detector.status(abort) != "idle")
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        // The first request encodes the TIFF; the runs measure the transfer.
        DOrvikMonitor("127.0.0.1", s->port()).monitor(1000, abort);
        return s;
    }();
    return server->port();
}

std::size_t toString(char* bytes, std::size_t size, std::size_t count, void* out)
{
    static_cast<std::string*>(out)->append(bytes, size * count);
    return size * count;
}

struct Upload {
    const char* next;
    std::size_t left;
};

std::size_t fromUpload(char* buffer, std::size_t size, std::size_t count, void* in)
{
    Upload& u = *static_cast<Upload*>(in);
    const std::size_t n = std::min(size * count, u.left);
    std::memcpy(buffer, u.next, n);
    u.next += n;
    u.left -= n;
    return n;
}

/// A bare libcurl handle on the simulator, reused for every request of a run.
struct BareCurl {
    CURL* curl = curl_easy_init();
    curl_slist* headers = nullptr;
    std::string reply;

    explicit BareCurl(const std::string& path, std::initializer_list<const char*> lines)
    {
        for (const char* line : lines)
            headers = curl_slist_append(headers, line);
        const std::string url = "http://127.0.0.1:" + std::to_string(simulatorPort()) + path;
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(curl, CURLOPT_TCP_NODELAY, 1L);
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &toString);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply);
    }
    ~BareCurl()
    {
        curl_slist_free_all(headers);
        curl_easy_cleanup(curl);
    }
    long perform(benchmark::State& state)
    {
        reply.clear();
        if (curl_easy_perform(curl) != CURLE_OK)
            state.SkipWithError("request failed");
        long status = 0;
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        return status;
    }
};

void BM_ParameterRead_Client(benchmark::State& state)
{
    DOrvikDetector detector("127.0.0.1", simulatorPort());
    const std::atomic<bool> abort{false};
    for (auto _ : state)
        benchmark::DoNotOptimize(detector.countTime(abort));
    state.SetItemsProcessed(state.iterations());
}

void BM_ParameterRead_BareCurl(benchmark::State& state)
{
    BareCurl bare(kCountTime, {"accept: application/json", "Expect:"});
    for (auto _ : state)
        benchmark::DoNotOptimize(bare.perform(state));
    state.SetItemsProcessed(state.iterations());
}

void BM_ParameterWrite_Client(benchmark::State& state)
{
    DOrvikDetector detector("127.0.0.1", simulatorPort());
    const std::atomic<bool> abort{false};
    for (auto _ : state)
        detector.setCountTime(0.5, abort);
    state.SetItemsProcessed(state.iterations());
}

void BM_ParameterWrite_BareCurl(benchmark::State& state)
{
    BareCurl bare(kCountTime, {"content-type: application/json; charset=utf-8", "Expect:"});
    const std::string body = R"({"value":0.5})";
    Upload upload{};
    curl_easy_setopt(bare.curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(bare.curl, CURLOPT_READFUNCTION, &fromUpload);
    curl_easy_setopt(bare.curl, CURLOPT_READDATA, &upload);
    curl_easy_setopt(bare.curl, CURLOPT_INFILESIZE, static_cast<long>(body.size()));
    for (auto _ : state) {
        upload = Upload{body.data(), body.size()};
        benchmark::DoNotOptimize(bare.perform(state));
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_MonitorImage_Client(benchmark::State& state)
{
    DOrvikMonitor monitor("127.0.0.1", simulatorPort());
    const std::atomic<bool> abort{false};
    std::size_t bytes = 0;
    for (auto _ : state) {
        const DImage image = monitor.monitor(1000, abort);
        bytes += image.size() * image.dataSize();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}

/// The fetch alone through DHttpClient: tells the transfer from the decoding.
void BM_MonitorImage_QueryOnly(benchmark::State& state)
{
    DHttpClient client("127.0.0.1", simulatorPort());
    std::size_t bytes = 0;
    for (auto _ : state)
        bytes += client.query(kImage, DHttpClient::Get, {{"accept", "application/tiff"}},
                              image::DBasicImageData<image::StdAllocator>())
                     .data.size();
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}

/// Arg 0: the reply's buffer is reused (the limit); 1: a fresh buffer for each reply, as an
/// interface that hands the body over must have.
void BM_MonitorImage_BareCurl(benchmark::State& state)
{
    BareCurl bare(kImage, {"accept: application/tiff", "Expect:"});
    // The reused buffer has the reply's size before the first timed run.
    if (state.range(0) == 0)
        bare.perform(state);
    std::size_t bytes = 0;
    for (auto _ : state) {
        if (state.range(0))
            bare.reply = std::string();
        bare.perform(state);
        bytes += bare.reply.size();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}

} // namespace

BENCHMARK(BM_ParameterRead_Client)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_ParameterRead_BareCurl)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_ParameterWrite_Client)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_ParameterWrite_BareCurl)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_MonitorImage_Client)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MonitorImage_QueryOnly)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MonitorImage_BareCurl)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
