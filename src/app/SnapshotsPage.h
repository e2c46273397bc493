#pragma once

#include "app/Widgets.h"
#include "app/Workers.h"
#include "base/Progress.h"
#include "review/LocalSnapshots.h"

#include <QAbstractTableModel>
#include <QCheckBox>
#include <QLabel>
#include <QPushButton>
#include <QTreeView>
#include <QWidget>
#include <memory>

namespace sd::app {

// Listing and deleting local snapshots on a worker thread. Deleting reports through a polled
// progress; Stop lets the snapshot being deleted finish and skips the rest.
class SnapshotsRunner : public QObject {
    Q_OBJECT

public:
    // `tool` is the system's snapshot tool unless a test brings its own.
    explicit SnapshotsRunner(std::shared_ptr<const platform::LocalSnapshotTool> tool = nullptr,
                             QObject* parent = nullptr);

    void list();
    void remove(std::vector<LocalSnapshot> listing, SnapshotDeletionConsent consent);
    void stop() { runner_.stop(); }
    bool isRunning() const noexcept { return runner_.isRunning(); }
    const platform::LocalSnapshotTool& tool() const noexcept { return *tool_; }
    OperationProgress& progress() noexcept { return *progress_; }

signals:
    void progressChanged();
    void listed(const sd::LocalSnapshotListing& listing);
    void deleted(const sd::SnapshotDeletionOutcome& outcome);
    void failed(const QString& message, bool cancelled);
    void runningChanged(bool running);

private:
    std::shared_ptr<const platform::LocalSnapshotTool> tool_;
    std::shared_ptr<OperationProgress> progress_ = std::make_shared<OperationProgress>();
    TaskRunner runner_;
};

// The snapshots of a review session, one row each, with a tick while the person is choosing.
class SnapshotsModel : public QAbstractTableModel {
    Q_OBJECT

public:
    enum Column { stampColumn, dateColumn, sizeColumn, nameColumn, columnTotal };

    explicit SnapshotsModel(SnapshotReviewSession& session, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    bool setData(const QModelIndex& index, const QVariant& value, int role) override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

    void reset(const std::function<void()>& change);

signals:
    void selectionChanged();

private:
    SnapshotReviewSession& session_;
};

// Worth a look → Snapshots: choose, acknowledge that deleting cannot be undone, watch them go
// one at a time (Stop skips the rest), and read what happened.
class SnapshotsPage : public QWidget {
    Q_OBJECT

public:
    explicit SnapshotsPage(std::shared_ptr<const platform::LocalSnapshotTool> tool = nullptr,
                           QWidget* parent = nullptr);
    ~SnapshotsPage() override;

    SnapshotsRunner& runner() noexcept { return *runner_; }
    const SnapshotReviewSession& session() const noexcept { return *session_; }
    SnapshotsModel& model() noexcept { return *model_; }
    QTreeView* tree() const noexcept { return tree_; }
    QPushButton* refreshButton() const noexcept { return refresh_; }
    QPushButton* reviewButton() const noexcept { return review_; }
    QCheckBox* acknowledgement() const noexcept { return acknowledge_; }
    QPushButton* deleteButton() const noexcept { return delete_; }
    QPushButton* backButton() const noexcept { return back_; }
    QPushButton* doneButton() const noexcept { return done_; }
    ProgressStrip* progressStrip() const noexcept { return progress_; }
    const Banner* banner() const noexcept { return banner_; }
    QLabel* emptyLabel() const noexcept { return empty_; }

    void refresh();

protected:
    // The list is read the first time the screen opens, not when the app starts.
    void showEvent(QShowEvent* event) override;

private:
    void onListed(const LocalSnapshotListing& listing);
    void onProgress();
    void onDeleted(const SnapshotDeletionOutcome& outcome);
    void startDeleting();
    void updateControls();

    SnapshotsRunner* runner_;
    std::unique_ptr<SnapshotReviewSession> session_;
    SnapshotsModel* model_;
    QTreeView* tree_;
    QLabel* empty_;
    QLabel* summary_;
    QWidget* confirmPanel_;
    QLabel* confirmText_;
    QCheckBox* acknowledge_;
    QPushButton* refresh_;
    QPushButton* review_;
    QPushButton* delete_;
    QPushButton* back_;
    QPushButton* done_;
    ProgressStrip* progress_;
    Banner* banner_;
    bool listedOnce_ = false;
};

} // namespace sd::app
