#include "app/Models.h"

#include "app/Workers.h"
#include "core/ByteFormat.h"
#include "core/PathRules.h"
#include "platform/Words.h"

#include <QDateTime>
#include <algorithm>
#include <cmath>

namespace sd::app {

QString bytesText(std::uint64_t bytes) {
    return QString::fromStdString(formatBytes(bytes));
}

QString homeRelative(const std::string& path) {
    const std::string& home = homeDirectory();
    if (!home.empty() && path.size() > home.size() && path.starts_with(home) &&
        path[home.size()] == '/') {
        return QStringLiteral("~") + QString::fromStdString(path.substr(home.size()));
    }
    return QString::fromStdString(path);
}

QString durationText(double seconds) {
    if (seconds < 60) {
        return QString::number(seconds, 'f', 1) + QStringLiteral(" s");
    }
    auto whole = static_cast<long>(std::lround(seconds));
    return QStringLiteral("%1 min %2 s").arg(whole / 60).arg(whole % 60, 2, 10, QLatin1Char('0'));
}

QString shareText(double share) {
    if (share > 0 && share < 0.005) {
        return QStringLiteral("<1%");
    }
    return QStringLiteral("%1%").arg(std::lround(std::clamp(share, 0.0, 1.0) * 100));
}

QVariant columnAlignment(bool numbers) {
    return QVariant::fromValue(Qt::Alignment(numbers ? Qt::AlignRight | Qt::AlignVCenter
                                                     : Qt::AlignLeft | Qt::AlignVCenter));
}

QIcon noteIcon() {
    static const QIcon icon(QStringLiteral(":/sparrowdeck/info.svg"));
    return icon;
}

QString toQ(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

QString nameOf(const std::string& path) {
    return QString::fromStdString(path.substr(path.rfind('/') + 1));
}

QString folderOf(const std::string& path) {
    size_t slash = path.rfind('/');
    return homeRelative(slash == 0 ? std::string("/") : path.substr(0, slash));
}

QString dateText(const std::string& isoDate) {
    QDateTime when = QDateTime::fromString(QString::fromStdString(isoDate), Qt::ISODate);
    if (!when.isValid()) {
        return QString::fromStdString(isoDate);
    }
    return QLocale().toString(when.toLocalTime(), QStringLiteral("d MMM yyyy, HH:mm"));
}

namespace {
// A tile with nothing measured yet, holding the catalog's targets for it, so its title is the
// one the measured tile will have.
SweepTile emptyTile(SweepTileKind kind) {
    static const std::vector<Target> catalog = platformCatalog(DistributionMode::direct);
    SweepTile tile;
    tile.kind = kind;
    for (const Target& t : catalog) {
        if (tileHoldsTarget(kind, t.id)) {
            tile.targets.push_back(t);
        }
    }
    return tile;
}
} // namespace

// ---------------------------------------------------------------------------------------------
// SweepTileModel

SweepTileModel::SweepTileModel(SweepState& state, QObject* parent)
    : QAbstractListModel(parent), state_(state) {}

int SweepTileModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(allTileKinds.size());
}

const SweepTile* SweepTileModel::measured(SweepTileKind kind) const {
    return state_.sweep ? state_.sweep->tile(kind) : nullptr;
}

const SweepRecord::Tile* SweepTileModel::recorded(SweepTileKind kind) const {
    if (!state_.lastRecord) {
        return nullptr;
    }
    for (const SweepRecord::Tile& t : state_.lastRecord->tiles) {
        if (t.kind == tileKindName(kind)) {
            return &t;
        }
    }
    return nullptr;
}

bool SweepTileModel::isTickable(SweepTileKind kind) const {
    const SweepTile* tile = measured(kind);
    // A tile already moved stays unticked until the next Sweep measures it again.
    return !state_.sweeping && state_.reclaiming.empty() && tile != nullptr &&
           tileComesBack(kind) && tile->bytes > 0 && state_.movedByTile.count(kind) == 0;
}

QVariant SweepTileModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() >= rowCount()) {
        return {};
    }
    SweepTileKind kind = kindAt(index.row());
    const SweepTile* tile = state_.sweeping ? nullptr : measured(kind);
    const SweepRecord::Tile* record =
        tile == nullptr && !state_.sweeping ? recorded(kind) : nullptr;
    auto moved = state_.movedByTile.find(kind);
    switch (role) {
    case Qt::DisplayRole:
        if (tile != nullptr) {
            return QString::fromStdString(tileTitle(*tile));
        }
        if (record != nullptr) {
            return QString::fromStdString(record->title);
        }
        return QString::fromStdString(tileTitle(emptyTile(kind)));
    case subtitleRole: {
        if (tile != nullptr) {
            return QString::fromStdString(tileSubtitle(*tile));
        }
        // Unmeasured, a tile says what it holds rather than counting nothing.
        switch (kind) {
        case SweepTileKind::appCaches:
            return QStringLiteral("Caches apps rebuild as they need them");
        case SweepTileKind::redownloads:
            return QStringLiteral("Big, but slow to get back — downloaded again on use");
        case SweepTileKind::leftovers:
            return QStringLiteral("Matched by %1, never by name")
                .arg(QString::fromUtf8(platform::appIdName()));
        default:
            return QString::fromStdString(tileSubtitle(emptyTile(kind)));
        }
    }
    case bytesRole:
        if (state_.sweeping) {
            return QVariant::fromValue<quint64>(state_.progress.tile(kind).bytes);
        }
        return QVariant::fromValue<quint64>(tile ? tile->bytes : record ? record->bytes : 0);
    case fractionRole:
        if (!state_.sweeping) {
            return tile != nullptr ? 1.0 : 0.0;
        }
        return state_.progress.tile(kind).fraction;
    case tileStateRole: {
        TileState s = TileState::waiting;
        if (state_.sweeping) {
            s = state_.progress.tile(kind).finished ? TileState::measured : TileState::measuring;
        } else if (moved != state_.movedByTile.end() && moved->second > 0) {
            s = TileState::moved;
        } else if (tile != nullptr) {
            s = TileState::measured;
        } else if (record != nullptr) {
            s = TileState::recorded;
        }
        return static_cast<int>(s);
    }
    case noteRole: {
        if (moved != state_.movedByTile.end() && moved->second > 0 && !state_.sweeping) {
            return QStringLiteral("Moved %1 to the Trash").arg(bytesText(moved->second));
        }
        if (state_.reclaiming.count(kind) != 0) {
            return QStringLiteral("Moving to the Trash…");
        }
        if (tile != nullptr && !tile->skippedTitles.empty()) {
            QStringList titles;
            for (const std::string& t : tile->skippedTitles) {
                titles << QString::fromStdString(t);
            }
            return QString::fromStdString(std::string(leftOutTileText)) + ": " +
                   titles.join(QStringLiteral(", "));
        }
        if (state_.sweeping || tile == nullptr) {
            return {};
        }
        if (kind == SweepTileKind::trash) {
            return tile->bytes == 0
                       ? QStringLiteral("Your Trash is empty")
                       : QStringLiteral("%1 in your Trash")
                             .arg(tile->itemCount == 1
                                      ? QStringLiteral("1 file")
                                      : QStringLiteral("%1 files").arg(tile->itemCount));
        }
        if (tile->bytes == 0) {
            return QStringLiteral("Nothing found");
        }
        return tileComesBack(kind) ? QStringLiteral("Comes back by itself") : QString();
    }
    case kindRole:
        return static_cast<int>(kind);
    case Qt::CheckStateRole:
        if (!tileComesBack(kind) || tile == nullptr) {
            return {};
        }
        return state_.selection.count(kind) != 0 ? Qt::Checked : Qt::Unchecked;
    case Qt::ToolTipRole:
        if (tile != nullptr && !tile->warnings.empty()) {
            return QString::fromStdString(tile->warnings.front());
        }
        return {};
    default:
        return {};
    }
}

