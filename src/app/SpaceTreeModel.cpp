#include "app/SpaceTreeModel.h"

#include "app/Models.h"
#include "core/ByteFormat.h"
#include "core/PathRules.h"

#include <QFont>
#include <QStringList>
#include <algorithm>
#include <array>
#include <cmath>

namespace sd::app {

namespace {

// An "other" row points at its node with the lowest bit set; nodes are aligned, so the bit is
// free.
constexpr quintptr otherTag = 1;

// Hues for the top-level folders, chosen to sit apart and stay calm.
const std::array<QColor, 8> palette{QColor(0x4f, 0x7c, 0xe8), QColor(0x2f, 0xa8, 0x8f),
                                    QColor(0xe0, 0x8a, 0x3c), QColor(0x9b, 0x6b, 0xd6),
                                    QColor(0xd9, 0x5f, 0x7a), QColor(0x5a, 0xb0, 0xd8),
                                    QColor(0xc4, 0xa8, 0x35), QColor(0x6d, 0x8a, 0x5a)};
const QColor rootColour(0x5b, 0x64, 0x70);

// A child's colour from its parent's: siblings turn the hue a few degrees apart, alternating
// sides, and every level is a little lighter, so neighbours stay tellable without a rainbow.
QColor childColour(const QColor& parent, int row) {
    // Pairs of siblings share a step: 0, +9, -9, +18, -18, …
    const int step = (row + 1) / 2;
    double turn = (row % 2 == 0 ? 1 : -1) * 9.0 * step;
    double hue = std::fmod(parent.hsvHueF() * 360 + turn + 360.0, 360.0) / 360.0;
    return QColor::fromHsvF(static_cast<float>(hue), parent.hsvSaturationF(), parent.valueF())
        .lighter(112);
}

// Files are pale tints of their folder's hue, so they read apart from folders at a glance.
QColor fileColour(const QColor& folderish) {
    return QColor::fromHsvF(folderish.hsvHueF(), folderish.hsvSaturationF() * 0.32f,
                            std::min(1.0f, folderish.valueF() * 1.1f));
}

} // namespace

QColor growthColour(std::optional<std::int64_t> delta, std::uint64_t largest, bool isFile) {
    if (!delta || *delta == 0 || largest == 0) {
        return isFile ? QColor(0xe6, 0xe8, 0xec) : QColor(0xd3, 0xd7, 0xde);
    }
    // The square root keeps a middling change visible next to one huge one.
    const double magnitude = static_cast<double>(*delta < 0 ? -*delta : *delta);
    const double strength =
        std::clamp(std::sqrt(magnitude / static_cast<double>(largest)), 0.0, 1.0);
    const float hue = *delta > 0 ? 0.04f : 0.47f; // ember for growth, teal for shrinking
    const auto saturation = static_cast<float>(0.22 + 0.68 * strength);
    const auto value = static_cast<float>(0.98 - 0.22 * strength);
    return QColor::fromHsvF(hue, isFile ? saturation * 0.6f : saturation, value);
}

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

void SpaceTreeModel::setKnownCaches(KnownCaches caches) {
    beginResetModel();
    knownCaches_ = std::move(caches);
    rebuildParents();
    endResetModel();
}

QColor SpaceTreeModel::otherColour() {
    return {0xc9, 0xce, 0xd6};
}

void SpaceTreeModel::rebuildColours() {
    colours_.clear();
    knownOf_.clear();
    if (!state_.tree()) {
        return;
    }
    const SpaceNode& root = state_.tree()->root;
    colours_[&root] = rootColour;
    // Top-level folders take the palette in the order they are drawn, biggest first; the rest
    // follow from their parents.
    std::vector<const SpaceNode*> pending{&root};
    while (!pending.empty()) {
        const SpaceNode* node = pending.back();
        pending.pop_back();
        if (!knownCaches_.empty()) {
            if (auto title = knownCaches_.targetOf(node->path)) {
                knownOf_[node] = std::move(*title);
            }
        }
        const QColor& own = colours_[node];
        for (size_t row = 0; row < node->children.size(); ++row) {
            const SpaceNode& child = node->children[row];
            QColor colour = node == &root ? palette[row % palette.size()]
                                          : childColour(own, static_cast<int>(row));
            colours_[&child] = child.kind == SpaceNode::Kind::file ? fileColour(colour) : colour;
            pending.push_back(&child);
        }
    }
}

void SpaceTreeModel::setGrowth(std::optional<std::vector<FolderChange>> changes) {
    growth_ = std::move(changes);
    rebuildGrowthColours();
    emit coloursChanged();
}

void SpaceTreeModel::rebuildGrowthColours() {
    growthColours_.clear();
    if (!growth_ || !state_.tree()) {
        return;
    }
    std::unordered_map<std::string, const FolderChange*> byPath;
    std::uint64_t largest = 0;
    for (const FolderChange& change : *growth_) {
        byPath[change.path] = &change;
        const std::int64_t delta = change.delta();
        largest = std::max(largest, static_cast<std::uint64_t>(delta < 0 ? -delta : delta));
    }
    // A new folder's whole branch is new: below it, every row takes its colour.
    struct Pending {
        const SpaceNode* node;
        std::optional<std::int64_t> inherited;
    };
    std::vector<Pending> pending{{&state_.tree()->root, std::nullopt}};
    while (!pending.empty()) {
        auto [node, inherited] = pending.back();
        pending.pop_back();
        std::optional<std::int64_t> delta = inherited;
        if (auto found = byPath.find(node->path); found != byPath.end()) {
            delta = found->second->delta();
            if (found->second->kind == ChangeKind::appeared) {
                inherited = delta;
            }
        }
        growthColours_[node] = growthColour(delta, largest, node->kind == SpaceNode::Kind::file);
        for (const SpaceNode& child : node->children) {
            pending.push_back({&child, inherited});
        }
    }
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
    rebuildColours();
    rebuildGrowthColours();
}

bool SpaceTreeModel::isOther(const QModelIndex& index) const {
    return index.isValid() && (index.internalId() & otherTag) != 0;
}

const SpaceNode* SpaceTreeModel::nodeOf(const QModelIndex& index) const {
    if (!index.isValid()) {
        return nullptr;
    }
    // The id is the node's own address with the "other" bit cleared, as index() made it.
    const quintptr address = index.internalId() & ~otherTag;
    return reinterpret_cast<const SpaceNode*>(address); // NOLINT(performance-no-int-to-ptr)
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
    if (row < 0 || column < 0 || column >= columnTotal || !state_.tree()) {
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
    return columnTotal;
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
        if (index.column() == shareColumn) {
            return shareText(shareOf(index));
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
    case noteRole: {
        if (other) {
            return QString::fromStdString(otherShareNote(*node));
        }
        QStringList lines;
        if (role == Qt::ToolTipRole) {
            lines << homeRelative(node->path);
        }
        if (auto known = knownOf_.find(node); known != knownOf_.end()) {
            lines << QStringLiteral("%1: a cache the Sweep measures; it comes back by itself.")
                         .arg(QString::fromStdString(known->second));
        }
        if (!node->isComplete) {
            lines << QStringLiteral("Not measured whole: the time limit or an unreadable folder "
                                    "cut it short.");
        }
        return lines.isEmpty() ? QVariant() : QVariant(lines.join('\n'));
    }
    case Qt::DecorationRole:
        return index.column() == nameColumn ? data(index, colourRole) : QVariant();
    case colourRole: {
        if (other) {
            return otherColour();
        }
        const auto& colours = growth_ ? growthColours_ : colours_;
        auto found = colours.find(node);
        return found == colours.end() ? QVariant() : QVariant(found->second);
    }
    case knownCacheRole: {
        auto known = knownOf_.find(node);
        return !other && known != knownOf_.end() ? QString::fromStdString(known->second)
                                                 : QString();
    }
    case shareRole:
        return shareOf(index);
    case Qt::FontRole:
        if (!other && knownOf_.count(node) != 0 && index.column() == nameColumn) {
            QFont font;
            font.setItalic(true);
            return font;
        }
        return {};
    case Qt::TextAlignmentRole:
        return columnAlignment(index.column() != nameColumn);
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

double SpaceTreeModel::shareOf(const QModelIndex& index) const {
    QModelIndex up = index.parent();
    if (!up.isValid()) {
        return 1.0;
    }
    auto total = up.data(bytesRole).value<quint64>();
    auto bytes = index.data(bytesRole).value<quint64>();
    return total == 0 ? 0.0 : static_cast<double>(bytes) / static_cast<double>(total);
}

QVariant SpaceTreeModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal) {
        return {};
    }
    if (role == Qt::TextAlignmentRole) {
        return columnAlignment(section != nameColumn);
    }
    if (role != Qt::DisplayRole) {
        return {};
    }
    switch (section) {
    case nameColumn:
        return QStringLiteral("Name");
    case sizeColumn:
        return QStringLiteral("Size on disk");
    case shareColumn:
        return QStringLiteral("Share");
    default:
        return {};
    }
}

QModelIndex SpaceTreeModel::indexOfPath(const std::string& path) const {
    if (!state_.tree()) {
        return {};
    }
    return indexOfNode(findDeepestNode(state_.tree()->root, path));
}

} // namespace sd::app
