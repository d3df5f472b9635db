#include "DemoDetector.h"

#include "DHttpException.h"
#include "DImageSeries.h"
#include "DOrvikDetector.h"
#include "DOrvikFileWriter.h"
#include "DOrvikMonitor.h"
#include "foundation/DException.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <stdexcept>
#include <thread>
#include <vector>

#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

/// The simulator as a child process: started with "--port 0", its port read from its first
/// line of output; ended with SIGTERM (SIGKILL if it doesn't go) when the object goes.
class SimulatorProcess {
public:
    explicit SimulatorProcess(const std::string& program)
    {
        int out[2];
        if (pipe(out) != 0)
            throw std::runtime_error("no pipe for the simulator");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        std::vector<std::string> args{program, "--port", "0"};
        std::vector<char*> argv;
        for (std::string& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        const int failed = posix_spawn(&_pid, program.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        _out = out[0];
        if (failed) {
            close(_out);
            throw std::runtime_error("cannot start " + program);
        }
        _port = readPort();
    }

    ~SimulatorProcess()
    {
        kill(_pid, SIGTERM);
        for (int i = 0; i < 50; ++i) {
            if (waitpid(_pid, nullptr, WNOHANG) == _pid) {
                close(_out);
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        kill(_pid, SIGKILL);
        waitpid(_pid, nullptr, 0);
        close(_out);
    }

    SimulatorProcess(const SimulatorProcess&) = delete;
    SimulatorProcess& operator=(const SimulatorProcess&) = delete;

    int port() const { return _port; }
    pid_t pid() const { return _pid; }

private:
    // "listening on http://127.0.0.1:<port>", within 10 s.
    int readPort()
    {
        std::string line;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (line.find('\n') == std::string::npos && std::chrono::steady_clock::now() < deadline) {
            pollfd p{_out, POLLIN, 0};
            if (poll(&p, 1, 100) <= 0)
                continue;
            char c[256];
            const ssize_t n = read(_out, c, sizeof c);
            if (n <= 0)
                break;
            line.append(c, static_cast<std::size_t>(n));
        }
        const std::size_t colon = line.rfind(':');
        if (line.find('\n') == std::string::npos || colon == std::string::npos)
            throw std::runtime_error("the simulator did not say its port");
        return std::stoi(line.substr(colon + 1));
    }

    pid_t _pid = -1;
    int _out = -1;
    int _port = 0;
};

template <class T>
void printRange(const char* name, const RangedValue<T>& r, const char* unit)
{
    std::cout << "    " << name << " " << r.value << " " << unit << " (" << r.min << " to " << r.max << ")\n";
}

void drive(int port, const std::filesystem::path& directory)
{
    const std::atomic<bool> abort{false};
    DOrvikDetector detector("127.0.0.1", port);
    DOrvikFileWriter writer("127.0.0.1", port);
    DOrvikMonitor monitor("127.0.0.1", port);

    std::cout << "  detector: \"" << detector.description(abort) << "\" number "
              << detector.detectorNumber(abort) << ", interface " << detector.version(abort)
              << ", state " << detector.status(abort) << "\n";
    printRange("count_time", detector.countTime(abort), "s");
    printRange("frame_time", detector.frameTime(abort), "s");
    printRange("photon_energy", detector.photonEnergy(abort), "eV");
    printRange("nimages", detector.nImages(abort), "");
    const ChoiceValue element = detector.element(abort);
    std::cout << "    element " << element.value << " of";
    for (const std::string& e : element.allowed)
        std::cout << " " << e;
    std::cout << "\n";

    try {
        detector.setCountTime(1e6, abort);
    } catch (const DHttpException& e) {
        std::cout << "  a count time of 1e6 s is refused: " << e.status() << " \"" << e.what() << "\"\n";
    }
    detector.setCountTime(0.05, abort);
    detector.setFrameTime(0.05, abort);
    detector.setPhotonEnergy(12400, abort);
    detector.setNImages(5, abort);
    writer.setEnabled(true, abort);
    monitor.setEnabled(true, abort);
    std::cout << "  set count_time 0.05 s, frame_time 0.05 s, photon_energy 12400 eV (threshold now "
              << detector.thresholdEnergy(abort).value << " eV), nimages 5\n";

    const auto start = std::chrono::steady_clock::now();
    detector.arm(abort);
    std::cout << "  armed: state " << detector.status(abort) << "\n";
    detector.trigger(abort);
    std::cout << "  triggered: state " << detector.status(abort) << "\n";
    std::string state;
    while ((state = detector.status(abort)) != "idle" &&
           std::chrono::steady_clock::now() - start < std::chrono::seconds(20))
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::cout << "  state " << state << " again after "
              << std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count()
              << " ms\n";

    std::filesystem::create_directories(directory);
    std::string master;
    for (const std::string& name : writer.listFiles(abort)) {
        const std::int64_t size = writer.download(name, directory.string(), abort);
        std::cout << "  downloaded " << name << ": " << size << " bytes\n";
        if (name.find("_master.h5") != std::string::npos)
            master = (directory / name).string();
    }
    if (!master.empty()) {
        DImageSeries series(master);
        const DImage first = series.front();
        std::cout << "  read " << master << ": images " << series.first() << " to " << series.last()
                  << " of " << first.width() << " x " << first.height() << ", count_time "
                  << first.optionalData().count_time().value_or(0.0f) << " s\n";
    }

    const MonitorFrame frame = monitor.monitorAll(1000, abort);
    long long total = 0;
    for (int y = 0; y < frame.image.height(); ++y)
        for (int x = 0; x < frame.image.width(); ++x)
            total += std::max(0, frame.image.pixel<int>(x, y, 0));
    std::cout << "  monitor image of series " << frame.series << ", image " << frame.imageNumber << ": "
              << frame.image.width() << " x " << frame.image.height() << ", total counts " << total << "\n";
    try {
        monitor.next(0, abort);
        monitor.next(0, abort);
        monitor.next(0, abort);
    } catch (const DTimeoutException& e) {
        std::cout << "  the monitor's \"next\" view ran dry: " << e.what() << "\n";
    }
}

} // namespace

namespace norvexa_demo {

void driveSimulatedDetector(const std::string& directory)
{
    std::cout << "\nDetector control over HTTP, against the detector simulator\n";
#ifdef NORVEXA_DETECTOR_SIM
    // Numbers as the server gives them, not in the fixed form of the tour before.
    std::ios format(nullptr);
    format.copyfmt(std::cout);
    std::cout.unsetf(std::ios::floatfield);
    std::cout << std::setprecision(6);
    try {
        SimulatorProcess simulator(NORVEXA_DETECTOR_SIM);
        std::cout << "  started " << NORVEXA_DETECTOR_SIM << " (pid " << simulator.pid()
                  << ") on 127.0.0.1:" << simulator.port() << "\n";
        drive(simulator.port(), directory);
        std::cout << "  stopped the simulator\n";
    } catch (const std::exception& e) {
        std::cout << "  FAILED: " << e.what() << " (the simulator is stopped)\n";
    }
    std::cout.copyfmt(format);
#else
    (void)directory;
    std::cout << "  skipped: the simulator is not built (NORVEXA_BUILD_SIMULATOR=OFF)\n";
#endif
}

} // namespace norvexa_demo
