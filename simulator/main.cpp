// norvexa_detector_sim: a simulated detector server for trying and testing the REST
// clients without a detector. It listens on 127.0.0.1, prints the port on its first line
// of output ("listening on http://127.0.0.1:<port>"), the stream's on its second, and runs
// until SIGINT or SIGTERM.
//
// Where the parts are: ParameterStore holds one table of parameters per interface and
// section; DetectorStateMachine runs the states and the acquisition and tells every
// SeriesObserver of a series (started at "arm", each frame, ended); FileArea and
// MonitorBuffer are two such observers; SimulatorServer maps the HTTP requests onto them.
//
// The live data stream plugs in as one more SeriesObserver (added with
// SimulatorServer::addObserver before start): it pushes the series header at
// seriesStarted, each frame at frameProduced and the end message at seriesEnded, on the
// data port that a new line in commandLineOptions() sets. Its REST parameters are a new
// "stream" table in the ParameterStore and a new name in the server's list of interfaces.

#include "SimulatorServer.h"

#include <iostream>

int main(int argc, char** argv)
{
    using namespace norvexa::simulator;
    for (int i = 1; i < argc; ++i)
        if (std::string(argv[i]) == "--help" || std::string(argv[i]) == "-h") {
            std::cout << usage(argv[0]);
            return 0;
        }
    SimulatorOptions options;
    try {
        options = parseCommandLine(argc, argv);
    } catch (const std::invalid_argument& e) {
        std::cerr << argv[0] << ": " << e.what() << "\n" << usage(argv[0]);
        return 2;
    }

    try {
        serveUntilStopped(options, std::cout);
    } catch (const std::exception& e) {
        std::cerr << argv[0] << ": " << e.what() << "\n";
        return 1;
    }
    return 0;
}
