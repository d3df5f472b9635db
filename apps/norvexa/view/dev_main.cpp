// A stand-in for the norvexa command with only its view subcommand.
#include "ViewCommand.h"

int main(int argc, char** argv)
{
    CLI::App app("norvexa: detector images");
    app.require_subcommand(1);
    norvexa::cli::addViewCommand(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::RuntimeError& e) {
        return e.get_exit_code(); // the command said why on stderr
    } catch (const CLI::ParseError& e) {
        // --help is a success; anything else is a usage error: exit 2.
        return app.exit(e) == 0 ? 0 : 2;
    }
    return 0;
}
