#pragma once

#include <CLI/CLI.hpp>

namespace norvexa {
namespace cli {

/// Registers `view TARGET [--port P] [--bind ADDRESS]`: serves the viewer's page for a
/// file, series, HDF5 master or HOST:PORT stream, prints its URL, and runs until Ctrl-C
/// or SIGTERM.
void addViewCommand(CLI::App& app);

} // namespace cli
} // namespace norvexa
