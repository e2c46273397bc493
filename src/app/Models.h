#pragma once

#include "app/CatalogState.h"
#include "app/SweepState.h"
#include "reclaim/ReclaimJournal.h"

#include <QAbstractItemModel>
#include <QIcon>
#include <QSortFilterProxyModel>
#include <vector>

namespace sd::app {

enum ItemRole {
    subtitleRole = Qt::UserRole + 1,
    bytesRole,       // quint64 allocated bytes
    fractionRole,    // double 0…1 while measuring
    tileStateRole,   // TileState
    noteRole,        // a short sentence under the row
    kindRole,        // the tile kind as int, or the journal kind
    pathRole,        // an absolute path, for "Show in Files"
    groupRole,       // a journal item's row group
    entryIDRole,     // the journal entry a row belongs to
    inTrashRole,     // bool: still in the Trash
    riskRole,        // RiskLevel as int
    deniedRole,      // bool: the vault keeps this row's item in place
    isOtherRole,     // bool: a space-tree row standing for its parent's small entries
    isDirectoryRole, // bool
    fileCountRole,   // quint64 files below a space-tree row
    hasChildrenRole, // bool: a space-tree row with rows of its own
    colourRole,      // QColor: a space-tree row's colour, the same in the list and on the map
    knownCacheRole,  // QString: the catalog target a space-tree row is a location of, or empty
    shareRole,       // double 0…1: a space-tree row's share of its parent
};

enum class TileState { waiting, measuring, measured, recorded, moved };

// The six tiles of the Sweep, over SweepState: before any Sweep of this session the last
// record's tiles, during one each tile's progress, afterwards the measured tiles. Tiles whose data
// comes back by itself can be ticked once measured.
class SweepTileModel : public QAbstractListModel {
    Q_OBJECT

public:
    SweepTileModel(SweepState& state, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    bool setData(const QModelIndex& index, const QVariant& value, int role) override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;

    // The state changed under the model: sizes, progress or the Sweep itself.
    void refresh();
    SweepTileKind kindAt(int row) const { return allTileKinds[static_cast<size_t>(row)]; }
    bool isTickable(SweepTileKind kind) const;

signals:
    void selectionChanged();
    // The person ticked or unticked a tile themselves.
    void chosenChanged();

private:
    const SweepTile* measured(SweepTileKind kind) const;
    const SweepRecord::Tile* recorded(SweepTileKind kind) const;

    SweepState& state_;
};

// The catalog as a tree of targets, their apps and their paths, each with a switch and the
// measured size. Switching an app switches all of its paths.
class CatalogModel : public QAbstractItemModel {
    Q_OBJECT

public:
    enum Column { nameColumn, sizeColumn, noteColumn, columnTotal };

    CatalogModel(CatalogState& state, QObject* parent = nullptr);

    QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
    QModelIndex parent(const QModelIndex& child) const override;
    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    bool setData(const QModelIndex& index, const QVariant& value, int role) override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

    // Sizes or left-out marks changed.
    void refresh();
    const Target* targetAt(const QModelIndex& index) const;

signals:
    void switchesChanged();

private:
    struct Node {
        int target = -1;
        int app = -1;  // index into the target's apps, or -1
        int path = -1; // index into the target's paths, or -1
    };
    static quintptr encode(const Node& node);
    static Node decode(quintptr id);
    std::vector<Node> children(const Node& parent) const;
    Node nodeOf(const QModelIndex& index) const;
    std::vector<int> appPaths(const Node& app) const;
    Qt::CheckState checkState(const Node& node) const;
    std::uint64_t bytesOf(const Node& node) const;

    CatalogState& state_;
};

// Hides targets that disturb apps when only safe ones are wanted, and, once measured, targets
// with nothing in them.
class CatalogFilter : public QSortFilterProxyModel {
    Q_OBJECT

public:
    using QSortFilterProxyModel::QSortFilterProxyModel;

    void setSafeOnly(bool safeOnly);
    void setHideEmpty(bool hideEmpty);

protected:
    bool filterAcceptsRow(int sourceRow, const QModelIndex& sourceParent) const override;

private:
    bool safeOnly_ = false;
    bool hideEmpty_ = false;
};

// The reclaim journal, newest entry first, each entry with its items below it.
class ActivityModel : public QAbstractItemModel {
    Q_OBJECT

public:
    enum Column { whatColumn, groupColumn, whenColumn, sizeColumn, statusColumn, columnTotal };

    ActivityModel(const ReclaimJournal& journal, const std::vector<Target>& catalog,
                  QObject* parent = nullptr);

    QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
    QModelIndex parent(const QModelIndex& child) const override;
    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

    // Call around a reload of the journal.
    void beginChange();
    void endChange();

    const JournalEntry* entryAt(const QModelIndex& index) const;
    const TrashedItem* itemAt(const QModelIndex& index) const;
    // How a row group reads: a Sweep tile's or a catalog target's title.
    QString groupTitle(const JournalEntry& entry, const std::string& group) const;

private:
    void sortNewestFirst();

    const ReclaimJournal& journal_;
    const std::vector<Target>& catalog_;
    std::vector<size_t> order_; // rows onto journal entries, newest first
};

// The catalog targets a Sweep measures, each with its "in every Sweep" switch.
class SweepTargetsModel : public QAbstractListModel {
    Q_OBJECT

public:
    SweepTargetsModel(CatalogState& state, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    bool setData(const QModelIndex& index, const QVariant& value, int role) override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;

    void refresh();

signals:
    void leftOutChanged();

private:
    const Target* targetAt(int row) const;

    CatalogState& state_;
    std::vector<size_t> rows_; // rows onto the catalog's Sweep targets
};

QString bytesText(std::uint64_t bytes);
// A path inside the home folder written from "~", as people recognise it.
QString homeRelative(const std::string& path);
// The last component of a path, and the folder that holds it written from "~".
QString nameOf(const std::string& path);
QString folderOf(const std::string& path);
QString toQ(std::string_view text);
// How a column's cells and its header line up: numbers to the right, words to the left, so every
// header sits over what it names.
QVariant columnAlignment(bool numbers);
// The mark of a cell cut to one line whose whole sentence is in its tooltip.
QIcon noteIcon();
// A journal date ("2024-05-01T10:00:00Z") in the local time zone, as people read it.
QString dateText(const std::string& isoDate);
// A share of a whole as a whole percentage; shares too small to round to 1% read "<1%".
QString shareText(double share);
// A duration in seconds below a minute, in minutes and seconds above.
QString durationText(double seconds);

} // namespace sd::app
