#include "cli/ReclaimCommands.h"

#include "base/CleanerError.h"
#include "cli/Arguments.h"
#include "cli/Terminal.h"
#include "core/ByteFormat.h"
#include "core/PathRules.h"
#include "platform/Words.h"
#include "reclaim/ReclaimJournal.h"
#include "reclaim/VaultService.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace sd::cli {
namespace {

using nlohmann::json;

std::string dump(const json& value) {
    return value.dump(2, ' ', false, json::error_handler_t::replace);
}

json itemJson(const VaultPlanItem& item) {
    json out{{"requestedPath", item.requestedPath},
             {"resolvedPath", item.resolvedPath},
             {"physicalBytes", item.physicalBytes},
             {"displayedBytes", item.displayedBytes},
             {"freeableBytes", item.freeableBytes},
             {"size", item.size},
             {"isDir", item.isDir},
             {"identityToken", item.identityToken},
             {"classification", classificationName(item.classification)},
             {"friction", frictionName(item.friction)},
             {"defaultSelected", item.defaultSelected}};
    if (item.denied) {
        out["denied"] = denyReasonName(*item.denied);
        out["deniedText"] = denyText(*item.denied);
    }
    return out;
}

std::string parentOf(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? std::string("/") : path.substr(0, slash);
}

std::vector<std::string> loadJournal(ReclaimJournal& journal) {
    std::vector<std::string> warnings;
    try {
        warnings = journal.load();
    } catch (const CleanerError& error) {
        warnings.push_back(std::string("The activity journal could not be opened: ") +
                           error.what());
    }
    for (const std::string& warning : warnings) {
        std::fprintf(stderr, "%s\n", warning.c_str());
    }
    return warnings;
}

struct TrashOptions {
    std::vector<std::string> paths;
    bool yes = false;
    bool json = false;
};

void runTrash(const TrashOptions& options, int& exitStatus) {
    ReclaimJournal journal = ReclaimJournal::standard();
    loadJournal(journal);

    std::vector<std::string> requested;
    std::vector<std::string> refused;
    for (const std::string& path : options.paths) {
        try {
            requested.push_back(normalizePath(path));
        } catch (const CleanerError& error) {
            refused.push_back(readablePath(path) + ": " + error.what() +
                              "\n    Nothing was moved.");
        }
    }

    auto policy = std::make_shared<const VaultPolicy>(homeDirectory());
    VaultService vault = VaultService::standard(policy);
    VaultPlan plan;
    OperationProgress checking;
    runWithProgress(
        [&](const std::stop_token&) { plan = vault.planner(requested, {}, &checking); },
        [&] { return "Checking… " + formatCount(checking.read().items) + " items examined"; });

    std::vector<size_t> ticked;
    std::uint64_t tickedBytes = 0;
    size_t ownFiles = 0;
    for (size_t i = 0; i < plan.items.size(); ++i) {
        const VaultPlanItem& item = plan.items[i];
        if (!item.denied) {
            ticked.push_back(i);
            tickedBytes += item.physicalBytes;
            ownFiles += item.classification == VaultClassification::obviousUserData ? 1 : 0;
        }
    }
    if (!options.json) {
        for (const std::string& line : refused) {
            std::printf("✗ %s\n", line.c_str());
        }
        for (const VaultPlanItem& item : plan.items) {
            if (item.denied) {
                std::printf("✗ %s\n    %s\n    %s: %s\n", readablePath(item.resolvedPath).c_str(),
                            std::string(denyText(*item.denied)).c_str(),
                            std::string(platform::revealActionText()).c_str(),
                            readablePath(parentOf(item.resolvedPath)).c_str());
            } else {
                std::printf("✓ %s  %s%s\n", readablePath(item.resolvedPath).c_str(),
                            formatBytes(item.physicalBytes).c_str(),
                            item.classification == VaultClassification::obviousUserData
                                ? "  (looks like your own files)"
                                : "");
            }
        }
    }

    MoveOutcome outcome;
    std::string entryID;
    bool declined = false;
    if (!ticked.empty()) {
        std::string question = "Move " + std::to_string(ticked.size()) +
                               (ticked.size() == 1 ? " item" : " items") + " (" +
                               formatBytes(tickedBytes) + ") to the Trash?";
        if (ownFiles > 0) {
            question += " " + std::to_string(ownFiles) + " of them look like your own files.";
        }
        question += " Each item is checked again right before it moves.";
        if (!options.yes) {
            if (options.json || ::isatty(STDIN_FILENO) != 1) {
                declined = true;
            } else {
                declined = !confirm(question);
            }
        }
        if (!declined) {
            const VaultPlanItem& first = plan.items[ticked.front()];
            std::string title =
                ticked.size() == 1
                    ? readablePath(first.resolvedPath.substr(first.resolvedPath.rfind('/') + 1))
                    : std::to_string(ticked.size()) + " items from the command line";
            // Nothing reaches the Trash before the journal holds a record of it.
            vault.writeAhead = journalWriteAhead(journal, title, JournalKind::findings, "findings");
            OperationProgress moving;
            runWithProgress(
                [&](const std::stop_token& stop) {
                    outcome = vault.move(plan, ticked, stop, &moving);
                },
                [&] {
                    OperationProgress::Reading now = moving.read();
                    return "Moving to the Trash… " + formatCount(now.done) + " of " +
                           formatCount(now.total);
                });
            std::vector<TrashedItem> items;
            for (const MovedItem& moved : outcome.moved) {
                items.push_back({moved.originalPath, moved.trashPath, moved.bytes,
                                 moved.identityToken, "findings", false, std::nullopt});
            }
            try {
                entryID = journal.record(std::move(items), title, JournalKind::findings);
            } catch (const CleanerError& error) {
                // The write-ahead record stands: Put Back finds the items by their Trash records.
                outcome.notes.push_back(
                    std::string("Activity could not note where the items went (") + error.what() +
                    "); they can still be put back from its entry.");
            }
        }
    }

    std::vector<std::string> notes = refused;
    if (declined) {
        notes.push_back(::isatty(STDIN_FILENO) == 1 && !options.json
                            ? "Nothing was moved."
                            : "Nothing was moved: add --yes to confirm without a terminal.");
    }
    notes.insert(notes.end(), outcome.notes.begin(), outcome.notes.end());
    notes.insert(notes.end(), journal.warnings().begin(), journal.warnings().end());

    bool everythingMoved =
        refused.empty() && !declined && outcome.moved.size() == plan.items.size();
    exitStatus = everythingMoved ? 0 : 1;

    if (options.json) {
        json plannedItems = json::array();
        for (const VaultPlanItem& item : plan.items) {
            plannedItems.push_back(itemJson(item));
        }
        json moved = json::array();
        for (const MovedItem& m : outcome.moved) {
            moved.push_back({{"originalPath", journalPathText(m.originalPath)},
                             {"trashPath", journalPathText(m.trashPath)},
                             {"bytes", m.bytes},
                             {"identityToken", m.identityToken}});
        }
        json out{{"planNonce", plan.planNonce},
                 {"items", plannedItems},
                 {"moved", moved},
                 {"notes", notes}};
        if (!entryID.empty() && !outcome.moved.empty()) {
            out["entryID"] = entryID;
        }
        std::cout << dump(out) << "\n";
        return;
    }
    std::uint64_t movedBytes = 0;
    for (const MovedItem& m : outcome.moved) {
        movedBytes += m.bytes;
    }
    if (!outcome.moved.empty()) {
        std::printf("Moved %zu %s to the Trash · %s. Put them back with: sparrowdeck put-back %s\n",
                    outcome.moved.size(), outcome.moved.size() == 1 ? "item" : "items",
                    formatBytes(movedBytes).c_str(), entryID.substr(0, 8).c_str());
    }
    for (const std::string& note : notes) {
        if (std::find(refused.begin(), refused.end(), note) == refused.end()) {
            std::printf("%s\n", readablePath(note).c_str());
        }
    }
    if (plan.items.empty() && refused.empty()) {
        std::printf("Nothing to move.\n");
    }
}

} // namespace

