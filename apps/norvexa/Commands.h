#pragma once

// The subcommands: each registers itself, its options and its callback on the program.

namespace CLI {
class App;
}

namespace norvexa {
namespace cli {

void addInfoCommand(CLI::App& app);
void addConvertCommand(CLI::App& app);
void addPngCommand(CLI::App& app);
void addRecordCommand(CLI::App& app);
#ifdef NORVEXA_WITH_SIM
void addSimCommand(CLI::App& app);
#endif

} // namespace cli
} // namespace norvexa
