#include "SimulatorOptions.h"

#include <sstream>

namespace norvexa {
namespace simulator {

namespace {

int toInt(const std::string& text, int min, int max, const std::string& option)
{
    std::size_t used = 0;
    int value = 0;
    try {
        value = std::stoi(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != text.size() || text.empty() || value < min || value > max)
        throw std::invalid_argument(option + " needs a whole number from " + std::to_string(min) +
                                    " to " + std::to_string(max) + ", not \"" + text + "\"");
    return value;
}

} // namespace

std::vector<CommandLineOption> commandLineOptions()
{
    return {
        {"--port", "N", "HTTP port on 127.0.0.1; 0 picks a free one (default)",
         [](SimulatorOptions& o, const std::string& v) { o.port = toInt(v, 0, 65535, "--port"); }},
        {"--width", "PIXELS", "frame width (default 1028)",
         [](SimulatorOptions& o, const std::string& v) { o.width = toInt(v, 1, 20000, "--width"); }},
        {"--height", "PIXELS", "frame height (default 512)",
         [](SimulatorOptions& o, const std::string& v) { o.height = toInt(v, 1, 20000, "--height"); }},
        {"--data-dir", "DIR", "directory of the file area (default: a temporary one)",
         [](SimulatorOptions& o, const std::string& v) { o.dataDirectory = v; }},
        {"--uninitialized", "", "start in the state na, which needs the command initialize",
         [](SimulatorOptions& o, const std::string&) { o.uninitialized = true; }},
        {"--delay-ms", "MS", "wait this long before every answer",
         [](SimulatorOptions& o, const std::string& v) { o.delayMs = toInt(v, 0, 600000, "--delay-ms"); }},
        {"--stream-port", "N", "data stream port on 127.0.0.1; 0 picks a free one (default 9999)",
         [](SimulatorOptions& o, const std::string& v) { o.streamPort = toInt(v, 0, 65535, "--stream-port"); }},
        {"--stream-master", "FILE", "HDF5 master file whose frames the stream replays as stored",
         [](SimulatorOptions& o, const std::string& v) { o.streamMaster = v; }},
    };
}

SimulatorOptions parseCommandLine(int argc, const char* const* argv)
{
    const std::vector<CommandLineOption> table = commandLineOptions();
    SimulatorOptions options;
    options.streamPort = 9999;
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        const CommandLineOption* option = nullptr;
        for (const CommandLineOption& candidate : table)
            if (candidate.name == name)
                option = &candidate;
        if (!option)
            throw std::invalid_argument("unknown option " + name);
        std::string value;
        if (!option->argument.empty()) {
            if (i + 1 >= argc)
                throw std::invalid_argument(name + " needs a value");
            value = argv[++i];
        }
        option->apply(options, value);
    }
    return options;
}

std::string usage(const std::string& program)
{
    std::ostringstream text;
    text << "usage: " << program << " [options]\n"
         << "A simulated detector server: REST interfaces for the detector, its file writer and\n"
         << "its monitor on 127.0.0.1. Prints the port it listens on, runs until SIGINT or SIGTERM.\n";
    for (const CommandLineOption& option : commandLineOptions()) {
        std::string head = option.name + (option.argument.empty() ? "" : " " + option.argument);
        head.resize(std::max<std::size_t>(head.size() + 1, 22), ' ');
        text << "  " << head << option.help << "\n";
    }
    return text.str();
}

} // namespace simulator
} // namespace norvexa