bool SweepTileModel::setData(const QModelIndex& index, const QVariant& value, int role) {
    if (!index.isValid() || role != Qt::CheckStateRole) {
        return false;
    }
    SweepTileKind kind = kindAt(index.row());
    if (!isTickable(kind)) {
        return false;
    }
    if (value.value<Qt::CheckState>() == Qt::Checked) {
        state_.selection.insert(kind);
        state_.chosen.insert(kind);
    } else {
        state_.selection.erase(kind);
        state_.chosen.erase(kind);
    }
    emit dataChanged(index, index, {Qt::CheckStateRole});
    emit selectionChanged();
    emit chosenChanged();
    return true;
}

Qt::ItemFlags SweepTileModel::flags(const QModelIndex& index) const {
    if (!index.isValid()) {
        return Qt::NoItemFlags;
    }
    Qt::ItemFlags f = Qt::ItemIsEnabled;
    if (isTickable(kindAt(index.row()))) {
        f |= Qt::ItemIsUserCheckable;
    }
    return f;
}

void SweepTileModel::refresh() {
    // A tile that can no longer be ticked (now empty, or a new Sweep running) loses its tick.
    std::erase_if(state_.selection, [this](SweepTileKind k) {
        return !isTickable(k) && state_.reclaiming.count(k) == 0;
    });
    emit dataChanged(index(0), index(rowCount() - 1));
}

