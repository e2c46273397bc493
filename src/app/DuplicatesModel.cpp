#include "app/DuplicatesModel.h"

#include "app/Models.h"

#include <QFont>

namespace sd::app {

namespace {

const QColor keepInk(0x1f, 0x7a, 0x3d);

} // namespace

DuplicatesModel::DuplicatesModel(ReviewState<DuplicateReport>& state,
                                 std::shared_ptr<const VaultPolicy> policy, QObject* parent)
    : QAbstractItemModel(parent), state_(state), policy_(std::move(policy)) {}

const DuplicateGroup* DuplicatesModel::groupAt(const QModelIndex& index) const {
    if (!index.isValid() || !state_.report) {
        return nullptr;
    }
    size_t row = index.internalId() == 0 ? static_cast<size_t>(index.row())
                                         : static_cast<size_t>(index.internalId() - 1);
    return row < state_.report->groups.size() ? &state_.report->groups[row] : nullptr;
}

const DuplicateFile* DuplicatesModel::fileAt(const QModelIndex& index) const {
    const DuplicateGroup* group = groupAt(index);
    if (group == nullptr || index.internalId() == 0 ||
        static_cast<size_t>(index.row()) >= group->files.size()) {
        return nullptr;
    }
    return &group->files[static_cast<size_t>(index.row())];
}

QModelIndex DuplicatesModel::index(int row, int column, const QModelIndex& parent) const {
    if (row < 0 || column < 0 || column >= columnTotal || row >= rowCount(parent)) {
        return {};
    }
    // Groups carry 0; a copy carries its group's row plus one.
    return createIndex(row, column, parent.isValid() ? static_cast<quintptr>(parent.row()) + 1 : 0);
}

QModelIndex DuplicatesModel::parent(const QModelIndex& child) const {
    if (!child.isValid() || child.internalId() == 0) {
        return {};
    }
    return createIndex(static_cast<int>(child.internalId() - 1), 0, quintptr{0});
}

int DuplicatesModel::rowCount(const QModelIndex& parent) const {
    if (!state_.report) {
        return 0;
    }
    if (!parent.isValid()) {
        return static_cast<int>(state_.report->groups.size());
    }
    if (parent.internalId() != 0 || parent.column() != 0) {
        return 0;
    }
    const DuplicateGroup* group = groupAt(parent);
    return group == nullptr ? 0 : static_cast<int>(group->files.size());
}

int DuplicatesModel::columnCount(const QModelIndex&) const {
    return columnTotal;
}

bool DuplicatesModel::tickable(const DuplicateGroup& group, const DuplicateFile& file) const {
    return !isKeep(group, file) && file.sharedWith.empty() && state_.denied.count(file.path) == 0 &&
           state_.moved.count(file.path) == 0;
}

std::uint64_t DuplicatesModel::givesBack(const DuplicateGroup& group) const {
    std::uint64_t bytes = 0;
    for (const DuplicateFile& file : group.files) {
        bytes += tickable(group, file) ? file.physicalBytes : 0;
    }
    return bytes;
}

QVariant DuplicatesModel::data(const QModelIndex& index, int role) const {
    const DuplicateGroup* group = groupAt(index);
    if (group == nullptr) {
        return {};
    }
    const DuplicateFile* file = fileAt(index);
    if (file == nullptr) {
        std::uint64_t reclaimable = givesBack(*group);
        switch (role) {
        case Qt::DisplayRole:
            switch (index.column()) {
            case nameColumn:
                return QStringLiteral("%1 — %2 copies")
                    .arg(nameOf(group->suggestedKeep))
                    .arg(group->files.size());
            case sizeColumn:
                return bytesText(group->size) + QStringLiteral(" each");
            case noteColumn:
                return reclaimable == 0
                           ? QStringLiteral("Nothing to give back")
                           : QStringLiteral("%1 to give back").arg(bytesText(reclaimable));
            default:
                return {};
            }
        case Qt::FontRole: {
            QFont bold;
            bold.setWeight(QFont::DemiBold);
            return bold;
        }
        case bytesRole:
            return QVariant::fromValue<quint64>(reclaimable);
        case Qt::TextAlignmentRole:
            return columnAlignment(index.column() == sizeColumn);
        default:
            return {};
        }
    }
    bool keep = isKeep(*group, *file);
    auto denied = state_.denied.find(file->path);
    bool isDenied = denied != state_.denied.end() && !keep;
    bool moved = state_.moved.count(file->path) != 0;
    switch (role) {
    case Qt::DisplayRole:
        switch (index.column()) {
        case nameColumn:
            return (keep ? QStringLiteral("Keep · ") : QString()) + nameOf(file->path);
        case folderColumn:
            return folderOf(file->path);
        case sizeColumn:
            return bytesText(file->physicalBytes);
        case noteColumn: {
            if (moved) {
                return QStringLiteral("In the Trash");
            }
            if (isDenied) {
                return toQ(denyText(denied->second, DenyTextForm::compact));
            }
            return QString::fromStdString(duplicateFileNote(*group, *file, *policy_));
        }
        default:
            return {};
        }
    case Qt::CheckStateRole:
        if (index.column() != nameColumn || !tickable(*group, *file)) {
            return {};
        }
        return state_.ticked.count(file->path) != 0 ? Qt::Checked : Qt::Unchecked;
    case Qt::ForegroundRole:
        if (keep) {
            return keepInk;
        }
        return index.column() == noteColumn && isDenied ? QVariant(deniedInk) : QVariant();
    case Qt::FontRole:
        if (keep && index.column() == nameColumn) {
            QFont bold;
            bold.setWeight(QFont::DemiBold);
            return bold;
        }
        return {};
    case Qt::ToolTipRole:
        if (keep) {
            return toQ(duplicateText::keepLabel);
        }
        if (isDenied) {
            return toQ(denyText(denied->second));
        }
        if (index.column() == noteColumn && !moved) {
            QString note = QString::fromStdString(duplicateFileNote(*group, *file, *policy_));
            if (!note.isEmpty()) {
                return note;
            }
        }
        return QString::fromStdString(file->path);
    case Qt::DecorationRole:
        return index.column() == noteColumn && isDenied && !moved ? QVariant(noteIcon())
                                                                  : QVariant();
    case Qt::TextAlignmentRole:
        return columnAlignment(index.column() == sizeColumn);
    case pathRole:
        return QString::fromStdString(file->path);
    case bytesRole:
        return QVariant::fromValue<quint64>(file->physicalBytes);
    case deniedRole:
        return isDenied;
    case noteRole:
        return isDenied ? toQ(denyText(denied->second)) : QVariant();
    default:
        return {};
    }
}

bool DuplicatesModel::setData(const QModelIndex& index, const QVariant& value, int role) {
    const DuplicateGroup* group = groupAt(index);
    const DuplicateFile* file = fileAt(index);
    if (file == nullptr || role != Qt::CheckStateRole || !tickable(*group, *file)) {
        return false;
    }
    if (value.value<Qt::CheckState>() == Qt::Checked) {
        state_.ticked.insert(file->path);
    } else {
        state_.ticked.erase(file->path);
    }
    emit dataChanged(index, index, {Qt::CheckStateRole});
    emit tickedChanged();
    return true;
}

Qt::ItemFlags DuplicatesModel::flags(const QModelIndex& index) const {
    const DuplicateGroup* group = groupAt(index);
    if (group == nullptr) {
        return Qt::NoItemFlags;
    }
    Qt::ItemFlags f = Qt::ItemIsEnabled | Qt::ItemIsSelectable;
    const DuplicateFile* file = fileAt(index);
    if (file != nullptr && index.column() == nameColumn && tickable(*group, *file)) {
        f |= Qt::ItemIsUserCheckable;
    }
    return f;
}

QVariant DuplicatesModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation == Qt::Horizontal && role == Qt::TextAlignmentRole) {
        return columnAlignment(section == sizeColumn);
    }
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) {
        return {};
    }
    static const char* const titles[] = {"Name", "Folder", "Size", "Notes", ""};
    return section >= 0 && section < columnTotal ? QString::fromLatin1(titles[section])
                                                 : QVariant();
}

} // namespace sd::app
