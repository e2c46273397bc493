#include "companion/TrayShell.h"

#include "app/SweepPage.h"
#include "core/ByteFormat.h"
#include "history/ScanHistory.h"
#include "platform/UserDefaults.h"
#include "sweep/Sweep.h"

#include <QApplication>
#include <QCoreApplication>
#include <QIcon>
#include <QProcess>

namespace sd::companion {

std::optional<app::MainWindow::Screen> screenFor(ReviewScreen screen) {
    switch (screen) {
    case ReviewScreen::sweep:
        return app::MainWindow::Screen::sweep;
    case ReviewScreen::spaceMap:
        return app::MainWindow::Screen::spaceMap;
    case ReviewScreen::apps:
        // Leftovers of removed apps are among what the Sweep measures.
        return app::MainWindow::Screen::sweep;
    }
    return std::nullopt;
}

QString screenName(ReviewScreen screen) {
    switch (screen) {
    case ReviewScreen::sweep:
        return QStringLiteral("sweep");
    case ReviewScreen::spaceMap:
        return QStringLiteral("space-map");
    case ReviewScreen::apps:
        return QStringLiteral("apps");
    }
    return {};
}

std::optional<app::MainWindow::Screen> screenNamed(const QString& name) {
    for (ReviewScreen s : {ReviewScreen::sweep, ReviewScreen::spaceMap, ReviewScreen::apps}) {
        if (name == screenName(s)) {
            return screenFor(s);
        }
    }
    return std::nullopt;
}

TrayShell::TrayShell(std::unique_ptr<Companion> companion, QObject* parent)
    : QObject(parent), companion_(std::move(companion)) {
    connect(companion_.get(), &Companion::statusChanged, this, &TrayShell::refreshMenu);
    connect(companion_.get(), &Companion::reviewRequested, this,
            [this](ReviewScreen screen) { openWindow(screenFor(screen)); });
}

TrayShell::~TrayShell() = default;

QString TrayShell::start() {
    QString said;
    if (QSystemTrayIcon::isSystemTrayAvailable()) {
        menu_ = std::make_unique<QMenu>();
        free_ = menu_->addAction(QString());
        free_->setEnabled(false);
        forecast_ = menu_->addAction(QString());
        forecast_->setEnabled(false);
        lastSweep_ = menu_->addAction(QString());
        lastSweep_->setEnabled(false);
        menu_->addSeparator();
        connect(menu_->addAction(QStringLiteral("Open Sparrowdeck")), &QAction::triggered, this,
                [this] { openWindow(); });
        connect(menu_->addAction(QStringLiteral("Sweep Now")), &QAction::triggered, this,
                &TrayShell::sweepNow);
        menu_->addSeparator();
        connect(menu_->addAction(QStringLiteral("Quit Companion")), &QAction::triggered, qApp,
                &QCoreApplication::quit);
        tray_ = new QSystemTrayIcon(QApplication::windowIcon(), this);
        tray_->setToolTip(QStringLiteral("Sparrowdeck"));
        tray_->setContextMenu(menu_.get());
        connect(tray_, &QSystemTrayIcon::activated, this,
                [this](QSystemTrayIcon::ActivationReason reason) {
                    if (reason == QSystemTrayIcon::Trigger) {
                        openWindow();
                    }
                });
        tray_->show();
        // With a tray the companion lives on when the window closes.
        QApplication::setQuitOnLastWindowClosed(false);
    } else {
        said = QString::fromUtf8(noTrayText);
        openWindow();
    }
    companion_->start();
    return said;
}

void TrayShell::openWindow(std::optional<app::MainWindow::Screen> screen) {
    if (!window_) {
        window_ = std::make_unique<app::MainWindow>();
    }
    if (screen) {
        window_->showScreen(*screen);
    }
    window_->show();
    window_->raise();
    window_->activateWindow();
}

void TrayShell::sweepNow() {
    openWindow(app::MainWindow::Screen::sweep);
    if (!window_->introductionShown()) {
        window_->sweepPage()->startSweep();
    }
}

void TrayShell::refreshMenu() {
    if (menu_ == nullptr) {
        return;
    }
    const CompanionStatus& s = companion_->status();
    free_->setText(QStringLiteral("%1 free of %2")
                       .arg(QString::fromStdString(formatBytes(s.freeBytes)),
                            QString::fromStdString(formatBytes(s.totalBytes))));
    std::string forecast = s.forecast.sentence();
    forecast_->setText(forecast.empty() ? QStringLiteral("Not enough history yet for a forecast.")
                                        : QString::fromStdString(forecast));
    platform::UserDefaults store = platform::UserDefaults::standard();
    std::optional<SweepRecord> record = Sweep::lastRecord(store);
    if (record) {
        std::uint64_t found = 0;
        for (const SweepRecord::Tile& tile : record->tiles) {
            found += tile.bytes;
        }
        lastSweep_->setText(QStringLiteral("Last Sweep %1: %2 found")
                                .arg(QString::fromStdString(record->date.substr(0, 10)),
                                     QString::fromStdString(formatBytes(found))));
    } else {
        lastSweep_->setText(QStringLiteral("No Sweep yet."));
    }
    if (tray_ != nullptr) {
        tray_->setToolTip(QStringLiteral("Sparrowdeck — %1").arg(free_->text()));
    }
}

int runCompanionOnly(int& argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Sparrowdeck"));
    Companion companion(ScanHistory::defaultFile(), CompanionService::systemSources());
    QObject::connect(&companion, &Companion::reviewRequested, &app, [](ReviewScreen screen) {
        QProcess::startDetached(QCoreApplication::applicationFilePath(),
                                {QStringLiteral("--screen"), screenName(screen)});
    });
    companion.start();
    return QCoreApplication::exec();
}

} // namespace sd::companion
