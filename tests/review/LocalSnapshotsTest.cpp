// Local snapshots: listing and deleting with fake tmutil and snapper executables that keep their
// snapshots in a file beside them, and once with the real snapper on a loop-mounted btrfs.
#include "review/LocalSnapshots.h"

#include "FakeTools.h"
#include "Fixture.h"
#include "LoopVolume.h"
#include "base/CleanerError.h"
#include "base/Progress.h"

#include <algorithm>
#include <cmath>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace sd {
namespace {

using Strings = std::vector<std::string>;

// One fake tool with its state, and the real tool object that runs it.
struct FakeSnapshots {
    std::string folder;
    std::unique_ptr<platform::LocalSnapshotTool> tool;
    std::string firstStamp, secondStamp, thirdStamp;

    void put(const std::string& name, const std::string& text) const {
        test::writeFile(folder + "/" + name, text);
    }
    Strings calls() const { return test::readLines(folder + "/calls.txt"); }
    LocalSnapshotListing list() const { return tool->list(); }
};

FakeSnapshots fakeTmutilWithThree() {
    FakeSnapshots fake{test::freshFolder("tmutil"), nullptr, "2024-05-01-101500",
                       "2024-05-02-101500", "2024-05-03-101500"};
    test::writeExecutable(fake.folder + "/tmutil", test::fakeTmutilScript);
    fake.put("snapshots.txt", "com.apple.TimeMachine.2024-05-01-101500.local\n"
                              "com.apple.TimeMachine.2024-05-02-101500.local\n"
                              "com.apple.TimeMachine.2024-05-03-101500.local\n");
    fake.put("refuse.txt", "");
    fake.put("stubborn.txt", "");
    fake.tool = platform::makeTmutil(fake.folder + "/tmutil");
    return fake;
}

FakeSnapshots fakeSnapperWithThree() {
    FakeSnapshots fake{test::freshFolder("snapper"), nullptr, "home:1", "home:2", "root:7"};
    test::writeExecutable(fake.folder + "/snapper", test::fakeSnapperScript);
    fake.put("snapshots.txt", "home|1|2024-05-01 10:15:00|16384|timeline\n"
                              "home|2|2024-05-02 10:15:00|null|\n"
                              "root|7|2024-05-03 10:15:00|1048576|pre-upgrade\n");
    fake.put("refuse.txt", "");
    fake.put("stubborn.txt", "");
    fake.tool = platform::makeSnapper({fake.folder + "/snapper", {"--no-dbus"}});
    return fake;
}

std::vector<FakeSnapshots (*)()> bothTools() {
    return {&fakeTmutilWithThree, &fakeSnapperWithThree};
}

Strings stampsOf(const std::vector<LocalSnapshot>& snapshots) {
    Strings stamps;
    for (const LocalSnapshot& s : snapshots) {
        stamps.push_back(s.stamp);
    }
    return stamps;
}

TEST(LocalSnapshotListing, ReadsEachToolsOwnListing) {
    FakeSnapshots tmutil = fakeTmutilWithThree();
    tmutil.put("snapshots.txt", "com.apple.TimeMachine.2024-05-01-101500.local\n"
                                "com.apple.TimeMachine.2024-13-01-101500.local\n"
                                "com.apple.TimeMachine.some-other.local\r\n"
                                "com.apple.TimeMachine.2024-05-01-101500.localx\n"
                                "Note: snapshots may be thinned.\n");
    LocalSnapshotListing listed = tmutil.list();
    ASSERT_FALSE(listed.failure);
    ASSERT_EQ(stampsOf(listed.snapshots),
              (Strings{"2024-05-01-101500", "2024-13-01-101500", "some-other"}));
    EXPECT_EQ(listed.snapshots[0].name, "com.apple.TimeMachine.2024-05-01-101500.local");
    EXPECT_EQ(listed.snapshots[0].date, platform::parseTmutilStamp("2024-05-01-101500"));
    EXPECT_FALSE(listed.snapshots[1].date) << "month 13 does not parse";
    EXPECT_FALSE(listed.snapshots[2].date);
    EXPECT_EQ(tmutil.calls(), Strings{"listlocalsnapshots /"});

    FakeSnapshots snapper = fakeSnapperWithThree();
    LocalSnapshotListing snaps = snapper.list();
    ASSERT_FALSE(snaps.failure) << *snaps.failure;
    ASSERT_EQ(stampsOf(snaps.snapshots), (Strings{"home:1", "home:2", "root:7"}));
    EXPECT_EQ(snaps.snapshots[0].name, "home snapshot 1 (timeline)");
    EXPECT_EQ(snaps.snapshots[1].name, "home snapshot 2");
    EXPECT_EQ(snaps.snapshots[0].date, 1714558500.0) << "snapper's dates are read as UTC";
    EXPECT_EQ(snaps.snapshots[0].bytes, 16384U);
    EXPECT_FALSE(snaps.snapshots[1].bytes) << "no quota, no size";
    EXPECT_EQ(snapper.calls(), Strings{"--no-dbus --utc --iso --jsonout list --all-configs "
                                       "--columns config,number,date,used-space,description"});

    // Failures and empty systems, each in a sentence.
    tmutil.put("list-fails", "3");
    EXPECT_EQ(tmutil.list().failure, "tmutil exited with status 3");
    snapper.put("list-fails", "");
    EXPECT_EQ(snapper.list().failure, "snapper exited with status 1");
    ::unlink((snapper.folder + "/list-fails").c_str());
    snapper.put("snapshots.txt", "");
    LocalSnapshotListing none = snapper.list();
    EXPECT_TRUE(none.snapshots.empty());
    EXPECT_EQ(none.note, "snapper has no configuration you may read, so there are no local "
                         "snapshots to show.");
    EXPECT_EQ(platform::makeSnapper({snapper.folder + "/not-installed"})->list().note,
              "snapper is not installed, so there are no local snapshots to show.");

    for (auto [stamp, parses] :
         std::vector<std::pair<const char*, bool>>{{"2024-05-01-101500", true},
                                                   {"2024-02-29-235959", true},
                                                   {"2023-02-29-101500", false},
                                                   {"2024-05-01-101560", false},
                                                   {"2024-05-01T101500", false},
                                                   {"2024-05-01-10150", false},
                                                   {"2024-5-01-1015000", false}}) {
        EXPECT_EQ(platform::parseTmutilStamp(stamp).has_value(), parses) << stamp;
    }
}

TEST(LocalSnapshotDeletion, OnlyCurrentSnapshotsAreAttemptedAndOnlyVanishedOnesCount) {
    for (auto make : bothTools()) {
        FakeSnapshots fake = make();
        const std::string name(fake.tool->toolName());
        // Chosen from a list that is out of date: the second snapshot vanished since.
        fake.put("snapshots.txt", fake.tool->toolName() == "tmutil"
                                      ? "com.apple.TimeMachine.2024-05-01-101500.local\n"
                                        "com.apple.TimeMachine.2024-05-03-101500.local\n"
                                      : "home|1|2024-05-01 10:15:00|16384|timeline\n"
                                        "root|7|2024-05-03 10:15:00|1048576|pre-upgrade\n");
        LocalSnapshotListing current = fake.list();
        // The third is reported deleted but is still there afterwards.
        fake.put("stubborn.txt", fake.thirdStamp + "\n");
        OperationProgress progress;
        SnapshotDeletionOutcome outcome = deleteSnapshots(
            *fake.tool, current.snapshots,
            {{fake.firstStamp, fake.secondStamp, fake.thirdStamp, "2024-99-99-000000", ""}, true},
            progress);
        EXPECT_EQ(outcome.deleted, Strings{fake.firstStamp}) << name;
        Strings refused = outcome.refused;
        std::sort(refused.begin(), refused.end());
        Strings expected{"", fake.secondStamp, "2024-99-99-000000"};
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(refused, expected) << name;
        ASSERT_TRUE(outcome.failed.contains(fake.thirdStamp)) << name;
        EXPECT_EQ(stampsOf(outcome.remaining), Strings{fake.thirdStamp}) << name;
        EXPECT_TRUE(outcome.stopped.empty());
        // The vanished and the malformed stamps never reached the tool.
        for (const std::string& call : fake.calls()) {
            EXPECT_EQ(call.find("05-02"), std::string::npos) << call;
            EXPECT_EQ(call.find("home delete 2"), std::string::npos) << call;
            EXPECT_EQ(call.find("99-99"), std::string::npos) << call;
        }
        OperationProgress::Reading reading = progress.read();
        EXPECT_EQ(reading.total, 2U);
        EXPECT_EQ(reading.done, 2U);
        std::vector<OperationProgress::Notice> notices = progress.takeNotices();
        ASSERT_EQ(notices.size(), 2U);
        EXPECT_EQ(notices[0].path, fake.firstStamp);
        EXPECT_EQ(notices[0].bytes, 1U) << "the tool said it was deleted";
        EXPECT_EQ(deletionSummary(outcome, *fake.tool),
                  "Deleted 1 snapshot. " + std::string(fake.tool->spaceReturnText()));
    }
}

TEST(LocalSnapshotDeletion, StoppingAfterTheFirstOfThreeLeavesTwoStopped) {
    for (auto make : bothTools()) {
        FakeSnapshots fake = make();
        const std::string gate = fake.folder + "/gate";
        ASSERT_EQ(::mkfifo(gate.c_str(), 0600), 0);
        LocalSnapshotListing listing = fake.list();
        std::stop_source stop;
        std::jthread user([&] {
            // The first deletion is under way: Stop now, as the user would, then let it finish.
            int fd = ::open(gate.c_str(), O_RDONLY | O_CLOEXEC);
            char buffer[64];
            [[maybe_unused]] ssize_t n = ::read(fd, buffer, sizeof buffer);
            stop.request_stop();
            ::close(fd);
            ::unlink(gate.c_str());
        });
        OperationProgress progress;
        SnapshotDeletionOutcome outcome =
            deleteSnapshots(*fake.tool, listing.snapshots,
                            {{fake.thirdStamp, fake.secondStamp, fake.firstStamp}, true}, progress,
                            stop.get_token());
        user.join();
        EXPECT_EQ(outcome.deleted, Strings{fake.firstStamp}) << "the current one finishes";
        EXPECT_EQ(outcome.stopped, (Strings{fake.secondStamp, fake.thirdStamp}));
        EXPECT_TRUE(outcome.failed.empty());
        EXPECT_EQ(stampsOf(outcome.remaining), (Strings{fake.secondStamp, fake.thirdStamp}));
        EXPECT_EQ(deletionSummary(outcome, *fake.tool),
                  "Deleted 1 snapshot; stopped, 2 left. " +
                      std::string(fake.tool->spaceReturnText()));
    }
}

TEST(LocalSnapshotDeletion, FailuresAndAnUnreadableListAreSaidAndNothingIsAssumed) {
    for (auto make : bothTools()) {
        FakeSnapshots fake = make();
        LocalSnapshotListing listing = fake.list();
        OperationProgress progress;

        // Without the acknowledgement the tool is never asked.
        EXPECT_THROW(
            deleteSnapshots(*fake.tool, listing.snapshots, {{fake.firstStamp}, false}, progress),
            CleanerError);
        EXPECT_EQ(fake.calls().size(), 1U) << "only the listing ran";

        fake.put("refuse.txt", fake.firstStamp + "\n");
        SnapshotDeletionOutcome refused =
            deleteSnapshots(*fake.tool, listing.snapshots, {{fake.firstStamp}, true}, progress);
        EXPECT_TRUE(refused.deleted.empty());
        EXPECT_EQ(refused.failed.at(fake.firstStamp),
                  std::string(fake.tool->toolName()) + (fake.tool->toolName() == "tmutil"
                                                            ? " exited with status 70"
                                                            : " exited with status 1"));
        EXPECT_EQ(deletionSummary(refused, *fake.tool),
                  fake.tool->toolName() == "tmutil"
                      ? "Nothing was deleted — macOS said: Error: The operation couldn't be "
                        "completed. (Operation not permitted)"
                      : "Nothing was deleted — snapper said: Snapshot '1' not found.");

        fake.put("refuse.txt", "");
        fake.put("relist-fails", "");
        SnapshotDeletionOutcome unconfirmed = deleteSnapshots(
            *fake.tool, listing.snapshots, {{fake.firstStamp, fake.secondStamp}, true}, progress);
        EXPECT_TRUE(unconfirmed.deleted.empty());
        EXPECT_EQ(unconfirmed.failed,
                  (std::map<std::string, std::string>{
                      {fake.firstStamp, "Couldn't confirm: the snapshot list could not be read "
                                        "again"},
                      {fake.secondStamp, "Couldn't confirm: the snapshot list could not be read "
                                         "again"}}));
        EXPECT_EQ(deletionSummary(unconfirmed, *fake.tool), "Nothing was deleted.");
    }
}

TEST(SnapshotReview, MovesFromBrowsingThroughConsentToDone) {
    FakeSnapshots fake = fakeTmutilWithThree();
    std::vector<LocalSnapshot> shown;
    SnapshotReviewSession session(fake.list().snapshots,
                                  [&](const std::vector<LocalSnapshot>& now) { shown = now; });
    using Stage = SnapshotReviewSession::Stage;
    EXPECT_FALSE(session.review()) << "nothing chosen, nothing to confirm";
    session.setSelected("not-listed", true);
    EXPECT_TRUE(session.selection().empty());
    session.setSelected(fake.firstStamp, true);
    session.setSelected(fake.secondStamp, true);
    ASSERT_TRUE(session.review());
    EXPECT_EQ(session.stage(), Stage::confirming);
    EXPECT_FALSE(session.start()) << "the acknowledgement comes first";
    session.setSelected(fake.thirdStamp, true);
    EXPECT_EQ(session.selection().size(), 2U) << "the choice is fixed while confirming";
    session.acknowledge(true);
    session.back();
    EXPECT_EQ(session.stage(), Stage::browsing);
    ASSERT_TRUE(session.review());
    EXPECT_FALSE(session.acknowledged()) << "every time, the acknowledgement is asked again";
    session.acknowledge(true);
    std::optional<SnapshotDeletionConsent> consent = session.start();
    ASSERT_TRUE(consent);
    EXPECT_TRUE(consent->acknowledgedIrreversible);
    EXPECT_EQ(session.stage(), Stage::deleting);
    EXPECT_EQ(session.progress()->total, 2U);
    session.observe(fake.firstStamp, "", false);
    session.observe(fake.secondStamp, fake.firstStamp, true);
    EXPECT_EQ(session.progress()->current, fake.secondStamp);
    EXPECT_EQ(session.progress()->finished, (std::map<std::string, bool>{{fake.firstStamp, true}}));
    session.stop();
    EXPECT_TRUE(session.stopping());

    OperationProgress progress;
    session.finish(deleteSnapshots(*fake.tool, session.snapshots(), *consent, progress));
    EXPECT_EQ(session.stage(), Stage::done);
    EXPECT_EQ(stampsOf(shown), Strings{fake.thirdStamp}) << "the list is what remained";
    EXPECT_EQ(session.outcome()->deleted.size(), 2U);
    session.dismiss();
    EXPECT_EQ(session.stage(), Stage::browsing);
    EXPECT_TRUE(session.selection().empty());
}

// The real snapper, without its daemon, on a btrfs of its own: a configuration is made for the
// test volume under a name no one else uses and removed afterwards, whatever happens.
class ScopedSnapperConfig {
public:
    ScopedSnapperConfig(std::string name, const std::string& subvolume) : name_(std::move(name)) {
        made_ = test::runShell("snapper --no-dbus -c " + name_ + " create-config " +
                               test::shellQuote(subvolume) + " 2>&1")
                    .status == 0;
    }
    ~ScopedSnapperConfig() {
        if (made_) {
            test::runShell("snapper --no-dbus -c " + name_ + " delete-config 2>&1");
        }
    }
    bool made() const noexcept { return made_; }
    const std::string& name() const noexcept { return name_; }

private:
    std::string name_;
    bool made_ = false;
};

TEST(LocalSnapshotDeletion, RealSnapperListsTwoDeletesOneAndConfirmsItGone) {
    if (!test::haveTool("snapper") || ::geteuid() != 0) {
        GTEST_SKIP() << "The real snapper needs snapper installed and root to run without its "
                        "daemon; it is not tried here.";
    }
    std::string whyNot;
    std::unique_ptr<test::LoopVolume> volume =
        test::LoopVolume::mount("btrfs", test::freshFolder("snapper-volume") + "/mnt", whyNot);
    if (!volume) {
        GTEST_SKIP() << whyNot;
    }
    ScopedSnapperConfig config("sparrowdeck-test-" + std::to_string(::getpid()), volume->path());
    ASSERT_TRUE(config.made());
    for (const char* description : {"first", "second"}) {
        ASSERT_EQ(test::runShell("snapper --no-dbus -c " + config.name() +
                                 " create --description " + description)
                      .status,
                  0);
    }
    std::unique_ptr<platform::LocalSnapshotTool> snapper =
        platform::makeSnapper({"/usr/bin/snapper", {"--no-dbus"}});
    LocalSnapshotListing listing = snapper->list();
    ASSERT_FALSE(listing.failure) << *listing.failure;
    std::vector<LocalSnapshot> ours;
    std::copy_if(listing.snapshots.begin(), listing.snapshots.end(), std::back_inserter(ours),
                 [&](const LocalSnapshot& s) { return s.stamp.starts_with(config.name() + ":"); });
    ASSERT_EQ(stampsOf(ours), (Strings{config.name() + ":1", config.name() + ":2"}));
    EXPECT_EQ(ours[0].name, config.name() + " snapshot 1 (first)");
    ASSERT_TRUE(ours[0].date);
    EXPECT_LT(std::abs(*ours[0].date - static_cast<double>(::time(nullptr))), 600.0);

    OperationProgress progress;
    SnapshotDeletionOutcome outcome =
        deleteSnapshots(*snapper, listing.snapshots, {{config.name() + ":1"}, true}, progress);
    EXPECT_EQ(outcome.deleted, Strings{config.name() + ":1"});
    EXPECT_TRUE(outcome.failed.empty());
    std::vector<std::string> left = stampsOf(outcome.remaining);
    EXPECT_EQ(std::count(left.begin(), left.end(), config.name() + ":1"), 0);
    EXPECT_EQ(std::count(left.begin(), left.end(), config.name() + ":2"), 1);
    EXPECT_NE(
        test::runShell("ls " + test::shellQuote(volume->path() + "/.snapshots")).output.find("2"),
        std::string::npos);
}

} // namespace
} // namespace sd