// ---------------------------------------------------------------------------------------------
// CatalogModel

CatalogModel::CatalogModel(CatalogState& state, QObject* parent)
    : QAbstractItemModel(parent), state_(state) {}

quintptr CatalogModel::encode(const Node& node) {
    return static_cast<quintptr>(node.target + 1) | static_cast<quintptr>(node.app + 1) << 16 |
           static_cast<quintptr>(node.path + 1) << 32;
}

CatalogModel::Node CatalogModel::decode(quintptr id) {
    return {static_cast<int>(id & 0xffff) - 1, static_cast<int>((id >> 16) & 0xffff) - 1,
            static_cast<int>((id >> 32) & 0xffff) - 1};
}

CatalogModel::Node CatalogModel::nodeOf(const QModelIndex& index) const {
    return index.isValid() ? decode(index.internalId()) : Node{};
}

std::vector<CatalogModel::Node> CatalogModel::children(const Node& parent) const {
    std::vector<Node> out;
    if (parent.target < 0) {
        for (size_t t = 0; t < state_.catalog.size(); ++t) {
            out.push_back({static_cast<int>(t), -1, -1});
        }
        return out;
    }
    if (parent.path >= 0) {
        return out;
    }
    const Target& target = state_.catalog[static_cast<size_t>(parent.target)];
    if (parent.app >= 0) {
        for (int p : appPaths(parent)) {
            out.push_back({parent.target, parent.app, p});
        }
        return out;
    }
    // A target lists its apps first, then the paths that belong to no app of its own.
    for (size_t a = 0; a < target.apps.size(); ++a) {
        Node app{parent.target, static_cast<int>(a), -1};
        if (!appPaths(app).empty()) {
            out.push_back(app);
        }
    }
    for (size_t p = 0; p < target.paths.size(); ++p) {
        const PathSpec& spec = target.paths[p];
        bool ownApp = spec.app && std::any_of(target.apps.begin(), target.apps.end(),
                                              [&](const AppGroup& g) { return g.id == *spec.app; });
        if (!ownApp) {
            out.push_back({parent.target, -1, static_cast<int>(p)});
        }
    }
    return out;
}

std::vector<int> CatalogModel::appPaths(const Node& app) const {
    std::vector<int> out;
    const Target& target = state_.catalog[static_cast<size_t>(app.target)];
    const std::string& id = target.apps[static_cast<size_t>(app.app)].id;
    for (size_t p = 0; p < target.paths.size(); ++p) {
        if (target.paths[p].app == id) {
            out.push_back(static_cast<int>(p));
        }
    }
    return out;
}

QModelIndex CatalogModel::index(int row, int column, const QModelIndex& parent) const {
    if (row < 0 || column < 0 || column >= columnTotal) {
        return {};
    }
    std::vector<Node> nodes = children(nodeOf(parent));
    if (static_cast<size_t>(row) >= nodes.size()) {
        return {};
    }
    return createIndex(row, column, encode(nodes[static_cast<size_t>(row)]));
}

QModelIndex CatalogModel::parent(const QModelIndex& child) const {
    Node node = nodeOf(child);
    if (node.target < 0 || (node.app < 0 && node.path < 0)) {
        return {};
    }
    Node up = node.path >= 0 && node.app >= 0 ? Node{node.target, node.app, -1}
                                              : Node{node.target, -1, -1};
    Node grand = up.app >= 0 ? Node{up.target, -1, -1} : Node{};
    std::vector<Node> siblings = children(grand);
    for (size_t i = 0; i < siblings.size(); ++i) {
        if (encode(siblings[i]) == encode(up)) {
            return createIndex(static_cast<int>(i), 0, encode(up));
        }
    }
    return {};
}

