#include "app/LargeOldModel.h"

#include "app/Models.h"

namespace sd::app {

namespace {

QString kindText(LargeOldKind kind) {
    switch (kind) {
    case LargeOldKind::video:
        return QStringLiteral("Video");
    case LargeOldKind::diskImage:
        return QStringLiteral("Disk image");
    case LargeOldKind::archive:
        return QStringLiteral("Archive");
    case LargeOldKind::other:
        break;
    }
    return {};
}

} // namespace

LargeOldModel::LargeOldModel(ReviewState<LargeOldReport>& state, QObject* parent)
    : QAbstractTableModel(parent), state_(state) {}

const LargeOldItem* LargeOldModel::itemAt(int row) const {
    if (!state_.report || row < 0 || static_cast<size_t>(row) >= state_.report->items.size()) {
        return nullptr;
    }
    return &state_.report->items[static_cast<size_t>(row)];
}

int LargeOldModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() || !state_.report ? 0 : static_cast<int>(state_.report->items.size());
}

int LargeOldModel::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : columnTotal;
}

bool LargeOldModel::tickable(const LargeOldItem& item) const {
    return state_.denied.count(item.path) == 0 && state_.moved.count(item.path) == 0;
}

QVariant LargeOldModel::data(const QModelIndex& index, int role) const {
    const LargeOldItem* item = itemAt(index.row());
    if (item == nullptr) {
        return {};
    }
    auto denied = state_.denied.find(item->path);
    bool isDenied = denied != state_.denied.end();
    bool moved = state_.moved.count(item->path) != 0;
    switch (role) {
    case Qt::DisplayRole:
        switch (index.column()) {
        case nameColumn:
            return nameOf(item->path);
        case folderColumn:
            return folderOf(item->path);
        case sizeColumn:
            return bytesText(item->physicalBytes);
        case openedColumn:
            return QString::fromStdString(evidenceText(item->evidence));
        case noteColumn:
            if (moved) {
                return QStringLiteral("In the Trash");
            }
            return isDenied ? toQ(denyText(denied->second, DenyTextForm::compact))
                            : kindText(item->kind);
        default:
            return {};
        }
    case Qt::CheckStateRole:
        if (index.column() != nameColumn || !tickable(*item)) {
            return {};
        }
        return state_.ticked.count(item->path) != 0 ? Qt::Checked : Qt::Unchecked;
    case Qt::ForegroundRole:
        return index.column() == noteColumn && isDenied ? QVariant(deniedInk) : QVariant();
    case Qt::DecorationRole:
        if ((index.column() == noteColumn && isDenied && !moved) ||
            (index.column() == openedColumn &&
             item->evidence.kind == EvidenceKind::fileTimesOnly)) {
            return noteIcon();
        }
        return {};
    case Qt::ToolTipRole:
        if (index.column() == noteColumn && isDenied) {
            return toQ(denyText(denied->second));
        }
        if (index.column() == openedColumn && item->evidence.kind == EvidenceKind::fileTimesOnly) {
            return QStringLiteral("From the file's own dates: nothing recorded when it was "
                                  "opened, so treat this date as approximate.");
        }
        return QString::fromStdString(item->path);
    case Qt::TextAlignmentRole:
        return columnAlignment(index.column() == sizeColumn);
    case pathRole:
        return QString::fromStdString(item->path);
    case bytesRole:
        return QVariant::fromValue<quint64>(item->physicalBytes);
    case deniedRole:
        return isDenied;
    case noteRole:
        return isDenied ? toQ(denyText(denied->second)) : QVariant();
    default:
        return {};
    }
}

bool LargeOldModel::setData(const QModelIndex& index, const QVariant& value, int role) {
    const LargeOldItem* item = itemAt(index.row());
    if (item == nullptr || role != Qt::CheckStateRole || !tickable(*item)) {
        return false;
    }
    if (value.value<Qt::CheckState>() == Qt::Checked) {
        state_.ticked.insert(item->path);
    } else {
        state_.ticked.erase(item->path);
    }
    emit dataChanged(index, index, {Qt::CheckStateRole});
    emit tickedChanged();
    return true;
}

Qt::ItemFlags LargeOldModel::flags(const QModelIndex& index) const {
    const LargeOldItem* item = itemAt(index.row());
    if (item == nullptr) {
        return Qt::NoItemFlags;
    }
    Qt::ItemFlags f = Qt::ItemIsEnabled | Qt::ItemIsSelectable;
    if (index.column() == nameColumn && tickable(*item)) {
        f |= Qt::ItemIsUserCheckable;
    }
    return f;
}

QVariant LargeOldModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation == Qt::Horizontal && role == Qt::TextAlignmentRole) {
        return columnAlignment(section == sizeColumn);
    }
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) {
        return {};
    }
    static const char* const titles[] = {"Name", "Folder", "Size", "Last opened", "Notes", ""};
    return section >= 0 && section < columnTotal ? QString::fromLatin1(titles[section])
                                                 : QVariant();
}

} // namespace sd::app
