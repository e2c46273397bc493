// trash, activity and put-back as a user runs them: separate processes over the fixture home,
// checked with sha256sum and by reading the journal they leave.
#include "Fixture.h"
#include "reclaim/VaultTypes.h"

#include <atomic>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace sd {
namespace {

using nlohmann::json;

std::string environment() {
    return "SPARROWDECK_HOME=" + test::shellQuote(test::fixtureHome()) +
           " XDG_DATA_HOME=" + test::shellQuote(test::fixtureHome() + "/.local/share") + " ";
}

std::string cli() {
    return environment() + SPARROWDECK_CLI;
}

std::string journalFolder() {
    return test::fixtureHome() + "/.local/share/Sparrowdeck";
}

using test::exists;
using test::readAll;

struct CliRun {
    int status;
    std::string output; // standard output only
    std::string errors;
};

// Standard input is never a terminal here, as in a script.
CliRun sparrowdeck(const std::string& arguments) {
    static std::atomic<int> counter{0};
    std::string errors = test::fixtureRoot() + "/stderr-" + std::to_string(++counter);
    test::CommandResult r =
        test::runShell(cli() + " " + arguments + " </dev/null 2>" + test::shellQuote(errors));
    CliRun run{r.status, r.output, readAll(errors)};
    ::unlink(errors.c_str());
    return run;
}

std::string quoted(const std::vector<std::string>& paths) {
    std::string out;
    for (const std::string& path : paths) {
        out += " " + test::shellQuote(path);
    }
    return out;
}

std::string digest(const std::string& folder) {
    return test::runShell("cd " + test::shellQuote(folder) +
                          " && find . -type f -print0 | sort -z | xargs -0 -r sha256sum")
        .output;
}

// Names, sizes and times under the home, leaving out the journal's own folder.
std::string snapshot() {
    return test::runShell("find " + test::shellQuote(test::fixtureHome()) + " -path " +
                          test::shellQuote(journalFolder()) +
                          " -prune -o -printf '%p %s %T@ %i\\n' | sort")
        .output;
}

const json* entryWithID(const json& activity, const std::string& id) {
    for (const json& entry : activity.at("entries")) {
        if (entry.at("id") == id) {
            return &entry;
        }
    }
    return nullptr;
}

TEST(ReclaimCli, TrashActivityAndPutBackReturnEveryByte) {
    std::string t = test::freshFolder("cli-round-trip");
    test::makeDirs(t + "/build output/nested \xC3\xA9");
    test::writeFilledFile(t + "/build output/object.o", 40000, 'o');
    test::writeFilledFile(t + "/build output/nested \xC3\xA9/deep %1", 9000, 'd');
    test::writeFilledFile(t + "/old archive.tmp", 70000, 'a');
    test::writeFile(t + "/line\nbreak.log", "two\nlines");
    std::vector<std::string> paths{t + "/build output", t + "/old archive.tmp",
                                   t + "/line\nbreak.log"};
    std::string before = digest(t);
    ASSERT_FALSE(before.empty());

    CliRun trashed = sparrowdeck("trash --yes --json" + quoted(paths));
    ASSERT_EQ(trashed.status, 0) << trashed.output << trashed.errors;
    json moved = json::parse(trashed.output);
    ASSERT_EQ(moved.at("moved").size(), paths.size());
    std::string id = moved.at("entryID");
    for (const std::string& path : paths) {
        EXPECT_FALSE(exists(path)) << path;
    }

    CliRun listed = sparrowdeck("activity --json");
    ASSERT_EQ(listed.status, 0) << listed.errors;
    json activity = json::parse(listed.output);
    const json* entry = entryWithID(activity, id);
    ASSERT_NE(entry, nullptr) << listed.output;
    std::set<std::string> recorded;
    std::vector<std::string> trashPaths;
    for (const json& item : entry->at("items")) {
        recorded.insert(item.at("originalPath").get<std::string>());
        trashPaths.push_back(item.at("trashPath"));
        EXPECT_FALSE(item.at("restored").get<bool>());
        EXPECT_TRUE(exists(trashPaths.back()));
    }
    EXPECT_EQ(recorded, std::set<std::string>(paths.begin(), paths.end()));

    CliRun back = sparrowdeck("put-back " + id.substr(0, 8));
    EXPECT_EQ(back.status, 0) << back.output << back.errors;
    EXPECT_EQ(digest(t), before) << "every file is back, byte for byte";
    for (const std::string& trashPath : trashPaths) {
        size_t at = trashPath.rfind("/files/");
        EXPECT_FALSE(exists(trashPath));
        EXPECT_FALSE(
            exists(trashPath.substr(0, at) + "/info/" + trashPath.substr(at + 7) + ".trashinfo"))
            << "Put Back removes the Trash's record too";
    }
    json after = json::parse(sparrowdeck("activity --json").output);
    ASSERT_NE(entryWithID(after, id), nullptr);
    for (const json& item : entryWithID(after, id)->at("items")) {
        EXPECT_TRUE(item.at("restored").get<bool>());
    }
}

TEST(ReclaimCli, RefusedAndDeniedItemsStay) {
    std::string t = test::freshFolder("cli-refuse");
    test::writeFilledFile(t + "/unconfirmed.tmp", 3000);
    test::makeDirs(test::fixtureHome() + "/Documents");
    test::writeFile(test::fixtureHome() + "/Documents/letter.txt", "mine");
    test::makeDirs(t + "/real");
    test::writeFile(t + "/real/behind a link", "x");
    test::makeSymlink(t + "/real", t + "/link");
    std::string before = snapshot();

    for (std::string arguments : {"trash", "trash --json"}) {
        CliRun run = sparrowdeck(arguments + " " + test::shellQuote(t + "/unconfirmed.tmp"));
        EXPECT_EQ(run.status, 1) << arguments;
        EXPECT_NE(run.output.find("Nothing was moved: add --yes to confirm without a terminal."),
                  std::string::npos)
            << run.output;
    }

    struct Case {
        std::string path;
        VaultDenyReason reason;
    };
    const std::vector<Case> cases{
        {test::fixtureHome() + "/Documents", VaultDenyReason::protectedUserDir},
        {test::fixtureHome(), VaultDenyReason::protectedUserDir},
        {t + "/link/behind a link", VaultDenyReason::symlinkInPath},
    };
    for (const Case& c : cases) {
        CliRun run = sparrowdeck("trash --yes --json " + test::shellQuote(c.path));
        EXPECT_EQ(run.status, 1) << c.path;
        json out = json::parse(run.output);
        ASSERT_EQ(out.at("items").size(), 1U) << run.output;
        EXPECT_EQ(out["items"][0].at("denied"), std::string(denyReasonName(c.reason))) << c.path;
        EXPECT_EQ(out["items"][0].at("deniedText"), std::string(denyText(c.reason))) << c.path;
        EXPECT_TRUE(out.at("moved").empty());
    }
    EXPECT_EQ(snapshot(), before) << "nothing moved, nothing changed";
}

TEST(ReclaimCli, TwoProcessesAtOnceRecordEveryMove) {
    constexpr int perProcess = 200;
    std::vector<std::string> folders{test::freshFolder("cli-race"), test::freshFolder("cli-race")};
    std::set<std::string> expected;
    for (const std::string& folder : folders) {
        for (int i = 0; i < perProcess; ++i) {
            std::string path = folder + "/file-" + std::to_string(i);
            test::writeFile(path, path);
            expected.insert(path);
        }
    }
    std::string one = cli() + " trash --yes --json " + test::shellQuote(folders[0]) + "/file-*";
    std::string two = cli() + " trash --yes --json " + test::shellQuote(folders[1]) + "/file-*";
    test::CommandResult both =
        test::runShell(one + " >/dev/null 2>&1 </dev/null & a=$!; " + two +
                       " >/dev/null 2>&1 </dev/null & b=$!; wait $a; s=$?; wait $b; echo $s $?");
    EXPECT_EQ(both.output, "0 0\n");

    json journal = json::parse(readAll(journalFolder() + "/journal.json"));
    std::set<std::string> recorded;
    std::set<std::string> trashPaths;
    for (const json& entry : journal) {
        for (const json& item : entry.at("items")) {
            if (expected.count(item.at("originalPath").get<std::string>()) != 0) {
                recorded.insert(item.at("originalPath").get<std::string>());
                trashPaths.insert(item.at("trashPath").get<std::string>());
            }
        }
    }
    EXPECT_EQ(recorded.size(), expected.size()) << "no process's moves were lost";
    EXPECT_EQ(trashPaths.size(), expected.size());
}

TEST(ReclaimCli, UnreadableJournalIsKeptAsideAndTheNextMoveRecords) {
    test::makeDirs(journalFolder());
    const std::string garbage = "{ not a journal \x01\xff";
    test::writeFile(journalFolder() + "/journal.json", garbage);
    std::string item = test::freshFolder("cli-journal") + "/after garbage";
    test::writeFile(item, "moved after the journal broke");

    CliRun run = sparrowdeck("trash --yes --json " + test::shellQuote(item));
    EXPECT_EQ(run.status, 0) << run.output << run.errors;
    const std::string said = "The activity journal could not be read, so it was kept as ";
    size_t at = run.errors.find(said);
    ASSERT_NE(at, std::string::npos) << run.errors;
    std::string asideName = run.errors.substr(at + said.size());
    asideName = asideName.substr(0, asideName.find(' '));
    EXPECT_TRUE(asideName.starts_with("journal.json.unreadable-")) << asideName;
    EXPECT_EQ(readAll(journalFolder() + "/" + asideName), garbage) << "kept, byte for byte";

    std::string id = json::parse(run.output).at("entryID");
    CliRun listed = sparrowdeck("activity --json");
    EXPECT_EQ(listed.status, 0) << listed.errors;
    json activity = json::parse(listed.output);
    const json* entry = entryWithID(activity, id);
    ASSERT_NE(entry, nullptr) << listed.output;
    EXPECT_EQ(entry->at("items").front().at("originalPath"), item);
}

} // namespace
} // namespace sd
