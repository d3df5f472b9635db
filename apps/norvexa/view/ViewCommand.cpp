#include "ViewCommand.h"

#include "CliSupport.h"
#include "ViewServer.h"

#include <csignal>
#include <iostream>
#include <memory>
#include <pthread.h>

namespace norvexa {
namespace cli {

namespace {

struct ViewOptions {
    std::string target;
    int port = 8080;
    std::string bind = "127.0.0.1";
};

/// Serves until SIGINT or SIGTERM. The signals are blocked in every thread and taken
/// here by sigwait, so no handler runs inside the server's threads. A target that can't be
/// opened or an address that can't be bound ends as the tool's one-line failure.
void runView(const ViewOptions& options)
{
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    try {
        view::ViewServer server(options.target);
        server.start(options.bind, options.port);
        std::cout << "norvexa view: " << server.url() << std::endl;
        int signal = 0;
        sigwait(&stopSignals, &signal);
        server.stop();
    } catch (const std::exception& e) {
        throw ExitError(kExitFailure, e.what());
    }
}

} // namespace

void addViewCommand(CLI::App& app)
{
    auto options = std::make_shared<ViewOptions>();
    CLI::App* view = app.add_subcommand("view", "Show a file, series or live stream in the browser");
    view->add_option("TARGET", options->target,
                     "a file, a numbered series, an HDF5 master, or HOST:PORT of a detector's stream")
        ->required();
    view->add_option("--port", options->port, "port to serve on; 0 picks a free one (default 8080)")
        ->check(CLI::Range(0, 65535));
    view->add_option("--bind", options->bind, "address to serve on (default 127.0.0.1, this machine only)");
    view->callback([options] { runView(*options); });
}

} // namespace cli
} // namespace norvexa