void addTrashCommand(CLI::App& app, int& exitStatus) {
    auto options = std::make_shared<TrashOptions>();
    CLI::App* command = app.add_subcommand(
        "trash", "Move items to the Trash through the vault; each can be put back");
    command->add_option("paths", options->paths, "Absolute paths inside your home folder")
        ->required()
        ->check(nonEmptyPath());
    command->add_flag("--yes", options->yes, "Move without asking");
    command->add_flag("--json", options->json, "Write the plan and the result as JSON");
    command->callback([options, &exitStatus] { runTrash(*options, exitStatus); });
}

void addActivityCommand(CLI::App& app, int& exitStatus) {
    auto asJson = std::make_shared<bool>(false);
    CLI::App* command =
        app.add_subcommand("activity", "List what was moved to the Trash, newest first");
    command->add_flag("--json", *asJson, "Write the journal as JSON");
    command->callback([asJson, &exitStatus] {
        ReclaimJournal journal = ReclaimJournal::standard();
        if (!loadJournal(journal).empty()) {
            exitStatus = 1;
        }
        std::vector<const JournalEntry*> newestFirst;
        for (const JournalEntry& entry : journal.entries()) {
            newestFirst.push_back(&entry);
        }
        std::stable_sort(
            newestFirst.begin(), newestFirst.end(),
            [](const JournalEntry* a, const JournalEntry* b) { return a->date > b->date; });
        if (*asJson) {
            json out = json::array();
            for (const JournalEntry* entry : newestFirst) {
                out.push_back(journalEntryToJson(*entry));
            }
            std::cout << dump(json{{"entries", out}}) << "\n";
            return;
        }
        if (newestFirst.empty()) {
            std::printf("Nothing has been moved to the Trash yet.\n");
        }
        for (const JournalEntry* entry : newestFirst) {
            std::uint64_t bytes = 0;
            size_t inTrash = 0;
            for (const TrashedItem& item : entry->items) {
                bytes += item.bytes;
                inTrash += item.restored ? 0 : 1;
            }
            std::printf("%s  %s  [%s]  %zu %s · %s  (%s)\n", entry->date.c_str(),
                        entry->title.c_str(), std::string(journalKindName(entry->kind)).c_str(),
                        entry->items.size(), entry->items.size() == 1 ? "item" : "items",
                        formatBytes(bytes).c_str(), entry->id.substr(0, 8).c_str());
            for (const TrashedItem& item : entry->items) {
                std::printf("    %s %s\n",
                            item.restored            ? "put back"
                            : item.trashPath.empty() ? "moving (not confirmed)"
                                                     : "in Trash",
                            readablePath(item.originalPath).c_str());
            }
            if (inTrash == 0) {
                std::printf("    Everything here was put back.\n");
            }
        }
    });
}

