#pragma once

#include "app/CatalogState.h"
#include "app/Models.h"
#include "app/Widgets.h"
#include "app/Workers.h"

#include <QCheckBox>
#include <QComboBox>
#include <QPushButton>
#include <QTreeView>
#include <QWidget>

namespace sd::app {

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

} // namespace sd::app
