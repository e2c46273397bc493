// The command line against hostile inputs: hand-written journals, broken settings, records that
// are links or sit on full or read-only disks, odd arguments. Each row runs in a home of its own
// and states the exit status, the sentence, and whether the home and its Trash may change.
#include "Fixture.h"
#include "LoopVolume.h"
#include "reclaim/VaultTypes.h"

#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace sd {
namespace {

using nlohmann::json;

using test::exists;
using test::readAll;

std::uint64_t inodeOf(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 ? static_cast<std::uint64_t>(st.st_ino) : 0;
}

// One home per row: its own data and settings folders, so a row that breaks its journal or its
// settings breaks nobody else's.
struct Home {
    std::string path;
    std::string cli = SPARROWDECK_CLI;
    std::string extraEnvironment;
    std::vector<std::unique_ptr<test::ScopedTmpfs>> tmpfs;
    std::vector<std::unique_ptr<test::LoopVolume>> volumes;
    std::string skipReason;

    std::string data() const { return path + "/.local/share"; }
    std::string support() const { return data() + "/Sparrowdeck"; }
    std::string journal() const { return support() + "/journal.json"; }
    std::string trash() const { return data() + "/Trash"; }
    std::string settingsFolder() const { return path + "/.config/sparrowdeck"; }
    std::string settings() const { return settingsFolder() + "/defaults.json"; }

