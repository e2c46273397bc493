#pragma once

#include "app/Models.h"
#include "app/Widgets.h"
#include "app/Workers.h"
#include "reclaim/VaultService.h"
#include "review/DuplicateComparer.h"
#include "review/LargeOldFinder.h"
#include "review/ReviewReclaim.h"

#include <QLabel>
#include <QTreeView>
#include <QWidget>
#include <map>
#include <set>

namespace sd::app {

// What the review screens show: the last report, the vault's verdicts, the ticks, and what
// already went to the Trash from it.
template <typename Report> struct ReviewState {
    std::optional<Report> report;
    std::map<std::string, VaultDenyReason> denied;
    std::set<std::string> ticked;
    std::set<std::string> moved;
};

// Large and old files, one row each, biggest first. Nothing starts ticked; a row the vault keeps
// in place has no tick and says why.
class LargeOldModel : public QAbstractTableModel {
    Q_OBJECT

public:
    enum Column {
        nameColumn,
        folderColumn,
        sizeColumn,
        openedColumn,
        noteColumn,
        actionColumn,
        columnCount_
    };

    explicit LargeOldModel(ReviewState<LargeOldReport>& state, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    bool setData(const QModelIndex& index, const QVariant& value, int role) override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

    void beginChange() { beginResetModel(); }
    void endChange() { endResetModel(); }
    const LargeOldItem* itemAt(int row) const;

signals:
    void tickedChanged();

private:
    bool tickable(const LargeOldItem& item) const;

    ReviewState<LargeOldReport>& state_;
};

// Duplicate groups with their copies below them. The copy to keep is marked and can never be
// ticked, nor can a copy that shares its storage or one the vault keeps in place.
class DuplicatesModel : public QAbstractItemModel {
    Q_OBJECT

public:
    enum Column { nameColumn, folderColumn, sizeColumn, noteColumn, actionColumn, columnCount_ };

    DuplicatesModel(ReviewState<DuplicateReport>& state, std::shared_ptr<const VaultPolicy> policy,
                    QObject* parent = nullptr);

    QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
    QModelIndex parent(const QModelIndex& child) const override;
    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    bool setData(const QModelIndex& index, const QVariant& value, int role) override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

    void beginChange() { beginResetModel(); }
    void endChange() { endResetModel(); }
    const DuplicateGroup* groupAt(const QModelIndex& index) const;
    const DuplicateFile* fileAt(const QModelIndex& index) const;
    // What moving the group's copies could give back: those that can be ticked, so neither the
    // copy to keep, nor shared copies, nor what the vault keeps in place.
    std::uint64_t givesBack(const DuplicateGroup& group) const;
    static bool isKeep(const DuplicateGroup& group, const DuplicateFile& file) {
        return file.path == group.suggestedKeep;
    }

signals:
    void tickedChanged();

private:
    bool tickable(const DuplicateGroup& group, const DuplicateFile& file) const;

    ReviewState<DuplicateReport>& state_;
    std::shared_ptr<const VaultPolicy> policy_;
};

// One "Worth a look" screen: a search, its list, and a move of what is ticked.
class ReviewPage : public QWidget {
    Q_OBJECT

public:
    enum class Kind { largeOld, duplicates };

    ReviewPage(Kind kind, JournalStore& journal, QWidget* parent = nullptr);

    ReviewRunner& runner() noexcept { return *runner_; }
    QAbstractItemModel& model() const noexcept { return *model_; }
    QTreeView* tree() const noexcept { return tree_; }
    QPushButton* searchButton() const noexcept { return search_; }
    QPushButton* moveButton() const noexcept { return move_; }
    QPushButton* putBackButton() const noexcept { return putBack_; }
    const Banner* banner() const noexcept { return banner_; }
    // Options the next search runs with; tests shorten them.
    void setLargeOldOptions(LargeOldOptions options) { largeOldOptions_ = options; }
    // The folder a duplicate search looks in; the home folder unless chosen.
    void setDuplicateRoot(std::string root);

    void search();
    void moveTicked();

signals:
    void movedToTrash(const std::vector<sd::MovedItem>& moved);

private:
    void onLargeOld(const LargeOldFound& found);
    void onDuplicates(const DuplicatesFound& found);
    void onMoved(const ReviewMoveResult& result);
    // Changes the shown state inside a reset of the model, then lays the rows out again.
    void changeState(const std::function<void()>& change);
    void addRevealButtons();
    void updateControls();
    std::vector<ReviewedItem> tickedItems(std::vector<std::string>& refused) const;

    Kind kind_;
    JournalStore& journal_;
    std::shared_ptr<const VaultPolicy> policy_;
    ReviewState<LargeOldReport> largeOld_;
    ReviewState<DuplicateReport> duplicates_;
    LargeOldOptions largeOldOptions_;
    std::string duplicateRoot_;
    std::optional<std::string> lastEntryID_;
    ReviewRunner* runner_;
    PutBackRunner* putBackRunner_;
    QAbstractItemModel* model_;
    QTreeView* tree_;
    QLabel* scope_;
    QLabel* summary_;
    QLabel* empty_;
    QPushButton* search_;
    QPushButton* choose_ = nullptr;
    QPushButton* reveal_;
    QPushButton* move_;
    QPushButton* putBack_;
    ProgressStrip* progress_;
    Banner* banner_;
};

} // namespace sd::app
