#include "app/MainWindow.h"
#include "app/Widgets.h"
#include "companion/TrayShell.h"
#include "history/ScanHistory.h"

#include <QApplication>
#include <QIcon>
#include <cstdio>
#include <cstring>
#include <memory>

int main(int argc, char** argv) {
    bool tray = false;
    const char* screen = nullptr;
    // Answered before a window system is needed, so they work over ssh and in scripts.
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--companion") == 0) {
            return sd::companion::runCompanionOnly(argc, argv);
        }
        tray = tray || std::strcmp(argv[i], "--tray") == 0;
        if (std::strcmp(argv[i], "--screen") == 0 && i + 1 < argc) {
            screen = argv[++i];
        }
        if (std::strcmp(argv[i], "--version") == 0) {
            std::printf("sparrowdeck-app %s\n", SPARROWDECK_VERSION);
            return 0;
        }
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::printf("Usage: sparrowdeck-app [--tray | --companion] [--screen NAME] [--version] "
                        "[--help]\n\n"
                        "Opens the Sparrowdeck window: see what fills your disk and give space "
                        "back safely.\nIt moves to the Trash, never deletes, and can put "
                        "everything back. See sparrowdeck-app(1).\n\n"
                        "  --tray       the companion with its tray icon: watches free space "
                        "and warns\n"
                        "  --companion  the companion alone, without a window or tray\n"
                        "  --screen     open on sweep, space-map or apps\n");
            return 0;
        }
    }
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Sparrowdeck"));
    QApplication::setApplicationVersion(QStringLiteral(SPARROWDECK_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("org.sparrowdeck.Sparrowdeck"));
    sd::app::applyStyle(app);
    QApplication::setWindowIcon(QIcon::fromTheme(QStringLiteral("org.sparrowdeck.Sparrowdeck"),
                                                 QIcon(QStringLiteral(":/sparrowdeck/icon.svg"))));
    if (tray) {
        sd::companion::TrayShell shell(std::make_unique<sd::companion::Companion>(
            sd::ScanHistory::defaultFile(), sd::CompanionService::systemSources()));
        QString said = shell.start();
        if (!said.isEmpty()) {
            std::fprintf(stderr, "%s\n", said.toUtf8().constData());
        }
        return QApplication::exec();
    }
    sd::app::MainWindow window;
    if (screen != nullptr) {
        if (auto chosen = sd::companion::screenNamed(QString::fromUtf8(screen))) {
            window.showScreen(*chosen);
        }
    }
    window.show();
    return QApplication::exec();
}
