#include "app/Models.h"

#include "AppTestMain.h"
#include "Fixture.h"
#include "app/DuplicatesModel.h"
#include "app/KnownCaches.h"
#include "app/LargeOldModel.h"
#include "app/SpaceMapPage.h"
#include "app/Workers.h"
#include "core/PathRules.h"
#include "review/ReviewTexts.h"

#include <QAbstractItemModelTester>
#include <QTest>
#include <cmath>
#include <nlohmann/json.hpp>

namespace sd::app {
namespace {

QString q(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

// Each header lines up the way the cells below it do: numbers to the right, words to the left.
// Qt centres a header that says nothing, so a missing alignment shows up here.
void headersSitOverTheirCells(const QAbstractItemModel& model, const QModelIndex& row) {
    constexpr Qt::Alignment horizontal = Qt::AlignHorizontal_Mask;
    for (int c = 0; c < model.columnCount(row.parent()); ++c) {
        QVariant cell = row.siblingAtColumn(c).data(Qt::TextAlignmentRole);
        QVariant header = model.headerData(c, Qt::Horizontal, Qt::TextAlignmentRole);
        Qt::Alignment cellSide =
            cell.isValid() ? cell.value<Qt::Alignment>() & horizontal : Qt::AlignLeft;
        Qt::Alignment headerSide =
            header.isValid() ? header.value<Qt::Alignment>() & horizontal : Qt::AlignHCenter;
        QVERIFY2(cellSide == headerSide, qPrintable(model.headerData(c, Qt::Horizontal).toString() +
                                                    " in " + model.metaObject()->className()));
    }
}

SpaceNode spaceNode(std::string path, std::uint64_t bytes, std::vector<SpaceNode> children = {},
                    SpaceNode::Kind kind = SpaceNode::Kind::directory) {
    SpaceNode n;
    n.name = path.substr(path.rfind('/') + 1);
    n.path = std::move(path);
    n.bytes = bytes;
    n.kind = kind;
    n.children = std::move(children);
    return n;
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
        headersSitOverTheirCells(model, browser);
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
              {"items", {item("/h/d", false, "findings")}}},
             {{"id", "D"},
              {"date", "2023-11-01T00:00:00Z"},
              {"title", "Duplicate copies"},
              {"kind", "findings"},
              {"items", {item("/h/e", false, "duplicates"), item("/h/f", false, "duplicates")}}},
             {{"id", "E"},
              {"date", "2023-10-01T00:00:00Z"},
              {"title", "Large & old files"},
              {"kind", "findings"},
              {"items", {item("/h/g", false, "largeOld")}}}});
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
        QCOMPARE(ids, (QStringList{"B", "A", "C", "D", "E"}));
        // Each entry names its kind in words; findings by the screen they came from.
        QStringList kinds;
        for (int r = 0; r < model.rowCount(); ++r) {
            kinds << model.index(r, ActivityModel::kindColumn).data().toString();
        }
        QCOMPARE(kinds,
                 (QStringList{"Cleanup", "Sweep", "Moved by hand", "Duplicates", "Large & old"}));
        QCOMPARE(model.kindsPresent(),
                 (std::vector<ActivityKind>{ActivityKind::sweep, ActivityKind::cleanup,
                                            ActivityKind::duplicates, ActivityKind::largeOld,
                                            ActivityKind::byHand}));
        struct Row {
            int row;
            QString status;
            bool inTrash;
        };
        for (const Row& r :
             {Row{0, "Everything put back", false}, Row{1, "1 in the Trash, 1 put back", true},
              Row{2, "In the Trash", true}}) {
            QCOMPARE(model.index(r.row, ActivityModel::statusColumn).data().toString(), r.status);
            QCOMPARE(model.index(r.row, 0).data(inTrashRole).toBool(), r.inTrash);
        }
        QModelIndex sweep = model.index(1, 0);
        QCOMPARE(model.rowCount(sweep), 2);
        QModelIndex first = model.index(0, ActivityModel::kindColumn, sweep);
        QCOMPARE(first.data().toString(), QStringLiteral("Build products & tool caches"));
        QCOMPARE(model.index(0, 0, model.index(0, 0))
                     .siblingAtColumn(ActivityModel::kindColumn)
                     .data()
                     .toString(),
                 QStringLiteral("Browser caches"));
        // Where an item is now: in the Trash until it went back.
        QCOMPARE(model.index(0, 0, sweep).data(pathRole).toString(), QStringLiteral("/t/h/a"));
        QCOMPARE(model.index(1, 0, sweep).data(pathRole).toString(), QStringLiteral("/h/b"));
        headersSitOverTheirCells(model, model.index(0, 0));

