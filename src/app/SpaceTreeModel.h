#pragma once

#include "app/KnownCaches.h"
#include "history/ScanHistory.h"
#include "space/SpaceTree.h"

#include <QAbstractItemModel>
#include <QColor>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace sd::app {

// The colour of a folder when the map shows growth: warm for one that grew (or is new), cool
// for one that shrank, deeper the bigger the change is next to `largest`, the biggest change on
// the map; a neutral grey when it did not change enough to be listed.
QColor growthColour(std::optional<std::int64_t> delta, std::uint64_t largest, bool isFile);

// The space tree as an item model: the root folder as the one top row, each node's kept children
// below it biggest first, and its "other" share as one last row. Rows point straight at the
// nodes of the tree the map state holds.
//
// Each row has one colour, worked out from the tree's root rather than from what is shown, so a
// folder keeps its colour when the map zooms in or out: every top-level folder has a hue of its
// own, folders below it turn that hue a little and grow lighter with depth, files are pale tints
// of their folder's hue, and "other" shares are grey.
class SpaceTreeModel : public QAbstractItemModel {
    Q_OBJECT

public:
    enum Column { nameColumn, sizeColumn, shareColumn, columnTotal };

    explicit SpaceTreeModel(const SpaceMapState& state, QObject* parent = nullptr);

    QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
    QModelIndex parent(const QModelIndex& child) const override;
    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

    // Call around every change of the state's tree.
    void beginChange();
    void endChange();
    // The index of the deepest node at or above `path`.
    QModelIndex indexOfPath(const std::string& path) const;
    // Marks the rows that are locations the Sweep measures.
    void setKnownCaches(KnownCaches caches);
    // Colours rows by how they changed since the scan `changes` were found against, or, with
    // none, by their place in the tree again. Only colours change: rows and zoom stay.
    void setGrowth(std::optional<std::vector<FolderChange>> changes);
    bool showsGrowth() const noexcept { return growth_.has_value(); }

    static QColor otherColour();

signals:
    void coloursChanged();

private:
    void rebuildParents();
    void rebuildColours();
    void rebuildGrowthColours();
    const SpaceNode* nodeOf(const QModelIndex& index) const;
    bool isOther(const QModelIndex& index) const;
    QModelIndex indexOfNode(const SpaceNode* node, int column = 0) const;
    int rowsOf(const SpaceNode& node) const;
    // A row's bytes as a share of its parent's; the root is all of itself.
    double shareOf(const QModelIndex& index) const;

    const SpaceMapState& state_;
    std::unordered_map<const SpaceNode*, const SpaceNode*> parents_;
    std::unordered_map<const SpaceNode*, QColor> colours_;
    std::optional<std::vector<FolderChange>> growth_;
    std::unordered_map<const SpaceNode*, QColor> growthColours_;
    KnownCaches knownCaches_;
    std::unordered_map<const SpaceNode*, std::string> knownOf_;
};

} // namespace sd::app
