#pragma once

#include "app/ReviewState.h"
#include "reclaim/VaultPolicy.h"
#include "review/DuplicateComparer.h"

#include <QAbstractItemModel>
#include <memory>

namespace sd::app {

// Duplicate groups with their copies below them. The copy to keep is marked and can never be
// ticked, nor can a copy that shares its storage or one the vault keeps in place.
class DuplicatesModel : public QAbstractItemModel {
    Q_OBJECT

public:
    enum Column { nameColumn, folderColumn, sizeColumn, noteColumn, actionColumn, columnTotal };

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

} // namespace sd::app
