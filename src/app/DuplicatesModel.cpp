#include "app/DuplicatesModel.h"

#include "app/Models.h"
#include "base/Saturating.h"
#include "review/ReviewTexts.h"

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
        bytes = saturatingAdd(bytes, tickable(group, file) ? file.physicalBytes : 0);
    }
    return bytes;
}

StayVerdict DuplicatesModel::verdicts() const {
    return [this](const std::string& path) -> std::optional<VaultDenyReason> {
        auto found = state_.denied.find(path);
        return found == state_.denied.end() ? std::nullopt : std::optional(found->second);
    };
}

std::uint64_t DuplicatesModel::toReview(const DuplicateGroup& group) const {
    return bytesToReview(group, verdicts());
}

bool DuplicatesModel::everyCopyStays(const DuplicateGroup& group) const {
    return sd::everyCopyStays(group, verdicts());
}

QVariant DuplicatesModel::groupData(const QModelIndex& index, const DuplicateGroup& group,
                                    int role) const {
    const bool stays = everyCopyStays(group);
    const bool note = index.column() == noteColumn;
    std::uint64_t reclaimable = givesBack(group);
    switch (role) {
    case Qt::DisplayRole:
        switch (index.column()) {
        case nameColumn:
            return QStringLiteral("%1 — %2 copies")
                .arg(nameOf(group.suggestedKeep))
                .arg(group.files.size());
        case sizeColumn:
            return bytesText(group.size) + QStringLiteral(" each");
        case noteColumn:
            if (stays) {
                return toQ(duplicateText::everyCopyStays);
            }
            return reclaimable == 0 ? QStringLiteral("Nothing to give back")
                                    : QStringLiteral("%1 to give back").arg(bytesText(reclaimable));
        default:
            return {};
        }
    case Qt::FontRole: {
        QFont bold;
        bold.setWeight(QFont::DemiBold);
        return bold;
    }
    case Qt::ForegroundRole:
        return note && stays ? QVariant(deniedInk) : QVariant();
    case Qt::DecorationRole:
        return note && stays ? QVariant(noteIcon()) : QVariant();
    case Qt::ToolTipRole:
    case noteRole:
        return stays ? QString::fromStdString(everyCopyStaysDetail()) : QVariant();
    case revealRole: {
        if (!stays) {
            return {};
        }
        QStringList paths;
        for (const DuplicateFile& file : group.files) {
            paths << QString::fromStdString(file.path);
        }
        return paths;
    }
    case bytesRole:
        return QVariant::fromValue<quint64>(reclaimable);
    case Qt::TextAlignmentRole:
        return columnAlignment(index.column() == sizeColumn);
    default:
        return {};
    }
}

QVariant DuplicatesModel::data(const QModelIndex& index, int role) const {
    const DuplicateGroup* group = groupAt(index);
    if (group == nullptr) {
        return {};
    }
    const DuplicateFile* file = fileAt(index);
    if (file == nullptr) {
        return groupData(index, *group, role);
    }
    const bool keep = isKeep(*group, *file);
    auto denied = state_.denied.find(file->path);
    const bool isDenied = denied != state_.denied.end() && !keep;
    const bool moved = state_.moved.count(file->path) != 0;
    // In a group whose every copy stays, the group row says why once; its rows stay quiet.
    const bool saidByGroup = isDenied && everyCopyStays(*group);
    const bool note = index.column() == noteColumn;
    switch (role) {
    case Qt::DisplayRole:
        switch (index.column()) {
        case nameColumn:
            return (keep ? QStringLiteral("Keep · ") : QString()) + nameOf(file->path);
        case folderColumn:
            return folderOf(file->path);
        case sizeColumn:
            return bytesText(file->physicalBytes);
        case noteColumn:
            if (moved) {
                return QStringLiteral("In the Trash");
            }
            if (keep) {
                return QStringLiteral("Kept: %1 · %2")
                    .arg(toQ(keepRuleText(group->keepRule)), toQ(duplicateText::keptCopy));
            }
            if (saidByGroup) {
                return {};
            }
            if (isDenied) {
                return QString::fromStdString(keptInPlaceNote(denied->second));
            }
            return QString::fromStdString(duplicateFileNote(*group, *file, *policy_));
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
        return note && isDenied ? QVariant(deniedInk) : QVariant();
    case Qt::FontRole:
        if (keep && index.column() == nameColumn) {
            QFont bold;
            bold.setWeight(QFont::DemiBold);
            return bold;
        }
        return {};
    case Qt::ToolTipRole:
        if (keep) {
            return QStringLiteral("%1 %2.").arg(toQ(keepRuleDetail(group->keepRule)),
                                                toQ(duplicateText::keptCopy));
        }
        if (isDenied) {
            return QString::fromStdString(keptInPlaceDetail(denied->second));
        }
        if (note && !moved) {
            QString text = QString::fromStdString(duplicateFileNote(*group, *file, *policy_));
            if (!text.isEmpty()) {
                return text;
            }
        }
        return QString::fromStdString(file->path);
    case Qt::DecorationRole:
        return note && isDenied && !saidByGroup && !moved ? QVariant(noteIcon()) : QVariant();
    case Qt::TextAlignmentRole:
        return columnAlignment(index.column() == sizeColumn);
    case pathRole:
        return QString::fromStdString(file->path);
    case bytesRole:
        return QVariant::fromValue<quint64>(file->physicalBytes);
    case deniedRole:
        return isDenied;
    case noteRole:
        return isDenied ? QString::fromStdString(keptInPlaceDetail(denied->second)) : QVariant();
    case revealRole:
        return isDenied && !saidByGroup && !moved
                   ? QVariant(QStringList{QString::fromStdString(file->path)})
                   : QVariant();
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
