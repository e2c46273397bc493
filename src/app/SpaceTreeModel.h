#pragma once

#include "space/SpaceTree.h"

#include <QAbstractItemModel>
#include <string>
#include <unordered_map>

namespace sd::app {

// The space tree as an item model: the root folder as the one top row, each node's kept children
// below it biggest first, and its "other" share as one last row. Rows point straight at the
// nodes of the tree the map state holds.
class SpaceTreeModel : public QAbstractItemModel {
    Q_OBJECT

public:
    enum Column { nameColumn, sizeColumn, columnCount_ };

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

private:
    void rebuildParents();
    const SpaceNode* nodeOf(const QModelIndex& index) const;
    bool isOther(const QModelIndex& index) const;
    QModelIndex indexOfNode(const SpaceNode* node, int column = 0) const;
    int rowsOf(const SpaceNode& node) const;

    const SpaceMapState& state_;
    std::unordered_map<const SpaceNode*, const SpaceNode*> parents_;
};

} // namespace sd::app
