#pragma once

#include "app/DiskViews.h"
#include "app/SpaceTreeModel.h"
#include "app/SunburstView.h"
#include "app/Widgets.h"
#include "app/Workers.h"
#include "reclaim/VaultTypes.h"
#include "space/SpaceTree.h"

#include <QFileDialog>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QTreeView>
#include <QWidget>
#include <optional>

namespace sd::app {

// The Space Map: scan the home (or a folder in it), look around the sunburst and its list, show
// what is big in the file manager. Moves made anywhere in the app patch the tree instead of
// scanning again.
class SpaceMapPage : public QWidget {
    Q_OBJECT

public:
    explicit SpaceMapPage(QWidget* parent = nullptr);

    SpaceRunner& runner() noexcept { return *runner_; }
    SpaceTreeModel& model() noexcept { return *model_; }
    SunburstView* sunburst() const noexcept { return sunburst_; }
    QPushButton* scanButton() const noexcept { return scan_; }
    QPushButton* revealButton() const noexcept { return reveal_; }
    QPushButton* chooseFolderButton() const noexcept { return choose_; }
    QTreeView* list() const noexcept { return list_; }
    // The folder the next scan maps: the home unless another was chosen.
    const std::string& root() const noexcept { return root_; }
    const SpaceMapState& state() const noexcept { return state_; }
    QString statusText() const;
    QListWidget* bigItems() const noexcept { return bigItems_; }
    StorageBar* storageBar() const noexcept { return storage_; }
    ChangesPanel* changes() const noexcept { return changes_; }
    QPushButton* changesButton() const noexcept { return showChanges_; }

    void startScan(std::optional<double> budget = std::nullopt);
    // How big an item must be to be listed while the scan still runs; the scanner's own value
    // unless set (tests use small fixtures).
    void setStreamMinimumBytes(std::uint64_t bytes) { streamMinimumBytes_ = bytes; }
    // Items that reached the Trash, from any screen: the tree loses them without a new scan.
    void applyMoves(const std::vector<MovedItem>& moved);
    // Asks which folder to map; the choice is scanned straight away.
    void chooseFolder();
    // Scans `folder` instead of the home; a folder outside the home is refused with a sentence.
    void mapFolder(const std::string& folder);
    void setKnownCaches(KnownCaches caches);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;

private:
    // A row of the list chosen: a folder opens on the map, anything else is chosen on it.
    void openRow(const QModelIndex& index);
    void onScanned(const SpaceScanResult& result);
    void onHovered(const QModelIndex& index);
    void onSelected(const QModelIndex& index);
    void showRoot(const QModelIndex& root);
    void updateStatus();

    SpaceMapState state_;
    std::string root_;
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
    QPushButton* choose_;
    QPushButton* mapHome_;
    QFileDialog* folderDialog_;
    QPushButton* up_;
    QPushButton* reveal_;
    ProgressStrip* progress_;
    Banner* banner_;
    StorageBar* storage_;
    ChangesPanel* changes_;
    QPushButton* showChanges_;
};

} // namespace sd::app
