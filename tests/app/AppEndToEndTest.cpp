#include "AppTestMain.h"
#include "Fixture.h"
#include "app/MainWindow.h"
#include "app/Pages.h"
#include "app/SpaceMapPage.h"
#include "app/Widgets.h"

#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QFileDialog>
#include <QLineEdit>
#include <QMessageBox>
#include <QScopeGuard>
#include <QScrollBar>
#include <QTest>
#include <QTimer>
#include <filesystem>
#include <map>

namespace sd::app {
namespace {

// Drives the real window the way a person would: clicks, confirmations, waiting for workers.
class AppEndToEndTest : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<MainWindow> window_;
    QString shots_ = QStringLiteral(SPARROWDECK_SCREENSHOT_DIR);
    QStringList dialogTexts_;

    void shoot(const QString& name) {
        QApplication::processEvents();
        QVERIFY(window_->grab().save(shots_ + "/" + name + ".png"));
    }

    // Accepts the next confirmations that open, one for each name, after saving a picture of
    // each (an empty name saves none).
    void acceptNextDialogs(const QStringList& shotNames) {
        auto* poll = new QTimer(this);
        poll->setInterval(20);
        auto left = std::make_shared<QStringList>(shotNames);
        connect(poll, &QTimer::timeout, this, [this, poll, left] {
            auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            if (box == nullptr || box->property("accepted by the test").toBool()) {
                return;
            }
            box->setProperty("accepted by the test", true);
            dialogTexts_ << box->text() + "\n" + box->informativeText();
            QString shot = left->takeFirst();
            if (!shot.isEmpty()) {
                box->grab().save(shots_ + "/" + shot + ".png");
            }
            if (left->isEmpty()) {
                poll->stop();
                poll->deleteLater();
            }
            for (QAbstractButton* button : box->buttons()) {
                if (box->buttonRole(button) == QMessageBox::AcceptRole) {
                    button->click();
                }
            }
        });
        poll->start();
    }
    void acceptNextDialog(const QString& shotName = {}) { acceptNextDialogs({shotName}); }

    // Hands the next modal dialog of this kind to `act` once it is open.
    template <typename Dialog> void whenModal(std::function<void(Dialog*)> act) {
        auto* poll = new QTimer(this);
        poll->setInterval(20);
        connect(poll, &QTimer::timeout, this, [poll, act = std::move(act)] {
            auto* dialog = qobject_cast<Dialog*>(QApplication::activeModalWidget());
            if (dialog == nullptr) {
                return;
            }
            poll->stop();
            poll->deleteLater();
            act(dialog);
        });
        poll->start();
    }

    static void clickTile(TileView* view, int row) {
        QRect rect = view->visualRect(view->model()->index(row, 0));
        QTest::mouseClick(view->viewport(), Qt::LeftButton, {}, rect.center());
    }

    // Presses a key where the keyboard's focus is, as a person would.
    static void press(Qt::Key key, Qt::KeyboardModifiers modifiers = Qt::NoModifier) {
        QWidget* focused = QApplication::focusWidget();
        QVERIFY(focused != nullptr);
        QTest::keyClick(focused, key, modifiers);
    }

    // Tabs forward until `target` has the keyboard's focus.
    static void tabTo(QWidget* target) {
        for (int i = 0; i < 40 && QApplication::focusWidget() != target; ++i) {
            press(Qt::Key_Tab);
        }
        QCOMPARE(QApplication::focusWidget(), target);
    }

    // The colour of every wedge on the map, by path.
    static std::map<QString, QColor> wedgeColours(const SunburstView* view,
                                                  const QAbstractItemModel& model) {
        std::map<QString, QColor> colours;
        std::vector<QModelIndex> pending{view->rootIndex()};
        while (!pending.empty()) {
            QModelIndex at = pending.back();
            pending.pop_back();
            for (int r = 0; r < model.rowCount(at); ++r) {
                QModelIndex child = model.index(r, 0, at);
                if (std::optional<QColor> c = view->colourOf(child)) {
                    if (!child.data(isOtherRole).toBool()) {
                        colours[child.data(pathRole).toString()] = *c;
                    }
                    pending.push_back(child);
                }
            }
        }
        return colours;
    }

    std::vector<std::string> cacheFolders(const std::set<std::string>& targets) const {
        std::vector<std::string> out;
        for (const test::FixtureCache& c : test::fixtureCaches()) {
            if (targets.count(c.targetID) != 0) {
                out.push_back(test::fixtureHome() + "/" + c.folder);
            }
        }
        return out;
    }

private slots:
    void initTestCase() {
        QDir().mkpath(shots_);
        for (const QString& old : QDir(shots_).entryList({QStringLiteral("*.png")})) {
            QFile::remove(shots_ + "/" + old);
        }
        test::writeFixtureCaches(test::fixtureHome());
        // Something the person put in the Trash themselves, and files of their own.
        test::runShell("cd " + test::shellQuote(test::fixtureHome()) +
                       " && mkdir -p Documents && head -c 700000 /dev/urandom > old-draft.bin"
                       " && echo 'quarterly figures' > Documents/report.txt");
        if (test::haveTool("trash-put")) {
            test::runShell(
                "XDG_DATA_HOME=" + test::shellQuote(test::fixtureHome() + "/.local/share") +
                " trash-put " + test::shellQuote(test::fixtureHome() + "/old-draft.bin"));
        }
        applyStyle(*qApp);
        window_ = std::make_unique<MainWindow>();
        window_->resize(1240, 820);
        window_->show();
        QVERIFY(QTest::qWaitForWindowExposed(window_.get()));
    }

    void firstStartShowsTheIntroduction() {
        QVERIFY(window_->introductionShown());
        shoot("onboarding");
        QTest::mouseClick(window_->onboardingPage()->startButton(), Qt::LeftButton);
        QVERIFY(!window_->introductionShown());
        // Once seen, it stays away on the next start.
        MainWindow again;
        QVERIFY(!again.introductionShown());
    }

