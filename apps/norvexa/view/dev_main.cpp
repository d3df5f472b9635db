// A stand-in for the norvexa command with only its view subcommand.
#include "ViewCommand.h"

int main(int argc, char** argv)
{
    CLI::App app("norvexa: detector images");
    app.require_subcommand(1);
    norvexa::cli::addViewCommand(app);
    CLI11_PARSE(app, argc, argv);
    return 0;
}
