#pragma once

#include "app/MainWindow.h"
#include "companion/Companion.h"

#include <QAction>
#include <QMenu>
#include <QObject>
#include <QSystemTrayIcon>
#include <memory>
#include <optional>

namespace sd::companion {

// The screen a notice's "Review" opens, or that `--screen NAME` asks for.
std::optional<app::MainWindow::Screen> screenFor(ReviewScreen screen);
std::optional<app::MainWindow::Screen> screenNamed(const QString& name);
QString screenName(ReviewScreen screen);

// `sparrowdeck-app --tray`: the companion with its tray icon, whose menu shows free space, the
// forecast and the last Sweep, with "Open Sparrowdeck" and "Sweep now". Where the desktop has no
// tray, it says so and opens the window instead; the companion keeps watching either way.
class TrayShell : public QObject {
    Q_OBJECT

public:
    explicit TrayShell(std::unique_ptr<Companion> companion, QObject* parent = nullptr);
    ~TrayShell() override;

    // Starts the companion and shows the icon, or the window when there is no tray. Returns the
    // sentence said when there was no tray; empty when the icon shows.
    QString start();

    bool hasTray() const noexcept { return tray_ != nullptr; }
    // The window, once opened.
    app::MainWindow* window() const noexcept { return window_.get(); }
    QMenu* menu() const noexcept { return menu_.get(); }
    Companion& companion() noexcept { return *companion_; }

    void openWindow(std::optional<app::MainWindow::Screen> screen = std::nullopt);
    void sweepNow();

private:
    void refreshMenu();

    std::unique_ptr<Companion> companion_;
    std::unique_ptr<app::MainWindow> window_;
    std::unique_ptr<QMenu> menu_;
    QSystemTrayIcon* tray_ = nullptr;
    QAction* free_ = nullptr;
    QAction* forecast_ = nullptr;
    QAction* lastSweep_ = nullptr;
};

// `sparrowdeck-app --companion`: the companion alone, with no window and no tray, as the systemd
// user unit runs it. "Review" starts the app on the right screen. Runs the event loop.
int runCompanionOnly(int& argc, char** argv);

// The text `sparrowdeck-app` prints when asked for a tray where none is.
inline constexpr const char* noTrayText =
    "There is no tray on this desktop, so Sparrowdeck opens its window instead. The companion "
    "keeps watching while the window is open.";

} // namespace sd::companion
