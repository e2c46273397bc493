#include "cli/AssistantCommand.h"
#include "cli/DiskCommand.h"
#include "cli/HistoryCommand.h"
#include "cli/MeasureCommand.h"
#include "cli/ReclaimCommands.h"
#include "cli/ReviewCommands.h"
#include "cli/SpaceCommand.h"
#include "cli/SweepCommands.h"

#include <CLI/CLI.hpp>
#include <cstdio>

#ifndef SPARROWDECK_VERSION
#define SPARROWDECK_VERSION "0.0.0"
#endif

int main(int argc, char** argv) {
    CLI::App app{"Sparrowdeck shows what fills your disk and gives space back safely: it moves "
                 "to the Trash, never deletes, and can put everything back."};
    app.set_version_flag("--version", "sparrowdeck " SPARROWDECK_VERSION);
    app.require_subcommand(1);
    int exitStatus = 0;
    sd::cli::addSweepCommand(app, exitStatus);
    sd::cli::addCleanCommand(app, exitStatus);
    sd::cli::addCatalogCommand(app, exitStatus);
    sd::cli::addMeasureCommand(app, exitStatus);
    sd::cli::addTrashCommand(app, exitStatus);
    sd::cli::addActivityCommand(app, exitStatus);
    sd::cli::addPutBackCommand(app, exitStatus);
    sd::cli::addDuplicatesCommand(app, exitStatus);
    sd::cli::addLargeOldCommand(app, exitStatus);
    sd::cli::addSpaceCommand(app, exitStatus);
    sd::cli::addDiskCommand(app, exitStatus);
    sd::cli::addHistoryCommand(app, exitStatus);
    sd::cli::addSnapshotsCommand(app, exitStatus);
    sd::cli::addAssistantCommand(app, exitStatus);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return 2;
    }
    std::fflush(stdout);
    return exitStatus;
}
