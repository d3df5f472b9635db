// The message queue between two real processes: a 16M frame with its metadata, sent by
// this process and received by a forked one into the same DImage again and again, beside
// two memcpys of the same bytes in one process (the limit of a design that copies into
// shared memory and out again): once between buffers in use, once the way a queue that
// kept nothing would touch memory (a segment mapped anew for each message on both sides,
// and a new buffer for the received frame). The first message of a size, which makes the
// segment and maps it on both sides, is measured apart. And the rate of short texts.

#include "common/DetectorFrames.h"

#include "DDetector.h"
#include "DImage.h"
#include "DMessageQueue.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

constexpr int kTextsPerBatch = 1000;

DImage frameWithMetadata()
{
    const auto layout = norvexa_bench::layout16M();
    const auto pixels = norvexa_bench::detectorFrame<std::uint32_t>(layout);
    DImage frame(layout.width, layout.height, datatypes::UINT, 4);
    std::memcpy(frame.data(), pixels.data(), pixels.size() * sizeof(std::uint32_t));
    auto& metadata = frame.optionalData();
    metadata.set_modules(DDetector::modules(frame.width(), frame.height()));
    metadata.set_count_time(0.1f);
    metadata.set_wavelength(0.9762f);
    metadata.set_threshold_energy(6000.0f);
    metadata.set_detector_number(std::string("E-32-0101"));
    return frame;
}

/// The receiving process: serves commands until "stop". "frame": receive a frame and
/// acknowledge; "texts": receive a batch of texts and acknowledge.
[[noreturn]] void serve(const std::string& name)
{
    DMessageQueue queue(name.c_str());
    DImage frame;
    for (;;) {
        const std::string command = queue.receive();
        if (command == "frame") {
            queue.receive(frame);
        } else if (command == "texts") {
            for (int i = 0; i < kTextsPerBatch; ++i)
                queue.receive();
        } else {
            break;
        }
        queue.send(std::string("ok"));
    }
    queue.close();
    ::_exit(0);
}

/// A queue with a forked receiver on the other side, for one benchmark.
class Receiver {
public:
    Receiver() : _name("bench_ipc_" + std::to_string(::getpid())), _queue(_name.c_str())
    {
        _pid = ::fork();
        if (_pid == 0)
            serve(_name);
    }
    ~Receiver()
    {
        _queue.send(std::string("stop"));
        ::waitpid(_pid, nullptr, 0);
        _queue.close();
        std::remove(("/tmp/__NORVEXA_FENWIK_FLK_MAIN_" + _name).c_str());
        std::remove(("/tmp/__NORVEXA_FENWIK_FLK_SUB_" + _name).c_str());
    }
    DMessageQueue& queue() { return _queue; }

private:
    std::string _name;
    DMessageQueue _queue;
    pid_t _pid;
};

void sendFrame(DMessageQueue& queue, const DImage& frame)
{
    queue.send(std::string("frame"));
    queue.send(frame);
    // The acknowledgement comes once the receiver has its copy.
    benchmark::DoNotOptimize(queue.receive());
}

} // namespace

static void BM_QueueFrameToOtherProcess(benchmark::State& state)
{
    const DImage frame = frameWithMetadata();
    Receiver receiver;
    // The first message makes the segment; the steady state reuses it.
    sendFrame(receiver.queue(), frame);
    for (auto _ : state)
        sendFrame(receiver.queue(), frame);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frame.size() * 4));
}
BENCHMARK(BM_QueueFrameToOtherProcess)->Unit(benchmark::kMillisecond)->UseRealTime();

/// The first frame on a new queue: the segment is made and mapped on both sides, and the
/// receiver allocates its frame. A new queue and receiver for each iteration, untimed.
static void BM_QueueFrameFirstMessage(benchmark::State& state)
{
    const DImage frame = frameWithMetadata();
    for (auto _ : state) {
        state.PauseTiming();
        auto receiver = std::make_unique<Receiver>();
        // The receiver has opened its side once it answers.
        receiver->queue().send(std::string("texts"));
        for (int i = 0; i < kTextsPerBatch; ++i)
            receiver->queue().send(std::string());
        receiver->queue().receive();
        state.ResumeTiming();
        sendFrame(receiver->queue(), frame);
        state.PauseTiming();
        receiver.reset();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frame.size() * 4));
}
BENCHMARK(BM_QueueFrameFirstMessage)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(4);

static void BM_TwoMemcpysOfTheFrame(benchmark::State& state)
{
    const DImage frame = frameWithMetadata();
    const std::size_t bytes = frame.size() * 4;
    std::vector<char> shared(bytes, 1), target(bytes, 1);
    for (auto _ : state) {
        std::memcpy(shared.data(), frame.cdata(), bytes);
        std::memcpy(target.data(), shared.data(), bytes);
        benchmark::DoNotOptimize(target.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_TwoMemcpysOfTheFrame)->Unit(benchmark::kMillisecond)->UseRealTime();

static void BM_TwoMemcpysThroughFreshMappings(benchmark::State& state)
{
    const DImage frame = frameWithMetadata();
    const std::size_t bytes = frame.size() * 4;
    const std::string name = "/bench_ipc_limit_" + std::to_string(::getpid());
    const int fd = ::shm_open(name.c_str(), O_CREAT | O_RDWR, 0644);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
        state.SkipWithError("no shared memory");
        return;
    }
    auto copy = [&](bool in, char* target) {
        void* mapped = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (in)
            std::memcpy(mapped, frame.cdata(), bytes);
        else
            std::memcpy(target, mapped, bytes);
        ::munmap(mapped, bytes);
    };
    copy(true, nullptr);
    for (auto _ : state) {
        copy(true, nullptr);
        std::unique_ptr<char[]> received(new char[bytes]);
        copy(false, received.get());
        benchmark::DoNotOptimize(received.get());
    }
    ::close(fd);
    ::shm_unlink(name.c_str());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_TwoMemcpysThroughFreshMappings)->Unit(benchmark::kMillisecond)->UseRealTime();

static void BM_QueueShortTexts(benchmark::State& state)
{
    Receiver receiver;
    DMessageQueue& queue = receiver.queue();
    const std::string text = "set threshold_energy 6000";
    for (auto _ : state) {
        queue.send(std::string("texts"));
        for (int i = 0; i < kTextsPerBatch; ++i)
            queue.send(text);
        benchmark::DoNotOptimize(queue.receive());
    }
    state.SetItemsProcessed(state.iterations() * kTextsPerBatch);
}
BENCHMARK(BM_QueueShortTexts)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
