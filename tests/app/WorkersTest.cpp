#include "app/Workers.h"

#include "AppTestMain.h"
#include "Fixture.h"
#include "app/SpaceMapPage.h"

#include <QSignalSpy>
#include <QTest>
#include <condition_variable>
#include <filesystem>
#include <mutex>

namespace sd::app {
namespace {

// A cache of `folders` folders with one small file each, where the catalog looks.
void writeWideCache(const std::string& folder, int folders) {
    test::makeDirs(folder);
    test::runShell("cd " + test::shellQuote(folder) + " && for i in $(seq 1 " +
                   std::to_string(folders) + "); do mkdir d$i && echo x > d$i/f; done");
}

std::vector<Target> catalogTargets(std::initializer_list<std::string_view> ids) {
    std::vector<Target> out;
    for (const Target& t : buildCatalog(DistributionMode::direct)) {
        if (std::find(ids.begin(), ids.end(), t.id) != ids.end()) {
            out.push_back(t);
        }
    }
    return out;
}

// Blocks until `stop` is requested, without polling.
void waitForStop(const std::stop_token& stop) {
    std::mutex lock;
    std::condition_variable_any woken;
    std::unique_lock guard(lock);
    woken.wait(guard, stop, [] { return false; });
}

class WorkersTest : public QObject {
    Q_OBJECT

private slots:
    void aSupersededResultIsDropped() {
        TaskRunner runner;
        QSignalSpy running(&runner, &TaskRunner::runningChanged);
        test::Gate first;
        std::vector<int> delivered;
        runner.start<int>(
            [&](const std::stop_token&) {
                first.wait(); // ignores Stop: its result arrives late, after the second run's
                return 1;
            },
            [&](int& r) { delivered.push_back(r); });
        runner.start<int>([](const std::stop_token&) { return 2; },
                          [&](int& r) { delivered.push_back(r); });
        QTRY_COMPARE(delivered, std::vector<int>{2});
        QVERIFY(!runner.isRunning());
        first.open();
        // The late run is forgotten in the same queued call that would have delivered it.
        QTRY_COMPARE(runner.liveThreads(), size_t{0});
        QCOMPARE(delivered, std::vector<int>{2});
        // Running went on once and off once: the hand-over in between is invisible.
        QCOMPARE(running.count(), 2);
        QCOMPARE(running.at(0).at(0).toBool(), true);
        QCOMPARE(running.at(1).at(0).toBool(), false);
    }

    void stopReachesTheWorkThroughItsToken() {
        TaskRunner runner;
        QSignalSpy failed(&runner, &TaskRunner::failed);
        bool done = false;
        runner.start<int>(
            [](const std::stop_token& stop) {
                waitForStop(stop);
                throwIfStopped(stop);
                return 0;
            },
            [&](int&) { done = true; });
        QVERIFY(runner.isRunning());
        runner.stop();
        QTRY_COMPARE(failed.count(), 1);
        QCOMPARE(failed.at(0).at(0).toString(), QStringLiteral("Operation cancelled"));
        QCOMPARE(failed.at(0).at(1).toBool(), true);
        QVERIFY(!done);
        QVERIFY(!runner.isRunning());
    }

    void failuresAndTeardown() {
        auto runner = std::make_unique<TaskRunner>();
        QSignalSpy failed(runner.get(), &TaskRunner::failed);
        runner->start<int>(
            [](const std::stop_token&) -> int { throw std::runtime_error("disk on fire"); },
            [](int&) {});
        QTRY_COMPARE(failed.count(), 1);
        QCOMPARE(failed.at(0).at(0).toString(), QStringLiteral("disk on fire"));
        QCOMPARE(failed.at(0).at(1).toBool(), false);

        // Destroying the runner stops the work and waits for it; nothing is delivered later.
        std::atomic<bool> sawStop{false};
        bool delivered = false;
        runner->start<int>(
            [&](const std::stop_token& stop) {
                waitForStop(stop);
                sawStop = true;
                return 3;
            },
            [&](int&) { delivered = true; });
        runner.reset();
        QVERIFY(sawStop);
        // The worker has been joined, so whatever it posted is already queued: let it run.
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
        QVERIFY(!delivered);
    }

    void stopDuringAScanStopsTheWalk_data() {
        QTest::addColumn<QString>("operation");
        QTest::newRow("sweep") << "sweep";
        QTest::newRow("cleanup measure") << "measure";
        QTest::newRow("space map") << "space";
    }

    void stopDuringAScanStopsTheWalk() {
#ifndef SPARROWDECK_TEST_HOOKS
        QSKIP("needs the core's test hooks (the debug preset has them)");
#else
        QFETCH(QString, operation);
        const int folders = 400;
        std::string cache = test::fixtureHome() + "/.cache/pip/wide";
        writeWideCache(cache, folders);
        test::WalkPause pause(cache + "/");
        SweepRunner sweep;
        CleanupRunner cleanup;
        SpaceRunner space;
        QObject* runner = operation == "sweep"     ? static_cast<QObject*>(&sweep)
                          : operation == "measure" ? static_cast<QObject*>(&cleanup)
                                                   : static_cast<QObject*>(&space);
        QSignalSpy failed(runner, SIGNAL(failed(QString, bool)));
        QSignalSpy finished(runner, operation == "sweep" ? SIGNAL(swept(std::shared_ptr<sd::Sweep>))
                                    : operation == "measure"
                                        ? SIGNAL(measured(sd::ScanResult))
                                        : SIGNAL(scanned(sd::SpaceScanResult)));
        QVERIFY(finished.isValid());
        if (operation == "sweep") {
            sweep.start();
        } else if (operation == "measure") {
            cleanup.measure(catalogTargets({"python_tools"}), {});
        } else {
            space.scan(test::fixtureHome());
        }
        QTRY_VERIFY(pause.reached());
        sweep.stop();
        cleanup.stop();
        space.stop();
        pause.release();
        QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, 20000);
        QCOMPARE(failed.at(0).at(1).toBool(), true);
        QVERIFY(!sweep.isRunning() && !cleanup.isRunning() && !space.isRunning());
        QCOMPARE(finished.count(), 0);
        QVERIFY2(pause.afterRelease() < 5, qPrintable(QString::number(pause.afterRelease())));
        test::runShell("rm -rf " + test::shellQuote(test::fixtureHome() + "/.cache/pip"));
#endif
    }

