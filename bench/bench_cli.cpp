// The norvexa tool run as a subprocess beside the same work done in one loop of library
// calls: converting a 100-frame 2463 x 2527 bitshuffle/LZ4 master to CBF, and recording a
// 20-frame 2463 x 2527 series from the simulator's stream against the stream client's pop alone.
// Every figure is frames per second of wall time (the tool's work is in another process).
#include "common/DetectorFrames.h"

#include "DHdf5Writer.h"
#include "DImage.h"
#include "DImageSeries.h"
#include "DImageWriter.h"
#include "DOrvikDetector.h"
#include "DOrvikFileWriter.h"
#include "DOrvikMonitor.h"
#include "DOrvikStream.h"
#include "DStreamClient.h"
#include "foundation/image/DCompression.h"

#include <spawn.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <atomic>
#include <csignal>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

using namespace norvexa;
using namespace norvexa::imglib;
namespace fs = std::filesystem;

namespace {

constexpr int kFrames = 100;
// The simulator computes each frame of a series afresh (about a second for 6M pixels on a
// loaded machine), which paces both sides of the record benchmark alike.
constexpr int kLiveFrames = 20;

double seconds(const timeval& t)
{
    return double(t.tv_sec) + double(t.tv_usec) * 1e-6;
}

/// CPU seconds (user and system) this process has used so far, every thread counted.
double ownCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// Runs the tool to its end; its standard output goes to /dev/null. Returns the CPU
/// seconds it used, so that both sides compare also where the machine's load makes wall
/// times noisy.
double runTool(std::vector<std::string> args, benchmark::State& state)
{
    args.insert(args.begin(), NORVEXA_TOOL);
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    rusage usage{};
    if (spawned != 0 || wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        state.SkipWithError("the tool failed");
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void cpuPerFrame(benchmark::State& state, double cpuSeconds, int frames)
{
    state.counters["cpu_ms_per_frame"] = 1000 * cpuSeconds / (double(state.iterations()) * frames);
}

/// A scratch directory, removed with the object.
struct Scratch {
    Scratch()
    {
        char pattern[] = "/tmp/bench_cli_XXXXXX";
        path = mkdtemp(pattern);
    }
    ~Scratch() { fs::remove_all(path); }
    fs::path path;
};

/// The 100-frame master, written once (four frames' contents cycled).
const fs::path& master()
{
    static Scratch scratch;
    static const fs::path path = [] {
        const auto layout = norvexa_bench::layout6M();
        DHdf5Writer writer((scratch.path / "bench_master.h5").string(), 100, nexus::DNeXusTree(),
                           image::DCompression::FILTER_BS32_LZ4);
        std::vector<DImage> frames;
        for (unsigned seed = 1; seed <= 4; ++seed) {
            const auto pixels = norvexa_bench::detectorFrame<std::int32_t>(layout, seed);
            DImage frame(layout.width, layout.height, 0);
            std::memcpy(frame.data(), pixels.data(), pixels.size() * sizeof(std::int32_t));
            frame.optionalData().set_count_time(0.1f);
            frame.optionalData().set_wavelength(0.9762f);
            frames.push_back(std::move(frame));
        }
        for (int i = 0; i < kFrames; ++i)
            writer.write(frames[std::size_t(i) % frames.size()]);
        writer.close();
        return scratch.path / "bench_master.h5";
    }();
    return path;
}

void convertLibraryLoop(benchmark::State& state)
{
    const fs::path in = master();
    double cpu = 0;
    for (auto _ : state) {
        Scratch out;
        const double start = ownCpuSeconds();
        DImageSeries series(in.string());
        char name[32];
        for (int i = series.first(); i <= series.last(); ++i) {
            std::snprintf(name, sizeof name, "run_%05d.cbf", i);
            DImageWriter::write(series[static_cast<unsigned long>(i)], (out.path / name).string(), DImageWriter::CBF);
        }
        cpu += ownCpuSeconds() - start;
    }
    state.SetItemsProcessed(state.iterations() * kFrames);
    cpuPerFrame(state, cpu, kFrames);
}

void convertTool(benchmark::State& state)
{
    const fs::path in = master();
    double cpu = 0;
    for (auto _ : state) {
        Scratch out;
        cpu += runTool({"convert", in.string(), (out.path / "run_#####.cbf").string()}, state);
    }
    state.SetItemsProcessed(state.iterations() * kFrames);
    cpuPerFrame(state, cpu, kFrames);
}

/// The simulator as a child process ("norvexa sim") with 6M frames, for the whole run.
class Simulator {
public:
    Simulator()
    {
        int out[2];
        if (pipe(out) != 0)
            throw std::runtime_error("pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        const char* argv[] = {NORVEXA_TOOL, "sim", "--port", "0", "--stream-port", "0", "--width", "2463",
                              "--height", "2527", nullptr};
        posix_spawn(&_pid, argv[0], &actions, nullptr, const_cast<char* const*>(argv), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        FILE* lines = fdopen(out[0], "r");
        char line[256] = {};
        if (std::fgets(line, sizeof line, lines))
            rest = std::atoi(std::strrchr(line, ':') + 1);
        if (std::fgets(line, sizeof line, lines))
            stream = std::atoi(std::strrchr(line, ':') + 1);
        std::fclose(lines);
        const std::atomic<bool> no(false);
        DOrvikDetector detector("127.0.0.1", rest);
        detector.setFrameTime(0.001, no);
        detector.setCountTime(0.0009, no);
        DOrvikStream("127.0.0.1", rest).setEnabled(true, no);
        // Only the stream: the simulator's own files and monitor would pace it.
        DOrvikFileWriter("127.0.0.1", rest).setEnabled(false, no);
        DOrvikMonitor("127.0.0.1", rest).setEnabled(false, no);
    }
    ~Simulator()
    {
        kill(_pid, SIGTERM);
        waitpid(_pid, nullptr, 0);
    }
    int rest = 0, stream = 0;

private:
    pid_t _pid = 0;
};

Simulator& simulator()
{
    static Simulator sim;
    return sim;
}

void recordPopAlone(benchmark::State& state)
{
    Simulator& sim = simulator();
    const std::atomic<bool> no(false);
    DOrvikDetector detector("127.0.0.1", sim.rest);
    double cpu = 0;
    for (auto _ : state) {
        const double start = ownCpuSeconds();
        // A client of its own per series: a second connected one would share the frames.
        DStreamClient client("127.0.0.1", sim.stream);
        detector.setNImages(kLiveFrames, no);
        detector.arm(no);
        std::thread trigger([&] { DOrvikDetector("127.0.0.1", sim.rest).trigger(no); });
        long images = 0;
        for (bool done = false; !done;) {
            const DStreamObject message = client.pop(30, no);
            images += message.type() == DStreamObject::DATA;
            done = message.type() == DStreamObject::END;
        }
        trigger.join();
        cpu += ownCpuSeconds() - start;
        if (images != kLiveFrames)
            state.SkipWithError("frames lost");
    }
    state.SetItemsProcessed(state.iterations() * kLiveFrames);
    cpuPerFrame(state, cpu, kLiveFrames);
}

void recordTool(benchmark::State& state)
{
    Simulator& sim = simulator();
    double cpu = 0;
    for (auto _ : state) {
        Scratch out;
        cpu += runTool({"record", "127.0.0.1:" + std::to_string(sim.stream), (out.path / "live_master.h5").string(),
                        "--series", "1", "--arm", "--trigger", "--images", std::to_string(kLiveFrames),
                        "--rest-port", std::to_string(sim.rest), "--timeout", "30"},
                       state);
    }
    state.SetItemsProcessed(state.iterations() * kLiveFrames);
    cpuPerFrame(state, cpu, kLiveFrames);
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    const auto add = [](const char* name, void (*body)(benchmark::State&)) {
        benchmark::RegisterBenchmark(name, body)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
    };
    // Each pair three times, alternating, so that the load of a shared machine falls on both sides alike.
    for (int round = 0; round < 3; ++round) {
        add("convert_bslz4_to_cbf/library_loop", convertLibraryLoop);
        add("convert_bslz4_to_cbf/tool", convertTool);
    }
    for (int round = 0; round < 3; ++round) {
        add("record_20_frames/pop_alone", recordPopAlone);
        add("record_20_frames/tool", recordTool);
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
