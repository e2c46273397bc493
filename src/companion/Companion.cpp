#include "companion/Companion.h"

#include "base/CleanerError.h"
#include "core/CoreFileSystem.h"
#include "history/ScanHistory.h"
#include "platform/Dirs.h"
#include "platform/Home.h"
#include "space/SpaceTreeScanner.h"

#include <QDir>
#include <QFileInfo>

namespace sd::companion {

Companion::Companion(std::string historyFile, CompanionService::Sources sources, QObject* parent)
    : QObject(parent), service_(std::move(historyFile), std::move(sources)),
      notifier_(new DesktopNotifier(QDBusConnection::sessionBus(), this)),
      watcher_(new QFileSystemWatcher(this)), rescans_(new app::TaskRunner(this)) {
    sampleTimer_.setInterval(static_cast<int>(CompanionService::sampleIntervalSeconds * 1000));
    settleTimer_.setSingleShot(true);
    settleTimer_.setInterval(settleMilliseconds);
    connect(&sampleTimer_, &QTimer::timeout, this, &Companion::look);
    connect(&settleTimer_, &QTimer::timeout, this, &Companion::look);
    connect(watcher_, &QFileSystemWatcher::directoryChanged, this, [this] {
        changedSinceRescan_ = true;
        if (!settleTimer_.isActive()) {
            settleTimer_.start();
        }
    });
    connect(notifier_, &DesktopNotifier::reviewRequested, this, &Companion::reviewRequested);
    connect(rescans_, &app::TaskRunner::failed, this, [this](const QString& message, bool stopped) {
        if (!stopped) {
            problem_ = QStringLiteral("The light rescan of your home did not finish: ") + message;
        }
    });
}

void Companion::start() {
    watchFolders();
    look();
    sampleTimer_.start();
}

void Companion::look() {
    problem_.clear();
    try {
        for (const Notice& notice : service_.tick()) {
            QString why;
            if (!notifier_->send(notice, &why)) {
                problem_ = QStringLiteral("A notice could not be shown: ") + why;
            }
        }
        maybeRescan();
    } catch (const CleanerError& error) {
        problem_ = QString::fromStdString(error.what());
    }
    emit statusChanged();
}

void Companion::maybeRescan() {
    if (rescans_->isRunning()) {
        return;
    }
    const std::string home = platform::homeDirectory();
    const std::string file = service_.historyFile();
    const std::int64_t now = service_.now();
    std::vector<SnapshotInfo> kept = ScanHistory(file).snapshots(home);
    const std::int64_t since = kept.empty() ? rescanIntervalSeconds : now - kept.front().takenAt;
    if (since < rescanIntervalSeconds &&
        !(changedSinceRescan_ && since >= rescanAfterChangeSeconds)) {
        return;
    }
    changedSinceRescan_ = false;
    rescans_->start<bool>(
        [home, file, now](std::stop_token stop) {
            SpaceTreeScanner scanner;
            scanner.workerCount = 1;
            scanner.budget = rescanBudgetSeconds;
            SpaceScanResult result = scanner.scan(home, stop);
            if (result.rootError) {
                return false;
            }
            ScanHistory history(file);
            history.save(snapshotOf(result.tree, now));
            history.thin(now);
            return true;
        },
        [this](bool&) { emit rescanned(); });
}

void Companion::watchFolders() {
    const QString home = QString::fromStdString(platform::homeDirectory());
    const QString data = QString::fromStdString(platform::dataHome());
    QStringList folders{home};
    // The home's own top-level folders, where new big things usually land.
    for (const QFileInfo& entry :
         QDir(home).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks)) {
        folders.push_back(entry.absoluteFilePath());
    }
    // Where apps come and go, so data left behind is noticed soon.
    folders << home + QStringLiteral("/.var/app") << data + QStringLiteral("/flatpak/app")
            << QStringLiteral("/var/lib/flatpak/app") << data + QStringLiteral("/applications")
            << home + QStringLiteral("/Applications") << QStringLiteral("/var/lib/snapd/snaps");
    QStringList existing;
    for (const QString& folder : folders) {
        if (QFileInfo(folder).isDir() && !existing.contains(folder)) {
            existing.push_back(folder);
        }
    }
    if (!existing.isEmpty()) {
        watcher_->addPaths(existing);
    }
}

} // namespace sd::companion