void addPutBackCommand(CLI::App& app, int& exitStatus) {
    struct Options {
        std::string entry;
        std::optional<std::string> group;
        bool json = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("put-back", "Return an Activity entry's items to where they were");
    command->add_option("entry", options->entry, "The entry's id, or its first characters")
        ->required();
    command->add_option("--group", options->group, "Only the items of this group");
    command->add_flag("--json", options->json, "Write the result as JSON");
    command->callback([options, &exitStatus] {
        ReclaimJournal journal = ReclaimJournal::standard();
        loadJournal(journal);
        const JournalEntry* entry = journal.find(options->entry);
        if (entry == nullptr) {
            std::fprintf(stderr,
                         "No single Activity entry starts with “%s”. Nothing was put back.\n",
                         options->entry.c_str());
            exitStatus = 1;
            return;
        }
        std::string id = entry->id;
        if (options->group &&
            std::none_of(entry->items.begin(), entry->items.end(),
                         [&](const TrashedItem& item) { return item.group == *options->group; })) {
            std::fprintf(stderr, "This entry has no group “%s”. Nothing was put back.\n",
                         readablePath(*options->group).c_str());
            exitStatus = 1;
            return;
        }
        size_t waiting = 0;
        for (const TrashedItem& item : entry->items) {
            waiting += !item.restored && (!options->group || item.group == *options->group) ? 1 : 0;
        }
        if (waiting == 0) {
            std::printf("Everything in this entry is already back where it was.\n");
            return;
        }
        if (!options->json) {
            std::printf("%s. %s\n", putBackProgressText(waiting).c_str(),
                        std::string(putBackConfirmationText).c_str());
        }
        TrashRestoreResult result;
        try {
            runWithProgress(
                [&](const std::stop_token& stop) {
                    result = journal.putBack(id, options->group, stop);
                },
                [waiting] { return putBackProgressText(waiting); });
        } catch (const CleanerError& error) {
            // The journal is written before anything moves, so a failure here moved nothing.
            std::fprintf(
                stderr,
                "The activity journal could not be written (%s), so nothing was put back.\n",
                error.what());
            exitStatus = 1;
            return;
        }
        for (const std::string& note : result.notes) {
            std::fprintf(stderr, "%s\n", readablePath(note).c_str());
        }
        exitStatus = result.skipped.empty() && result.notes.empty() ? 0 : 1;
        if (options->json) {
            std::cout << dump(json{{"entryID", id},
                                   {"restoredIDs", result.restoredIDs},
                                   {"restoredBytes", result.restoredBytes},
                                   {"skipped", result.skipped},
                                   {"notes", result.notes},
                                   {"message", putBackResultText(result)}})
                      << "\n";
            return;
        }
        std::printf("%s\n", putBackResultText(result).c_str());
        if (!result.skipped.empty()) {
            std::printf("%s\n", putBackSkippedText(result.skipped.size()).c_str());
            for (const std::string& path : result.skipped) {
                std::printf("    %s\n", readablePath(path).c_str());
            }
        }
    });
}

} // namespace sd::cli