    void everyScreenByKeyboardAlone() {
        window_->activateWindow();
        QTRY_VERIFY(window_->isActiveWindow());
        window_->sidebar()->setFocus();
        using Screen = MainWindow::Screen;

        // Sweep: Return sweeps; once tiles are ticked, Return asks to move them, and Escape
        // answers the question without moving anything.
        press(Qt::Key_1, Qt::ControlModifier);
        QCOMPARE(window_->currentScreen(), Screen::sweep);
        SweepPage* sweep = window_->sweepPage();
        press(Qt::Key_Return);
        QVERIFY(sweep->runner().isRunning());
        QTRY_VERIFY_WITH_TIMEOUT(!sweep->runner().isRunning(), 60000);
        QVERIFY(sweep->state().sweep != nullptr);
        // A Sweep ticks nothing by itself; the person ticks a tile, and then Return asks.
        QVERIFY(sweep->state().selection.empty());
        clickTile(sweep->tileView(), static_cast<int>(SweepTileKind::developer));
        QCOMPARE(sweep->state().selection, std::set<SweepTileKind>{SweepTileKind::developer});
        std::string before = test::checksums(cacheFolders({"python_tools"}));
        bool asked = false;
        QTimer::singleShot(0, this, [&] {
            QMessageBox* box = nullptr;
            QTRY_VERIFY((box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())));
            auto closeAnyway = qScopeGuard([box] { box->reject(); });
            // Xvfb has no window manager to hand a new window the keyboard.
            box->activateWindow();
            QTRY_VERIFY(box->isActiveWindow());
            asked = true;
            press(Qt::Key_Escape);
            closeAnyway.dismiss();
        });
        press(Qt::Key_Return);
        QVERIFY(asked);
        // And back to the window, as a window manager would once the question closed.
        window_->activateWindow();
        QTRY_VERIFY(window_->isActiveWindow());
        QVERIFY(!sweep->runner().isRunning());
        QCOMPARE(test::checksums(cacheFolders({"python_tools"})), before);
        // Untick it again, so the next Sweep has nothing of the person's to remember.
        clickTile(sweep->tileView(), static_cast<int>(SweepTileKind::developer));
        QVERIFY(sweep->state().chosen.empty());

        // Cleanup: Return measures.
        press(Qt::Key_2, Qt::ControlModifier);
        QCOMPARE(window_->currentScreen(), Screen::cleanup);
        press(Qt::Key_Return);
        QTRY_VERIFY_WITH_TIMEOUT(window_->cleanupPage()->step() == CleanupPage::Step::scanned,
                                 60000);

        // Space Map: Ctrl+R scans; the arrows choose a wedge, Enter zooms in, Backspace out.
        press(Qt::Key_3, Qt::ControlModifier);
        QCOMPARE(window_->currentScreen(), Screen::spaceMap);
        SpaceMapPage* map = window_->spaceMapPage();
        press(Qt::Key_R, Qt::ControlModifier);
        QVERIFY(map->runner().isRunning());
        QTRY_VERIFY_WITH_TIMEOUT(!map->runner().isRunning(), 60000);
        SunburstView* sunburst = map->sunburst();
        tabTo(sunburst);
        QModelIndex home = map->model().index(0, 0);
        QCOMPARE(sunburst->rootIndex(), home);
        press(Qt::Key_Down);
        QModelIndex biggest = map->model().index(0, 0, home);
        QCOMPARE(sunburst->selectedIndex(), biggest);
        press(Qt::Key_Right);
        QCOMPARE(sunburst->selectedIndex(), map->model().index(1, 0, home));
        press(Qt::Key_Left);
        QCOMPARE(sunburst->selectedIndex(), biggest);
        press(Qt::Key_Enter);
        QCOMPARE(sunburst->rootIndex(), biggest);
        shoot("keyboard-space-map-zoomed");
        press(Qt::Key_Backspace);
        QCOMPARE(sunburst->rootIndex(), home);
        // The folder just left stays chosen, so Return goes straight back in.
        QCOMPARE(sunburst->selectedIndex(), biggest);
        press(Qt::Key_Return);
        QCOMPARE(sunburst->rootIndex(), biggest);
        press(Qt::Key_Backspace);

        // Apps: opening the screen reads the list; Ctrl+R reads it again.
        press(Qt::Key_4, Qt::ControlModifier);
        QCOMPARE(window_->currentScreen(), Screen::apps);
        QTRY_VERIFY_WITH_TIMEOUT(!window_->appsPage()->runner().isRunning(), 60000);
        press(Qt::Key_R, Qt::ControlModifier);
        QVERIFY(window_->appsPage()->runner().isRunning());
        QTRY_VERIFY_WITH_TIMEOUT(!window_->appsPage()->runner().isRunning(), 60000);

        // Worth a look: Ctrl+5 opens Large & old, and again Duplicates, then Snapshots; Return
        // searches each review.
        press(Qt::Key_5, Qt::ControlModifier);
        QCOMPARE(window_->currentScreen(), Screen::largeOld);
        press(Qt::Key_Return);
        QTRY_VERIFY_WITH_TIMEOUT(!window_->largeOldPage()->runner().isRunning(), 60000);
        QCOMPARE(window_->largeOldPage()->searchButton()->text(), QStringLiteral("Search Again"));
        press(Qt::Key_5, Qt::ControlModifier);
        QCOMPARE(window_->currentScreen(), Screen::duplicates);
        press(Qt::Key_Return);
        QTRY_VERIFY_WITH_TIMEOUT(!window_->duplicatesPage()->runner().isRunning(), 60000);
        QCOMPARE(window_->duplicatesPage()->searchButton()->text(), QStringLiteral("Search Again"));
        press(Qt::Key_5, Qt::ControlModifier);
        QCOMPARE(window_->currentScreen(), Screen::snapshots);
        press(Qt::Key_5, Qt::ControlModifier);
        QCOMPARE(window_->currentScreen(), Screen::largeOld);

        // Activity, then Settings: Space switches a cache out of every Sweep and back in.
        press(Qt::Key_6, Qt::ControlModifier);
        QCOMPARE(window_->currentScreen(), Screen::activity);
        press(Qt::Key_7, Qt::ControlModifier);
        QCOMPARE(window_->currentScreen(), Screen::settings);
        SettingsPage* settings = window_->settingsPage();
        tabTo(settings->list());
        QModelIndex first = settings->model().index(0, 0);
        settings->list()->setCurrentIndex(first);
        QCOMPARE(first.data(Qt::CheckStateRole).value<Qt::CheckState>(), Qt::Checked);
        press(Qt::Key_Space);
        QCOMPARE(first.data(Qt::CheckStateRole).value<Qt::CheckState>(), Qt::Unchecked);
        press(Qt::Key_Space);
        QCOMPARE(first.data(Qt::CheckStateRole).value<Qt::CheckState>(), Qt::Checked);

