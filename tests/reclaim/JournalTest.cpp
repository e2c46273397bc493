#include "Fixture.h"
#include "core/ByteFormat.h"
#include "core/PathRules.h"
#include "platform/Trash.h"
#include "reclaim/ReclaimJournal.h"
#include "reclaim/VaultService.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <numeric>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sd {
namespace {

std::string readText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Moves real files to the fixture Trash through the vault and journals them.
struct Moved {
    std::string entryID;
    std::vector<MovedItem> items;
};

Moved moveAndRecord(ReclaimJournal& journal, const std::vector<std::string>& paths,
                    const std::string& group = "files") {
    auto policy = std::make_shared<const VaultPolicy>(
        homeDirectory(), VCSIgnoreCheck{[](const std::string&, const std::string&) {
            return false;
        }});
    VaultService vault = VaultService::standard(policy);
    VaultPlan plan = vault.planner(paths, {}, nullptr);
    std::vector<size_t> all(plan.items.size());
    std::iota(all.begin(), all.end(), 0);
    MoveOutcome outcome = vault.move(plan, all);
    EXPECT_EQ(outcome.moved.size(), paths.size()) << ::testing::PrintToString(outcome.notes);
    std::vector<TrashedItem> items;
    for (const MovedItem& m : outcome.moved) {
        items.push_back(
            {m.originalPath, m.trashPath, m.bytes, m.identityToken, group, false, "target.a"});
    }
    return {journal.record(items, "Test move", JournalKind::findings), outcome.moved};
}

TEST(Journal, FileHoldsExactlyTheDocumentedKeys) {
    std::string dir = test::freshFolder("journal-file");
    std::string file = dir + "/support/journal.json";
    ReclaimJournal journal(file);
    journal.load();
    EXPECT_EQ(journal.record({}, "Empty", JournalKind::caches).size(), 36U);
    EXPECT_NE(::access(file.c_str(), F_OK), 0) << "an entry without items is never written";

    journal.record({{"/h/a", "/t/a", 4096, "1:2", "g", false, "t1"},
                    {"/h/b", "/t/b", 100, "1:3", "g", true, std::nullopt}},
                   "Caches", JournalKind::caches);
    auto parsed = nlohmann::json::parse(readText(file));
    ASSERT_TRUE(parsed.is_array());
    ASSERT_EQ(parsed.size(), 1U);
    std::vector<std::string> keys;
    for (auto& [key, value] : parsed[0].items()) {
        keys.push_back(key);
    }
    EXPECT_THAT(keys, ::testing::UnorderedElementsAre("id", "date", "title", "kind", "items",
                                                      "targetBytes"));
    EXPECT_EQ(parsed[0]["kind"], "caches");
    EXPECT_EQ(parsed[0]["targetBytes"], nlohmann::json({{"t1", 4096}}));
    EXPECT_THAT(parsed[0]["date"].get<std::string>(),
                ::testing::MatchesRegex("....-..-..T..:..:..Z"));
    EXPECT_EQ(parsed[0]["items"][0]["identityToken"], "1:2");
    EXPECT_FALSE(parsed[0]["items"][1].contains("targetID"));

    ReclaimJournal again(file);
    EXPECT_TRUE(again.load().empty());
    ASSERT_EQ(again.entries().size(), 1U);
    EXPECT_EQ(again.entries()[0].items[1].restored, true);
}

TEST(Journal, AnUnreadableFileIsKeptAsideNeverOverwritten) {
    struct Case {
        const char* what;
        std::string text;
    };
    const std::vector<Case> cases{
        {"not JSON", "{{{ this is not a journal"},
        {"an object, not a list", "{}"},
        {"a missing key",
         R"([{"id":"x","date":"d","title":"t","kind":"sweep","items":[{"originalPath":"/a"}]}])"},
        {"an unknown kind", R"([{"id":"x","date":"d","title":"t","kind":"other","items":[]}])"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::string dir = test::freshFolder("journal-bad");
        std::string file = dir + "/journal.json";
        test::writeFile(file, c.text);
        ReclaimJournal journal(file);
        std::vector<std::string> warnings = journal.load();
        ASSERT_EQ(warnings.size(), 1U);
        EXPECT_THAT(
            warnings[0],
            ::testing::HasSubstr("could not be read, so it was kept as journal.json.unreadable-"));
        EXPECT_TRUE(journal.entries().empty());
        test::CommandResult aside =
            test::runShell("cat " + test::shellQuote(dir) + "/journal.json.unreadable-*");
        EXPECT_EQ(aside.output, c.text);
        journal.record({{"/h/a", "/t/a", 1, "1:2", "g", false, std::nullopt}}, "New",
                       JournalKind::sweep);
        EXPECT_EQ(nlohmann::json::parse(readText(file)).size(), 1U);
    }
}

// Two processes recording at once must not lose each other's entries.
TEST(Journal, ConcurrentWritersLoseNothing) {
    std::string file = test::freshFolder("journal-race") + "/journal.json";
    std::vector<pid_t> children;
    for (int writer = 0; writer < 2; ++writer) {
        pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            ReclaimJournal journal(file);
            journal.load();
            for (int i = 0; i < 200; ++i) {
                std::string name = std::to_string(writer) + "-" + std::to_string(i);
                journal.record(
                    {{"/h/" + name, "/t/" + name, 512, "1:" + name, "g", false, std::nullopt}},
                    name, JournalKind::findings);
            }
            ::_exit(0);
        }
        children.push_back(pid);
    }
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    ReclaimJournal journal(file);
    journal.load();
    size_t items = 0;
    for (const JournalEntry& entry : journal.entries()) {
        items += entry.items.size();
    }
    EXPECT_EQ(items, 400U);
}

TEST(PutBack, ReturnsItemsExactlyWhereTheyWereOrSaysWhyNot) {
    std::string dir = test::freshFolder("putback");
    test::makeDirs(dir + "/deep/chain/folder");
    test::writeFilledFile(dir + "/deep/chain/folder/data", 7000);
    test::writeFile(dir + "/occupied", "original");
    test::writeFile(dir + "/swapped", "original");
    test::writeFile(dir + "/plain", "plain");
    ReclaimJournal journal(test::freshFolder("putback-journal") + "/journal.json");
    journal.load();
    Moved moved = moveAndRecord(
        journal, {dir + "/deep/chain/folder", dir + "/occupied", dir + "/swapped", dir + "/plain"});
    ASSERT_EQ(moved.items.size(), 4U);

    // The folder's old parents are gone, a newcomer sits at one old place, and another item
    // was replaced inside the Trash by a different object of the same name.
    ASSERT_EQ(test::runShell("rm -r " + test::shellQuote(dir + "/deep")).status, 0);
    test::writeFile(dir + "/occupied", "newcomer");
    // The original stays linked elsewhere, so the impostor cannot reuse its inode number.
    test::makeHardlink(moved.items[2].trashPath, dir + "/swapped-original");
    ASSERT_EQ(::unlink(moved.items[2].trashPath.c_str()), 0);
    test::writeFile(moved.items[2].trashPath, "impostor");

    TrashRestoreResult result = journal.putBack(moved.entryID, std::nullopt);
    EXPECT_EQ(result.restoredIDs.size(), 2U);
    EXPECT_EQ(result.restoredBytes, moved.items[0].bytes + moved.items[3].bytes);
    EXPECT_EQ(result.skipped, (std::vector<std::string>{dir + "/occupied", dir + "/swapped"}));
    EXPECT_EQ(putBackResultText(result), "Put back 2 items · " + formatBytes(result.restoredBytes) +
                                             "; 2 couldn’t — see Activity.");

    struct stat st {};
    ASSERT_EQ(::stat((dir + "/deep/chain").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700U) << "recreated parents are private";
    EXPECT_EQ(
        test::runShell("cat " + test::shellQuote(dir + "/deep/chain/folder/data") + " | wc -c")
            .output,
        "7000\n");
    EXPECT_EQ(readText(dir + "/occupied"), "newcomer");
    EXPECT_EQ(readText(moved.items[1].trashPath), "original") << "both stay where they are";
    EXPECT_EQ(readText(moved.items[2].trashPath), "impostor");
    EXPECT_NE(
        ::access((test::fixtureHome() + "/.local/share/Trash/info/plain.trashinfo").c_str(), F_OK),
        0)
        << "a returned item leaves no record in the Trash";

    const JournalEntry* entry = journal.find(moved.entryID);
    ASSERT_NE(entry, nullptr);
    std::vector<bool> restored;
    for (const TrashedItem& item : entry->items) {
        restored.push_back(item.restored);
    }
    EXPECT_EQ(restored, (std::vector<bool>{true, false, false, true}));

    // Once the Trash is emptied nothing can go back, and nothing on disk changes.
    ASSERT_EQ(::unlink(moved.items[1].trashPath.c_str()), 0);
    ASSERT_EQ(::unlink(moved.items[2].trashPath.c_str()), 0);
    TrashRestoreResult emptied = journal.putBack(moved.entryID, std::nullopt);
    EXPECT_TRUE(emptied.restoredIDs.empty());
    EXPECT_EQ(putBackResultText(emptied),
              "Nothing could go back — the Trash may have been emptied.");
    EXPECT_EQ(readText(dir + "/occupied"), "newcomer");
    EXPECT_EQ(
        putBackSkippedText(2),
        "2 stayed in the Trash: something now sits where they were, or the Trash was emptied.");
    EXPECT_EQ(putBackProgressText(1), "Putting back 1 item");
}

TEST(PutBack, AGroupGoesBackAlone) {
    std::string dir = test::freshFolder("groups");
    test::writeFile(dir + "/a", "a");
    test::writeFile(dir + "/b", "b");
    ReclaimJournal journal(std::nullopt);
    Moved first = moveAndRecord(journal, {dir + "/a"}, "first");
    Moved other = moveAndRecord(journal, {dir + "/b"}, "second");
    // Both moves recorded in one entry, under two groups.
    ReclaimJournal combined(std::nullopt);
    std::string id =
        combined.record({{dir + "/a", first.items[0].trashPath, 1, first.items[0].identityToken, "",
                          false, std::nullopt}},
                        "Two groups", JournalKind::sweep, JournalContext{"E", "first"});
    combined.record({{dir + "/b", other.items[0].trashPath, 1, other.items[0].identityToken, "",
                      false, std::nullopt}},
                    "Two groups", JournalKind::sweep, JournalContext{id, "second"});
    ASSERT_EQ(combined.entries().size(), 1U);
    TrashRestoreResult result = combined.putBack(id, std::string("second"));
    EXPECT_EQ(result.restoredIDs, (std::set<std::string>{other.items[0].trashPath}));
    EXPECT_EQ(::access((dir + "/b").c_str(), F_OK), 0);
    EXPECT_NE(::access((dir + "/a").c_str(), F_OK), 0);
}

} // namespace
} // namespace sd