        // A kind filter shows that kind's entries only, newest first, and every entry again
        // when it is lifted.
        struct Filtered {
            std::optional<ActivityKind> kind;
            QStringList ids;
        };
        for (const Filtered& f :
             {Filtered{ActivityKind::duplicates, {"D"}}, Filtered{ActivityKind::sweep, {"A"}},
              Filtered{ActivityKind::uninstall, {}},
              Filtered{std::nullopt, {"B", "A", "C", "D", "E"}}}) {
            model.setKindFilter(f.kind);
            QStringList shown;
            for (int r = 0; r < model.rowCount(); ++r) {
                shown << model.index(r, 0).data(entryIDRole).toString();
                QCOMPARE(model.entryAt(model.index(r, 0))->id, shown.back().toStdString());
            }
            QCOMPARE(shown, f.ids);
        }
        model.setKindFilter(ActivityKind::duplicates);
        QCOMPARE(model.rowCount(model.index(0, 0)), 2);
        QCOMPARE(model.index(1, 0, model.index(0, 0)).data(pathRole).toString(),
                 QStringLiteral("/t/h/f"));
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
        group.keepRule = KeepRule::ownFolders;
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
            {0, false, "Kept: in your own folders · " + q(duplicateText::keptCopy)},
            {1, true, QString()},
            {2, false, q(duplicateText::sharedCopy)},
            {3, false, q(duplicateText::gitCopy)},
        };
        for (const Row& r : rows) {
            QModelIndex at = model.index(r.row, 0, top);
            QCOMPARE(at.flags().testFlag(Qt::ItemIsUserCheckable), r.tickable);
            QCOMPARE(at.data(Qt::CheckStateRole).isValid(), r.tickable);
            QCOMPARE(model.setData(at, Qt::Checked, Qt::CheckStateRole), r.tickable);
            QCOMPARE(at.siblingAtColumn(DuplicatesModel::noteColumn).data().toString(), r.note);
            // Only the copy kept in place offers its own "Show in Files".
            QCOMPARE(at.data(revealRole).toStringList(),
                     r.row == 3 ? QStringList{"/h/Projects/site/a.bin"} : QStringList{});
        }
        QVERIFY(model.index(0, 0, top)
                    .data(Qt::ToolTipRole)
                    .toString()
                    .startsWith(q(keepRuleDetail(KeepRule::ownFolders))));
        QVERIFY(model.index(0, 0, top).data().toString().startsWith("Keep"));
        QVERIFY(model.index(3, 0, top).data(deniedRole).toBool());
        QCOMPARE(state.ticked, std::set<std::string>{"/h/Downloads/a.bin"});

        // A copy that went to the Trash says so and cannot be ticked again.
        state.moved.insert("/h/Downloads/a.bin");
        QVERIFY(!model.index(1, 0, top).flags().testFlag(Qt::ItemIsUserCheckable));
        QCOMPARE(model.index(1, DuplicatesModel::noteColumn, top).data().toString(),
                 QStringLiteral("In the Trash"));

        // One line a row: a note cut short carries its whole sentence in the tooltip and says so
        // with an icon.
        QModelIndex denied = model.index(3, DuplicatesModel::noteColumn, top);
        QVERIFY(!denied.data(Qt::DecorationRole).value<QIcon>().isNull());
        QVERIFY(denied.data(Qt::ToolTipRole).toString().size() > denied.data().toString().size());
        QVERIFY(
            !model.index(2, DuplicatesModel::noteColumn, top).data(Qt::DecorationRole).isValid());
        headersSitOverTheirCells(model, top);
        headersSitOverTheirCells(model, model.index(0, 0, top));
    }

    // A group whose copies all sit in folders that never move says so once, with one "Show in
    // Files" for all of them; its rows stay quiet, and its bytes are for review, not given back.
    void duplicatesInFoldersThatNeverMoveSayItOnce() {
        auto copy = [](const std::string& path) {
            DuplicateFile f;
            f.path = path;
            f.physicalBytes = 3'000'000;
            return f;
        };
        DuplicateGroup pictures;
        pictures.files = {copy("/h/Pictures/2019/a.jpg"), copy("/h/Pictures/copy/a.jpg"),
                          copy("/h/Pictures/old/a.jpg")};
        pictures.suggestedKeep = "/h/Pictures/2019/a.jpg";
        DuplicateGroup mixed;
        mixed.files = {copy("/h/Documents/b.bin"), copy("/h/Pictures/b.bin"), copy("/h/x/b.bin")};
        mixed.suggestedKeep = "/h/Documents/b.bin";
        DuplicateReport report;
        report.groups = {pictures, mixed};
        ReviewState<DuplicateReport> state;
        state.report.emplace(std::move(report));
        for (const char* path :
             {"/h/Pictures/2019/a.jpg", "/h/Pictures/copy/a.jpg", "/h/Pictures/old/a.jpg",
              "/h/Documents/b.bin", "/h/Pictures/b.bin"}) {
            state.denied[path] = VaultDenyReason::protectedUserDir;
        }
        DuplicatesModel model(state, homePolicy());
        QAbstractItemModelTester tester(&model,
                                        QAbstractItemModelTester::FailureReportingMode::QtTest);
        const DuplicateGroup& shownPictures = state.report->groups[0];
        const DuplicateGroup& shownMixed = state.report->groups[1];
        QVERIFY(model.everyCopyStays(shownPictures));
        QVERIFY(!model.everyCopyStays(shownMixed));
        QCOMPARE(model.givesBack(shownPictures), 0U);
        QCOMPARE(model.toReview(shownPictures), 6'000'000U);
        QCOMPARE(model.givesBack(shownMixed), 3'000'000U);
        QCOMPARE(model.toReview(shownMixed), 3'000'000U);

        QModelIndex group = model.index(0, DuplicatesModel::noteColumn);
        QCOMPARE(group.data().toString(), q(duplicateText::everyCopyStays));
        QCOMPARE(group.data(Qt::ToolTipRole).toString(),
                 QString::fromStdString(everyCopyStaysDetail()));
        QCOMPARE(model.index(0, 0).data(revealRole).toStringList(),
                 (QStringList{"/h/Pictures/2019/a.jpg", "/h/Pictures/copy/a.jpg",
                              "/h/Pictures/old/a.jpg"}));
        QModelIndex top = model.index(0, 0);
        for (int r = 1; r < model.rowCount(top); ++r) {
            QModelIndex note = model.index(r, DuplicatesModel::noteColumn, top);
            QVERIFY(note.data().toString().isEmpty());
            QVERIFY(!note.data(Qt::DecorationRole).isValid());
            QVERIFY(note.siblingAtColumn(0).data(revealRole).toStringList().isEmpty());
            QVERIFY(!note.siblingAtColumn(0).data(Qt::CheckStateRole).isValid());
        }
        // In a mixed group the copy that stays says why on its own row.
        QModelIndex mixedTop = model.index(1, 0);
        QCOMPARE(model.index(1, DuplicatesModel::noteColumn, mixedTop).data().toString(),
                 q(duplicateText::protectedCopy));
        QCOMPARE(model.index(1, 0, mixedTop).data(revealRole).toStringList(),
                 QStringList{"/h/Pictures/b.bin"});
        QVERIFY(model.index(1, 0).data(revealRole).toStringList().isEmpty());
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
                 QString::fromStdString(keptInPlaceDetail(VaultDenyReason::protectedUserDir)));
        QCOMPARE(model.index(1, 0).data(revealRole).toStringList(), QStringList{q(kept.path)});
        QVERIFY(model.index(0, 0).data(revealRole).toStringList().isEmpty());
        QVERIFY(model.setData(model.index(0, 0), Qt::Checked, Qt::CheckStateRole));
        QCOMPARE(state.ticked, std::set<std::string>{video.path});
        // The denied note and the approximate date are marked, their sentences in tooltips.
        for (QModelIndex marked : {model.index(1, LargeOldModel::noteColumn),
                                   model.index(0, LargeOldModel::openedColumn)}) {
            QVERIFY(!marked.data(Qt::DecorationRole).value<QIcon>().isNull());
            QVERIFY(!marked.data(Qt::ToolTipRole).toString().isEmpty());
        }
        QVERIFY(!model.index(1, LargeOldModel::openedColumn).data(Qt::DecorationRole).isValid());
        headersSitOverTheirCells(model, model.index(0, 0));
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

    void knownCachesAreTheSweepsLocations() {
        std::vector<Target> catalog = buildCatalog(DistributionMode::direct);
        KnownCaches known(catalog);
        auto title = [&](const char* id) {
            return findTarget(catalog, id)->title;
        };
        const std::string& h = homeDirectory();
        struct Case {
            std::string path;
            std::optional<std::string> target;
        };
        for (const Case& c : std::vector<Case>{
                 {h + "/.cache/pip", title("python_tools")},
                 {h + "/.npm/_cacache", title("javascript_tools")},
                 {h + "/.cache/google-chrome", title("browser_caches")},
                 // A pattern names the folders below its start, not the start itself.
                 {h + "/.cache/mozilla/firefox/k3x9.default-release/cache2",
                  title("browser_caches")},
                 {h + "/.cache/mozilla/firefox", std::nullopt},
                 {h + "/.cache/mozilla/firefox/k3x9.default-release", std::nullopt},
                 // Folders that hold caches are not caches, nor are names that merely start alike.
                 {h + "/.cache", std::nullopt},
                 {h + "/.cache/pip-tools", std::nullopt},
                 {h, std::nullopt},
                 {h + "/Documents", std::nullopt},
                 {"/usr/share", std::nullopt},
             }) {
            QCOMPARE(known.targetOf(c.path), c.target);
        }
        // Only what a Sweep tile holds: with no such target nothing is known.
        std::vector<Target> none;
        for (const Target& t : catalog) {
            bool swept = std::any_of(allTileKinds.begin(), allTileKinds.end(),
                                     [&](SweepTileKind k) { return tileHoldsTarget(k, t.id); });
            if (!swept) {
                none.push_back(t);
            }
        }
        QVERIFY(KnownCaches(none).empty());
    }

    void spaceTreeColoursComeFromTheRoot() {
        SpaceTree tree;
        tree.root = spaceNode(
            "/h", 100,
            {spaceNode("/h/Projects", 50,
                       {spaceNode("/h/Projects/app", 30), spaceNode("/h/Projects/site", 15),
                        spaceNode("/h/Projects/notes.txt", 5, {}, SpaceNode::Kind::file)}),
             spaceNode("/h/Videos", 30), spaceNode("/h/big.iso", 15, {}, SpaceNode::Kind::file)});
        tree.root.otherBytes = 5;
        tree.root.otherCount = 3;
        SpaceMapState state;
        state.replace(tree);
        SpaceTreeModel model(state);
        model.setKnownCaches(KnownCaches(buildCatalog(DistributionMode::direct)));
        auto colour = [&](const char* path) {
            return model.indexOfPath(path).data(colourRole).value<QColor>();
        };
        // Top-level folders have hues of their own; below them colours stay near the parent's.
        QVERIFY(colour("/h/Projects") != colour("/h/Videos"));
        QVERIFY(colour("/h/Projects/app") != colour("/h/Projects/site"));
        auto hueDistance = [](QColor a, QColor b) {
            int d = std::abs(a.hsvHue() - b.hsvHue());
            return std::min(d, 360 - d);
        };
        QVERIFY(hueDistance(colour("/h/Projects/app"), colour("/h/Projects")) <= 20);
        // Files are pale tints, so they read apart from folders.
        for (const char* file : {"/h/Projects/notes.txt", "/h/big.iso"}) {
            QVERIFY2(colour(file).hsvSaturationF() < 0.5 * colour("/h/Projects").hsvSaturationF(),
                     file);
        }
        QModelIndex root = model.index(0, 0);
        QModelIndex other = model.index(3, 0, root);
        QVERIFY(other.data(isOtherRole).toBool());
        QCOMPARE(other.data(colourRole).value<QColor>(), SpaceTreeModel::otherColour());
        // The list shows the same colour as a swatch, and each row's share of its parent.
        QModelIndex projects = model.indexOfPath("/h/Projects");
        QCOMPARE(projects.data(Qt::DecorationRole).value<QColor>(), colour("/h/Projects"));
        QCOMPARE(projects.siblingAtColumn(SpaceTreeModel::shareColumn).data().toString(),
                 QStringLiteral("50%"));
        QCOMPARE(model.indexOfPath("/h/Projects/app")
                     .siblingAtColumn(SpaceTreeModel::shareColumn)
                     .data()
                     .toString(),
                 QStringLiteral("60%"));
        headersSitOverTheirCells(model, projects);

        // A new tree with the same folders colours them the same way.
        std::map<std::string, QColor> before;
        for (const char* p : {"/h/Projects", "/h/Projects/app", "/h/Videos", "/h/big.iso"}) {
            before[p] = colour(p);
        }
        model.beginChange();
        state.replace(tree);
        model.endChange();
        for (const auto& [path, c] : before) {
            QCOMPARE(colour(path.c_str()), c);
        }

        // On the map, a folder keeps its colour when the map zooms into its parent.
        SunburstView view;
        view.resize(500, 500);
        view.setModel(&model);
        std::optional<QColor> atTop = view.colourOf(model.indexOfPath("/h/Projects/app"));
        QVERIFY(atTop.has_value());
        projects = model.indexOfPath("/h/Projects");
        view.select(projects);
        QVERIFY(view.zoomIn());
        QCOMPARE(view.colourOf(model.indexOfPath("/h/Projects/app")), atTop);
        QCOMPARE(view.colourOf(model.indexOfPath("/h/Projects/app")), colour("/h/Projects/app"));

        // Growth: what grew is warm, what shrank cool, a new folder's whole branch is new, the
        // rest grey; the map follows without losing its zoom, and turning it off restores the
        // colours of the tree.
        model.setGrowth(std::vector<FolderChange>{
            {"/h/Projects", ChangeKind::grew, 10, 50},
            {"/h/Projects/app", ChangeKind::appeared, 0, 30},
            {"/h/Videos", ChangeKind::shrank, 45, 30},
        });
        auto warm = [](QColor c) {
            return c.red() > c.blue() + 40 && c.red() > c.green();
        };
        auto cool = [](QColor c) {
            return c.green() > c.red() + 40 && c.blue() > c.red() + 40;
        };
        QVERIFY(warm(colour("/h/Projects")));
        QVERIFY(warm(colour("/h/Projects/app")));
        QVERIFY(cool(colour("/h/Videos")));
        QVERIFY(colour("/h/Projects/site").hsvSaturationF() < 0.1);
        QCOMPARE(colour("/h/big.iso"), growthColour(std::nullopt, 40, true));
        // The biggest change is the deepest colour.
        QVERIFY(colour("/h/Projects").hsvSaturationF() > colour("/h/Videos").hsvSaturationF());
        QCOMPARE(view.rootIndex(), projects);
        QCOMPARE(view.colourOf(model.indexOfPath("/h/Projects/app")), colour("/h/Projects/app"));
        model.setGrowth(std::nullopt);
        QCOMPARE(view.colourOf(model.indexOfPath("/h/Projects/app")), atTop);
        for (const auto& [path, c] : before) {
            QCOMPARE(colour(path.c_str()), c);
        }
    }

    void wedgeLabelsFitAlongTheRingTheRadiusOrNotAtAll() {
        QFont font;
        font.setPixelSize(11);
        QFontMetricsF metrics(font);
        const QString name = QStringLiteral("Documents");
        double w = metrics.horizontalAdvance(name);
        double h = metrics.height();
        auto degreesFor = [](double arc, double radius) {
            return arc / radius * 180 / M_PI;
        };
        struct Case {
            const char* what = nullptr;
            double inner = 0, outer = 0, span = 0;
            std::optional<bool> alongRing; // none: no label
            bool whole = false;
        };
        const Case cases[] = {
            {"a wide wedge", 100, 100 + 3 * h, 90, true, true},
            {"a thick, narrow wedge", 100, 100 + w + 24, degreesFor(1.6 * h, 100), false, true},
            {"a wedge with room for part of the name", 100, 100 + 2 * h, degreesFor(0.8 * w, 100),
             true, false},
            {"a sliver", 100, 100 + 3 * h, 0.5, std::nullopt, false},
            {"a ring thinner than a line", 100, 100 + 0.8 * h, 90, std::nullopt, false},
        };
        for (const Case& c : cases) {
            std::optional<LabelFit> fit = fitWedgeLabel(name, metrics, c.inner, c.outer, c.span);
            QVERIFY2(fit.has_value() == c.alongRing.has_value(), c.what);
            if (!fit) {
                continue;
            }
            QVERIFY2(fit->alongRing == *c.alongRing, c.what);
            QVERIFY2((fit->text == name) == c.whole, qPrintable(fit->text));
            if (!c.whole) {
                QVERIFY2(fit->text.endsWith(QChar(0x2026)), qPrintable(fit->text));
            }
        }
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
        for (const Case& c :
             {Case{10, "/h/a", false}, Case{170, "/h/a", false}, Case{190, "/h/b", false},
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