        // Return on a focused button presses that button: the introduction comes back, and
        // Return leaves it again.
        tabTo(settings->introductionButton());
        press(Qt::Key_Return);
        QVERIFY(window_->introductionShown());
        QCOMPARE(window_->currentScreen(), std::nullopt);
        press(Qt::Key_Return);
        QVERIFY(!window_->introductionShown());

        // The sidebar moves between screens with the arrows too.
        window_->showScreen(Screen::sweep);
        window_->sidebar()->setFocus();
        press(Qt::Key_Down);
        QCOMPARE(window_->currentScreen(), Screen::cleanup);
    }

    void spaceMapScansHoversAndZooms() {
        window_->showScreen(MainWindow::Screen::spaceMap);
        SpaceMapPage* page = window_->spaceMapPage();
        shoot("space-map-before");
        // Stream anything of 3 MB or more while the scan runs, as 512 MiB would be on a real home.
        page->setStreamMinimumBytes(3'000'000);
        {
#ifdef SPARROWDECK_TEST_HOOKS
            // Hold one worker in the npm cache while the others find the big items.
            test::WalkPause pause(test::fixtureHome() + "/.npm/");
#endif
            QTest::mouseClick(page->scanButton(), Qt::LeftButton);
            QVERIFY(page->runner().isRunning());
#ifdef SPARROWDECK_TEST_HOOKS
            QTRY_VERIFY(pause.reached());
            QTRY_VERIFY_WITH_TIMEOUT(page->bigItems()->count() > 0, 10000);
            QVERIFY(page->runner().isRunning());
            shoot("space-map-scanning");
            pause.release();
#endif
            QTRY_VERIFY_WITH_TIMEOUT(!page->runner().isRunning(), 60000);
        }
        QVERIFY(page->state().tree().has_value());
        const SpaceTree& tree = *page->state().tree();
        QCOMPARE(tree.root.path, test::fixtureHome());
        QVERIFY(page->statusText().contains("Measured whole — the map stops six levels down."));
        shoot("space-map");

        // Hovering names a wedge; clicking a folder's wedge zooms into it, the middle back out.
        SunburstView* sunburst = page->sunburst();
        QModelIndex cache = page->model().indexOfPath(test::fixtureHome() + "/.cache");
        QCOMPARE(cache.data(pathRole).toString(),
                 QString::fromStdString(test::fixtureHome() + "/.cache"));
        std::optional<QPointF> at = sunburst->centreOf(cache);
        QVERIFY(at.has_value());
        QTest::mouseMove(sunburst, at->toPoint());
        QCOMPARE(sunburst->indexAt(*at), cache);
        QTest::mouseClick(sunburst, Qt::LeftButton, {}, at->toPoint());
        QCOMPARE(sunburst->rootIndex(), cache);
        QVERIFY(page->revealButton()->isEnabled());
        shoot("space-map-zoomed");
        QTest::mouseClick(sunburst, Qt::LeftButton, {}, sunburst->rect().center());
        QCOMPARE(sunburst->rootIndex(), page->model().index(0, 0));
        // The mouse's back button goes back out too, from the list as well as the map.
        QTest::mouseClick(sunburst, Qt::LeftButton, {}, at->toPoint());
        QCOMPARE(sunburst->rootIndex(), cache);
        QTest::mouseClick(page->list()->viewport(), Qt::BackButton);
        QCOMPARE(sunburst->rootIndex(), page->model().index(0, 0));
    }

    void spaceMapNamesWedgesAndKeepsColours() {
        window_->showScreen(MainWindow::Screen::spaceMap);
        SpaceMapPage* page = window_->spaceMapPage();
        SunburstView* sunburst = page->sunburst();
        QModelIndex home = page->model().index(0, 0);
        sunburst->setRootIndex(home);

        // The biggest folders are named on their wedges, in full.
        std::map<QString, QString> named;
        for (const SunburstView::Label& label : sunburst->labels()) {
            named[label.index.data(pathRole).toString()] = label.text;
        }
        const std::string& h = test::fixtureHome();
        for (const std::string& folder : {h + "/.cache", h + "/.config", h + "/.cache/pip",
                                          h + "/.cache/google-chrome", h + "/.cache/huggingface"}) {
            QString path = QString::fromStdString(folder);
            QVERIFY2(named.count(path) != 0, qPrintable(path));
            QCOMPARE(named[path], QString::fromStdString(folder.substr(folder.rfind('/') + 1)));
        }

        // Caches the Sweep measures are marked on the map and in the list; their parents not.
        QModelIndex pip = page->model().indexOfPath(h + "/.cache/pip");
        QVERIFY(!pip.data(knownCacheRole).toString().isEmpty());
        QVERIFY(page->model().indexOfPath(h + "/.cache").data(knownCacheRole).toString().isEmpty());

        // Zooming in and back out keeps the colour of every folder still on the map.
        std::map<QString, QColor> atHome = wedgeColours(sunburst, page->model());
        QModelIndex cache = page->model().indexOfPath(h + "/.cache");
        sunburst->select(cache);
        QVERIFY(sunburst->zoomIn());
        std::map<QString, QColor> inCache = wedgeColours(sunburst, page->model());
        QVERIFY(inCache.size() > 3);
        int shared = 0;
        for (const auto& [path, colour] : inCache) {
            if (atHome.count(path) != 0) {
                QCOMPARE(colour, atHome[path]);
                ++shared;
            }
        }
        QVERIFY(shared >= 3);
        // Deeper folders come into view with the colours the list shows for them.
        for (const auto& [path, colour] : inCache) {
            QCOMPARE(page->model().indexOfPath(path.toStdString()).data(colourRole).value<QColor>(),
                     colour);
        }
        shoot("space-map-zoomed-labels");
        QVERIFY(sunburst->zoomOut());
        QCOMPARE(wedgeColours(sunburst, page->model()), atHome);
    }