namespace sd {
namespace {

TEST(JournalRecords, PathsOfAnyBytesRoundTripAndStayReadable) {
    struct Case {
        std::string path;
        std::string written; // as the journal file holds it
    };
    const std::vector<Case> cases{
        {"/home/u/plain name.txt", "/home/u/plain name.txt"},
        {"/home/u/caf\xC3\xA9 composed", "/home/u/caf\xC3\xA9 composed"},
        {"/home/u/Cafe\xCC\x81 decomposed", "/home/u/Cafe\xCC\x81 decomposed"},
        {"/home/u/bad\xFF\xFE.txt", "/home/u/bad%FF%FE.txt"},
        {"/home/u/100% %41", "/home/u/100%25 %2541"},
        {"/home/u/cut \xC3", "/home/u/cut %C3"},
        {"/home/u/line\nbreak", "/home/u/line\nbreak"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(journalPathText(c.path), c.written) << c.path;
        EXPECT_EQ(pathFromJournalText(c.written), c.path) << c.written;
    }
    EXPECT_EQ(readablePath("/home/u/bad\xFF\xFE.txt"), "/home/u/bad%FF%FE.txt");
    EXPECT_EQ(readablePath("/home/u/100%"), "/home/u/100%");
    EXPECT_FALSE(pathFromJournalText("/home/u/%G1"));
}

// Values a hand-edited journal may hold that no save ever writes: the whole file is kept aside,
// never read as some other number.
TEST(JournalRecords, OutOfRangeOrWrongTypedValuesKeepTheFileAside) {
    const nlohmann::json good = nlohmann::json::parse(R"([{
        "id": "1A2B3C4D-0000-4000-8000-000000000000", "date": "2024-01-01T00:00:00Z",
        "title": "t", "kind": "findings", "targetBytes": {"a": 1},
        "items": [{"originalPath": "/home/u/a", "trashPath": "/home/u/.local/share/Trash/files/a",
                   "bytes": 1, "identityToken": "1:2", "group": "g", "restored": false}]}])");
    const std::vector<std::pair<std::string, nlohmann::json>> edits{
        {"/0/items/0/bytes", -1},
        {"/0/items/0/bytes", 1e300},
        {"/0/items/0/bytes", 1.5},
        {"/0/items/0/bytes", "12"},
        {"/0/items/0/restored", "false"},
        {"/0/items/0/originalPath", 7},
        {"/0/items/0/trashPath", "/home/u/%ZZ"},
        {"/0/items", nlohmann::json::object()},
        {"/0/targetBytes/a", -5},
        {"/0/kind", "deleted"},
    };
    for (const auto& [pointer, value] : edits) {
        SCOPED_TRACE(pointer + " = " + value.dump());
        std::string file = test::freshFolder("journal-strict") + "/journal.json";
        nlohmann::json edited = good;
        edited[nlohmann::json::json_pointer(pointer)] = value;
        test::writeFile(file, edited.dump());
        ReclaimJournal journal(file);
        std::vector<std::string> warnings = journal.load();
        ASSERT_EQ(warnings.size(), 1U);
        EXPECT_THAT(warnings.front(),
                    ::testing::StartsWith("The activity journal could not be read"));
        EXPECT_TRUE(journal.entries().empty());
        EXPECT_NE(::access(file.c_str(), F_OK), 0) << "kept aside under another name";
    }
    std::string file = test::freshFolder("journal-strict") + "/journal.json";
    test::writeFile(file, good.dump());
    ReclaimJournal journal(file);
    EXPECT_TRUE(journal.load().empty()) << "the unedited file reads";
    ASSERT_EQ(journal.entries().size(), 1U);
}

} // namespace
} // namespace sd
