#pragma once

#include "app/AppState.h"
#include "app/Models.h"
#include "app/Widgets.h"
#include "app/Workers.h"

#include <QCheckBox>
#include <QComboBox>
#include <QListView>
#include <QPushButton>
#include <QStyledItemDelegate>
#include <QTreeView>
#include <QWidget>

namespace sd::app {

// Draws a Sweep tile as a card: tick, title, size, subtitle, and either the tile's progress bar
// or its note. A click anywhere on a tickable card ticks it.
class TileDelegate : public QStyledItemDelegate {
    Q_OBJECT

public:
    using QStyledItemDelegate::QStyledItemDelegate;
    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
    bool editorEvent(QEvent* event, QAbstractItemModel* model, const QStyleOptionViewItem& option,
                     const QModelIndex& index) override;
};

// The six tiles in two columns that share the width.
class TileView : public QListView {
    Q_OBJECT

public:
    explicit TileView(QWidget* parent = nullptr);

protected:
    void resizeEvent(QResizeEvent* event) override;
};

// The Sweep: one button measures everything that comes back by itself; ticked tiles move to the
// Trash through the vault and can be put back from the same screen.
class SweepPage : public QWidget {
    Q_OBJECT

public:
    SweepPage(JournalStore& journal, QWidget* parent = nullptr);

    SweepRunner& runner() noexcept { return *runner_; }
    SweepTileModel& tiles() noexcept { return *tiles_; }
    TileView* tileView() const noexcept { return view_; }
    QPushButton* sweepButton() const noexcept { return sweep_; }
    QPushButton* reclaimButton() const noexcept { return reclaim_; }
    QPushButton* putBackButton() const noexcept { return putBack_; }
    const Banner* banner() const noexcept { return banner_; }
    const SweepState& state() const noexcept { return state_; }

    void startSweep();
    void reclaimSelected();
    void putBackLast();

signals:
    void movedToTrash(const std::vector<sd::MovedItem>& moved);

private:
    void onProgress();
    void onSwept(const std::shared_ptr<Sweep>& sweep);
    void onReclaimed(const SweepReclaimResult& result);
    void onPutBack(const TrashRestoreResult& result);
    void onFailed(const QString& message, bool cancelled);
    void updateControls();
    void updateSummary();

    enum class Job { none, sweeping, reclaiming };

    JournalStore& journal_;
    SweepState state_;
    Job job_ = Job::none;
    std::optional<std::string> lastEntryID_;
    SweepRunner* runner_;
    PutBackRunner* putBackRunner_;
    SweepTileModel* tiles_;
    TileView* view_;
    QLabel* total_;
    QLabel* totalNote_;
    QLabel* record_;
    QLabel* highlights_;
    QLabel* finished_;
    QPushButton* sweep_;
    QPushButton* reclaim_;
    QPushButton* putBack_;
    ProgressStrip* progress_;
    Banner* banner_;
};

// Cleanup: the whole catalog with a switch for each target, app and path; measure, then move
// what is switched on to the Trash after one confirmation, or two for targets that disturb apps.
class CleanupPage : public QWidget {
    Q_OBJECT

public:
    enum class Step { idle, scanning, scanned, confirmDeep, cleaning, done };

    CleanupPage(CatalogState& catalog, JournalStore& journal, QWidget* parent = nullptr);

    CleanupRunner& runner() noexcept { return *runner_; }
    CatalogModel& model() noexcept { return *model_; }
    QTreeView* tree() const noexcept { return tree_; }
    QPushButton* measureButton() const noexcept { return measure_; }
    QPushButton* cleanButton() const noexcept { return clean_; }
    QPushButton* putBackButton() const noexcept { return putBack_; }
    const Banner* banner() const noexcept { return banner_; }
    Step step() const noexcept { return step_; }
    CatalogFilter& filter() noexcept { return *filter_; }

    void measure();
    void startClean();
    // The left-out marks changed in Settings.
    void refreshLeftOut();

signals:
    void movedToTrash(const std::vector<sd::MovedItem>& moved);

private:
    std::vector<Target> selectedTargets() const;
    void onMeasured(const ScanResult& result);
    void onPrepared(const CleanPlan& plan);
    void onCleaned(const CleanOutcome& outcome);
    void onFailed(const QString& message, bool cancelled);
    void onPutBack(const TrashRestoreResult& result);
    void updateControls();
    void showTreeOrNothingLeft();

    CatalogState& catalog_;
    JournalStore& journal_;
    Step step_ = Step::idle;
    std::optional<std::string> lastEntryID_;
    CleanupRunner* runner_;
    PutBackRunner* putBackRunner_;
    CatalogModel* model_;
    CatalogFilter* filter_;
    QTreeView* tree_;
    QComboBox* risk_;
    QCheckBox* hideEmpty_;
    QLabel* summary_;
    QLabel* nothingLeft_;
    QPushButton* measure_;
    QPushButton* clean_;
    QPushButton* putBack_;
    ProgressStrip* progress_;
    Banner* banner_;
};

// Activity: every move to the Trash, newest first, with Put Back of an entry or a group.
class ActivityPage : public QWidget {
    Q_OBJECT

public:
    ActivityPage(JournalStore& journal, const std::vector<Target>& catalog,
                 QWidget* parent = nullptr);

    ActivityModel& model() noexcept { return *model_; }
    QTreeView* tree() const noexcept { return tree_; }
    QPushButton* putBackEntryButton() const noexcept { return putBackEntry_; }
    QPushButton* putBackGroupButton() const noexcept { return putBackGroup_; }
    const Banner* banner() const noexcept { return banner_; }

    void putBack(bool groupOnly);

private:
    void onSelection();
    void onPutBack(const TrashRestoreResult& result);

    JournalStore& journal_;
    ActivityModel* model_;
    PutBackRunner* runner_;
    QTreeView* tree_;
    QLabel* empty_;
    QPushButton* putBackEntry_;
    QPushButton* putBackGroup_;
    QPushButton* reveal_;
    ProgressStrip* progress_;
    Banner* banner_;
    Banner* journalWarning_;
};

// Settings: which catalog targets every Sweep leaves out, and what this build is.
class SettingsPage : public QWidget {
    Q_OBJECT

public:
    SettingsPage(CatalogState& catalog, QWidget* parent = nullptr);

    SweepTargetsModel& model() noexcept { return *model_; }

signals:
    void leftOutChanged();
    void showIntroduction();

private:
    SweepTargetsModel* model_;
};

// The first screen of a first start: what the app does and what it never does.
class OnboardingPage : public QWidget {
    Q_OBJECT

public:
    explicit OnboardingPage(QWidget* parent = nullptr);
    QPushButton* startButton() const noexcept { return start_; }

signals:
    void finished();

private:
    QPushButton* start_;
};

QString durationText(double seconds);

} // namespace sd::app
