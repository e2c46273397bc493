#include "Fixture.h"
#include "base/Stop.h"
#include "core/MockRoots.h"
#include "core/PathRules.h"
#include "platform/Trash.h"
#include "reclaim/VaultService.h"

#include <atomic>
#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace sd {
namespace {

using Reason = VaultDenyReason;

VCSIgnoreCheck answering(bool ignored) {
    return {[ignored](const std::string&, const std::string&) {
        return ignored;
    }};
}

std::shared_ptr<const VaultPolicy> policyFor(VCSIgnoreCheck check = answering(false)) {
    return std::make_shared<const VaultPolicy>(homeDirectory(), std::move(check));
}

VaultPlan planOne(const VaultService& vault, const std::string& path) {
    return vault.planner({path}, {}, nullptr);
}

std::string trashed(const std::string& name) {
    return test::fixtureHome() + "/.local/share/Trash/files/" + name;
}

TEST(VaultPolicyRules, VerdictsFollowTheRuleOrder) {
    auto policy = policyFor();
    const std::string home = foldPath(homeDirectory());
    struct Case {
        std::string path;
        std::optional<Reason> reason;
    };
    const std::vector<Case> cases{
        {"/usr/lib/x", Reason::systemPath},
        {"/etc", Reason::systemPath},
        {home, Reason::protectedUserDir},
        {home + "/documents/a", Reason::protectedUserDir},
        {home + "/.ssh", Reason::protectedUserDir},
        {home + "/library/cloudstorage/box/x", Reason::cloudStorage},
        {home + "/library/mobile documents/x", Reason::cloudStorage},
        {home + "/dropbox/photos", Reason::cloudStorage},
        {home + "/pictures/x.photoslibrary/y", Reason::protectedUserDir},
        {home + "/stuff/x.photoslibrary/originals", Reason::photosLibraryInternal},
        {home + "/work/catalog.lrcat-data", Reason::photosLibraryInternal},
        {home + "/work/.env.local", Reason::protectedUserDir},
        {home + "/keys/id_ed25519.pub", Reason::protectedUserDir},
        {home + "/my-credentials-2024/x", Reason::protectedUserDir},
        {home + "/notes/site.pem", Reason::protectedUserDir},
        {home + "/notes/credential", std::nullopt},
        {home + "/.cache/pip", std::nullopt},
        {home + "/environment", std::nullopt},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(policy->verdict(c.path), c.reason) << c.path;
    }
}

TEST(VaultPolicyRules, UserDataIsRecognisedByNameWordsAndExtension) {
    struct Case {
        const char* path;
        bool userData;
    };
    const Case cases[]{
        {"/h/photos/.jpg", false},
        {"/h/photos/photo.jpg", true},
        {"/h/x/archive.tar", false},
        {"/h/x/tax-2023.txt", true},
        {"/h/x/taxi.txt", false},
        {"/h/x/resume", true},
        {"/h/x/config.json", true},
        {"/h/x/settings.json", false},
        {"/h/chrome/local storage/x", true},
        {"/h/a/leveldb/000.log", true},
        {"/h/app/databases/x", true},
        {"/h/app/db", false},
        {"/h/app/state.db", true},
        {"/h/k/server.key", true},
    };
    for (const Case& c : cases) {
        std::string name = std::string(c.path).substr(std::string(c.path).rfind('/') + 1);
        EXPECT_EQ(looksLikeUserData(c.path, name), c.userData) << c.path;
    }
    EXPECT_EQ(wordsOf("my-credentials_2024.v2"),
              (std::vector<std::string_view>{"my", "credentials", "2024", "v2"}));
}

TEST(VaultPolicyRules, ResolutionRefusesLinksAndRelativeShapes) {
    std::string dir = test::freshFolder("resolve");
    test::makeDirs(dir + "/real/inner");
    test::makeSymlink(dir + "/real", dir + "/link");
    struct Case {
        std::string requested;
        std::optional<Reason> reason;
        std::string path;
    };
    const std::vector<Case> cases{
        {dir + "/link/inner", Reason::symlinkInPath, ""},
        {dir + "/link", Reason::symlinkInPath, ""},
        {dir + "/real/../link", Reason::unreadable, ""},
        {"relative/x", Reason::unreadable, ""},
        {"", Reason::unreadable, ""},
        {dir + "//real/inner/", std::nullopt, dir + "/real/inner"},
        {"/System/Volumes/Data/tmp/x", std::nullopt, "/tmp/x"},
        {"/System/Volumes/Data", std::nullopt, "/"},
    };
    for (const Case& c : cases) {
        ResolvedPath resolved = resolveRequestedPath(c.requested);
        EXPECT_EQ(resolved.denied, c.reason) << c.requested;
        if (!c.reason) {
            EXPECT_EQ(resolved.path, c.path);
        }
    }
}

TEST(VaultPlanner, ClassifiesEachRequestAndDeniesWhatMustStay) {
    const std::string home = homeDirectory();
    std::string dir = test::freshFolder("plan");
    test::makeDirs(dir + "/cache/a");
    test::writeFilledFile(dir + "/cache/a/blob", 20000);
    test::makeDirs(dir + "/real/cache");
    test::makeSymlink(dir + "/real", dir + "/link");
    test::makeDirs(dir + "/linked");
    test::writeFile(dir + "/linked/f", "x");
    test::makeHardlink(dir + "/linked/f", dir + "/f-elsewhere");
    test::makeDirs(dir + "/album");
    test::writeFile(dir + "/album/holiday.JPG", "jpeg");
    test::writeFile(dir + "/tax-return.txt", "numbers");
    ScopedMockRoot outside;

    VaultService vault = VaultService::standard(policyFor());
    VaultPlan plan = vault.planner({dir + "/cache", home, home + "/Documents", dir + "/link/cache",
                                    dir + "/linked", dir + "/album", dir + "/tax-return.txt",
                                    outside.path(), dir + "/missing"},
                                   {}, nullptr);
    ASSERT_EQ(plan.items.size(), 9U);
    struct Expect {
        std::optional<Reason> reason;
        bool ticked;
    };
    const Expect expected[]{
        {std::nullopt, true},
        {Reason::protectedUserDir, false},
        {Reason::protectedUserDir, false},
        {Reason::symlinkInPath, false},
        {Reason::multiplyLinked, false},
        {Reason::protectedDescendant, false},
        {std::nullopt, false},
        {Reason::outsideGrantedScope, false},
        {Reason::unreadable, false},
    };
    for (size_t i = 0; i < plan.items.size(); ++i) {
        const VaultPlanItem& item = plan.items[i];
        EXPECT_EQ(item.denied, expected[i].reason) << item.requestedPath;
        EXPECT_EQ(item.defaultSelected, expected[i].ticked) << item.requestedPath;
        EXPECT_EQ(item.planNonce, plan.planNonce);
    }
    const VaultPlanItem& cache = plan.items[0];
    EXPECT_EQ(cache.physicalBytes, test::peerAllocatedBytes(dir + "/cache"));
    EXPECT_EQ(cache.freeableBytes, cache.physicalBytes);
    EXPECT_EQ(cache.size, 20000U);
    EXPECT_TRUE(cache.isDir);
    EXPECT_TRUE(cache.dirFingerprint.has_value());
    struct stat st {};
    ASSERT_EQ(::lstat((dir + "/cache").c_str(), &st), 0);
    EXPECT_EQ(cache.identityToken, identityToken(EntryIdentity::of(st)));
    EXPECT_EQ(plan.items[6].friction, VaultFriction::confirmOwnFiles);
    EXPECT_EQ(plan.items[6].classification, VaultClassification::obviousUserData);

    EXPECT_EQ(denyText(Reason::protectedDescendant),
              "Something inside looks like your own files (photos, documents, keys), so it won’t "
              "move automatically.");
    EXPECT_EQ(denyText(Reason::gitWorkingTree, DenyTextForm::compact),
              "Git tracks it: by hand only.");
}

TEST(VaultPlanner, ClassifiesAtMostFourAtOnceAndKeepsRequestOrder) {
    std::string repo = test::freshFolder("order");
    test::makeDirs(repo + "/.git");
    std::vector<std::string> paths;
    for (int i = 0; i < 9; ++i) {
        paths.push_back(repo + "/item" + std::to_string(8 - i));
        test::writeFile(paths.back(), "x");
    }
    std::mutex lock;
    std::condition_variable changed;
    int running = 0;
    int most = 0;
    // Each check waits (on a condition, with a generous limit) for a second one to be under way,
    // so the most seen at once is what the planner allows, not what the scheduler happened to do.
    VCSIgnoreCheck slow{[&](const std::string&, const std::string&) {
        std::unique_lock guard(lock);
        most = std::max(most, ++running);
        changed.notify_all();
        changed.wait_for(guard, std::chrono::seconds(10), [&] { return most >= 2; });
        --running;
        return true;
    }};
    VaultService vault = VaultService::standard(policyFor(slow));
    VaultPlan plan = vault.planner(paths, {}, nullptr);
    ASSERT_EQ(plan.items.size(), paths.size());
    for (size_t i = 0; i < paths.size(); ++i) {
        EXPECT_EQ(plan.items[i].requestedPath, paths[i]);
        EXPECT_FALSE(plan.items[i].denied);
    }
    EXPECT_LE(most, 4);
    EXPECT_GE(most, 2) << "planning should use several workers";
}

TEST(VaultMove, EachItemIsCheckedAgainRightBeforeItMoves) {
    std::string dir = test::freshFolder("recheck");
    for (const char* name : {"kept", "replaced", "grew", "moved"}) {
        test::makeDirs(dir + "/" + name);
        test::writeFilledFile(dir + "/" + name + "/data", 5000);
    }
    VaultService vault = VaultService::standard(policyFor());
    VaultPlan plan = vault.planner(
        {dir + "/kept", dir + "/replaced", dir + "/grew", dir + "/moved"}, {}, nullptr);
    for (const VaultPlanItem& item : plan.items) {
        ASSERT_FALSE(item.denied) << item.requestedPath;
    }
    // Same path, new object; and a folder that gained a file.
    ASSERT_EQ(::rename((dir + "/replaced").c_str(), (dir + "/replaced-original").c_str()), 0);
    test::makeDirs(dir + "/replaced");
    test::writeFilledFile(dir + "/replaced/data", 5000);
    test::writeFile(dir + "/grew/new", "more");

    OperationProgress progress;
    MoveOutcome outcome = vault.move(plan, {3, 2, 1}, {}, &progress);
    ASSERT_EQ(outcome.moved.size(), 1U);
    EXPECT_EQ(outcome.moved[0].originalPath, dir + "/moved");
    EXPECT_EQ(outcome.moved[0].trashPath, trashed("moved"));
    EXPECT_EQ(outcome.moved[0].identityToken, plan.items[3].identityToken);
    struct stat st {};
    EXPECT_EQ(::lstat(trashed("moved").c_str(), &st), 0);
    EXPECT_EQ(identityToken(EntryIdentity::of(st)), plan.items[3].identityToken);
    EXPECT_EQ(::lstat((dir + "/kept").c_str(), &st), 0) << "an item left unticked never moves";

    ASSERT_EQ(outcome.stayed.size(), 2U);
    EXPECT_EQ(outcome.stayed[0], std::make_pair(size_t{1}, std::optional(Reason::identityChanged)));
    EXPECT_EQ(outcome.stayed[1],
              std::make_pair(size_t{2}, std::optional(Reason::sizeChangedSinceScan)));
    EXPECT_EQ(outcome.notes[0],
              dir + "/replaced: something else now sits at that path — left in place.");
    EXPECT_EQ(::access((dir + "/replaced/data").c_str(), F_OK), 0);
    EXPECT_EQ(::access((dir + "/grew/new").c_str(), F_OK), 0);

    OperationProgress::Reading done = progress.read();
    EXPECT_EQ(done.done, 3U);
    EXPECT_EQ(done.items, 1U);
    EXPECT_EQ(done.total, 3U);
    EXPECT_EQ(done.bytes, plan.items[3].physicalBytes);

    // A plan is only good for its own run.
    VaultPlan stale = plan;
    stale.planNonce = "another";
    MoveOutcome refused = vault.move(stale, {0});
    EXPECT_TRUE(refused.moved.empty());
    EXPECT_EQ(refused.stayed[0].second, Reason::stalePlan);
}

TEST(VaultMove, StopAndCancellationLeaveTheRestInPlace) {
    std::string dir = test::freshFolder("stop");
    test::writeFile(dir + "/a", "a");
    VaultService vault = VaultService::standard(policyFor());
    VaultPlan plan = planOne(vault, dir + "/a");

    CoreCancellationState stop;
    stop.cancel();
    MoveOutcome stopped = vault.move(plan, {0}, stop.token());
    EXPECT_TRUE(stopped.moved.empty());
    ASSERT_FALSE(stopped.notes.empty());
    EXPECT_EQ(stopped.notes.back(), "Stopped; the rest wasn't moved.");
    EXPECT_EQ(::access((dir + "/a").c_str(), F_OK), 0);

    // Stop pressed while the first of two items is checked: it still moves, the second stays.
    test::writeFile(dir + "/b", "b");
    VaultPlan two = vault.planner({dir + "/a", dir + "/b"}, {}, nullptr);
    std::stop_source midway;
    VaultService pressing = vault;
    pressing.validator = [&](const VaultPlanItem& item, const std::string& nonce) {
        midway.request_stop();
        return vault.validator(item, nonce);
    };
    MoveOutcome half = pressing.move(two, {0, 1}, midway.get_token());
    ASSERT_EQ(half.moved.size(), 1U);
    EXPECT_EQ(half.moved[0].originalPath, dir + "/a");
    EXPECT_EQ(half.stayed,
              (std::vector<std::pair<size_t, std::optional<Reason>>>{{1, std::nullopt}}));
    EXPECT_EQ(half.notes.back(), "Stopped; the rest wasn't moved.");
    EXPECT_EQ(::access((dir + "/b").c_str(), F_OK), 0);
}

// Counts regular files and their bytes under `path` with find, links not followed.
std::pair<std::uint64_t, std::uint64_t> census(const std::string& path) {
    test::CommandResult r = test::runShell("find " + test::shellQuote(path) +
                                           " -type f -printf '%s\\n' | awk '{n++; s+=$1} END "
                                           "{printf \"%d %d\", n, s}'");
    std::uint64_t files = 0;
    std::uint64_t bytes = 0;
    std::sscanf(r.output.c_str(), "%lu %lu", &files, &bytes);
    return {files, bytes};
}

// Another thread keeps swapping a planned folder for a link to a folder outside the home while
// moves run. Whatever the timing, nothing outside the home may move and nothing may vanish.
TEST(VaultMove, SwappingAPlannedFolderForALinkNeverMovesWhatLiesOutside) {
    ScopedMockRoot outsideRoot;
    std::string outside = outsideRoot.path() + "/precious";
    test::makeDirs(outside);
    for (int i = 0; i < 5; ++i) {
        test::writeFilledFile(outside + "/f" + std::to_string(i), 10000 + i);
    }
    std::string area = test::freshFolder("attack");
    const std::string trash = test::fixtureHome() + "/.local/share/Trash/files";
    auto outsideBefore = census(outside);
    VaultService vault = VaultService::standard(policyFor());

    for (int round = 0; round < 25; ++round) {
        std::string victim = area + "/victim" + std::to_string(round);
        test::makeDirs(victim);
        test::writeFilledFile(victim + "/data", 3000);
        auto homeBefore = census(area);
        auto trashBefore = census(trash);
        VaultPlan plan = planOne(vault, victim);
        ASSERT_FALSE(plan.items[0].denied);

        std::atomic<bool> done{false};
        std::thread swapper([&] {
            std::string hidden = victim + ".real";
            while (!done.load()) {
                if (::rename(victim.c_str(), hidden.c_str()) == 0) {
                    ::symlink(outside.c_str(), victim.c_str());
                    std::this_thread::yield();
                    ::unlink(victim.c_str());
                    ::rename(hidden.c_str(), victim.c_str());
                }
                std::this_thread::yield();
            }
        });
        MoveOutcome outcome = vault.move(plan, {0});
        done = true;
        swapper.join();

        EXPECT_EQ(census(outside), outsideBefore) << "round " << round;
        auto homeAfter = census(area);
        auto trashAfter = census(trash);
        EXPECT_EQ(homeAfter.first + trashAfter.first, homeBefore.first + trashBefore.first);
        EXPECT_EQ(homeAfter.second + trashAfter.second, homeBefore.second + trashBefore.second);
        for (const MovedItem& moved : outcome.moved) {
            struct stat st {};
            ASSERT_EQ(::lstat(moved.trashPath.c_str(), &st), 0);
            EXPECT_TRUE(S_ISDIR(st.st_mode)) << "only the real folder may reach the Trash";
        }
    }
    struct stat st {};
    EXPECT_EQ(::lstat(outside.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
}

class GitRepository : public ::testing::Test {
protected:
    void SetUp() override {
        if (!test::haveTool("git")) {
            GTEST_SKIP() << "git is not installed, so there is no repository to ask";
        }
        repo = test::freshFolder("repo");
        test::makeDirs(repo + "/node_modules/pkg");
        test::writeFilledFile(repo + "/node_modules/pkg/index.js", 3000);
        test::makeDirs(repo + "/build");
        test::writeFile(repo + "/build/output.o", "object");
        test::writeFile(repo + "/build/keep.txt", "tracked on purpose");
        test::makeDirs(repo + "/src");
        test::writeFile(repo + "/src/main.c", "int main(){}");
        test::writeFile(repo + "/.gitignore", "node_modules/\nbuild/\n");
        std::string git =
            "git -C " + test::shellQuote(repo) + " -c user.name=t -c user.email=t@example.invalid ";
        ASSERT_EQ(test::runShell(git + "init -q && " + git + "add .gitignore src && " + git +
                                 "add -f build/keep.txt && " + git + "commit -qm init")
                      .status,
                  0);
    }
    std::string repo;
};

TEST_F(GitRepository, OnlyWhatGitIgnoresAndDoesNotTrackMoves) {
    VaultService vault = VaultService::standard(policyFor(makeGitIgnoreCheck()));
    VaultPlan plan =
        vault.planner({repo + "/node_modules", repo + "/build", repo + "/build/keep.txt",
                       repo + "/build/output.o", repo + "/src", repo},
                      {}, nullptr);
    const std::optional<Reason> expected[]{std::nullopt,           Reason::gitWorkingTree,
                                           Reason::gitWorkingTree, std::nullopt,
                                           Reason::gitWorkingTree, Reason::gitWorkingTree};
    for (size_t i = 0; i < plan.items.size(); ++i) {
        EXPECT_EQ(plan.items[i].denied, expected[i]) << plan.items[i].requestedPath;
    }
    MoveOutcome outcome = vault.move(plan, {0});
    ASSERT_EQ(outcome.moved.size(), 1U);
    EXPECT_EQ(::access((repo + "/node_modules").c_str(), F_OK), -1);
}

TEST_F(GitRepository, WithoutGitNothingInARepositoryMoves) {
    VaultService vault =
        VaultService::standard(policyFor(makeGitIgnoreCheck({"/nonexistent/bin/git"})));
    VaultPlan plan = vault.planner({repo + "/node_modules", repo + "/build/output.o"}, {}, nullptr);
    for (const VaultPlanItem& item : plan.items) {
        EXPECT_EQ(item.denied, Reason::gitWorkingTree) << item.requestedPath;
    }
}

} // namespace
} // namespace sd