    void spaceMapMapsAFolderChosenWithThePicker() {
        window_->showScreen(MainWindow::Screen::spaceMap);
        SpaceMapPage* page = window_->spaceMapPage();
        const std::string& h = test::fixtureHome();
        std::string chosen = h + "/.cache";

        // The picker is a dialog of its own: type the folder and press Return.
        QTest::mouseClick(page->chooseFolderButton(), Qt::LeftButton);
        QFileDialog* dialog = nullptr;
        QTRY_VERIFY((dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget())));
        shoot("space-map-picker");
        auto* name = dialog->findChild<QLineEdit*>(QStringLiteral("fileNameEdit"));
        QVERIFY(name != nullptr);
        name->setFocus();
        name->clear();
        QTest::keyClicks(name, QString::fromStdString(chosen));
        QTest::keyClick(name, Qt::Key_Return);
        QTRY_VERIFY(!dialog->isVisible());
        QCOMPARE(page->root(), chosen);
        QTRY_VERIFY_WITH_TIMEOUT(!page->runner().isRunning(), 60000);
        QCOMPARE(page->state().tree()->root.path, chosen);
        QVERIFY(page->statusText().startsWith("~/.cache — "));
        QVERIFY(page->model().indexOfPath(h + "/.npm").data(pathRole).toString().isEmpty());
        shoot("space-map-folder");

        // A folder outside the home is refused with a sentence, and the map stays as it was.
        page->mapFolder("/usr");
        QVERIFY(!page->runner().isRunning());
        QCOMPARE(page->root(), chosen);
        auto* banner = page->findChild<Banner*>();
        QVERIFY(banner->text().contains("outside your home folder"));