int CatalogModel::rowCount(const QModelIndex& parent) const {
    if (parent.isValid() && parent.column() != 0) {
        return 0;
    }
    return static_cast<int>(children(nodeOf(parent)).size());
}

int CatalogModel::columnCount(const QModelIndex&) const {
    return columnTotal;
}

Qt::CheckState CatalogModel::checkState(const Node& node) const {
    const Target& target = state_.catalog[static_cast<size_t>(node.target)];
    if (node.path >= 0) {
        return state_.isIncluded(target, target.paths[static_cast<size_t>(node.path)])
                   ? Qt::Checked
                   : Qt::Unchecked;
    }
    if (node.app >= 0) {
        size_t on = 0;
        std::vector<int> paths = appPaths(node);
        for (int p : paths) {
            on += state_.isIncluded(target, target.paths[static_cast<size_t>(p)]) ? 1 : 0;
        }
        return on == 0 ? Qt::Unchecked : on == paths.size() ? Qt::Checked : Qt::PartiallyChecked;
    }
    return state_.isIncluded(target.id) ? Qt::Checked : Qt::Unchecked;
}

std::uint64_t CatalogModel::bytesOf(const Node& node) const {
    const Target& target = state_.catalog[static_cast<size_t>(node.target)];
    auto pathBytes = [&](int p) {
        auto found = state_.bytesByPath.find(pathKey(target, target.paths[static_cast<size_t>(p)]));
        return found == state_.bytesByPath.end() ? std::uint64_t{0} : found->second;
    };
    if (node.path >= 0) {
        return pathBytes(node.path);
    }
    if (node.app >= 0) {
        std::uint64_t sum = 0;
        for (int p : appPaths(node)) {
            sum += pathBytes(p);
        }
        return sum;
    }
    auto found = state_.bytesByTarget.find(target.id);
    return found == state_.bytesByTarget.end() ? 0 : found->second;
}

QVariant CatalogModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid()) {
        return {};
    }
    Node node = nodeOf(index);
    const Target& target = state_.catalog[static_cast<size_t>(node.target)];
    const PathSpec* path = node.path >= 0 ? &target.paths[static_cast<size_t>(node.path)] : nullptr;
    const AppGroup* app =
        node.app >= 0 && path == nullptr ? &target.apps[static_cast<size_t>(node.app)] : nullptr;
    bool isTarget = path == nullptr && app == nullptr;
    bool measured = state_.scan.has_value();
    switch (role) {
    case Qt::DisplayRole:
        switch (index.column()) {
        case nameColumn:
            if (path != nullptr) {
                return QString::fromStdString(displayName(target, *path));
            }
            return QString::fromStdString(app != nullptr ? app->name : target.title);
        case sizeColumn:
            return measured ? bytesText(bytesOf(node)) : QString();
        case noteColumn:
            if (isTarget && state_.leftOutOfSweep.count(target.id) != 0) {
                return QString::fromStdString(std::string(leftOutCatalogText));
            }
            if (isTarget) {
                return target.risk == RiskLevel::safe ? QStringLiteral("Safe to clean")
                                                      : QStringLiteral("Apps may need a restart");
            }
            if (path != nullptr) {
                QString where = QString::fromStdString(path->pathTemplate);
                if (path->pattern) {
                    where += "/" + QString::fromStdString(*path->pattern);
                }
                return where;
            }
            return {};
        default:
            return {};
        }
    case Qt::CheckStateRole:
        if (index.column() != nameColumn || (path != nullptr && !path->id)) {
            return {};
        }
        return checkState(node);
    case Qt::ToolTipRole:
        if (isTarget) {
            return QString::fromStdString(target.narration.value_or(target.subtitle));
        }
        return {};
    case subtitleRole:
        return isTarget ? QString::fromStdString(target.subtitle) : QString();
    case bytesRole:
        return QVariant::fromValue<quint64>(bytesOf(node));
    case riskRole:
        return static_cast<int>(target.risk);
    case Qt::TextAlignmentRole:
        return columnAlignment(index.column() == sizeColumn);
    default:
        return {};
    }
}

