#include "app/MainWindow.h"
#include "app/Widgets.h"

#include <QApplication>
#include <QIcon>
#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
    // Answered before a window system is needed, so they work over ssh and in scripts.
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--version") == 0) {
            std::printf("sparrowdeck-app %s\n", SPARROWDECK_VERSION);
            return 0;
        }
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::printf("Usage: sparrowdeck-app [--version] [--help]\n\n"
                        "Opens the Sparrowdeck window: see what fills your disk and give space "
                        "back safely.\nIt moves to the Trash, never deletes, and can put "
                        "everything back. See sparrowdeck-app(1).\n");
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
    sd::app::MainWindow window;
    window.show();
    return QApplication::exec();
}