    std::string environment() const {
        return "SPARROWDECK_HOME=" + test::shellQuote(path) +
               " XDG_DATA_HOME=" + test::shellQuote(data()) +
               " XDG_CONFIG_HOME=" + test::shellQuote(path + "/.config") + " " + extraEnvironment;
    }
};

struct CliRun {
    int status = -1;
    std::string output;
    std::string errors;
    std::string all() const { return output + errors; }
};

CliRun sparrowdeck(const Home& home, const std::string& arguments,
                   const std::string& redirect = "") {
    std::string errors = home.path + ".stderr";
    test::CommandResult r = test::runShell(home.environment() + home.cli + " " + arguments +
                                           " </dev/null 2>" + test::shellQuote(errors) + redirect);
    CliRun run{r.status, r.output, readAll(errors)};
    ::unlink(errors.c_str());
    return run;
}

// Names, sizes, types and inodes of everything in the home, the Trash and the records included.
// The empty lock files beside the records are left out: taking a lock creates one, and it never
// holds anything.
std::string snapshot(const Home& home) {
    // A folder's own size follows its entries on some file systems, so only files show a size.
    return test::runShell("find " + test::shellQuote(home.path) +
                          " -name '*.lock' -prune -o -type f -printf '%P %s %y %i\\n' -o"
                          " -printf '%P %y %i\\n' | sort")
        .output;
}

std::string trashOne(Home& home, const std::string& name, std::string_view contents = "mine") {
    std::string file = home.path + "/" + name;
    test::writeFile(file, contents);
    CliRun run = sparrowdeck(home, "trash --yes --json " + test::shellQuote(file));
    if (run.status != 0) {
        throw std::runtime_error("could not trash " + file + ": " + run.all());
    }
    return json::parse(run.output).at("entryID");
}

json readJournal(const Home& home) {
    return json::parse(readAll(home.journal()));
}

void writeJournal(const Home& home, const json& journal) {
    test::writeFile(home.journal(), journal.dump(2));
}

// A journal entry written by hand: `change` edits the one item of a real move.
void craftItem(Home& home, const std::function<void(json& item)>& change) {
    trashOne(home, "victim.txt");
    json journal = readJournal(home);
    change(journal.at(0).at("items").at(0));
    writeJournal(home, journal);
}

std::string entryPrefix(const Home& home) {
    return readJournal(home).at(0).at("id").get<std::string>().substr(0, 8);
}

void mountTmpfs(Home& home, const std::string& at, const std::string& options) {
    std::string whyNot;
    auto mounted = test::ScopedTmpfs::mount(at, whyNot, options);
    if (!mounted) {
        home.skipReason = whyNot;
        return;
    }
    home.tmpfs.push_back(std::move(mounted));
}

// Fills a file system until it has no block left, as a user's full disk would be. Space the file
// system held back for delayed allocation comes free after a sync, so it is filled again until a
// pass finds nothing.
void fill(const std::string& folder) {
    for (int pass = 0; pass < 8; ++pass) {
        std::string filler = folder + "/filler-" + std::to_string(pass);
        test::runShell("cat /dev/zero > " + test::shellQuote(filler) + " 2>/dev/null; sync");
        struct stat st {};
        if (::lstat(filler.c_str(), &st) == 0 && st.st_size == 0) {
            ::unlink(filler.c_str());
            break;
        }
    }
}

// A 2 MB file system for the records. tmpfs rather than a loop-mounted ext4: ext4 keeps blocks
// back for its own metadata, so a filled 2 MB ext4 still took a small journal write here.
void mountFullVolume(Home& home, const std::string& at) {
    mountTmpfs(home, at, "size=2m");
}

// The release binary has no SPARROWDECK_HOME: it lives beside the build this suite came from.
std::string releaseBinary() {
    std::string cli = SPARROWDECK_CLI;
    size_t build = cli.find("/build/");
    if (build == std::string::npos) {
        return {};
    }
    size_t preset = cli.find('/', build + 7);
    return cli.substr(0, build + 7) + "release" + cli.substr(preset);
}

enum class Disk { unchanged, mayChange };

struct Row {
    std::string name;
    std::function<void(Home&)> prepare;
    std::function<std::string(const Home&)> arguments;
    int status;
    std::string sentence; // the first words of what the person reads
    Disk disk;
    std::function<void(const Home&, const CliRun&)> check = nullptr;
    std::string redirect = "";
};

std::function<std::string(const Home&)> fixed(std::string arguments) {
    return [arguments](const Home&) {
        return arguments;
    };
}

std::function<std::string(const Home&)> putBackFirst(std::string extra = "") {
    return [extra](const Home& home) {
        return "put-back " + entryPrefix(home) + extra;
    };
}

void victimStillInTrash(const Home& home, const CliRun&) {
    EXPECT_FALSE(exists(home.path + "/victim.txt"));
    EXPECT_TRUE(exists(home.trash() + "/files/victim.txt"));
}

// A settings file the next write must keep aside rather than overwrite.
Row brokenSettings(std::string name, std::string contents) {
    return {"settings " + name,
            [contents](Home& home) {
                test::makeDirs(home.settingsFolder());
                test::writeFile(home.settings(), contents);
            },
            fixed("sweep --leave-out app_logs"),
            0,
            "Your settings could not be read, so they were kept as",
            Disk::mayChange,
            [contents](const Home& home, const CliRun& run) {
                std::string said = "so they were kept as ";
                size_t at = run.errors.find(said);
                ASSERT_NE(at, std::string::npos);
                std::string aside = run.errors.substr(at + said.size());
                aside = aside.substr(0, aside.find(' '));
                EXPECT_EQ(readAll(home.settingsFolder() + "/" + aside), contents)
                    << "kept byte for byte";
                EXPECT_NE(readAll(home.settings()).find("app_logs"), std::string::npos);
            }};
}

// Settings that cannot be written at all: the Sweep still runs and says so; only what the person
// asked to save makes the exit status 1.
std::vector<Row> unwritableSettings() {
    std::vector<std::pair<std::string, std::function<void(Home&)>>> states{
        {"file is a folder",
         [](Home& home) {
             test::makeDirs(home.settings());
         }},
        {"folder is a file",
         [](Home& home) {
             test::makeDirs(home.path + "/.config");
             test::writeFile(home.settingsFolder(), "not a folder");
         }},
        {"folder is read-only",
         [](Home& home) {
             mountTmpfs(home, home.settingsFolder(), "size=64k,ro");
         }},
    };
    std::vector<Row> rows;
    for (const auto& [name, prepare] : states) {
        rows.push_back({"unwritable settings, " + name + ", leave-out", prepare,
                        fixed("sweep --leave-out app_logs"), 1, "Your settings could not be saved",
                        Disk::unchanged});
        rows.push_back({"unwritable settings, " + name + ", sweep", prepare, fixed("sweep --json"),
                        0, "Your settings could not be saved", Disk::unchanged,
                        [](const Home&, const CliRun& run) {
                            EXPECT_NO_THROW((void)json::parse(run.output).at("tiles"))
                                << "the Sweep still ran";
                        }});
    }
    return rows;
}

std::vector<Row> rows() {
    const std::string protectedText(denyText(VaultDenyReason::protectedUserDir));
    std::vector<Row> table{
        // Journals written by hand.
        {"crafted journal: original path climbs out with ..",
         [](Home& home) {
             craftItem(home, [&](json& item) {
                 item["originalPath"] = home.path + "/../../tmp/stolen.txt";
             });
         },
         putBackFirst(), 1, "its recorded place is not a plain absolute path", Disk::unchanged,
         victimStillInTrash},
        {"crafted journal: original path outside the home",
         [](Home& home) {
             craftItem(home, [](json& item) { item["originalPath"] = "/tmp/stolen.txt"; });
         },
         putBackFirst(), 1, "its recorded place lies outside your home folder", Disk::unchanged,
         victimStillInTrash},
        {"crafted journal: original path is protected",
         [](Home& home) {
             craftItem(home, [&](json& item) {
                 item["originalPath"] = home.path + "/Documents/victim.txt";
             });
         },
         putBackFirst(), 1, "its recorded place is a protected location", Disk::unchanged,
         victimStillInTrash},
        {"crafted journal: Trash path outside the Trash",
         [](Home& home) {
             test::makeDirs(home.path + "/Documents");
             test::writeFile(home.path + "/Documents/secret.txt", "secret");
             craftItem(home, [&](json& item) {
                 item["trashPath"] = home.path + "/Documents/secret.txt";
                 item["originalPath"] = home.path + "/exposed.txt";
                 struct stat st {};
                 ::lstat((home.path + "/Documents/secret.txt").c_str(), &st);
                 item["identityToken"] =
                     std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
             });
         },
         putBackFirst(), 1, "its recorded place in the Trash is not one of your Trash folders",
         Disk::unchanged,
         [](const Home& home, const CliRun&) {
             EXPECT_TRUE(exists(home.path + "/Documents/secret.txt"));
             EXPECT_FALSE(exists(home.path + "/exposed.txt"));
         }},
        {"inode reused after the Trash was emptied",
         [](Home& home) {
             trashOne(home, "victim.txt", "the original");
             json journal = readJournal(home);
             json& item = journal.at(0).at("items").at(0);
             const std::string inTrash = home.trash() + "/files/victim.txt";
             const std::string info = home.trash() + "/info/victim.txt.trashinfo";
             const std::string infoText = readAll(info);
             const std::uint64_t oldInode = inodeOf(inTrash);
             test::runShell("XDG_DATA_HOME=" + test::shellQuote(home.data()) +
                            " trash-empty -f >/dev/null 2>&1 || rm -rf " +
                            test::shellQuote(home.trash() + "/files/victim.txt") + " " +
                            test::shellQuote(info));
             // A new file under the same Trash name, with the same record, until the file system
             // hands out the old inode again; where it will not, the journal is made to agree.
             for (int attempt = 0; attempt < 50; ++attempt) {
                 ::unlink(inTrash.c_str());
                 test::writeFile(inTrash, "an impostor");
                 if (inodeOf(inTrash) == oldInode) {
                     break;
                 }
             }
             test::writeFile(info, infoText);
             struct stat st {};
             ::lstat(inTrash.c_str(), &st);
             item["identityToken"] = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
             writeJournal(home, journal);
         },
         putBackFirst(), 1, "what sits in the Trash under its name is a newer file",
         Disk::unchanged,
         [](const Home& home, const CliRun&) {
             EXPECT_FALSE(exists(home.path + "/victim.txt"));
             EXPECT_EQ(readAll(home.trash() + "/files/victim.txt"), "an impostor");
         }},
        {"put back with the journal on a full disk",
         [](Home& home) {
             mountFullVolume(home, home.support());
             if (!home.skipReason.empty()) {
                 return;
             }
             trashOne(home, "victim.txt");
             fill(home.support());
         },
         putBackFirst(), 1, "The activity journal could not be written", Disk::unchanged,
         [](const Home& home, const CliRun&) {
             victimStillInTrash(home, {});
             EXPECT_FALSE(readJournal(home).at(0).at("items").at(0).at("restored").get<bool>());
         }},
        {"put back of a group that does not exist",
         [](Home& home) { trashOne(home, "victim.txt"); }, putBackFirst(" --group nosuchgroup"), 1,
         "This entry has no group “nosuchgroup”", Disk::unchanged, victimStillInTrash},
        {"journal bytes out of range (-1)",
         [](Home& home) { craftItem(home, [](json& item) { item["bytes"] = -1; }); },
         fixed("activity"), 1, "The activity journal could not be read, so it was kept as",
         Disk::mayChange,
         [](const Home& home, const CliRun& run) {
             EXPECT_FALSE(exists(home.journal()));
             EXPECT_EQ(run.output.find("EB"), std::string::npos) << run.output;
         }},
        {"journal bytes out of range (1e300)",
         [](Home& home) { craftItem(home, [](json& item) { item["bytes"] = 1e300; }); },
         fixed("activity"), 1, "The activity journal could not be read, so it was kept as",
         Disk::mayChange},
        {"journal bytes of the wrong type",
         [](Home& home) { craftItem(home, [](json& item) { item["bytes"] = "12"; }); },
         fixed("activity"), 1, "The activity journal could not be read, so it was kept as",
         Disk::mayChange},

        // Sparrowdeck's own records.
        {"trash the support folder", [](Home& home) { trashOne(home, "victim.txt"); },
         [](const Home& home) { return "trash --yes " + test::shellQuote(home.support()); }, 1,
         protectedText, Disk::unchanged},
        {"trash the journal", [](Home& home) { trashOne(home, "victim.txt"); },
         [](const Home& home) { return "trash --yes " + test::shellQuote(home.journal()); }, 1,
         protectedText, Disk::unchanged},
        {"trash the settings file",
         [](Home& home) {
             test::makeDirs(home.settingsFolder());
             test::writeFile(home.settings(), "{}");
         },
         [](const Home& home) { return "trash --yes " + test::shellQuote(home.settings()); }, 1,
         protectedText, Disk::unchanged},

        // Journals that cannot take the write-ahead record: nothing may move.
        {"journal is a symbolic link",
         [](Home& home) {
             test::makeDirs(home.support());
             test::writeFile(home.path + "/elsewhere.json", "[]");
             test::makeSymlink(home.path + "/elsewhere.json", home.journal());
             test::writeFile(home.path + "/keep.txt", "stays");
         },
         [](const Home& home) {
             return "trash --yes " + test::shellQuote(home.path + "/keep.txt");
         },
         1, "The activity journal could not record the move", Disk::unchanged},
        {"support folder is read-only",
         [](Home& home) {
             mountTmpfs(home, home.support(), "size=64k,ro");
             test::writeFile(home.path + "/keep.txt", "stays");
         },
         [](const Home& home) {
             return "trash --yes " + test::shellQuote(home.path + "/keep.txt");
         },
         1, "The activity journal could not record the move", Disk::unchanged},
        {"support folder on a full 2 MB file system",
         [](Home& home) {
             mountFullVolume(home, home.support());
             if (home.skipReason.empty()) {
                 fill(home.support());
             }
             test::writeFile(home.path + "/keep.txt", "stays");
         },
         [](const Home& home) {
             return "trash --yes " + test::shellQuote(home.path + "/keep.txt");
         },
         1, "The activity journal could not record the move", Disk::unchanged},

        // Arguments and outputs.
        {"declined sweep --reclaim", [](Home&) {}, fixed("sweep --reclaim developer"), 1,
         "Nothing was moved: add --yes to confirm without a terminal.", Disk::unchanged},
        {"space ''", [](Home&) {}, fixed("space ''"), 2, "An empty path names nothing",
         Disk::unchanged},
        {"duplicates ''", [](Home&) {}, fixed("duplicates ''"), 2, "An empty path names nothing",
         Disk::unchanged},
        {"measure ''", [](Home&) {}, fixed("measure ''"), 2, "An empty path names nothing",
         Disk::unchanged},
        {"trash ''", [](Home&) {}, fixed("trash --yes ''"), 2, "An empty path names nothing",
         Disk::unchanged},
        {"space --budget nan", [](Home&) {}, fixed("space --budget nan"), 2,
         "“nan” is not a number of seconds", Disk::unchanged},
        {"measure the home with a name that is not UTF-8",
         [](Home& home) {
             test::makeDirs(home.path + "/odd");
             test::writeFile(home.path + "/odd/bad\xFF\xFE.txt", "odd");
             test::writeFilledFile(home.path + "/fine.bin", 40000);
         },
         [](const Home& home) { return "measure " + test::shellQuote(home.path); }, 0,
         "Directory contains a filename that is not valid UTF-8", Disk::unchanged,
         [](const Home&, const CliRun& run) {
             EXPECT_EQ(run.output.find("Nothing was measured"), std::string::npos) << run.output;
         }},
        {"output to a full device", [](Home& home) { trashOne(home, "victim.txt"); },
         fixed("activity --json"), 1, "The output could not be written", Disk::unchanged, nullptr,
         " >/dev/full"},
        {"SPARROWDECK_HOME in the release binary",
         [](Home& home) {
             home.cli = releaseBinary();
             if (home.cli.empty() || ::access(home.cli.c_str(), X_OK) != 0) {
                 home.skipReason = "No release binary is built (" + home.cli +
                                   "); make run builds one, and this row then runs it.";
             }
             test::writeFile(home.path + "/keep.txt", "stays");
         },
         [](const Home& home) {
             return "trash --yes " + test::shellQuote(home.path + "/keep.txt");
         },
         1, protectedText, Disk::unchanged},
    };
    for (const char* broken : {"truncated", "random bytes", "an array", "wrong types", "nested"}) {
        std::string name = broken;
        std::string contents = name == "truncated"      ? std::string("{\"sd.sweep.last\": \"{")
                               : name == "random bytes" ? std::string("\x89\xFF\x00\x13junk", 9)
                               : name == "an array"     ? std::string("[\"sd.sweep.last\"]")
                               : name == "wrong types"
                                   ? std::string("{\"sd.sweep.skippedTargets\": 42}")
                                   : std::string(10000, '[') + std::string(10000, ']');
        table.push_back(brokenSettings(name, contents));
    }
    for (Row& row : unwritableSettings()) {
        table.push_back(std::move(row));
    }
    return table;
}

TEST(HostileInputs, EveryRowSaysWhatHappenedAndChangesOnlyWhatItSays) {
    std::vector<std::string> skipped;
    for (const Row& row : rows()) {
        SCOPED_TRACE(row.name);
        Home home;
        home.path = test::freshFolder("hostile");
        row.prepare(home);
        if (!home.skipReason.empty()) {
            skipped.push_back(row.name + ": " + home.skipReason);
            continue;
        }
        std::string before = snapshot(home);
        CliRun run = sparrowdeck(home, row.arguments(home), row.redirect);
        EXPECT_GE(run.status, 0) << "ended by a signal\n" << run.all();
        EXPECT_LT(run.status, 128) << run.all();
        EXPECT_EQ(run.status, row.status) << run.all();
        EXPECT_NE(run.all().find(row.sentence), std::string::npos)
            << "expected “" << row.sentence << "” in:\n"
            << run.all();
        EXPECT_EQ(run.all().find("terminate called"), std::string::npos) << run.all();
        if (row.disk == Disk::unchanged) {
            EXPECT_EQ(snapshot(home), before) << run.all();
        }
        if (row.check) {
            row.check(home, run);
        }
    }
    for (const std::string& reason : skipped) {
        std::printf("[  SKIPPED ROW ] %s\n", reason.c_str());
    }
}

// Names no text encoding vouches for go to the Trash and come back byte for byte, and the
// journal records them without loss.
TEST(HostileInputs, OddNamesMoveAndComeBackByteForByte) {
    Home home;
    home.path = test::freshFolder("hostile-names");
    const std::vector<std::string> names{"bad\xFF\xFE.txt", "line\nbreak.txt",
                                         "Cafe\xCC\x81 decomposed.txt", "100% sure %41.txt"};
    std::vector<std::string> paths;
    for (const std::string& name : names) {
        paths.push_back(home.path + "/" + name);
        test::writeFile(paths.back(), "contents of " + name);
    }
    std::string arguments = "trash --yes --json";
    for (const std::string& path : paths) {
        arguments += " " + test::shellQuote(path);
    }
    CliRun moved = sparrowdeck(home, arguments);
    ASSERT_EQ(moved.status, 0) << moved.all();
    std::string id = json::parse(moved.output).at("entryID");
    for (const std::string& path : paths) {
        EXPECT_FALSE(exists(path));
    }
    CliRun listed = sparrowdeck(home, "activity");
    EXPECT_EQ(listed.status, 0) << listed.all();
    EXPECT_NE(listed.output.find("bad%FF%FE.txt"), std::string::npos) << listed.output;

    CliRun back = sparrowdeck(home, "put-back " + id.substr(0, 8));
    EXPECT_EQ(back.status, 0) << back.all();
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(readAll(paths[i]), "contents of " + names[i]) << names[i];
    }
}

