#pragma once

#include "app/Models.h"
#include "app/Widgets.h"
#include "app/Workers.h"
#include "reclaim/VaultTypes.h"
#include "space/SpaceTree.h"
#include "space/SpaceTreeScanner.h"

#include <QAbstractItemModel>
#include <QListWidget>
#include <QTreeView>
#include <QWidget>
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

// A sunburst of the model: the shown folder in the middle, each ring one level deeper, each wedge
// as wide as its share. Hovering names a wedge, clicking a folder's wedge zooms into it, clicking
// the middle zooms back out. A node's "other" share is one grey wedge.
class SunburstView : public QWidget {
    Q_OBJECT

public:
    explicit SunburstView(QWidget* parent = nullptr);

    void setModel(SpaceTreeModel* model);
    void setRootIndex(const QModelIndex& index);
    QModelIndex rootIndex() const { return root_; }
    QModelIndex selectedIndex() const { return selected_; }
    // The wedge under a point of the widget; the root for the middle, invalid outside.
    QModelIndex indexAt(const QPointF& point) const;
    // The middle of a wedge drawn for `index`, for tests that click it.
    std::optional<QPointF> centreOf(const QModelIndex& index) const;

signals:
    void hovered(const QModelIndex& index);
    void selected(const QModelIndex& index);
    void zoomed(const QModelIndex& root);

protected:
    void paintEvent(QPaintEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    struct Wedge {
        QPersistentModelIndex index;
        double inner = 0, outer = 0; // radii
        double start = 0, span = 0;  // degrees, counter-clockwise from three o'clock
        QColor colour;
    };
    void layoutWedges();
    void addRing(const QModelIndex& parent, int depth, double start, double span, double hue);
    QPointF centre() const;

    SpaceTreeModel* model_ = nullptr;
    QPersistentModelIndex root_;
    QPersistentModelIndex hovered_;
    QPersistentModelIndex selected_;
    std::vector<Wedge> wedges_;
    double hole_ = 0;
    double ring_ = 0;
};

// The Space Map: scan the home, look around the sunburst, show what is big in the file manager.
// Moves made anywhere in the app patch the tree instead of scanning again.
class SpaceMapPage : public QWidget {
    Q_OBJECT

public:
    explicit SpaceMapPage(QWidget* parent = nullptr);

    SpaceRunner& runner() noexcept { return *runner_; }
    SpaceTreeModel& model() noexcept { return *model_; }
    SunburstView* sunburst() const noexcept { return sunburst_; }
    QPushButton* scanButton() const noexcept { return scan_; }
    QPushButton* revealButton() const noexcept { return reveal_; }
    const SpaceMapState& state() const noexcept { return state_; }
    QString statusText() const;
    QListWidget* bigItems() const noexcept { return bigItems_; }

    void startScan(std::optional<double> budget = std::nullopt);
    // How big an item must be to be listed while the scan still runs; the scanner's own value
    // unless set (tests use small fixtures).
    void setStreamMinimumBytes(std::uint64_t bytes) { streamMinimumBytes_ = bytes; }
    // Items that reached the Trash, from any screen: the tree loses them without a new scan.
    void applyMoves(const std::vector<MovedItem>& moved);

private:
    void onScanned(const SpaceScanResult& result);
    void onHovered(const QModelIndex& index);
    void onSelected(const QModelIndex& index);
    void showRoot(const QModelIndex& root);
    void updateStatus();

    SpaceMapState state_;
    std::optional<double> budget_;
    std::optional<std::uint64_t> streamMinimumBytes_;
    SpaceRunner* runner_;
    SpaceTreeModel* model_;
    SunburstView* sunburst_;
    QTreeView* list_;
    QLabel* status_;
    QLabel* statusDetail_;
    QLabel* pointer_;
    QLabel* crumbs_;
    QListWidget* bigItems_;
    QLabel* bigTitle_;
    QPushButton* scan_;
    QPushButton* up_;
    QPushButton* reveal_;
    ProgressStrip* progress_;
    Banner* banner_;
};

} // namespace sd::app