bool CatalogModel::setData(const QModelIndex& index, const QVariant& value, int role) {
    if (!index.isValid() || role != Qt::CheckStateRole || index.column() != nameColumn) {
        return false;
    }
    Node node = nodeOf(index);
    const Target& target = state_.catalog[static_cast<size_t>(node.target)];
    bool on = value.value<Qt::CheckState>() != Qt::Unchecked;
    if (node.path >= 0) {
        const PathSpec& path = target.paths[static_cast<size_t>(node.path)];
        if (!path.id) {
            return false;
        }
        state_.setIncluded(*path.id, on);
    } else if (node.app >= 0) {
        for (int p : appPaths(node)) {
            if (const auto& id = target.paths[static_cast<size_t>(p)].id) {
                state_.setIncluded(*id, on);
            }
        }
    } else {
        state_.setIncluded(target.id, on);
    }
    // A switch changes its row, the rows below it and the app row above a path.
    QModelIndex top = index;
    while (top.parent().isValid()) {
        top = top.parent();
    }
    emit dataChanged(top, top.siblingAtColumn(columnTotal - 1));
    std::vector<QModelIndex> pending{top};
    while (!pending.empty()) {
        QModelIndex at = pending.back();
        pending.pop_back();
        int rows = rowCount(at);
        if (rows > 0) {
            emit dataChanged(this->index(0, 0, at), this->index(rows - 1, columnTotal - 1, at));
            for (int r = 0; r < rows; ++r) {
                pending.push_back(this->index(r, 0, at));
            }
        }
    }
    emit switchesChanged();
    return true;
}

Qt::ItemFlags CatalogModel::flags(const QModelIndex& index) const {
    if (!index.isValid()) {
        return Qt::NoItemFlags;
    }
    Qt::ItemFlags f = Qt::ItemIsEnabled | Qt::ItemIsSelectable;
    Node node = nodeOf(index);
    const Target& target = state_.catalog[static_cast<size_t>(node.target)];
    if (index.column() == nameColumn &&
        (node.path < 0 || target.paths[static_cast<size_t>(node.path)].id)) {
        f |= Qt::ItemIsUserCheckable;
    }
    // Below a switched-off target nothing is measured or moved, whatever its own switch says.
    if ((node.app >= 0 || node.path >= 0) && !state_.isIncluded(target.id)) {
        f &= ~Qt::ItemIsEnabled;
    }
    return f;
}

QVariant CatalogModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation == Qt::Horizontal && role == Qt::TextAlignmentRole) {
        return columnAlignment(section == sizeColumn);
    }
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) {
        return {};
    }
    switch (section) {
    case nameColumn:
        return QStringLiteral("What");
    case sizeColumn:
        return QStringLiteral("Size on disk");
    case noteColumn:
        return QStringLiteral("Notes");
    default:
        return {};
    }
}

void CatalogModel::refresh() {
    int rows = rowCount();
    if (rows == 0) {
        return;
    }
    emit dataChanged(index(0, 0), index(rows - 1, columnTotal - 1));
    for (int r = 0; r < rows; ++r) {
        QModelIndex parent = index(r, 0);
        int n = rowCount(parent);
        for (int c = 0; c < n; ++c) {
            QModelIndex child = index(c, 0, parent);
            emit dataChanged(child, child.siblingAtColumn(columnTotal - 1));
            int m = rowCount(child);
            if (m > 0) {
                emit dataChanged(index(0, 0, child), index(m - 1, columnTotal - 1, child));
            }
        }
    }
}

const Target* CatalogModel::targetAt(const QModelIndex& index) const {
    Node node = nodeOf(index);
    return node.target < 0 ? nullptr : &state_.catalog[static_cast<size_t>(node.target)];
}

void CatalogFilter::setSafeOnly(bool safeOnly) {
    safeOnly_ = safeOnly;
    invalidateFilter();
}

void CatalogFilter::setHideEmpty(bool hideEmpty) {
    hideEmpty_ = hideEmpty;
    invalidateFilter();
}

bool CatalogFilter::filterAcceptsRow(int sourceRow, const QModelIndex& sourceParent) const {
    QModelIndex row = sourceModel()->index(sourceRow, 0, sourceParent);
    if (sourceParent.isValid()) {
        // Inside a shown target, empty paths go when empty targets go.
        return !hideEmpty_ || row.data(bytesRole).value<quint64>() > 0;
    }
    if (safeOnly_ && row.data(riskRole).toInt() != static_cast<int>(RiskLevel::safe)) {
        return false;
    }
    return !hideEmpty_ || row.data(bytesRole).value<quint64>() > 0;
}

// ---------------------------------------------------------------------------------------------
// ActivityModel

