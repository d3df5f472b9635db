// norvexa sim ...: the detector simulator, the same program with the same options as
// norvexa_detector_sim, for trying the other subcommands without a detector.

#include "CliSupport.h"
#include "Commands.h"

#include "SimulatorServer.h"

#include <CLI/CLI.hpp>

#include <iostream>
#include <memory>

namespace norvexa {
namespace cli {

namespace {

void simulate(const std::vector<std::string>& arguments)
{
    using namespace norvexa::simulator;
    std::vector<const char*> argv{"norvexa sim"};
    for (const std::string& a : arguments)
        argv.push_back(a.c_str());
    SimulatorOptions options;
    try {
        options = parseCommandLine(static_cast<int>(argv.size()), argv.data());
    } catch (const std::invalid_argument& e) {
        throw usageError(e.what());
    }

    try {
        serveUntilStopped(options, std::cout);
    } catch (const std::exception& e) {
        throw failure("", e.what());
    }
}

} // namespace

void addSimCommand(CLI::App& app)
{
    auto arguments = std::make_shared<std::vector<std::string>>();
    CLI::App* sub = app.add_subcommand("sim", "Run the detector simulator on 127.0.0.1 until Ctrl-C or SIGTERM");
    sub->prefix_command();
    sub->footer(simulator::usage("norvexa sim") +
                "\nIt prints its REST and stream addresses on its first two lines.\n"
                "Example:\n  norvexa sim --port 8080 --stream-port 9999 --width 2463 --height 2527");
    sub->callback([sub] { simulate(sub->remaining()); });
}

} // namespace cli
} // namespace norvexa
