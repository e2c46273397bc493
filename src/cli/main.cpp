#include "base/CleanerError.h"
#include "base/TestHooks.h"
#include "cli/AppsCommand.h"
#include "cli/AssistantCommand.h"
#include "cli/DiskCommand.h"
#include "cli/HistoryCommand.h"
#include "cli/MeasureCommand.h"
#include "cli/ReclaimCommands.h"
#include "cli/ReviewCommands.h"
#include "cli/SpaceCommand.h"
#include "cli/SweepCommands.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <iostream>

#ifndef SPARROWDECK_VERSION
#define SPARROWDECK_VERSION "0.0.0"
#endif

namespace {

// A script that reads our output must learn that it is incomplete: a full disk or a closed pipe
// behind standard output is a failure, not a success with nothing said.
int checkOutput(int exitStatus) {
    errno = 0;
    std::cout.flush();
    int error = errno;
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0 || !std::cout) {
        error = errno != 0 ? errno : error != 0 ? error : EIO;
        std::fprintf(stderr, "The output could not be written (%s).\n",
                     sd::errorText(error).c_str());
        return exitStatus == 0 ? 1 : exitStatus;
    }
    return exitStatus;
}

int run(int argc, char** argv) {
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
    sd::cli::addAppsCommand(app, exitStatus);
    sd::cli::addUninstallCommand(app, exitStatus);
    sd::cli::addAssistantCommand(app, exitStatus);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return checkOutput(app.exit(e));
    } catch (const CLI::CallForVersion& e) {
        return checkOutput(app.exit(e));
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return 2;
    }
    return checkOutput(exitStatus);
}

} // namespace

int main(int argc, char** argv) {
    sd::testhooks::installFromEnvironment();
    // The one place the unexpected ends: every move is journaled before it happens, so what
    // already moved can be put back from Activity whatever stopped us here.
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fflush(stdout);
        std::fprintf(
            stderr,
            "Sparrowdeck stopped on an unexpected problem: %s. Anything it moved is listed "
            "in Activity and can be put back.\n",
            error.what());
    } catch (...) {
        std::fflush(stdout);
        std::fprintf(stderr, "Sparrowdeck stopped on an unexpected problem. Anything it moved is "
                             "listed in Activity and can be put back.\n");
    }
    return 1;
}
