// The live stream over tcp on 127.0.0.1: DStreamClient::pop beside a bare libzmq PULL
// receiver that takes the same messages into reused buffers (the limit), the stream into
// DHdf5Writer without decoding, and a viewer's loop (pop, decode, colour map).
#include "common/DetectorFrames.h"

#include "DColorMap.h"
#include "DColorTable.h"
#include "DHdf5Writer.h"
#include "DImage.h"
#include "DStreamClient.h"
#include "foundation/image/DCompression.h"

#include <zmq.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;
using norvexa_bench::add;

namespace {

using Parts = std::vector<std::string>;

/// Sends one image message over and over from a thread of its own, at most `window`
/// messages ahead of what the receiver has taken, so that no queue grows.
class Feed {
public:
    explicit Feed(Parts message) : _message(std::move(message))
    {
        _context = zmq_ctx_new();
        _socket = zmq_socket(_context, ZMQ_PUSH);
        const int linger = 0;
        zmq_setsockopt(_socket, ZMQ_LINGER, &linger, sizeof(linger));
        zmq_bind(_socket, "tcp://127.0.0.1:*");
        char endpoint[256] = {};
        std::size_t length = sizeof(endpoint);
        zmq_getsockopt(_socket, ZMQ_LAST_ENDPOINT, endpoint, &length);
        _port = std::stoi(std::strrchr(endpoint, ':') + 1);
        _thread = std::thread([this] { run(); });
    }
    ~Feed()
    {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _stop = true;
        }
        _wake.notify_one();
        _thread.join();
        zmq_close(_socket);
        zmq_ctx_destroy(_context);
    }
    int port() const { return _port; }
    void taken()
    {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            ++_taken;
        }
        _wake.notify_one();
    }
    std::size_t bytes() const { return _message[2].size(); }

private:
    void run()
    {
        // Blocking sends: the window keeps the queues short, so a send never waits long.
        long sent = 0;
        while (true) {
            {
                // Waiting, not spinning: the sender must not take the cores from the receiver.
                std::unique_lock<std::mutex> lock(_mutex);
                _wake.wait(lock, [&] { return _stop || sent - _taken < kWindow; });
                if (_stop)
                    return;
            }
            bool ok = true;
            for (std::size_t i = 0; i < _message.size() && ok; ++i)
                ok = zmq_send(_socket, _message[i].data(), _message[i].size(),
                              i + 1 < _message.size() ? ZMQ_SNDMORE : 0) >= 0;
            sent += ok;
        }
    }

    static constexpr long kWindow = 3;
    Parts _message;
    void* _context;
    void* _socket;
    int _port = 0;
    std::mutex _mutex;
    std::condition_variable _wake;
    bool _stop = false;
    long _taken = 0;
    std::thread _thread;
};

struct Frame {
    std::string pixels; // plain little-endian
    std::string wire;   // as the detector sends the data part
    int width, height;
};

const Frame& frame(bool bitshuffle)
{
    static const Frame frames[2] = {
        [] {
            const auto layout = norvexa_bench::layout16M();
            const auto pixels = norvexa_bench::detectorFrame<std::uint32_t>(layout);
            std::string plain(reinterpret_cast<const char*>(pixels.data()), pixels.size() * 4);
            return Frame{plain, plain, layout.width, layout.height};
        }(),
        [] {
            const auto layout = norvexa_bench::layout6M();
            const auto pixels = norvexa_bench::detectorFrame<std::uint32_t>(layout);
            std::string plain(reinterpret_cast<const char*>(pixels.data()), pixels.size() * 4);
            const auto chunk = image::codec::encode(image::DCompression::FILTER_BS32_LZ4,
                                                    plain.data(), plain.size());
            return Frame{plain, std::string(chunk.begin(), chunk.end()), layout.width,
                         layout.height};
        }(),
    };
    return frames[bitshuffle];
}

Parts imageMessage(bool bitshuffle)
{
    const Frame& f = frame(bitshuffle);
    return {R"({"htype":"dimage-1.0","series":1,"frame":1})",
            R"({"htype":"dimage_d-1.0","shape":[)" + std::to_string(f.width) + "," +
                std::to_string(f.height) + R"(],"type":"uint32","encoding":")" +
                (bitshuffle ? "bs32-lz4<" : "<") + R"(","size":)" + std::to_string(f.wire.size()) + "}",
            f.wire, R"({"htype":"dconfig-1.0","start_time":0,"stop_time":1,"real_time":1})"};
}