        page->mapFolder(h);
        QTRY_VERIFY_WITH_TIMEOUT(!page->runner().isRunning(), 60000);
        QCOMPARE(page->state().tree()->root.path, h);
    }

    void showInFilesSaysWhenNoFileManagerAnswers() {
        QDBusConnection bus = QDBusConnection::sessionBus();
        if (bus.isConnected() &&
            bus.interface()->isServiceRegistered(QStringLiteral("org.freedesktop.FileManager1"))) {
            QSKIP("A file manager answers on this session bus, so there is no silence to report.");
        }
        // No file manager, and no opener on PATH to fall back on.
        QByteArray path = qgetenv("PATH");
        qputenv("PATH", QByteArray::fromStdString(test::freshFolder("empty-path")));
        window_->showScreen(MainWindow::Screen::spaceMap);
        SpaceMapPage* page = window_->spaceMapPage();
        page->sunburst()->select(page->model().indexOfPath(test::fixtureHome() + "/.cache"));
        QTest::mouseClick(page->revealButton(), Qt::LeftButton);
        QTRY_VERIFY(window_->notice()->isVisible());
        qputenv("PATH", path);
        QVERIFY(window_->notice()->text().startsWith("No file manager answered"));
        QVERIFY(window_->notice()->detail().contains("~/.cache"));
        shoot("show-in-files-unanswered");
        // The news goes with the screen it was about.
        window_->showScreen(MainWindow::Screen::sweep);
        QVERIFY(!window_->notice()->isVisible());
    }

    void sweepReclaimAndPutBack() {
        SweepPage* page = window_->sweepPage();
        window_->showScreen(MainWindow::Screen::sweep);
        shoot("sweep-before");

        std::vector<std::string> developer =
            cacheFolders({"python_tools", "javascript_tools", "rust_go"});
        std::vector<std::string> untouched =
            cacheFolders({"browser_caches", "ide_caches", "ml_framework_caches"});
        std::string developerSums = test::checksums(developer);
        std::string untouchedSums = test::checksums(untouched);
        QVERIFY(!developerSums.empty());

        {
#ifdef SPARROWDECK_TEST_HOOKS
            // Hold the walk inside the pip cache so the picture shows a Sweep under way.
            test::WalkPause pause(test::fixtureHome() + "/.cache/pip/");
#endif
            QTest::mouseClick(page->sweepButton(), Qt::LeftButton);
            QVERIFY(page->runner().isRunning());
#ifdef SPARROWDECK_TEST_HOOKS
            QTRY_VERIFY(pause.reached());
            // The picture waits for the first progress the window shows.
            auto* strip = page->findChild<ProgressStrip*>();
            QTRY_VERIFY(strip->message().startsWith("Measuring"));
            QVERIFY(page->sweepButton()->isEnabled() == false);
            shoot("sweep-running");
            pause.release();
#endif
            QTRY_VERIFY_WITH_TIMEOUT(!page->runner().isRunning(), 60000);
        }
        QVERIFY2(page->state().sweep != nullptr, qPrintable(page->banner()->text()));

        // The developer tile holds exactly the fixture's developer caches, as find counts them.
        const SweepTile* tile = page->state().sweep->tile(SweepTileKind::developer);
        QVERIFY(tile != nullptr);
        std::uint64_t peer = 0;
        for (const std::string& folder : developer) {
            peer += test::peerAllocatedBytes(folder);
        }
        QCOMPARE(tile->bytes, peer);
        QVERIFY(page->state().sweep->tile(SweepTileKind::trash)->bytes > 0);
        shoot("sweep-results");

        // Nothing starts ticked; the person ticks the developer tile, and that is remembered.
        QVERIFY(page->state().selection.empty());
        clickTile(page->tileView(), static_cast<int>(SweepTileKind::developer));
        QCOMPARE(platform::UserDefaults::standard().string(chosenTilesKey), "developer");
        // The Trash tile is never ticked, whatever is clicked.
        clickTile(page->tileView(), static_cast<int>(SweepTileKind::trash));
        QCOMPARE(page->state().selection, std::set<SweepTileKind>{SweepTileKind::developer});
        shoot("sweep-ticked");

        acceptNextDialog(QStringLiteral("sweep-confirm"));
        QTest::mouseClick(page->reclaimButton(), Qt::LeftButton);
        QVERIFY(
            dialogTexts_.last().contains(QString::fromStdString(std::string(sweepRecheckText))));
        QTRY_VERIFY_WITH_TIMEOUT(!page->runner().isRunning(), 60000);
        QVERIFY2(page->banner()->text().startsWith("Moved"), qPrintable(page->banner()->text()));
        shoot("sweep-reclaimed");
        // The tiles are measured again at once: the developer caches are gone from theirs, the
        // Trash holds what du finds there, and the remembered tick is back on nothing to move.
        QCOMPARE(page->state().sweep->tile(SweepTileKind::developer)->bytes, std::uint64_t{0});
        QCOMPARE(page->state().sweep->tile(SweepTileKind::trash)->bytes,
                 test::peerAllocatedBytes(test::fixtureHome() + "/.local/share/Trash/files"));
        QVERIFY(page->state().selection.empty());

        // The Space Map lost the moved caches without scanning again.
        SpaceMapPage* map = window_->spaceMapPage();
        QVERIFY(map->state().isStale());
        for (const std::string& folder : developer) {
            QVERIFY(map->model().indexOfPath(folder).data(pathRole).toString().toStdString() !=
                    folder);
        }
        QVERIFY(map->statusText().contains("Updated for what moved to the Trash since"));

        // The developer caches are in the Trash, byte for byte, and nothing else moved.
        for (const std::string& folder : developer) {
            QVERIFY2(!std::filesystem::exists(folder), folder.c_str());
        }
        QCOMPARE(test::checksums(untouched), untouchedSums);
        std::string trashFiles = test::fixtureHome() + "/.local/share/Trash/files";
        std::string inTrash = test::runShell("cd " + test::shellQuote(trashFiles) +
                                             " && find . -type f -exec sha256sum {} + | "
                                             "awk '{print $1}' | sort")
                                  .output;
        std::string expected = test::runShell("printf '%s' " + test::shellQuote(developerSums) +
                                              " | awk '{print $1}' | sort")
                                   .output;
        for (const QString& sum :
             QString::fromStdString(expected).split('\n', Qt::SkipEmptyParts)) {
            QVERIFY2(QString::fromStdString(inTrash).contains(sum), qPrintable(sum));
        }
        if (test::haveTool("trash-list")) {
            std::string listed =
                test::runShell(
                    "XDG_DATA_HOME=" + test::shellQuote(test::fixtureHome() + "/.local/share") +
                    " trash-list 2>/dev/null")
                    .output;
            for (const std::string& folder : developer) {
                QVERIFY2(listed.find(folder) != std::string::npos, listed.c_str());
            }
        }

        // Activity lists the Sweep first, with every item in the Trash.
        window_->showScreen(MainWindow::Screen::activity);
        ActivityPage* activity = window_->activityPage();
        QModelIndex newest = activity->model().index(0, 0);
        QCOMPARE(activity->model().entryAt(newest)->kind, JournalKind::sweep);
        activity->tree()->setCurrentIndex(activity->model().index(0, 0, newest));
        shoot("activity");

        // One item put back alone reappears; its siblings stay in the Trash.
        const TrashedItem* chosen = activity->model().itemAt(activity->tree()->currentIndex());
        QVERIFY(chosen != nullptr);
        const std::string alone = chosen->originalPath;
        QVERIFY(activity->putBackItemButton()->isEnabled());
        acceptNextDialog();
        QTest::mouseClick(activity->putBackItemButton(), Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(!activity->runner().isRunning(), 30000);
        QVERIFY2(std::filesystem::exists(alone), alone.c_str());
        for (const std::string& folder : developer) {
            if (folder != alone) {
                QVERIFY2(!std::filesystem::exists(folder), folder.c_str());
            }
        }

        window_->showScreen(MainWindow::Screen::sweep);
        QVERIFY(page->putBackButton()->isVisible());
        acceptNextDialog();
        QTest::mouseClick(page->putBackButton(), Qt::LeftButton);
        QVERIFY(dialogTexts_.last().contains(
            QString::fromStdString(std::string(putBackConfirmationText))));
        QTRY_VERIFY_WITH_TIMEOUT(page->banner()->text().startsWith("Put back"), 30000);
        shoot("sweep-put-back");

        // Everything is back where it was, unchanged, and gone from the Trash.
        QCOMPARE(test::checksums(developer), developerSums);
        inTrash =
            test::runShell("find " + test::shellQuote(trashFiles) + " -type f | wc -l").output;
        QCOMPARE(std::stoi(inTrash), 1); // only what the person trashed themselves
        window_->showScreen(MainWindow::Screen::activity);
        QCOMPARE(activity->model().index(0, ActivityModel::statusColumn).data().toString(),
                 QStringLiteral("Everything put back"));
    }

    void cleanupMeasuresCleansAndPutsBack() {
        window_->showScreen(MainWindow::Screen::cleanup);
        CleanupPage* page = window_->cleanupPage();
        shoot("cleanup-before");
        QTest::mouseClick(page->measureButton(), Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(!page->runner().isRunning(), 60000);
        QCOMPARE(page->step(), CleanupPage::Step::scanned);
        // With empty caches hidden, the fixture's targets are what is left to see.
        std::set<std::string> shown;
        for (int row = 0; row < page->filter().rowCount(); ++row) {
            QModelIndex source = page->filter().mapToSource(page->filter().index(row, 0));
            shown.insert(page->model().targetAt(source)->id);
        }
        std::set<std::string> expected;
        for (const test::FixtureCache& c : test::fixtureCaches()) {
            expected.insert(c.targetID);
        }
        QCOMPARE(shown, expected);
        shoot("cleanup-measured");

        // Caches that apps use while they run ask a second time before they move.
        std::vector<std::string> all;
        for (const test::FixtureCache& c : test::fixtureCaches()) {
            all.push_back(test::fixtureHome() + "/" + c.folder);
        }
        std::string before = test::checksums(all);
        dialogTexts_.clear();
        acceptNextDialogs({QString(), QStringLiteral("cleanup-confirm-again")});
        QTest::mouseClick(page->cleanButton(), Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(page->step() == CleanupPage::Step::done, 60000);
        QCOMPARE(dialogTexts_.size(), 2);
        QVERIFY(dialogTexts_[0].contains(QString::fromStdString(std::string(sweepRecheckText))));
        QVERIFY(dialogTexts_[1].contains("Python package caches"));
        QVERIFY2(page->banner()->text().startsWith("Moved"), qPrintable(page->banner()->text()));
        QVERIFY(page->banner()->detail().contains("Checked again: 0 bytes still in these caches."));
        for (const std::string& folder : all) {
            QVERIFY2(test::runShell("find " + test::shellQuote(folder) + " -type f 2>/dev/null")
                         .output.empty(),
                     folder.c_str());
        }
        shoot("cleanup-cleaned");

        // Put Back from the cleanup's own result returns everything, byte for byte.
        acceptNextDialog();
        QVERIFY(page->putBackButton()->isVisible());
        QTest::mouseClick(page->putBackButton(), Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(
            page->banner()->text().endsWith("returned to their original locations."), 30000);
        QCOMPARE(test::checksums(all), before);
        shoot("cleanup-put-back");
    }

    void duplicatesMoveOnlyWhatIsTicked() {
        const std::string& h = test::fixtureHome();
        test::runShell(
            "cd " + test::shellQuote(h) +
            " && mkdir -p Documents Backups/old-laptop Downloads Projects/site"
            " && head -c 1500000 /dev/urandom > Documents/holiday.mov"
            " && cp Documents/holiday.mov Backups/old-laptop/holiday.mov"
            " && cp Documents/holiday.mov Downloads/holiday.mov"
            " && cp Documents/holiday.mov Projects/site/holiday.mov"
            " && git -C Projects/site init -q && git -C Projects/site add holiday.mov"
            " && git -C Projects/site -c user.name=t -c user.email=t@example.org commit -qm x"
            // Photos copied around inside Pictures: every copy is in the person's own folder.
            " && mkdir -p Pictures/2019 Pictures/backup Pictures/phone"
            " && head -c 1300000 /dev/urandom > Pictures/2019/beach.jpg"
            " && cp Pictures/2019/beach.jpg Pictures/backup/beach.jpg"
            " && cp Pictures/2019/beach.jpg Pictures/phone/beach.jpg");
        std::string sums = test::checksums({h + "/Documents", h + "/Pictures"});
        window_->showScreen(MainWindow::Screen::duplicates);
        DuplicatesPage* page = window_->duplicatesPage();
        QTest::mouseClick(page->searchButton(), Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(!page->runner().isRunning(), 60000);
        QAbstractItemModel& model = page->model();
        QCOMPARE(model.rowCount(), 2);
        QModelIndex group, photos;
        for (int r = 0; r < 2; ++r) {
            QModelIndex at = model.index(r, 0);
            (at.data().toString().startsWith("holiday.mov") ? group : photos) = at;
        }
        QCOMPARE(model.rowCount(group), 4);
        QCOMPARE(model.rowCount(photos), 3);

        // Every copy of the photo is in Pictures: the group says so once, with one "Show in
        // Files" for all three copies, and none of its rows repeats it.
        int saidOnce = 0;
        int repeated = 0;
        for (const QModelIndex& row : {photos, model.index(0, 0, photos), model.index(1, 0, photos),
                                       model.index(2, 0, photos)}) {
            QString note = row.siblingAtColumn(DuplicatesModel::noteColumn).data().toString();
            saidOnce += note == toQ(duplicateText::everyCopyStays) ? 1 : 0;
            repeated += note == toQ(duplicateText::protectedCopy) ? 1 : 0;
            bool hasButton = page->tree()->indexWidget(
                                 row.siblingAtColumn(DuplicatesModel::actionColumn)) != nullptr;
            QCOMPARE(hasButton, row == photos);
        }
        QCOMPARE(saidOnce, 1);
        QCOMPARE(repeated, 0);
        QCOMPARE(photos.data(revealRole).toStringList().size(), 3);
        // Why this copy: the dates are the disk's own, so either rule may have decided, and the
        // row says which.
        QString keptNote = model.index(0, DuplicatesModel::noteColumn, photos).data().toString();
        QVERIFY2(keptNote.startsWith("Kept: oldest") || keptNote.startsWith("Kept: first by name"),
                 qPrintable(keptNote));
        QVERIFY2(page->summaryText().contains("duplicated in your own folders, for you to review"),
                 qPrintable(page->summaryText()));
        QModelIndex keep, backup, download, tracked;
        for (int r = 0; r < 4; ++r) {
            QModelIndex at = model.index(r, 0, group);
            QString path = at.data(pathRole).toString();
            (path.contains("/Documents/")   ? keep
             : path.contains("/Backups/")   ? backup
             : path.contains("/Downloads/") ? download
                                            : tracked) = at;
        }
        // The copy in the person's own folder is the one kept, and it can never be ticked.
        QVERIFY(keep.data().toString().startsWith("Keep"));
        QVERIFY(!keep.flags().testFlag(Qt::ItemIsUserCheckable));
        // Copies the vault keeps in place say why and offer the file manager instead.
        for (const QModelIndex& denied : {download, tracked}) {
            QVERIFY(!denied.data(Qt::CheckStateRole).isValid());
            auto* reveal = qobject_cast<QPushButton*>(
                page->tree()->indexWidget(denied.siblingAtColumn(DuplicatesModel::actionColumn)));
            QVERIFY(reveal != nullptr);
            QCOMPARE(reveal->text(), revealText());
        }
        QCOMPARE(tracked.siblingAtColumn(DuplicatesModel::noteColumn).data().toString(),
                 toQ(duplicateText::gitCopy));
        QVERIFY(model.setData(backup, Qt::Checked, Qt::CheckStateRole));
        QCOMPARE(page->moveButton()->text(),
                 "Move " + bytesText(backup.data(bytesRole).value<quint64>()) + " to the Trash");
        // The list as a keyboard user sees it: the chosen row marked, no cell boxed in.
        page->tree()->setFocus();
        page->tree()->setCurrentIndex(backup);
        shoot("duplicates");

        acceptNextDialog();
        QTest::mouseClick(page->moveButton(), Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(page->banner()->text().startsWith("Moved 1 item"), 30000);
        QVERIFY(!std::filesystem::exists(h + "/Backups/old-laptop/holiday.mov"));
        for (const char* stays :
             {"/Documents/holiday.mov", "/Downloads/holiday.mov", "/Projects/site/holiday.mov"}) {
            QVERIFY2(std::filesystem::exists(h + stays), stays);
        }
        QCOMPARE(test::checksums({h + "/Documents", h + "/Pictures"}), sums);
        // What went to the Trash no longer counts as something to give back.
        QVERIFY2(page->summaryText().startsWith("2 groups · ") &&
                     page->summaryText().contains("duplicated in your own folders, for you to "
                                                  "review") &&
                     !page->summaryText().contains("could be given back"),
                 qPrintable(page->summaryText()));
        std::string trashed =
            test::runShell("find " + test::shellQuote(h + "/.local/share/Trash/files") +
                           " -name 'holiday*.mov' -exec sha256sum {} +")
                .output;
        std::string kept =
            test::runShell("sha256sum " + test::shellQuote(h + "/Documents/holiday.mov")).output;
        QVERIFY2(trashed.substr(0, 64) == kept.substr(0, 64), trashed.c_str());
        shoot("duplicates-moved");
    }

    void largeOldListsWithEvidence() {
        const std::string& h = test::fixtureHome();
        // Files last touched 600 days before a "now" 500 days ahead: long unopened by then.
        test::runShell("cd " + test::shellQuote(h) +
                       " && mkdir -p Films Videos Documents"
                       " && head -c 53000000 /dev/zero | tr '\\0' v > 'Films/2019 trip.mkv'"
                       " && head -c 52600000 /dev/zero | tr '\\0' w > 'Videos/wedding.mkv'"
                       " && head -c 54000000 /dev/zero | tr '\\0' d > Documents/old-laptop.zip"
                       " && touch -d '100 days ago' 'Films/2019 trip.mkv' Videos/wedding.mkv"
                       " Documents/old-laptop.zip");
        LargeOldOptions options;
        options.now = std::chrono::system_clock::now() + std::chrono::hours(24 * 500);
        window_->showScreen(MainWindow::Screen::largeOld);
        LargeOldPage* page = window_->largeOldPage();
        page->setOptions(options);
        QTest::mouseClick(page->searchButton(), Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(!page->runner().isRunning(), 60000);
        QAbstractItemModel& model = page->model();
        QCOMPARE(model.rowCount(), 3);
        // Biggest first: the zip in Documents, which stays where it is.
        QModelIndex zip = model.index(0, 0);
        QModelIndex video = model.index(1, 0);
        QVERIFY(zip.data(pathRole).toString().endsWith("old-laptop.zip"));
        QVERIFY(zip.data(deniedRole).toBool());
        QVERIFY(!zip.data(Qt::CheckStateRole).isValid());
        QVERIFY(page->tree()->indexWidget(zip.siblingAtColumn(LargeOldModel::actionColumn)));
        QCOMPARE(video.data(Qt::CheckStateRole).value<Qt::CheckState>(), Qt::Unchecked);
        QVERIFY(video.siblingAtColumn(LargeOldModel::openedColumn)
                    .data()
                    .toString()
                    .startsWith("Not opened since"));
        QVERIFY(model.setData(video, Qt::Checked, Qt::CheckStateRole));
        // A video in the desktop's own Videos folder is shown, and never offered.
        QModelIndex wedding = model.index(2, 0);
        QVERIFY(wedding.data(pathRole).toString().endsWith("Videos/wedding.mkv"));
        QVERIFY(wedding.data(deniedRole).toBool());
        QVERIFY(!model.setData(wedding, Qt::Checked, Qt::CheckStateRole));
        QVERIFY(page->moveButton()->isEnabled());
        // The button names what it moves, as the Sweep's does.
        QCOMPARE(page->moveButton()->text(),
                 "Move " + bytesText(video.data(bytesRole).value<quint64>()) + " to the Trash");
        shoot("large-old");
    }

    void settingsAndActivityScreens() {
        window_->showScreen(MainWindow::Screen::settings);
        shoot("settings");
        window_->showScreen(MainWindow::Screen::activity);
        shoot("activity-after");

        // The filter offers the kinds the history holds and shows one of them alone.
        ActivityPage* activity = window_->activityPage();
        QComboBox* filter = activity->kindFilter();
        QStringList offered;
        for (int i = 0; i < filter->count(); ++i) {
            offered << filter->itemText(i);
        }
        QCOMPARE(offered, (QStringList{"All kinds", "Sweep", "Cleanup", "Duplicates"}));
        filter->setCurrentIndex(static_cast<int>(offered.indexOf("Duplicates")));
        emit filter->activated(filter->currentIndex());
        ActivityModel& model = activity->model();
        QCOMPARE(model.rowCount(), 1);
        QCOMPARE(model.index(0, ActivityModel::kindColumn).data().toString(),
                 QStringLiteral("Duplicates"));
        shoot("activity-duplicates");
        filter->setCurrentIndex(0);
        emit filter->activated(0);
        QCOMPARE(model.rowCount(), 3);
    }

    // An AppImage the person installed goes to the Trash with the data it keeps, chosen place
    // by place; Put Back returns everything byte for byte. A packaged app is never moved: the
    // sheet gives its package manager's command instead.
    void appsUninstallAnAppImageWithItsData() {
        const std::string& h = test::fixtureHome();
        test::runShell("cd " + test::shellQuote(h) +
                       " && mkdir -p Applications .config/Tool .cache/Tool .config/Toolbox"
                       " && printf '\\177ELF' > Applications/Tool-1.0-x86_64.AppImage"
                       " && head -c 250000 /dev/urandom >> Applications/Tool-1.0-x86_64.AppImage"
                       " && chmod 755 Applications/Tool-1.0-x86_64.AppImage"
                       " && head -c 6000 /dev/urandom > .config/Tool/settings.json"
                       " && head -c 90000 /dev/urandom > .cache/Tool/blob"
                       " && echo keep > .config/Toolbox/keep");
        const std::vector<std::string> places{h + "/Applications", h + "/.config/Tool",
                                              h + "/.cache/Tool", h + "/.config/Toolbox"};
        const std::string sums = test::checksums(places);
        window_->showScreen(MainWindow::Screen::apps);
        AppsPage* page = window_->appsPage();
        QTRY_VERIFY_WITH_TIMEOUT(!page->runner().isRunning(), 60000);
        QTest::mouseClick(page->listButton(), Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(!page->runner().isRunning(), 60000);
        QVERIFY(page->selectApp("Tool"));
        QCOMPARE(page->detailTitle()->text(), QStringLiteral("Tool"));
        // Both places of Tool are listed and ticked; the folder of a longer name is not one.
        QTreeWidget* list = page->placesView();
        QCOMPARE(list->topLevelItemCount(), 2);
        QCOMPARE(page->tickedPlaces().size(), 2U);
        for (int i = 0; i < list->topLevelItemCount(); ++i) {
            QVERIFY(!list->topLevelItem(i)->text(0).contains(QStringLiteral("Toolbox")));
        }
        shoot("apps-detail");

        // Unticking the cache first leaves it out of the sheet and out of the move.
        QTreeWidgetItem* cache = nullptr;
        for (int i = 0; i < list->topLevelItemCount(); ++i) {
            if (list->topLevelItem(i)->text(0) == QStringLiteral("~/.cache/Tool")) {
                cache = list->topLevelItem(i);
            }
        }
        QVERIFY(cache != nullptr);
        cache->setCheckState(0, Qt::Unchecked);
        QString sheetText;
        whenModal<UninstallSheet>([&](UninstallSheet* sheet) {
            sheetText = sheet->text();
            sheet->grab().save(shots_ + "/apps-uninstall-sheet.png");
            sheet->moveButton()->click();
        });
        QTest::mouseClick(page->uninstallButton(), Qt::LeftButton);
        QVERIFY2(sheetText.startsWith(QStringLiteral("Move Tool and 1 data place to the Trash?")),
                 qPrintable(sheetText));
        QVERIFY2(sheetText.contains(QStringLiteral("~/Applications/Tool-1.0-x86_64.AppImage")),
                 qPrintable(sheetText));
        QVERIFY2(!sheetText.contains(QStringLiteral(".cache")), qPrintable(sheetText));
        QTRY_VERIFY_WITH_TIMEOUT(!page->runner().isRunning(), 60000);
        QVERIFY2(page->banner()->text().startsWith(QStringLiteral("Moved 2 items")),
                 qPrintable(page->banner()->text() + page->banner()->detail()));
        QVERIFY(!test::exists(h + "/Applications/Tool-1.0-x86_64.AppImage"));
        QVERIFY(!test::exists(h + "/.config/Tool"));
        QVERIFY(test::exists(h + "/.cache/Tool/blob"));
        QVERIFY(test::exists(h + "/.config/Toolbox/keep"));
        // The list is read again: Tool is gone from it.
        QTRY_VERIFY_WITH_TIMEOUT(!page->runner().isRunning(), 60000);
        QCOMPARE(page->model().rowOf("Tool"), -1);

        acceptNextDialog();
        QTest::mouseClick(page->putBackButton(), Qt::LeftButton);
        // Once everything is back, the list is read again and holds Tool once more.
        QTRY_VERIFY_WITH_TIMEOUT(page->model().rowOf("Tool") >= 0, 60000);
        QCOMPARE(test::checksums(places), sums);
        QVERIFY(page->selectApp("Tool"));

        // A Debian package's app: nothing of it can move from here, and the sheet names the
        // command, ready to copy.
        for (int row = 0; row < page->model().rowCount(); ++row) {
            const AppListEntry* entry = page->model().entryAt(row);
            if (entry->app.source != platform::AppSource::deb || !entry->app.package) {
                continue;
            }
            QVERIFY(page->selectApp(entry->app.id));
            for (int i = 0; i < list->topLevelItemCount(); ++i) {
                list->topLevelItem(i)->setCheckState(0, Qt::Unchecked);
            }
            QString command;
            bool canMove = true;
            whenModal<UninstallSheet>([&](UninstallSheet* sheet) {
                sheet->copyButton()->click();
                command = QGuiApplication::clipboard()->text();
                canMove = sheet->moveButton()->isEnabled();
                sheet->reject();
            });
            QTest::mouseClick(page->uninstallButton(), Qt::LeftButton);
            QCOMPARE(command, QStringLiteral("sudo apt remove ") + toQ(*entry->app.package));
            QVERIFY(!canMove);
            QVERIFY(test::exists(entry->app.entry));
            break;
        }
    }

    void everyScreenFitsTheSmallestWindowAndALargeOne() {
        struct Shown {
            MainWindow::Screen screen;
            const char* name;
        };
        using Screen = MainWindow::Screen;
        const Shown screens[] = {
            {Screen::sweep, "sweep"},        {Screen::cleanup, "cleanup"},
            {Screen::spaceMap, "space-map"}, {Screen::apps, "apps"},
            {Screen::largeOld, "large-old"}, {Screen::duplicates, "duplicates"},
            {Screen::activity, "activity"},  {Screen::settings, "settings"}};
        // A fresh map for the pictures: put-backs since the last scan are not on it.
        window_->showScreen(Screen::spaceMap);
        window_->rescan();
        QVERIFY(window_->spaceMapPage()->runner().isRunning());
        QTRY_VERIFY_WITH_TIMEOUT(!window_->spaceMapPage()->runner().isRunning(), 60000);
        for (QSize size : {QSize(900, 600), QSize(1440, 900)}) {
            window_->resize(size);
            QTRY_COMPARE(window_->size(), size);
            QString suffix = QStringLiteral("-%1x%2").arg(size.width()).arg(size.height());
            window_->showIntroduction();
            shoot(QStringLiteral("onboarding") + suffix);
            for (const Shown& s : screens) {
                window_->showScreen(s.screen);
                QApplication::processEvents();
                // Screens scroll up and down when they must, never sideways.
                QScrollArea* frame = window_->frameOf(s.screen);
                QVERIFY(frame != nullptr && frame->isVisible());
                QVERIFY2(frame->horizontalScrollBar()->maximum() == 0, s.name);
                shoot(QString::fromLatin1(s.name) + suffix);
            }
            // Every Sweep tile is inside the view, none under what follows it.
            window_->showScreen(Screen::sweep);
            QApplication::processEvents();
            TileView* tiles = window_->sweepPage()->tileView();
            for (int row = 0; row < tiles->model()->rowCount(); ++row) {
                QRect tile = tiles->visualRect(tiles->model()->index(row, 0));
                QVERIFY2(tiles->viewport()->rect().contains(tile), qPrintable(suffix));
            }
        }
        window_->resize(1240, 820);
    }

    void cleanupTestCase() {
        window_.reset();
    }
};

SD_REGISTER_APP_TEST(AppEndToEndTest);

} // namespace
} // namespace sd::app

#include "AppEndToEndTest.moc"
