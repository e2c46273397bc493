// The assistant's settings and question dialog, and the snapshot review screen, driven as a
// person would, against fake tools that the tests write.
#include "app/AssistantViews.h"

#include "AppTestMain.h"
#include "FakeTools.h"
#include "Fixture.h"
#include "app/SnapshotsPage.h"
#include "assistant/FakeAssistantTool.h"
#include "platform/Home.h"

#include <QSignalSpy>
#include <QTest>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

namespace sd::app {
namespace {

// Three snapshots kept by a fake tmutil.
struct FakeTmutil {
    std::string folder = test::freshFolder("app-tmutil");
    std::shared_ptr<const platform::LocalSnapshotTool> tool;

    FakeTmutil() {
        test::writeExecutable(folder + "/tmutil", test::fakeTmutilScript);
        test::writeFile(folder + "/snapshots.txt",
                        "com.apple.TimeMachine.2024-05-01-101500.local\n"
                        "com.apple.TimeMachine.2024-05-02-101500.local\n"
                        "com.apple.TimeMachine.2024-05-03-101500.local\n");
        test::writeFile(folder + "/refuse.txt", "");
        test::writeFile(folder + "/stubborn.txt", "");
        tool = platform::makeTmutil(folder + "/tmutil");
    }
};

void tick(SnapshotsPage& page, int row) {
    QModelIndex index = page.model().index(row, SnapshotsModel::stampColumn);
    QVERIFY(page.model().setData(index, Qt::Checked, Qt::CheckStateRole));
}

platform::UserDefaults storeChoosing(std::optional<IntelligenceProvider> provider) {
    platform::UserDefaults store(test::freshFolder("app-defaults") + "/defaults.json");
    chooseProvider(store, provider);
    return store;
}

std::string claudeAnswer(const std::string& summary) {
    return nlohmann::json{{"type", "result"},
                          {"is_error", false},
                          {"result", ""},
                          {"structured_output",
                           {{"summary", summary},
                            {"whatItIs", "A folder of videos."},
                            {"ifItGoes", "They are gone from this computer."},
                            {"verdict", "look first"}}}}
        .dump();
}

class AssistantViewsTest : public QObject {
    Q_OBJECT

private slots:
    void snapshotsMoveFromChoosingThroughConsentToDone() {
        FakeTmutil fake;
        SnapshotsPage page(fake.tool);
        page.show();
        QTRY_COMPARE(page.model().rowCount(), 3);
        QVERIFY2(!page.reviewButton()->isEnabled(), "nothing chosen yet");
        tick(page, 0);
        tick(page, 2);
        QVERIFY(page.reviewButton()->isEnabled());
        page.reviewButton()->click();
        QCOMPARE(page.session().stage(), SnapshotReviewSession::Stage::confirming);
        QVERIFY(page.deleteButton()->isVisible());
        QVERIFY(!page.deleteButton()->isEnabled());
        QCOMPARE(page.deleteButton()->text(), QStringLiteral("Delete 2 Snapshots"));
        page.acknowledgement()->setChecked(true);
        QVERIFY(page.deleteButton()->isEnabled());
        page.deleteButton()->click();
        QTRY_COMPARE(page.session().stage(), SnapshotReviewSession::Stage::done);
        QCOMPARE(page.banner()->text(),
                 QStringLiteral("Deleted 2 snapshots. macOS hands their space back over the next "
                                "few minutes."));
        QCOMPARE(page.model().rowCount(), 1);
        QCOMPARE(page.model().index(0, SnapshotsModel::stampColumn).data().toString(),
                 QStringLiteral("2024-05-02-101500"));
        page.doneButton()->click();
        QCOMPARE(page.session().stage(), SnapshotReviewSession::Stage::browsing);
        QVERIFY(page.reviewButton()->isVisible());
    }

    void stopLetsTheCurrentSnapshotFinishAndSkipsTheRest() {
        FakeTmutil fake;
        const std::string gate = fake.folder + "/gate";
        QCOMPARE(::mkfifo(gate.c_str(), 0600), 0);
        SnapshotsPage page(fake.tool);
        page.show();
        QTRY_COMPARE(page.model().rowCount(), 3);
        for (int row = 0; row < 3; ++row) {
            tick(page, row);
        }
        page.reviewButton()->click();
        page.acknowledgement()->setChecked(true);
        page.deleteButton()->click();
        // The fake waits at the gate with the first snapshot: press Stop there, then let it go.
        QTRY_VERIFY(page.runner().progress().read().currentPath.has_value());
        QVERIFY(page.progressStrip()->stopButton()->isVisible());
        page.progressStrip()->stopButton()->click();
        QVERIFY(page.session().stopping());
        int fd = ::open(gate.c_str(), O_RDONLY | O_CLOEXEC);
        char buffer[64];
        QVERIFY(::read(fd, buffer, sizeof buffer) > 0);
        ::close(fd);
        ::unlink(gate.c_str());
        QTRY_COMPARE(page.session().stage(), SnapshotReviewSession::Stage::done);
        const SnapshotDeletionOutcome& outcome = *page.session().outcome();
        QCOMPARE(outcome.deleted, std::vector<std::string>{"2024-05-01-101500"});
        QCOMPARE(outcome.stopped.size(), size_t{2});
        QCOMPARE(page.banner()->text(),
                 QStringLiteral("Deleted 1 snapshot; stopped, 2 left. macOS hands their space "
                                "back over the next few minutes."));
        QCOMPARE(page.model().rowCount(), 2);
    }

