#pragma once

#include "app/Widgets.h"
#include "app/Workers.h"
#include "reclaim/VaultPolicy.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QTreeView>
#include <QWidget>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sd::app {

// What the "Worth a look" screens share: a search with its progress and Stop, a list in which
// nothing starts ticked, "Show in Files" for the chosen row and for every row the vault keeps in
// place, and a move of the ticked rows to the Trash with Put Back right after it. Each screen
// says what it searches, how its rows read and which of them are ticked.
class ReviewPage : public QWidget {
    Q_OBJECT

public:
    ReviewRunner& runner() noexcept { return *runner_; }
    QAbstractItemModel& model() const noexcept { return *model_; }
    QTreeView* tree() const noexcept { return tree_; }
    QPushButton* searchButton() const noexcept { return search_; }
    QPushButton* moveButton() const noexcept { return move_; }
    QPushButton* putBackButton() const noexcept { return putBack_; }
    const Banner* banner() const noexcept { return banner_; }
    // The line under the scope that sums up the last search.
    QString summaryText() const { return summary_->text(); }

    void search();
    void moveTicked();

signals:
    void movedToTrash(const std::vector<sd::MovedItem>& moved);

protected:
    // How the screen's journal entries read in Activity.
    struct JournalLabels {
        std::string title;
        std::string group;
    };
    // The widths of the list's first columns; the note column takes what is left.
    struct Columns {
        std::vector<int> widths;
        int note = 0;
        int action = 0;
    };

    ReviewPage(const QString& title, const QString& explanation, const QString& scope,
               JournalLabels labels, JournalStore& journal, QWidget* parent);

    // Shows `model` in the list; called once from the screen's constructor.
    void attachModel(QAbstractItemModel* model, const Columns& columns);
    // Buttons of the screen's own go beside Search.
    QHBoxLayout* topBar() const noexcept { return topBar_; }
    QLabel* scopeLabel() const noexcept { return scope_; }
    const VaultPolicy& policy() const noexcept { return *policy_; }
    std::shared_ptr<const VaultPolicy> sharedPolicy() const noexcept { return policy_; }

    // Changes the shown state inside a reset of the model, then lays the rows out again.
    void changeState(const std::function<void()>& change);
    // Shows a finished search: its summary line, notes about it, and what an empty one says.
    void showFound(const std::vector<std::string>& notes, const QString& emptyText, bool anything);
    void updateControls();

    virtual void startSearch() = 0;
    virtual bool hasReport() const = 0;
    // The line that sums up the report as it stands, what already went to the Trash left out;
    // empty when there is nothing to sum up.
    virtual QString summaryLine() const = 0;
    virtual size_t tickedCount() const = 0;
    // The ticked rows as the vault takes them; `refused` gains a sentence for each row that can
    // no longer move.
    virtual std::vector<ReviewedItem> tickedItems(std::vector<std::string>& refused) const = 0;
    // Runs `change` between the model's begin and end of a reset.
    virtual void resetModel(const std::function<void()>& change) = 0;
    // Marks what reached the Trash and clears the ticks; runs inside a reset.
    virtual void markMoved(const std::vector<MovedItem>& moved) = 0;
    // The screen's own controls, enabled only while nothing runs.
    virtual void setOwnControlsEnabled(bool) {}

private:
    void onMoved(const ReviewMoveResult& result);
    // The allocated bytes of the ticked rows, as the model reports them.
    std::uint64_t tickedBytes() const;
    void addRevealButtons();

    JournalStore& journal_;
    JournalLabels labels_;
    Columns columns_;
    std::shared_ptr<const VaultPolicy> policy_;
    std::optional<std::string> lastEntryID_;
    ReviewRunner* runner_;
    PutBackRunner* putBackRunner_;
    QAbstractItemModel* model_ = nullptr;
    QHBoxLayout* topBar_;
    QTreeView* tree_;
    QLabel* scope_;
    QLabel* summary_;
    QLabel* empty_;
    QPushButton* search_;
    QPushButton* reveal_;
    QPushButton* move_;
    QPushButton* putBack_;
    ProgressStrip* progress_;
    Banner* banner_;
};

} // namespace sd::app
