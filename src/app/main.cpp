#include "app/MainWindow.h"
#include "app/Widgets.h"

#include <QApplication>

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Sparrowdeck"));
    QApplication::setApplicationVersion(QStringLiteral(SPARROWDECK_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("sparrowdeck"));
    sd::app::applyStyle(app);
    sd::app::MainWindow window;
    window.show();
    return QApplication::exec();
}
