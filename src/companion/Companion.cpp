#include "companion/Companion.h"

#include "base/CleanerError.h"
#include "core/CoreFileSystem.h"
#include "platform/Dirs.h"
#include "platform/Home.h"

#include <QDir>
#include <QFileInfo>

namespace sd::companion {

Companion::Companion(std::string historyFile, CompanionService::Sources sources, QObject* parent)
    : QObject(parent), service_(std::move(historyFile), std::move(sources)),
      notifier_(new DesktopNotifier(QDBusConnection::sessionBus(), this)),
      watcher_(new QFileSystemWatcher(this)) {
    sampleTimer_.setInterval(static_cast<int>(CompanionService::sampleIntervalSeconds * 1000));
    settleTimer_.setSingleShot(true);
    settleTimer_.setInterval(settleMilliseconds);
    connect(&sampleTimer_, &QTimer::timeout, this, &Companion::look);
    connect(&settleTimer_, &QTimer::timeout, this, &Companion::look);
    connect(watcher_, &QFileSystemWatcher::directoryChanged, this, [this] {
        if (!settleTimer_.isActive()) {
            settleTimer_.start();
        }
    });
    connect(notifier_, &DesktopNotifier::reviewRequested, this, &Companion::reviewRequested);
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
    } catch (const CleanerError& error) {
        problem_ = QString::fromStdString(error.what());
    }
    emit statusChanged();
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
