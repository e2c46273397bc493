#pragma once

#include "app/Workers.h"
#include "companion/CompanionService.h"
#include "companion/DesktopNotifier.h"

#include <QFileSystemWatcher>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <memory>

namespace sd::companion {

// The companion at work in a Qt event loop: a look every 30 minutes, and a look soon after the
// home's top-level folders or the app folders change (inotify), its notices sent to the desktop.
// Idle costs nothing but the timer and the kernel's watches.
class Companion : public QObject {
    Q_OBJECT

public:
    // How long after a change the look comes, so a burst of changes makes one look.
    static constexpr int settleMilliseconds = 60'000;
    // The light rescan of the home that keeps the scan history going without the window: every
    // six hours, or after an hour when the watched folders changed. One worker, a short budget.
    static constexpr std::int64_t rescanIntervalSeconds = 6 * 3600;
    static constexpr std::int64_t rescanAfterChangeSeconds = 3600;
    static constexpr double rescanBudgetSeconds = 20;

    Companion(std::string historyFile, CompanionService::Sources sources,
              QObject* parent = nullptr);

    // Takes the first look now and starts watching.
    void start();
    // One look now; notices due are sent.
    void look();

    const CompanionStatus& status() const noexcept { return service_.status(); }
    DesktopNotifier& notifier() noexcept { return *notifier_; }
    // The folders being watched.
    QStringList watched() const { return watcher_->directories(); }
    // The last problem, such as a history that cannot be written; empty when all is well.
    const QString& problem() const noexcept { return problem_; }
    app::TaskRunner& rescans() noexcept { return *rescans_; }

signals:
    void statusChanged();
    void reviewRequested(sd::ReviewScreen screen);
    void rescanned();

private:
    void watchFolders();
    void maybeRescan();

    CompanionService service_;
    DesktopNotifier* notifier_;
    QFileSystemWatcher* watcher_;
    QTimer sampleTimer_;
    QTimer settleTimer_;
    app::TaskRunner* rescans_;
    bool changedSinceRescan_ = false;
    QString problem_;
};

} // namespace sd::companion
