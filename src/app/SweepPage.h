#pragma once

#include "app/Models.h"
#include "app/SweepState.h"
#include "app/Widgets.h"
#include "app/Workers.h"

#include <QListView>
#include <QPushButton>
#include <QStyledItemDelegate>
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
    QPushButton* emptyTrashButton() const noexcept { return emptyTrash_; }
    TaskRunner& emptyTrashRunner() noexcept { return *emptyRunner_; }
    const Banner* banner() const noexcept { return banner_; }
    const SweepState& state() const noexcept { return state_; }

    void startSweep();
    void reclaimSelected();
    void rememberChosen();
    void putBackLast();
    // Asks, then has the desktop's own tool empty the Trash; the Sweep then measures again.
    void emptyTrash();
    // Lists every place a tile would move, with what each holds.
    void showTileItems(SweepTileKind kind);

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
    // Measures again after something moved, keeping the news of what moved on screen.
    void remeasure();

    enum class Job { none, sweeping, reclaiming };

    JournalStore& journal_;
    SweepState state_;
    Job job_ = Job::none;
    std::optional<std::string> lastEntryID_;
    SweepRunner* runner_;
    PutBackRunner* putBackRunner_;
    TaskRunner* emptyRunner_;
    bool quietSweep_ = false;
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
    QPushButton* emptyTrash_;
    ProgressStrip* progress_;
    Banner* banner_;
};

} // namespace sd::app