void report(benchmark::State& state, const Feed& feed, const Frame& f)
{
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * feed.bytes()));
    state.counters["frames/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["plain GB/s"] = benchmark::Counter(
        static_cast<double>(state.iterations() * f.pixels.size()) * 1e-9, benchmark::Counter::kIsRate);
}

/// The limit: libzmq alone, every part into a buffer that is reused.
void BM_BareReceiver(benchmark::State& state, bool bitshuffle)
{
    Feed feed(imageMessage(bitshuffle));
    void* context = zmq_ctx_new();
    void* socket = zmq_socket(context, ZMQ_PULL);
    const std::string address = "tcp://127.0.0.1:" + std::to_string(feed.port());
    zmq_connect(socket, address.c_str());
    std::vector<char> small(4096), big(frame(bitshuffle).wire.size() + 16);
    for (auto _ : state) {
        int more = 1, part = 0;
        while (more) {
            std::vector<char>& into = part++ == 2 ? big : small;
            zmq_recv(socket, into.data(), into.size(), 0);
            std::size_t length = sizeof(more);
            zmq_getsockopt(socket, ZMQ_RCVMORE, &more, &length);
        }
        feed.taken();
        benchmark::DoNotOptimize(big.data());
    }
    report(state, feed, frame(bitshuffle));
    zmq_close(socket);
    zmq_ctx_destroy(context);
}

const std::atomic<bool> never{false};

void BM_StreamPop(benchmark::State& state, bool bitshuffle)
{
    Feed feed(imageMessage(bitshuffle));
    DStreamClient client("127.0.0.1", feed.port());
    for (auto _ : state) {
        const DStreamObject object = client.pop(10, never);
        feed.taken();
        benchmark::DoNotOptimize(object.type());
    }
    report(state, feed, frame(bitshuffle));
}

/// The frames as they came into an HDF5 file: a direct chunk write, no decoding.
void BM_StreamToHdf5(benchmark::State& state)
{
    Feed feed(imageMessage(true));
    DStreamClient client("127.0.0.1", feed.port());
    const auto dir = std::filesystem::temp_directory_path() / "norvexa_bench_stream";
    std::filesystem::create_directories(dir);
    {
        DHdf5Writer writer((dir / "series.h5").string(), 100, nexus::DNeXusTree(),
                           image::DCompression::FILTER_BS32_LZ4);
        for (auto _ : state) {
            const DStreamObject object = client.pop(10, never);
            feed.taken();
            writer.write(object.data().data());
        }
        writer.close();
    }
    std::filesystem::remove_all(dir);
    report(state, feed, frame(true));
}

/// A live viewer: pop, decode, colour map.
void BM_ViewerLoop(benchmark::State& state)
{
    Feed feed(imageMessage(true));
    DStreamClient client("127.0.0.1", feed.port());
    for (auto _ : state) {
        const DStreamObject object = client.pop(10, never);
        feed.taken();
        const DImage frame(object.data().data());
        DImage colours = DColorMap::rgb(frame, 20, 0, 5000, DColorTable::hdr(), "ARGB", nullptr,
                                        nullptr, 1000000, true, true);
        benchmark::DoNotOptimize(colours.cdata());
    }
    report(state, feed, frame(true));
}

} // namespace

int main(int argc, char** argv)
{
    // Iterations are fixed so that each pair sees the same number of frames.
    const struct {
        const char* name;
        bool bitshuffle;
        int iterations;
    } sizes[] = {{"2463x2527/bs32-lz4<", true, 400}, {"4148x4362/uint32", false, 12}};
    for (const auto& s : sizes) {
        frame(s.bitshuffle);
        benchmark::RegisterBenchmark((std::string("BareReceiver/") + s.name).c_str(), BM_BareReceiver,
                                     s.bitshuffle)
            ->Unit(benchmark::kMillisecond)->Iterations(s.iterations)->UseRealTime();
        benchmark::RegisterBenchmark((std::string("StreamPop/") + s.name).c_str(), BM_StreamPop,
                                     s.bitshuffle)
            ->Unit(benchmark::kMillisecond)->Iterations(s.iterations)->UseRealTime();
    }
    benchmark::RegisterBenchmark("StreamToHdf5/2463x2527/bs32-lz4<", BM_StreamToHdf5)
        ->Unit(benchmark::kMillisecond)->Iterations(200)->UseRealTime();
    benchmark::RegisterBenchmark("ViewerLoop/2463x2527/bs32-lz4<", BM_ViewerLoop)
        ->Unit(benchmark::kMillisecond)->Iterations(100)->UseRealTime();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