// The process dies after the move and before the journal's last write: the record written ahead
// of the move is enough for Put Back to find the item in the Trash.
TEST(HostileInputs, KilledBetweenMoveAndJournalLeavesAnEntryPutBackUses) {
    Home home;
    home.path = test::freshFolder("hostile-killed");
    const std::string file = home.path + "/half-recorded.txt";
    test::writeFile(file, "still mine");
    home.extraEnvironment = "SPARROWDECK_TEST_HOOK=killBeforeJournalRecord ";
    CliRun killed = sparrowdeck(home, "trash --yes " + test::shellQuote(file));
    home.extraEnvironment.clear();
    if (!exists(home.journal())) {
        GTEST_SKIP() << "This build has no test hooks, so the process cannot be stopped there.";
    }
    EXPECT_NE(killed.status, 0) << killed.all();
    EXPECT_FALSE(exists(file)) << "it moved before the process ended";
    json journal = readJournal(home);
    ASSERT_EQ(journal.size(), 1U);
    EXPECT_EQ(journal.at(0).at("items").at(0).at("trashPath"), "") << "only the write-ahead";

    CliRun back = sparrowdeck(home, "put-back " + entryPrefix(home));
    EXPECT_EQ(back.status, 0) << back.all();
    EXPECT_EQ(readAll(file), "still mine");
    EXPECT_TRUE(readJournal(home).at(0).at("items").at(0).at("restored").get<bool>());
}

} // namespace
} // namespace sd