ActivityModel::ActivityModel(const ReclaimJournal& journal, const std::vector<Target>& catalog,
                             QObject* parent)
    : QAbstractItemModel(parent), journal_(journal), catalog_(catalog) {
    sortNewestFirst();
}

void ActivityModel::sortNewestFirst() {
    const std::vector<JournalEntry>& entries = journal_.entries();
    order_.resize(entries.size());
    for (size_t i = 0; i < order_.size(); ++i) {
        order_[i] = i;
    }
    // ISO dates in UTC sort as text; equal dates keep the later-recorded entry first.
    std::stable_sort(order_.begin(), order_.end(), [&](size_t a, size_t b) {
        return entries[a].date != entries[b].date ? entries[a].date > entries[b].date : a > b;
    });
}

void ActivityModel::beginChange() {
    beginResetModel();
}

void ActivityModel::endChange() {
    sortNewestFirst();
    endResetModel();
}

const JournalEntry* ActivityModel::entryAt(const QModelIndex& index) const {
    if (!index.isValid()) {
        return nullptr;
    }
    size_t row = index.internalId() == 0 ? static_cast<size_t>(index.row())
                                         : static_cast<size_t>(index.internalId() - 1);
    return row < order_.size() ? &journal_.entries()[order_[row]] : nullptr;
}

const TrashedItem* ActivityModel::itemAt(const QModelIndex& index) const {
    if (!index.isValid() || index.internalId() == 0) {
        return nullptr;
    }
    const JournalEntry* entry = entryAt(index);
    return entry != nullptr && static_cast<size_t>(index.row()) < entry->items.size()
               ? &entry->items[static_cast<size_t>(index.row())]
               : nullptr;
}

QModelIndex ActivityModel::index(int row, int column, const QModelIndex& parent) const {
    if (row < 0 || column < 0 || column >= columnTotal || row >= rowCount(parent)) {
        return {};
    }
    // Entries carry 0; an item carries its entry's row plus one.
    return createIndex(row, column, parent.isValid() ? static_cast<quintptr>(parent.row()) + 1 : 0);
}

QModelIndex ActivityModel::parent(const QModelIndex& child) const {
    if (!child.isValid() || child.internalId() == 0) {
        return {};
    }
    return createIndex(static_cast<int>(child.internalId() - 1), 0, quintptr{0});
}

int ActivityModel::rowCount(const QModelIndex& parent) const {
    if (!parent.isValid()) {
        return static_cast<int>(order_.size());
    }
    if (parent.internalId() != 0 || parent.column() != 0) {
        return 0;
    }
    const JournalEntry* entry = entryAt(parent);
    return entry != nullptr ? static_cast<int>(entry->items.size()) : 0;
}

int ActivityModel::columnCount(const QModelIndex&) const {
    return columnTotal;
}

QString ActivityModel::groupTitle(const JournalEntry& entry, const std::string& group) const {
    if (entry.kind == JournalKind::sweep) {
        if (auto kind = tileKindFromName(group)) {
            return QString::fromStdString(tileTitle(emptyTile(*kind)));
        }
    }
    if (const Target* target = findTarget(catalog_, group)) {
        return QString::fromStdString(target->title);
    }
    if (group == "largeOld") {
        return QStringLiteral("Large & old files");
    }
    if (group == "duplicates") {
        return QStringLiteral("Duplicate copies");
    }
    return QString::fromStdString(group);
}