    void aListingThatFailsSaysSoAndOffersNothing() {
        FakeTmutil fake;
        test::writeFile(fake.folder + "/list-fails", "5");
        SnapshotsPage page(fake.tool);
        page.show();
        QTRY_VERIFY(page.emptyLabel()->isVisible());
        QCOMPARE(page.emptyLabel()->text(),
                 QStringLiteral("tmutil exited with status 5. Nothing can be chosen."));
        QVERIFY(!page.reviewButton()->isEnabled());
    }

    void settingsFindTheToolTestItAndSwitchItOff() {
        test::FakeAssistantTool claude(IntelligenceProvider::claudeCode,
                                       platform::homeDirectory() + "/.local/bin");
        claude.setHelpFlags({"--tools", "--output-format", "--json-schema"});
        claude.setLoginStatus(R"({"loggedIn":false})", 1);
        claude.respond(
            R"({"type":"result","is_error":false,"structured_output":{"sentence":"Ready."}})", "",
            0);
        platform::UserDefaults store = storeChoosing(IntelligenceProvider::claudeCode);
        AssistantSettings settings(store);
        settings.show();
        QCOMPARE(settings.statusLabel()->text(), QStringLiteral("Looking for it…"));
        QTRY_COMPARE(settings.statusLabel()->text(),
                     QStringLiteral("Version 2.1.197 · Not signed in"));
        QVERIFY(settings.testButton()->isEnabled());
        settings.testButton()->click();
        QCOMPARE(settings.testLabel()->text(), QStringLiteral("Testing…"));
        QTRY_VERIFY(settings.testLabel()->text().startsWith(QStringLiteral("It answered in ")));

        settings.providerBox()->setCurrentIndex(0);
        emit settings.providerBox()->activated(0);
        QCOMPARE(settings.statusLabel()->text(), QStringLiteral("Off: nothing is ever sent."));
        QVERIFY(!settings.testButton()->isEnabled());
        QVERIFY(!chosenProvider(store));
        QVERIFY(onboardingAnswered(store));
        ::unlink(claude.executable().c_str());
    }

    void askShowsTheFactsFirstAndRefusesUnmeasuredNumbers() {
        test::FakeAssistantTool claude(IntelligenceProvider::claudeCode,
                                       platform::homeDirectory() + "/.local/bin");
        claude.setHelpFlags({"--tools", "--output-format", "--json-schema", "--system-prompt"});
        AssistantQuestion question;
        question.task = AssistantTask::explainFolder;
        question.facts.subject = "The folder ~/Videos/old";
        Fact about;
        about.name = "~/Videos/old";
        about.kind = "folder";
        about.bytes = 4'200'000'000;
        question.facts.about = about;

        AskDialog dialog(question, storeChoosing(IntelligenceProvider::claudeCode));
        dialog.show();
        QCOMPARE(dialog.factsView()->toPlainText().toStdString(), question.facts.text());
        QVERIFY2(!claude.requested(), "nothing goes until Send");

        claude.respond(claudeAnswer("These videos take 9.1 GB."), "", 0);
        dialog.sendButton()->click();
        QTRY_VERIFY(dialog.banner()->isVisible());
        QCOMPARE(dialog.banner()->text(),
                 QStringLiteral("The answer quoted a number Sparrowdeck did not measure, so it "
                                "is not shown."));
        QVERIFY(!dialog.answerView()->isVisible());
        QVERIFY(claude.input().find(question.facts.text()) != std::string::npos);

        claude.respond(claudeAnswer("These videos take 4.2 GB."), "", 0);
        QTRY_VERIFY(dialog.sendButton()->isEnabled());
        dialog.sendButton()->click();
        QTRY_VERIFY(dialog.answerView()->isVisible());
        QVERIFY(dialog.answerView()->toPlainText().contains(
            QStringLiteral("These videos take 4.2 GB.")));
        QVERIFY(!dialog.banner()->isVisible());
        ::unlink(claude.executable().c_str());

        // With the assistant off the facts are still shown, and nothing can be sent.
        AskDialog off(question, storeChoosing(std::nullopt));
        QVERIFY(!off.sendButton()->isEnabled());
        QCOMPARE(off.factsView()->toPlainText().toStdString(), question.facts.text());
    }
};

SD_REGISTER_APP_TEST(AssistantViewsTest);

} // namespace
} // namespace sd::app

#include "AssistantViewsTest.moc"
