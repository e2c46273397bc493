#pragma once

#include "app/Workers.h"
#include "disk/DiskSurvey.h"
#include "history/ScanHistory.h"
#include "space/SpaceTree.h"

#include <QCheckBox>
#include <QLabel>
#include <QPushButton>
#include <QTreeWidget>
#include <QWidget>
#include <optional>
#include <vector>

namespace sd::app {

// The storage bar above the Space Map: the whole disk holding the home as one bar, used and free
// and the administrator's reserve, with the home's share once it is scanned. "Explain the Whole
// Disk" measures the system's rows (slow, off the interface thread) and splits the used part
// into them, each with its sentence as a tooltip and in the list below.
class StorageBar : public QWidget {
    Q_OBJECT

public:
    struct Segment {
        QString title;
        std::uint64_t bytes = 0;
        QString sentence;
    };

    explicit StorageBar(QWidget* parent = nullptr);

    // Reads the file system's figures again; `homeBytes` is the last scan of the home, if any.
    void refresh(std::optional<std::uint64_t> homeBytes = std::nullopt);
    void explain();
    const std::vector<Segment>& segments() const noexcept { return segments_; }
    QString summaryText() const { return summary_->text(); }
    QPushButton* explainButton() const noexcept { return explain_; }
    TaskRunner& runner() noexcept { return *runner_; }

protected:
    void paintEvent(QPaintEvent* event) override;
    bool event(QEvent* event) override;

private:
    void showReport(const DiskReport& report);
    QRect barRect() const;
    int segmentAt(const QPoint& at) const;

    TaskRunner* runner_;
    QLabel* summary_;
    QLabel* rows_;
    QPushButton* explain_;
    std::optional<platform::VolumeFigures> figures_;
    std::vector<Segment> segments_;
};

// What changed since the previous scan of the same folder: every finished scan is kept in the
// scan history (off the interface thread) and compared with the one before it.
class ChangesPanel : public QWidget {
    Q_OBJECT

public:
    explicit ChangesPanel(QWidget* parent = nullptr);

    // Keeps `tree` in the history and shows how it differs from the scan before it.
    void recordScan(const SpaceTree& tree);
    QTreeWidget* list() const noexcept { return list_; }
    QString headline() const { return headline_->text(); }
    // The changes since the scan compared with; none before there is one to compare with.
    const std::optional<std::vector<FolderChange>>& changes() const noexcept { return changes_; }
    TaskRunner& runner() noexcept { return *runner_; }

signals:
    void changesShown();

private:
    struct Outcome {
        std::optional<ScanSnapshot> baseline;
        std::vector<FolderChange> changes;
        std::int64_t totalDelta = 0;
        std::optional<std::string> notice;
    };

    TaskRunner* runner_;
    QLabel* headline_;
    QTreeWidget* list_;
    std::optional<std::vector<FolderChange>> changes_;
};

// The Settings switch that starts the companion at login (an autostart entry), off by default.
class CompanionSettings : public QWidget {
    Q_OBJECT

public:
    explicit CompanionSettings(QWidget* parent = nullptr);
    QCheckBox* startAtLogin() const noexcept { return startAtLogin_; }

private:
    QCheckBox* startAtLogin_;
    QLabel* note_;
};

} // namespace sd::app
