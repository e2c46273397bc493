#pragma once

#include "app/SpaceRunner.h"
#include "app/SpaceTreeModel.h"
#include "app/SunburstView.h"
#include "app/Widgets.h"
#include "reclaim/VaultTypes.h"
#include "space/SpaceTree.h"

#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QTreeView>
#include <QWidget>
#include <optional>

namespace sd::app {

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
