#include "DemoLive.h"

#include "DemoPicture.h"

#include "DHdf5Writer.h"
#include "DImage.h"
#include "DImageSeries.h"
#include "DOrvikDetector.h"
#include "DOrvikStream.h"
#include "DStreamTables.h"
#include "foundation/DException.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <vector>

extern char** environ;

namespace norvexa_demo {

using namespace norvexa;
using namespace norvexa::imglib;

namespace {
using Clock = std::chrono::steady_clock;

double secondsBetween(Clock::time_point a, Clock::time_point b)
{
    return std::chrono::duration<double>(b - a).count();
}

bool samePixels(const DImage& a, const DImage& b)
{
    return a.width() == b.width() && a.height() == b.height() && a.dataSize() == b.dataSize() &&
           std::memcmp(a.cdata(), b.cdata(), a.size() * a.dataSize()) == 0;
}

/// The simulator as a second process, ended (SIGTERM) with the object.
class Simulator {
public:
    Simulator()
    {
        int out[2];
        if (pipe(out) != 0)
            return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        const char* argv[] = {NORVEXA_DETECTOR_SIM, "--port", "0", "--width", "2463", "--height",
                              "2527", nullptr};
        const bool spawned = posix_spawn(&_pid, argv[0], &actions, nullptr,
                                         const_cast<char* const*>(argv), environ) == 0;
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        // Its first line: "listening on http://127.0.0.1:<port>"; nothing when it failed.
        std::unique_ptr<FILE, int (*)(FILE*)> lines(fdopen(out[0], "r"), &fclose);
        char line[256] = {};
        if (!spawned) {
            _pid = 0;
        } else if (lines && std::fgets(line, sizeof(line), lines.get())) {
            const char* colon = std::strrchr(line, ':');
            _port = colon ? std::atoi(colon + 1) : 0;
        }
    }
    ~Simulator()
    {
        if (_pid > 0) {
            kill(_pid, SIGTERM);
            waitpid(_pid, nullptr, 0);
        }
    }
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;
    /// The REST port, 0 when the simulator did not start.
    int port() const { return _port; }

private:
    pid_t _pid = 0;
    int _port = 0;
};

void followSeries(const std::string& host, int restPort, const std::string& dir)
{
    constexpr int kImages = 20;
    const std::atomic<bool> stop(false);

    DOrvikDetector detector(host, restPort);
    DOrvikStream stream(host, restPort);
    detector.setNImages(kImages, stop);
    detector.setFrameTime(0.02, stop);
    detector.setCountTime(0.0199, stop);
    stream.setEnabled(true, stop);
    stream.setHeaderDetail("all", stop);
    std::cout << "  stream interface " << stream.version() << ", "
              << (stream.enabled(stop) ? "enabled" : "disabled") << ", header detail \""
              << stream.headerDetail(stop) << "\"\n";
    detector.arm(stop);
    detector.trigger(stop);

    // Follow the series: CONFIG, one DATA per image, END.
    std::unique_ptr<DHdf5Writer> writer;
    nexus::DNeXusTree header;
    std::vector<DStreamData::Image> received;
    double writeSeconds = 0;
    Clock::time_point firstImage, end;
    for (bool done = false; !done;) {
        const DStreamObject message = stream.pop(10.0, stop);
        switch (message.type()) {
        case DStreamObject::CONFIG:
            header = message.config().config();
            std::cout << "  series " << message.config().seriesId() << ": a header tree of "
                      << header.size() << " nodes\n";
            break;
        case DStreamObject::DATA: {
            DStreamData::Image image = message.data().data();
            const auto writeStart = Clock::now();
            if (!writer) {
                firstImage = writeStart;
                // The file takes the stream's own encoding, so every chunk is stored as it came.
                writer.reset(new DHdf5Writer(dir + "/live.h5", 10, header, image.filter()));
            }
            writer->write(image);
            writeSeconds += secondsBetween(writeStart, Clock::now());
            received.push_back(std::move(image));
            break;
        }
        case DStreamObject::END:
            end = Clock::now();
            done = true;
            break;
        }
    }
    if (!writer || received.empty()) {
        std::cout << "  no image came\n";
        return;
    }
    // Ten images a data file: the master is "live_master.h5" beside "live_data_00000N.h5".
    const std::string master = dir + "/live_master.h5";
    writer->close();
    const double receiveSeconds = secondsBetween(firstImage, end);
    std::cout << "  " << received.size() << " images of " << received.front().shape()[0] << " x "
              << received.front().shape()[1] << " (" << received.back().usedBytes() / 1024
              << " KiB compressed), " << stream.dropped(stop) << " dropped\n"
              << "  receive: " << received.size() / receiveSeconds << " frames/s (paced by the detector's "
              << "frame time); write without decoding: " << received.size() / writeSeconds
              << " frames/s\n";

    // Back to signed counts, so that the gap and defect codes read -1 and -2 again, with the
    // pixel mask the series' header brought.
    DImage last = DImage(received.back()).asType<int>();
    const auto& mask = header.at(NEXUS_PATH.at("pixel_mask")).asData().data();
    if (!mask.empty())
        last.optionalData().set_pixel_mask(DImage(mask));
    writeDemoPicture(last, dir + "/live.png");
    std::cout << "  the last frame drawn into " << dir << "/live.png\n";

    DImageSeries series(master);
    std::size_t equal = 0;
    for (std::size_t i = 0; i < received.size(); ++i)
        equal += samePixels(series[static_cast<unsigned long>(series.first()) + i], DImage(received[i]));
    std::cout << "  " << master << " read back: " << equal << " of " << received.size()
              << " frames equal to the stream's\n";
}
} // namespace

void followLiveSeries(const std::string& dir)
{
    std::cout << "\nLive stream\n";
    const Simulator simulator;
    if (!simulator.port()) {
        std::cout << "  the detector simulator did not start (is the data port 9999 taken?)\n";
        return;
    }
    try {
        followSeries("127.0.0.1", simulator.port(), dir);
    } catch (const DException& e) {
        std::cout << "  the live road failed: " << e.what() << "\n";
    }
}

} // namespace norvexa_demo