QVariant ActivityModel::data(const QModelIndex& index, int role) const {
    const JournalEntry* entry = entryAt(index);
    if (entry == nullptr) {
        return {};
    }
    const TrashedItem* item = itemAt(index);
    std::uint64_t bytes = 0;
    size_t inTrash = 0;
    for (const TrashedItem& i : entry->items) {
        bytes += i.bytes;
        inTrash += i.restored ? 0 : 1;
    }
    switch (role) {
    case Qt::DisplayRole:
        switch (index.column()) {
        case whatColumn:
            if (item != nullptr) {
                return homeRelative(item->originalPath);
            }
            return QStringLiteral("%1 · %2 %3")
                .arg(QString::fromStdString(entry->title))
                .arg(entry->items.size())
                .arg(entry->items.size() == 1 ? QStringLiteral("item") : QStringLiteral("items"));
        case groupColumn:
            return item != nullptr ? groupTitle(*entry, item->group) : QString();
        case whenColumn:
            return item != nullptr ? QString() : dateText(entry->date);
        case sizeColumn:
            return bytesText(item != nullptr ? item->bytes : bytes);
        case statusColumn:
            if (item != nullptr) {
                return item->restored ? QStringLiteral("Put back") : QStringLiteral("In the Trash");
            }
            if (inTrash == 0) {
                return QStringLiteral("Everything put back");
            }
            if (inTrash == entry->items.size()) {
                return QStringLiteral("In the Trash");
            }
            return QStringLiteral("%1 in the Trash, %2 put back")
                .arg(inTrash)
                .arg(entry->items.size() - inTrash);
        default:
            return {};
        }
    case Qt::ToolTipRole:
        if (item == nullptr) {
            return {};
        }
        return QString::fromStdString(item->originalPath) +
               (item->restored ? QString()
                               : QStringLiteral("\nIn the Trash as ") +
                                     QString::fromStdString(item->trashPath));
    case Qt::TextAlignmentRole:
        return columnAlignment(index.column() == sizeColumn);
    case bytesRole:
        return QVariant::fromValue<quint64>(item != nullptr ? item->bytes : bytes);
    case pathRole:
        if (item == nullptr) {
            return {};
        }
        return QString::fromStdString(item->restored ? item->originalPath : item->trashPath);
    case groupRole:
        return item != nullptr ? QString::fromStdString(item->group) : QVariant();
    case entryIDRole:
        return QString::fromStdString(entry->id);
    case inTrashRole:
        return item != nullptr ? !item->restored : inTrash > 0;
    case kindRole:
        return static_cast<int>(entry->kind);
    default:
        return {};
    }
}

QVariant ActivityModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation == Qt::Horizontal && role == Qt::TextAlignmentRole) {
        return columnAlignment(section == sizeColumn);
    }
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) {
        return {};
    }
    static const char* const titles[] = {"What", "Group", "When", "Size", "Where it is"};
    return section >= 0 && section < columnTotal ? QString::fromLatin1(titles[section])
                                                 : QVariant();
}

// ---------------------------------------------------------------------------------------------
// SweepTargetsModel

SweepTargetsModel::SweepTargetsModel(CatalogState& state, QObject* parent)
    : QAbstractListModel(parent), state_(state) {
    for (size_t i = 0; i < state_.catalog.size(); ++i) {
        const std::string& id = state_.catalog[i].id;
        if (std::any_of(allTileKinds.begin(), allTileKinds.end(),
                        [&](SweepTileKind k) { return tileHoldsTarget(k, id); })) {
            rows_.push_back(i);
        }
    }
}

const Target* SweepTargetsModel::targetAt(int row) const {
    return row >= 0 && static_cast<size_t>(row) < rows_.size()
               ? &state_.catalog[rows_[static_cast<size_t>(row)]]
               : nullptr;
}

int SweepTargetsModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
}

QVariant SweepTargetsModel::data(const QModelIndex& index, int role) const {
    const Target* target = targetAt(index.row());
    if (target == nullptr) {
        return {};
    }
    bool leftOut = state_.leftOutOfSweep.count(target->id) != 0;
    switch (role) {
    case Qt::DisplayRole:
        return QString::fromStdString(target->title);
    case subtitleRole:
        return QString::fromStdString(target->subtitle);
    case noteRole:
        return QString::fromStdString(std::string(leftOut ? leftOutCatalogText : broughtBackText));
    case Qt::CheckStateRole:
        return leftOut ? Qt::Unchecked : Qt::Checked;
    case Qt::ToolTipRole:
        return QString::fromStdString(target->narration.value_or(target->subtitle));
    default:
        return {};
    }
}

bool SweepTargetsModel::setData(const QModelIndex& index, const QVariant& value, int role) {
    const Target* target = targetAt(index.row());
    if (target == nullptr || role != Qt::CheckStateRole) {
        return false;
    }
    state_.leaveOut(target->id, value.value<Qt::CheckState>() == Qt::Unchecked);
    emit dataChanged(index, index);
    emit leftOutChanged();
    return true;
}

Qt::ItemFlags SweepTargetsModel::flags(const QModelIndex& index) const {
    return index.isValid() ? Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsUserCheckable
                           : Qt::NoItemFlags;
}

void SweepTargetsModel::refresh() {
    if (!rows_.empty()) {
        emit dataChanged(index(0), index(rowCount() - 1));
    }
}

} // namespace sd::app
