#pragma once

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace norvexa {
namespace simulator {

/// How the simulator is started.
struct SimulatorOptions {
    /// The server listens on loopback only.
    std::string host = "127.0.0.1";
    /// 0 picks a free port.
    int port = 0;
    int width = 1028;
    int height = 512;
    /// Where the file area and the monitor's scratch files live; empty for a fresh
    /// directory under the system's temporary directory, removed at the end.
    std::filesystem::path dataDirectory;
    /// Start in the state "na", which needs "initialize".
    bool uninitialized = false;
    /// Wait this long before every answer (a slow server).
    int delayMs = 0;
    /// The data stream's port on 127.0.0.1; 0 picks a free one, so that servers in one
    /// process don't collide. The program's default is the detector's data port 9999.
    int streamPort = 0;
    /// An HDF5 master file whose frames the stream replays; empty for synthetic frames.
    std::string streamMaster;
};

/// One command-line option: "--name value" (or "--name" alone when `argument` is empty).
struct CommandLineOption {
    std::string name;
    std::string argument;
    std::string help;
    std::function<void(SimulatorOptions&, const std::string&)> apply;
};

/// The options the simulator understands; a new feature adds its lines here.
std::vector<CommandLineOption> commandLineOptions();

/// std::invalid_argument with a text for an unknown option, a missing or bad value.
SimulatorOptions parseCommandLine(int argc, const char* const* argv);

/// The usage text, from commandLineOptions().
std::string usage(const std::string& program);

} // namespace simulator
} // namespace norvexa
