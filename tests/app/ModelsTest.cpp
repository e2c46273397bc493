#include "app/Models.h"

#include "AppTestMain.h"
#include "Fixture.h"
#include "app/ReviewPages.h"
#include "app/SpaceMapPage.h"
#include "app/Workers.h"

#include <QAbstractItemModelTester>
#include <QTest>
#include <cmath>
#include <nlohmann/json.hpp>

namespace sd::app {
namespace {

QString q(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

class ModelsTest : public QObject {
    Q_OBJECT

private slots:
    void sweepTilesFollowTheRecordThenTheSweep() {
        SweepState state;
        SweepTileModel model(state);
        QAbstractItemModelTester tester(&model,
                                        QAbstractItemModelTester::FailureReportingMode::QtTest);
        QCOMPARE(model.rowCount(), 6);
        // Before anything is known: the kinds' own titles, no sizes, nothing to tick.
        QCOMPARE(model.index(static_cast<int>(SweepTileKind::trash)).data().toString(),
                 QStringLiteral("Already in your Trash"));
        QVERIFY(!model.index(0).data(Qt::CheckStateRole).isValid());

        // A record from an earlier Sweep shows its titles and sizes, and still nothing ticks.
        state.lastRecord = SweepRecord{"2024-05-01T10:00:00Z",
                                       3.5,
                                       10,
                                       {{"developer", "Xcode build products & caches", 7000, true},
                                        {"trash", "Already in your Trash", 900, false}}};
        model.refresh();
        QModelIndex developer = model.index(static_cast<int>(SweepTileKind::developer));
        QCOMPARE(developer.data().toString(), QStringLiteral("Xcode build products & caches"));
        QCOMPARE(developer.data(bytesRole).value<quint64>(), 7000u);
        QCOMPARE(developer.data(tileStateRole).toInt(), static_cast<int>(TileState::recorded));
        QVERIFY(!model.setData(developer, Qt::Checked, Qt::CheckStateRole));

        // A real Sweep over fixture caches: only tiles that come back and hold bytes tick.
        std::string store = test::freshFolder("tiles-store") + "/defaults.json";
        test::makeDirs(test::fixtureHome() + "/.cache/pip/http/aa");
        test::writeFilledFile(test::fixtureHome() + "/.cache/pip/http/aa/blob", 300'000);
        auto sweep = std::make_shared<Sweep>(DistributionMode::direct,
                                             platform::UserDefaults(store), homePolicy());
        sweep->run();
        state.sweep = sweep;
        model.refresh();
        struct Case {
            SweepTileKind kind;
            bool tickable;
        };
        for (Case c : {Case{SweepTileKind::developer, true}, Case{SweepTileKind::appCaches, false},
                       Case{SweepTileKind::installers, false}, Case{SweepTileKind::trash, false}}) {
            QModelIndex at = model.index(static_cast<int>(c.kind));
            QCOMPARE(at.flags().testFlag(Qt::ItemIsUserCheckable), c.tickable);
            QCOMPARE(model.setData(at, Qt::Checked, Qt::CheckStateRole), c.tickable);
            QCOMPARE(at.data().toString(), QString::fromStdString(tileTitle(*sweep->tile(c.kind))));
            QCOMPARE(at.data(subtitleRole).toString(),
                     QString::fromStdString(tileSubtitle(*sweep->tile(c.kind))));
        }
        QCOMPARE(state.selection, std::set<SweepTileKind>{SweepTileKind::developer});
        QCOMPARE(developer.data(bytesRole).value<quint64>(),
                 sweep->tile(SweepTileKind::developer)->bytes);

        // While a new Sweep runs, tiles show its progress and the tick goes.
        state.sweeping = true;
        state.progress.tile(SweepTileKind::developer).fraction = 0.25;
        state.progress.tile(SweepTileKind::developer).bytes = 123;
        model.refresh();
        QVERIFY(state.selection.empty());
        QCOMPARE(developer.data(fractionRole).toDouble(), 0.25);
        QCOMPARE(developer.data(bytesRole).value<quint64>(), 123u);
        QCOMPARE(developer.data(tileStateRole).toInt(), static_cast<int>(TileState::measuring));

        // A moved tile says so and cannot be ticked again until the next Sweep.
        state.sweeping = false;
        state.movedByTile[SweepTileKind::developer] = 300'000;
        model.refresh();
        QCOMPARE(developer.data(noteRole).toString(),
                 QStringLiteral("Moved 300.0 KB to the Trash"));
        QVERIFY(!model.setData(developer, Qt::Checked, Qt::CheckStateRole));
        test::runShell("rm -rf " + test::shellQuote(test::fixtureHome() + "/.cache/pip"));
    }

    void catalogSwitchesReachThePreferencesAndTheFilter() {
        CatalogState state(platform::UserDefaults(test::freshFolder("catalog") + "/d.json"));
        CatalogModel model(state);
        QAbstractItemModelTester tester(&model,
                                        QAbstractItemModelTester::FailureReportingMode::QtTest);
        QCOMPARE(model.rowCount(), static_cast<int>(state.catalog.size()));

        // Browser caches group their paths by app; Chrome's paths sit under the Chrome row.
        int browserRow = -1;
        for (int r = 0; r < model.rowCount(); ++r) {
            if (model.targetAt(model.index(r, 0))->id == "browser_caches") {
                browserRow = r;
            }
        }
        QVERIFY(browserRow >= 0);
        QModelIndex browser = model.index(browserRow, 0);
        QModelIndex chrome;
        for (int r = 0; r < model.rowCount(browser); ++r) {
            if (model.index(r, 0, browser).data().toString() == "Chrome") {
                chrome = model.index(r, 0, browser);
            }
        }
        QVERIFY(chrome.isValid());
        const Target& target = *model.targetAt(browser);
        std::vector<std::string> chromePaths;
        for (const PathSpec& p : target.paths) {
            if (p.app == std::optional<std::string>("chrome")) {
                chromePaths.push_back(*p.id);
            }
        }
        QCOMPARE(model.rowCount(chrome), static_cast<int>(chromePaths.size()));

        // Switching the app off switches each of its paths off, for measuring and cleaning, and
        // the settings store keeps it.
        QVERIFY(model.setData(chrome, Qt::Unchecked, Qt::CheckStateRole));
        InclusionPreferences saved = loadInclusionPreferences(state.store);
        for (const std::string& id : chromePaths) {
            QVERIFY(!InclusionPreferences::includes(saved.scan, id));
            QVERIFY(!InclusionPreferences::includes(saved.clean, id));
        }
        QCOMPARE(chrome.data(Qt::CheckStateRole).value<Qt::CheckState>(), Qt::Unchecked);
        QCOMPARE(browser.data(Qt::CheckStateRole).value<Qt::CheckState>(), Qt::Checked);
        // One path back on: the app is partly on.
        QVERIFY(model.setData(model.index(0, 0, chrome), Qt::Checked, Qt::CheckStateRole));
        QCOMPARE(chrome.data(Qt::CheckStateRole).value<Qt::CheckState>(), Qt::PartiallyChecked);
        // A switched-off target greys out what lies below it.
        QVERIFY(model.setData(browser, Qt::Unchecked, Qt::CheckStateRole));
        QVERIFY(!chrome.flags().testFlag(Qt::ItemIsEnabled));

        // Sizes: a path's own bytes, an app's sum, the target's total.
        ScanResult scan;
        scan.perTargetBytes = {{"browser_caches", 5000}};
        scan.perPathBytes = {{"browser_caches", chromePaths[0], 1000},
                             {"browser_caches", chromePaths[1], 3000}};
        scan.totalBytes = 5000;
        state.setScan(scan);
        model.refresh();
        QCOMPARE(browser.data(bytesRole).value<quint64>(), 5000u);
        QCOMPARE(chrome.data(bytesRole).value<quint64>(), 4000u);
        QCOMPARE(model.index(1, 0, chrome).data(bytesRole).value<quint64>(), 3000u);

        // The filter: only the measured target once empty ones hide; disruptive ones go with
        // safe-only.
        CatalogFilter filter;
        filter.setSourceModel(&model);
        filter.setHideEmpty(true);
        QCOMPARE(filter.rowCount(), 1);
        QCOMPARE(filter.rowCount(filter.index(0, 0)), 1); // Chrome; the other apps are empty
        filter.setHideEmpty(false);
        filter.setSafeOnly(true);
        for (int r = 0; r < filter.rowCount(); ++r) {
            QCOMPARE(filter.index(r, 0).data(riskRole).toInt(), static_cast<int>(RiskLevel::safe));
        }
        QVERIFY(filter.rowCount() > 0 && filter.rowCount() < model.rowCount());
    }

    void activityListsNewestFirstWithItemsBelow() {
        std::string file = test::freshFolder("journal") + "/journal.json";
        auto item = [](const std::string& path, bool restored, const std::string& group) {
            return nlohmann::json{{"originalPath", path}, {"trashPath", "/t" + path},
                                  {"bytes", 1000},        {"identityToken", "1:2"},
                                  {"group", group},       {"restored", restored}};
        };
        nlohmann::json entries = nlohmann::json::array(
            {{{"id", "A"},
              {"date", "2024-01-02T00:00:00Z"},
              {"title", "Sweep"},
              {"kind", "sweep"},
              {"items", {item("/h/a", false, "developer"), item("/h/b", true, "appCaches")}}},
             {{"id", "B"},
              {"date", "2024-03-01T00:00:00Z"},
              {"title", "Cleanup"},
              {"kind", "caches"},
              {"items", {item("/h/c", true, "browser_caches")}}},
             {{"id", "C"},
              {"date", "2023-12-31T00:00:00Z"},
              {"title", "Old"},
              {"kind", "findings"},
              {"items", {item("/h/d", false, "findings")}}}});
        test::writeFile(file, entries.dump());
        ReclaimJournal journal(file);
        journal.load();
        std::vector<Target> catalog = buildCatalog(DistributionMode::direct);
        ActivityModel model(journal, catalog);
        QAbstractItemModelTester tester(&model,
                                        QAbstractItemModelTester::FailureReportingMode::QtTest);

        QStringList ids;
        for (int r = 0; r < model.rowCount(); ++r) {
            ids << model.index(r, 0).data(entryIDRole).toString();
        }
        QCOMPARE(ids, (QStringList{"B", "A", "C"}));
        struct Row {
            int row;
            QString status;
            bool inTrash;
        };
        for (Row r : {Row{0, "Everything put back", false},
                      Row{1, "1 in the Trash, 1 put back", true}, Row{2, "In the Trash", true}}) {
            QCOMPARE(model.index(r.row, ActivityModel::statusColumn).data().toString(), r.status);
            QCOMPARE(model.index(r.row, 0).data(inTrashRole).toBool(), r.inTrash);
        }
        QModelIndex sweep = model.index(1, 0);
        QCOMPARE(model.rowCount(sweep), 2);
        QModelIndex first = model.index(0, ActivityModel::groupColumn, sweep);
        QCOMPARE(first.data().toString(), QStringLiteral("Build products & tool caches"));
        QCOMPARE(model.index(0, 0, model.index(0, 0))
                     .siblingAtColumn(ActivityModel::groupColumn)
                     .data()
                     .toString(),
                 QStringLiteral("Browser caches"));
        // Where an item is now: in the Trash until it went back.
        QCOMPARE(model.index(0, 0, sweep).data(pathRole).toString(), QStringLiteral("/t/h/a"));
        QCOMPARE(model.index(1, 0, sweep).data(pathRole).toString(), QStringLiteral("/h/b"));
    }

    void sweepTargetsLeaveOutAndBringBack() {
        CatalogState state(platform::UserDefaults(test::freshFolder("leftout") + "/d.json"));
        SweepTargetsModel model(state);
        QAbstractItemModelTester tester(&model,
                                        QAbstractItemModelTester::FailureReportingMode::QtTest);
        int pythonRow = -1;
        for (int r = 0; r < model.rowCount(); ++r) {
            QVERIFY(model.index(r).data(Qt::CheckStateRole).value<Qt::CheckState>() == Qt::Checked);
            if (model.index(r).data().toString() == "Python package caches") {
                pythonRow = r;
            }
        }
        QVERIFY(pythonRow >= 0);
        QModelIndex python = model.index(pythonRow);
        QVERIFY(model.setData(python, Qt::Unchecked, Qt::CheckStateRole));
        Sweep reader(DistributionMode::direct, state.store, homePolicy());
        QCOMPARE(reader.skippedTargets(), std::set<std::string>{"python_tools"});
        QCOMPARE(python.data(noteRole).toString(), q(leftOutCatalogText));
        QVERIFY(model.setData(python, Qt::Checked, Qt::CheckStateRole));
        QVERIFY(reader.skippedTargets().empty());
        QVERIFY(!state.store.string(sweepSkippedKey).has_value());
        QCOMPARE(python.data(noteRole).toString(), q(broughtBackText));
    }

    void duplicatesKeepTheKeepCopyAndDeniedCopiesUntickable() {
        auto copy = [](const std::string& path, std::vector<std::string> shared = {}) {
            DuplicateFile f;
            f.path = path;
            f.sharedWith = std::move(shared);
            f.physicalBytes = 2'000'000;
            return f;
        };
        DuplicateGroup group;
        group.id = "ab12";
        group.size = 2'000'000;
        group.files = {copy("/h/Documents/a.bin"), copy("/h/Downloads/a.bin"),
                       copy("/h/Downloads/linked.bin", {"/h/Downloads/hard.bin"}),
                       copy("/h/Projects/site/a.bin")};
        group.suggestedKeep = "/h/Documents/a.bin";
        DuplicateReport report;
        report.groups = {group};
        ReviewState<DuplicateReport> state;
        state.report.emplace(std::move(report));
        state.denied["/h/Projects/site/a.bin"] = VaultDenyReason::gitWorkingTree;
        DuplicatesModel model(state, homePolicy());
        QAbstractItemModelTester tester(&model,
                                        QAbstractItemModelTester::FailureReportingMode::QtTest);
        QModelIndex top = model.index(0, 0);
        QCOMPARE(model.rowCount(top), 4);
        QCOMPARE(top.siblingAtColumn(DuplicatesModel::noteColumn).data().toString(),
                 QStringLiteral("2.0 MB to give back")); // only the one removable copy

        struct Row {
            int row;
            bool tickable;
            QString note;
        };
        const Row rows[]{
            {0, false, q(duplicateText::keptCopy)},
            {1, true, QString()},
            {2, false, q(duplicateText::sharedCopy)},
            {3, false, q(denyText(VaultDenyReason::gitWorkingTree, DenyTextForm::compact))},
        };
        for (const Row& r : rows) {
            QModelIndex at = model.index(r.row, 0, top);
            QCOMPARE(at.flags().testFlag(Qt::ItemIsUserCheckable), r.tickable);
            QCOMPARE(at.data(Qt::CheckStateRole).isValid(), r.tickable);
            QCOMPARE(model.setData(at, Qt::Checked, Qt::CheckStateRole), r.tickable);
            QCOMPARE(at.siblingAtColumn(DuplicatesModel::noteColumn).data().toString(), r.note);
        }
        QVERIFY(model.index(0, 0, top).data().toString().startsWith("Keep"));
        QVERIFY(model.index(3, 0, top).data(deniedRole).toBool());
        QCOMPARE(state.ticked, std::set<std::string>{"/h/Downloads/a.bin"});

        // A copy that went to the Trash says so and cannot be ticked again.
        state.moved.insert("/h/Downloads/a.bin");
        QVERIFY(!model.index(1, 0, top).flags().testFlag(Qt::ItemIsUserCheckable));
        QCOMPARE(model.index(1, DuplicatesModel::noteColumn, top).data().toString(),
                 QStringLiteral("In the Trash"));
    }

    void largeOldRowsShowTheirEvidence() {
        LargeOldItem video;
        video.path = "/h/Videos/trip.mkv";
        video.physicalBytes = 60'000'000;
        video.kind = LargeOldKind::video;
        video.evidence = {EvidenceKind::fileTimesOnly, 1'600'000'000};
        LargeOldItem kept = video;
        kept.path = "/h/.ssh/backup.img";
        kept.evidence = {EvidenceKind::opened, 1'500'000'000};
        LargeOldReport report;
        report.items = {video, kept};
        ReviewState<LargeOldReport> state;
        state.report.emplace(std::move(report));
        state.denied[kept.path] = VaultDenyReason::protectedUserDir;
        LargeOldModel model(state);
        QAbstractItemModelTester tester(&model,
                                        QAbstractItemModelTester::FailureReportingMode::QtTest);
        QCOMPARE(model.index(0, LargeOldModel::openedColumn).data().toString(),
                 QString::fromStdString(evidenceText(video.evidence)));
        QCOMPARE(model.index(1, LargeOldModel::openedColumn).data().toString(),
                 QString::fromStdString(evidenceText(kept.evidence)));
        QCOMPARE(model.index(0, LargeOldModel::folderColumn).data().toString(),
                 QStringLiteral("/h/Videos"));
        // Nothing starts ticked; the denied row has no tick and says why.
        QCOMPARE(model.index(0, 0).data(Qt::CheckStateRole).value<Qt::CheckState>(), Qt::Unchecked);
        QVERIFY(!model.index(1, 0).data(Qt::CheckStateRole).isValid());
        QVERIFY(!model.setData(model.index(1, 0), Qt::Checked, Qt::CheckStateRole));
        QCOMPARE(model.index(1, 0).data(noteRole).toString(),
                 q(denyText(VaultDenyReason::protectedUserDir)));
        QVERIFY(model.setData(model.index(0, 0), Qt::Checked, Qt::CheckStateRole));
        QCOMPARE(state.ticked, std::set<std::string>{video.path});
    }

    void spaceTreeRowsPointAtTheTreeAndItsOtherShares() {
        auto node = [](std::string path, std::uint64_t bytes, std::vector<SpaceNode> children = {},
                       std::uint64_t otherBytes = 0, std::uint64_t otherCount = 0) {
            SpaceNode n;
            n.name = path.substr(path.rfind('/') + 1);
            n.path = std::move(path);
            n.bytes = bytes;
            n.fileCount = 1 + children.size();
            n.children = std::move(children);
            n.otherBytes = otherBytes;
            n.otherCount = otherCount;
            return n;
        };
        SpaceTree tree;
        tree.root = node(
            "/h", 100,
            {node("/h/Projects", 70, {node("/h/Projects/app", 60)}, 10, 4), node("/h/big.iso", 20)},
            10, 52);
        SpaceMapState state;
        SpaceTreeModel model(state);
        QAbstractItemModelTester tester(&model,
                                        QAbstractItemModelTester::FailureReportingMode::QtTest);
        QCOMPARE(model.rowCount(), 0);
        model.beginChange();
        state.replace(tree);
        model.endChange();

        QModelIndex root = model.index(0, 0);
        QCOMPARE(model.rowCount(root), 3); // two children and the root's "other" share
        QModelIndex projects = model.index(0, 0, root);
        QModelIndex other = model.index(2, 0, root);
        QCOMPARE(projects.data(pathRole).toString(), QStringLiteral("/h/Projects"));
        QVERIFY(projects.data(hasChildrenRole).toBool());
        QVERIFY(other.data(isOtherRole).toBool());
        QCOMPARE(other.data(bytesRole).value<quint64>(), 10u);
        QCOMPARE(other.data(noteRole).toString(),
                 QString::fromStdString(otherShareNote(state.tree()->root)));
        QCOMPARE(model.rowCount(other), 0);
        // The way down and back up lands on the same rows.
        QModelIndex app = model.indexOfPath("/h/Projects/app/src/main.cpp");
        QCOMPARE(app.data(pathRole).toString(), QStringLiteral("/h/Projects/app"));
        QCOMPARE(app.parent(), projects);
        QCOMPARE(projects.parent(), root);

        // A move patches the tree the model reads: the node leaves, its bytes leave its parents.
        auto move = describeMove(*state.tree(), "/h/Projects/app", 60, 1, false);
        QVERIFY(move.has_value());
        model.beginChange();
        state.applyMoves({*move}, "/h/.local/share/Trash");
        model.endChange();
        projects = model.index(0, 0, model.index(0, 0));
        QCOMPARE(projects.data(bytesRole).value<quint64>(), 10u);
        QCOMPARE(model.rowCount(projects), 1); // only its "other" share is left
        QCOMPARE(model.index(0, 0).data(bytesRole).value<quint64>(), 40u);
        QVERIFY(state.isStale());
    }

    void sunburstWedgesAreAsWideAsTheirShare() {
        SpaceTree tree;
        tree.root.path = "/h";
        tree.root.name = "h";
        tree.root.bytes = 100;
        SpaceNode a;
        a.path = "/h/a";
        a.name = "a";
        a.bytes = 50;
        SpaceNode b = a;
        b.path = "/h/b";
        b.name = "b";
        b.bytes = 25;
        tree.root.children = {a, b};
        tree.root.otherBytes = 25;
        tree.root.otherCount = 9;
        SpaceMapState state;
        state.replace(tree);
        SpaceTreeModel model(state);
        SunburstView view;
        view.resize(400, 400);
        view.setModel(&model);

        // Clockwise from twelve o'clock: a takes the right half, b the next quarter, and the
        // other share the last quarter, drawn as one wedge.
        QPointF centre(200, 200);
        double ring = 65; // inside the first ring at this size
        auto at = [&](double degrees) {
            double r = degrees * 3.14159265358979 / 180;
            return view.indexAt(centre + QPointF(ring * std::sin(r), -ring * std::cos(r)));
        };
        struct Case {
            double degrees;
            QString path;
            bool other;
        };
        for (Case c : {Case{10, "/h/a", false}, Case{170, "/h/a", false}, Case{190, "/h/b", false},
                       Case{260, "/h/b", false}, Case{280, "/h", true}, Case{350, "/h", true}}) {
            QModelIndex hit = at(c.degrees);
            QVERIFY2(hit.isValid(), qPrintable(QString::number(c.degrees)));
            QCOMPARE(hit.data(pathRole).toString(), c.path);
            QCOMPARE(hit.data(isOtherRole).toBool(), c.other);
        }
        QCOMPARE(view.indexAt(centre), model.index(0, 0));
        QVERIFY(!view.indexAt(QPointF(2, 2)).isValid());
        std::optional<QPointF> middleOfB = view.centreOf(model.indexOfPath("/h/b"));
        QVERIFY(middleOfB.has_value());
        QCOMPARE(view.indexAt(*middleOfB).data(pathRole).toString(), QStringLiteral("/h/b"));
    }
};

SD_REGISTER_APP_TEST(ModelsTest);

} // namespace
} // namespace sd::app

#include "ModelsTest.moc"
