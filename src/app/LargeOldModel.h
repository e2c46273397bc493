#pragma once

#include "app/ReviewState.h"
#include "review/LargeOldFinder.h"

#include <QAbstractTableModel>

namespace sd::app {

// Large and old files, one row each, biggest first. Nothing starts ticked; a row the vault keeps
// in place has no tick and says why.
class LargeOldModel : public QAbstractTableModel {
    Q_OBJECT

public:
    enum Column {
        nameColumn,
        folderColumn,
        sizeColumn,
        openedColumn,
        noteColumn,
        actionColumn,
        columnTotal
    };

    explicit LargeOldModel(ReviewState<LargeOldReport>& state, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    bool setData(const QModelIndex& index, const QVariant& value, int role) override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

    void beginChange() { beginResetModel(); }
    void endChange() { endResetModel(); }
    const LargeOldItem* itemAt(int row) const;

signals:
    void tickedChanged();

private:
    bool tickable(const LargeOldItem& item) const;

    ReviewState<LargeOldReport>& state_;
};

} // namespace sd::app
