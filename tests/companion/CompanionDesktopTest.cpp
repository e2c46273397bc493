// The companion on a private session bus (dbus-run-session) with a fake notification server, and
// on an X display (Xvfb) that has no tray.
#include "AppTestMain.h"
#include "Fixture.h"
#include "companion/TrayShell.h"
#include "history/ScanHistory.h"
#include "platform/Home.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusServiceWatcher>
#include <QFile>
#include <QGuiApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

namespace sd::test {
namespace {

constexpr std::uint64_t GB = 1'000'000'000;
constexpr std::int64_t hour = 3600;
// Wednesday 15 November 2023, 00:00 UTC; the Sunday after is four days on.
constexpr std::int64_t wednesday = 1'700'006'400;

// A clock and a disk the test moves by hand.
struct World {
    std::int64_t now = wednesday;
    std::uint64_t free = 40 * GB;

    CompanionService::Sources sources() {
        return {[this] { return now; },
                [this]() -> std::optional<platform::VolumeFigures> {
                    platform::VolumeFigures f;
                    f.freeBytes = free;
                    f.totalBytes = 500 * GB;
                    f.usedBytes = f.totalBytes - free;
                    return f;
                },
                [] {
                    return std::vector<LeftBehindData>{};
                }};
    }
};

QList<QJsonObject> notices(const QString& log) {
    QList<QJsonObject> out;
    QFile file(log);
    if (file.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : file.readAll().split('\n')) {
            if (!line.isEmpty()) {
                out.push_back(QJsonDocument::fromJson(line).object());
            }
        }
    }
    return out;
}

} // namespace

class CompanionDesktopTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        qputenv("TZ", "UTC");
        tzset();
    }

    void noticesAreFewAndSurviveARestart() {
        if (qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS")) {
            QSKIP("needs a private session bus: run under dbus-run-session");
        }
        QDBusConnection bus = QDBusConnection::sessionBus();
        QVERIFY(bus.isConnected());
        QVERIFY2(
            !bus.interface()->isServiceRegistered(QStringLiteral("org.freedesktop.Notifications")),
            "a real notification server is on this bus");
        const QString folder = QString::fromStdString(freshFolder("companion-dbus"));
        const QString log = folder + QStringLiteral("/notices.jsonl");
        QDBusServiceWatcher watcher(QStringLiteral("org.freedesktop.Notifications"), bus,
                                    QDBusServiceWatcher::WatchForRegistration);
        QSignalSpy registered(&watcher, &QDBusServiceWatcher::serviceRegistered);
        QProcess server;
        server.start(QStringLiteral(SPARROWDECK_FAKE_NOTIFICATION_SERVER),
                     {log, QStringLiteral("--press-review")});
        QVERIFY(server.waitForStarted());
        QVERIFY(registered.wait(20'000));

        const std::string history = (folder + QStringLiteral("/history.sqlite")).toStdString();
        World world;
        auto companion = std::make_unique<companion::Companion>(history, world.sources());
        QSignalSpy review(companion.get(), &companion::Companion::reviewRequested);

        // Free space falls under 10 GB over a few samples: one notice, not one per sample.
        for (std::uint64_t free : {30, 20, 12, 9, 8, 7, 6}) {
            world.free = free * GB;
            world.now += hour / 2;
            companion->look();
            QVERIFY2(companion->problem().isEmpty(), qPrintable(companion->problem()));
        }
        QList<QJsonObject> sent = notices(log);
        QCOMPARE(sent.size(), 1);
        QCOMPARE(sent[0][QStringLiteral("summary")].toString(),
                 QStringLiteral("Your disk is almost full"));
        QVERIFY(sent[0][QStringLiteral("body")].toString().startsWith(
            QStringLiteral("Only 9.00 GB of 500.0 GB is free.")));
        QVERIFY(sent[0][QStringLiteral("actions")].toString().contains(QStringLiteral("review")));
        // The server pressed "Review": the companion asks for the Sweep.
        QVERIFY(review.wait(10'000));
        QCOMPARE(review.first().first().value<ReviewScreen>(), ReviewScreen::sweep);

        // Sunday: one digest, and no second one for another look that day.
        world.now = wednesday + 4 * 24 * hour + 10 * hour;
        companion->look();
        companion->look();
        sent = notices(log);
        QCOMPARE(sent.size(), 2);
        QCOMPARE(sent[1][QStringLiteral("summary")].toString(),
                 QStringLiteral("Your disk this week"));

        // A restart inside the same week, still low on space: nothing is said again.
        companion.reset();
        companion = std::make_unique<companion::Companion>(history, world.sources());
        world.now += 2 * hour;
        companion->start();
        companion->look();
        QCOMPARE(notices(log).size(), 2);
        QVERIFY(companion->watched().contains(QString::fromStdString(fixtureHome())));

        server.terminate();
        server.waitForFinished();
    }

    void aLightRescanKeepsTheHistoryGoing() {
        makeDirs(fixtureHome() + "/rescan-me");
        writeFilledFile(fixtureHome() + "/rescan-me/data", 2'000'000);
        World world;
        const std::string history = freshFolder("companion-rescan") + "/history.sqlite";
        companion::Companion companion(history, world.sources());
        QSignalSpy rescanned(&companion, &companion::Companion::rescanned);
        auto kept = [&] {
            return ScanHistory(history).snapshots(fixtureHome());
        };

        companion.look(); // nothing kept yet: the first look rescans
        QVERIFY(rescanned.wait(30'000));
        QCOMPARE(kept().size(), size_t{1});
        QCOMPARE(kept().front().takenAt, world.now);
        QVERIFY(kept().front().totalBytes >= 2'000'000);

        world.now += 2 * 3600; // too soon, and nothing watched changed
        companion.look();
        QVERIFY(!companion.rescans().isRunning());

        world.now += 5 * 3600; // six hours on
        companion.look();
        QVERIFY(rescanned.wait(30'000));
        QCOMPARE(kept().size(), size_t{2});
        QVERIFY2(companion.problem().isEmpty(), qPrintable(companion.problem()));
    }

    void aDesktopWithoutATrayGetsTheWindow() {
        if (QGuiApplication::platformName() != QStringLiteral("xcb")) {
            QSKIP("needs an X display without a tray (xvfb-run)");
        }
        QVERIFY(!QSystemTrayIcon::isSystemTrayAvailable());
        World world;
        const std::string history = freshFolder("companion-tray") + "/history.sqlite";
        companion::TrayShell shell(
            std::make_unique<companion::Companion>(history, world.sources()));
        QCOMPARE(shell.start(), QString::fromUtf8(companion::noTrayText));
        QVERIFY(!shell.hasTray());
        QVERIFY(shell.window() != nullptr);
        QVERIFY(QTest::qWaitForWindowExposed(shell.window()));

        // The program itself says the same on standard error and shows its window.
        QProcess app;
        app.setProgram(QStringLiteral(SPARROWDECK_APP));
        app.setArguments({QStringLiteral("--tray")});
        app.setProcessChannelMode(QProcess::MergedChannels);
        app.start();
        QVERIFY(app.waitForStarted());
        QByteArray said;
        while (!said.contains(companion::noTrayText) && app.waitForReadyRead(20'000)) {
            said += app.readAll();
        }
        QVERIFY2(said.contains(companion::noTrayText), said.constData());
        QCOMPARE(app.state(), QProcess::Running);
        app.terminate();
        app.waitForFinished();
    }
};

SD_REGISTER_APP_TEST(CompanionDesktopTest);

} // namespace sd::test

#include "CompanionDesktopTest.moc"
