// norvexa: look at, convert, picture and record detector images from the shell.
// Each subcommand is a small function in a file of its own that parses, calls the
// library and prints; CliSupport holds what they share.

#include "CliSupport.h"
#include "Commands.h"

#include "ViewCommand.h"

#include "DGlobal.h"
#include "foundation/hdf5/DH5DontPrint.h"

#include <CLI/CLI.hpp>

#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace {
// After a failed HDF5 write, HDF5's own clean-up at exit may crash on the file it could
// not close: a failure ends the process without the exit handlers, once all is flushed.
[[noreturn]] void exitNow(int code)
{
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
    std::_Exit(code);
}
} // namespace

int main(int argc, char** argv)
{
    using namespace norvexa::cli;
    // Buffers of tens of megabytes come and go with every frame. Kept in the heap, rather
    // than mapped and handed back to the system each time, they are not faulted in anew
    // for every frame, which halves the time of a conversion.
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, 512 << 20);
    mallopt(M_TOP_PAD, 64 << 20);
    CLI::App app("Look at, convert, picture and record detector images.", "norvexa");
    app.set_version_flag("--version", std::string("norvexa ") + norvexa::imglib::version());
    app.require_subcommand(1);
    app.footer("Run 'norvexa SUBCOMMAND --help' for the options and an example.");
    addInfoCommand(app);
    addConvertCommand(app);
    addPngCommand(app);
    addRecordCommand(app);
#ifdef NORVEXA_WITH_SIM
    addSimCommand(app);
#endif
    addViewCommand(app);

    // Failures are the one line below, never HDF5's error stack.
    const norvexa::hdf5::DH5DontPrint quiet;
    // The subcommands' callbacks run inside parse(); what they throw ends up here.
    std::string where = "norvexa";
    try {
        app.parse(argc, argv);
        return kExitOk;
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        for (const CLI::App* sub : app.get_subcommands())
            where += " " + sub->get_name();
        std::cerr << where << ": " << e.what() << " (see --help)\n";
        exitNow(kExitUsage);
    } catch (const ExitError& e) {
        for (const CLI::App* sub : app.get_subcommands())
            where += " " + sub->get_name();
        std::cerr << where << ": " << e.what() << "\n";
        exitNow(e.code());
    } catch (const std::exception& e) {
        for (const CLI::App* sub : app.get_subcommands())
            where += " " + sub->get_name();
        std::cerr << where << ": " << failure("", e.what()).what() << "\n";
        exitNow(kExitFailure);
    }
}
