#include "app/SpaceTreeModel.h"

#include "app/Models.h"
#include "core/ByteFormat.h"
#include "core/PathRules.h"

namespace sd::app {

namespace {

// An "other" row points at its node with the lowest bit set; nodes are aligned, so the bit is
// free.
constexpr quintptr otherTag = 1;

} // namespace

SpaceTreeModel::SpaceTreeModel(const SpaceMapState& state, QObject* parent)
    : QAbstractItemModel(parent), state_(state) {
    rebuildParents();
}

void SpaceTreeModel::beginChange() {
    beginResetModel();
}

void SpaceTreeModel::endChange() {
    rebuildParents();
    endResetModel();
}

void SpaceTreeModel::rebuildParents() {
    // Nodes know their children only; the way up is kept here, pointing into the state's tree.
    parents_.clear();
    if (!state_.tree()) {
        return;
    }
    std::vector<const SpaceNode*> pending{&state_.tree()->root};
    parents_[pending.back()] = nullptr;
    while (!pending.empty()) {
        const SpaceNode* node = pending.back();
        pending.pop_back();
        for (const SpaceNode& child : node->children) {
            parents_[&child] = node;
            pending.push_back(&child);
        }
    }
}

bool SpaceTreeModel::isOther(const QModelIndex& index) const {
    return index.isValid() && (index.internalId() & otherTag) != 0;
}

const SpaceNode* SpaceTreeModel::nodeOf(const QModelIndex& index) const {
    if (!index.isValid()) {
        return nullptr;
    }
    return reinterpret_cast<const SpaceNode*>(index.internalId() & ~otherTag);
}

int SpaceTreeModel::rowsOf(const SpaceNode& node) const {
    return static_cast<int>(node.children.size()) + (node.otherBytes > 0 ? 1 : 0);
}

QModelIndex SpaceTreeModel::indexOfNode(const SpaceNode* node, int column) const {
    auto up = parents_.find(node);
    if (node == nullptr || up == parents_.end()) {
        return {};
    }
    int row = up->second == nullptr ? 0 : static_cast<int>(node - up->second->children.data());
    return createIndex(row, column, reinterpret_cast<quintptr>(node));
}

QModelIndex SpaceTreeModel::index(int row, int column, const QModelIndex& parent) const {
    if (row < 0 || column < 0 || column >= columnCount_ || !state_.tree()) {
        return {};
    }
    if (!parent.isValid()) {
        return row == 0 ? indexOfNode(&state_.tree()->root, column) : QModelIndex();
    }
    const SpaceNode* node = nodeOf(parent);
    if (isOther(parent) || row >= rowsOf(*node)) {
        return {};
    }
    if (static_cast<size_t>(row) < node->children.size()) {
        return createIndex(row, column,
                           reinterpret_cast<quintptr>(&node->children[static_cast<size_t>(row)]));
    }
    return createIndex(row, column, reinterpret_cast<quintptr>(node) | otherTag);
}

QModelIndex SpaceTreeModel::parent(const QModelIndex& child) const {
    if (!child.isValid()) {
        return {};
    }
    const SpaceNode* node = nodeOf(child);
    if (isOther(child)) {
        return indexOfNode(node);
    }
    auto up = parents_.find(node);
    return up == parents_.end() ? QModelIndex() : indexOfNode(up->second);
}

int SpaceTreeModel::rowCount(const QModelIndex& parent) const {
    if (!state_.tree()) {
        return 0;
    }
    if (!parent.isValid()) {
        return 1;
    }
    if (parent.column() != 0 || isOther(parent)) {
        return 0;
    }
    return rowsOf(*nodeOf(parent));
}

int SpaceTreeModel::columnCount(const QModelIndex&) const {
    return columnCount_;
}

QVariant SpaceTreeModel::data(const QModelIndex& index, int role) const {
    const SpaceNode* node = nodeOf(index);
    if (node == nullptr) {
        return {};
    }
    bool other = isOther(index);
    std::uint64_t bytes = other ? node->otherBytes : node->bytes;
    switch (role) {
    case Qt::DisplayRole:
        if (index.column() == sizeColumn) {
            return bytesText(bytes);
        }
        if (other) {
            return QStringLiteral("%1 smaller %2")
                .arg(QString::fromStdString(formatCount(node->otherCount)),
                     node->otherCount == 1 ? QStringLiteral("item") : QStringLiteral("items"));
        }
        if (node == &state_.tree()->root && node->path == homeDirectory()) {
            return QStringLiteral("Home");
        }
        return QString::fromStdString(node->name);
    case Qt::ToolTipRole:
    case noteRole:
        if (other) {
            return QString::fromStdString(otherShareNote(*node));
        }
        if (!node->isComplete) {
            return QStringLiteral("Not measured whole: the time limit or an unreadable folder "
                                  "cut it short.");
        }
        return role == noteRole ? QVariant() : QVariant(homeRelative(node->path));
    case Qt::TextAlignmentRole:
        return index.column() == sizeColumn ? QVariant(Qt::AlignRight | Qt::AlignVCenter)
                                            : QVariant();
    case bytesRole:
        return QVariant::fromValue<quint64>(bytes);
    case pathRole:
        return QString::fromStdString(node->path);
    case isOtherRole:
        return other;
    case isDirectoryRole:
        return !other && node->kind == SpaceNode::Kind::directory;
    case hasChildrenRole:
        return !other && !node->children.empty();
    case fileCountRole:
        return QVariant::fromValue<quint64>(other ? node->otherCount : node->fileCount);
    default:
        return {};
    }
}

QVariant SpaceTreeModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) {
        return {};
    }
    return section == nameColumn ? QStringLiteral("Name") : QStringLiteral("Size on disk");
}

QModelIndex SpaceTreeModel::indexOfPath(const std::string& path) const {
    if (!state_.tree()) {
        return {};
    }
    return indexOfNode(findDeepestNode(state_.tree()->root, path));
}

} // namespace sd::app