    void spaceScanStreamsBigItemsBeforeItEnds() {
#ifndef SPARROWDECK_TEST_HOOKS
        QSKIP("needs the core's test hooks (the debug preset has them)");
#else
        std::string big = test::fixtureHome() + "/Films";
        test::makeDirs(big);
        test::writeFilledFile(big + "/premiere.mov", 3'000'000);
        std::string slow = test::fixtureHome() + "/zz-slow";
        writeWideCache(slow, 3);
        SpaceRunner runner;
        QSignalSpy scanned(&runner, &SpaceRunner::scanned);
        std::vector<BigItem> seen;
        {
            // One worker waits in a folder while the big file is found elsewhere.
            test::WalkPause pause(slow + "/");
            runner.scan(test::fixtureHome(), std::nullopt, 2'000'000);
            QTRY_VERIFY(pause.reached());
            QTRY_VERIFY_WITH_TIMEOUT(
                [&] {
                    for (BigItem& item : runner.takeBigItems()) {
                        seen.push_back(item);
                    }
                    return !seen.empty();
                }(),
                10000);
            QVERIFY(runner.isRunning());
            pause.release();
            QTRY_COMPARE_WITH_TIMEOUT(scanned.count(), 1, 20000);
        }
        auto found = std::find_if(seen.begin(), seen.end(), [&](const BigItem& item) {
            return item.path == big + "/premiere.mov";
        });
        QVERIFY(found != seen.end());
        QCOMPARE(found->bytes, test::peerAllocatedBytes(big));
        auto result = scanned.at(0).at(0).value<SpaceScanResult>();
        QCOMPARE(result.tree.root.path, test::fixtureHome());
        test::runShell("rm -rf " + test::shellQuote(big) + " " + test::shellQuote(slow));
#endif
    }

    void sweepDeliversMeasuredTiles() {
        std::string cache = test::fixtureHome() + "/.npm/_cacache";
        test::makeDirs(cache + "/content-v2");
        test::writeFilledFile(cache + "/content-v2/blob", 250'000);
        SweepRunner runner;
        QSignalSpy swept(&runner, &SweepRunner::swept);
        runner.start();
        QTRY_COMPARE_WITH_TIMEOUT(swept.count(), 1, 30000);
        auto sweep = swept.at(0).at(0).value<std::shared_ptr<Sweep>>();
        QCOMPARE(sweep->tile(SweepTileKind::developer)->bytes, test::peerAllocatedBytes(cache));
        SweepReading last = runner.sweepProgress();
        QVERIFY(qFuzzyCompare(last.fraction, 1.0));
        for (SweepTileKind kind : allTileKinds) {
            QVERIFY(last.tile(kind).finished);
        }
        test::runShell("rm -rf " + test::shellQuote(test::fixtureHome() + "/.npm"));
    }

    void cleanupCleansVerifiesAndPutsBack() {
        std::string cache = test::fixtureHome() + "/.cache/go-build";
        test::makeDirs(cache + "/00");
        test::writeFilledFile(cache + "/00/0012ab-d", 200'000);
        test::writeFilledFile(cache + "/trim.txt", 5'000);
        std::string before = test::checksums({cache});
        std::vector<Target> targets = catalogTargets({"rust_go"});

        CleanupRunner runner;
        QSignalSpy prepared(&runner, &CleanupRunner::prepared);
        QSignalSpy cleaned(&runner, &CleanupRunner::cleaned);
        runner.prepare(targets, {});
        QTRY_COMPARE_WITH_TIMEOUT(prepared.count(), 1, 20000);
        auto plan = prepared.at(0).at(0).value<CleanPlan>();
        QVERIFY(!plan.paths.empty());
        runner.clean(plan, targets, {});
        QTRY_COMPARE_WITH_TIMEOUT(cleaned.count(), 1, 20000);
        auto outcome = cleaned.at(0).at(0).value<CleanOutcome>();
        QVERIFY2(outcome.result.errors.empty(),
                 outcome.result.errors.empty() ? "" : outcome.result.errors[0].message.c_str());
        QCOMPARE(outcome.result.filesRemoved, plan.paths.size());
        QVERIFY(outcome.verification.has_value());
        QCOMPARE(outcome.verification->totalBytes, 0u);
        QVERIFY(!std::filesystem::exists(cache));
        QVERIFY(outcome.result.journalEntryID.has_value());

        PutBackRunner putBack;
        QSignalSpy finished(&putBack, &PutBackRunner::finished);
        putBack.putBack(*outcome.result.journalEntryID, std::nullopt);
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 20000);
        auto result = finished.at(0).at(0).value<TrashRestoreResult>();
        QCOMPARE(result.restoredIDs.size(), plan.paths.size());
        QVERIFY(result.skipped.empty());
        QCOMPARE(test::checksums({cache}), before);
        test::runShell("rm -rf " + test::shellQuote(cache));
    }
};

SD_REGISTER_APP_TEST(WorkersTest);

} // namespace
} // namespace sd::app

#include "WorkersTest.moc"
