#pragma once

#include "app/Models.h"
#include "app/Widgets.h"
#include "app/Workers.h"

#include <QPushButton>
#include <QTreeView>
#include <QWidget>

namespace sd::app {

// Activity: every move to the Trash, newest first, with Put Back of an entry or a group.
class ActivityPage : public QWidget {
    Q_OBJECT

public:
    ActivityPage(JournalStore& journal, const std::vector<Target>& catalog,
                 QWidget* parent = nullptr);

    ActivityModel& model() noexcept { return *model_; }
    QTreeView* tree() const noexcept { return tree_; }
    PutBackRunner& runner() noexcept { return *runner_; }
    QPushButton* putBackEntryButton() const noexcept { return putBackEntry_; }
    QPushButton* putBackGroupButton() const noexcept { return putBackGroup_; }
    QPushButton* putBackItemButton() const noexcept { return putBackItem_; }
    const Banner* banner() const noexcept { return banner_; }

    void putBack(bool groupOnly);
    // Puts back only the chosen item; the rest of its entry stays in the Trash.
    void putBackItem();

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
    QPushButton* putBackItem_;
    QPushButton* reveal_;
    ProgressStrip* progress_;
    Banner* banner_;
    Banner* journalWarning_;
};

} // namespace sd::app
