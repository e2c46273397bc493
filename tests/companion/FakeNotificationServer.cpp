// A stand-in for the desktop's notification server on a private session bus: it takes the name
// org.freedesktop.Notifications, writes one JSON line per notice to the file named first, and,
// with --press-review, presses each notice's "Review" action as a person would.
#include <QCoreApplication>
#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>
#include <QTimer>
#include <QVariantMap>
#include <cstdio>

class Server : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    Server(QString log, bool press) : log_(std::move(log)), press_(press) {}

public slots:
    uint Notify(const QString& app, uint replaces, const QString& icon, const QString& summary,
                const QString& body, const QStringList& actions, const QVariantMap& hints,
                int timeout) {
        Q_UNUSED(replaces);
        Q_UNUSED(icon);
        Q_UNUSED(hints);
        Q_UNUSED(timeout);
        const uint id = ++last_;
        QFile file(log_);
        if (file.open(QIODevice::Append)) {
            QJsonObject line{{QStringLiteral("id"), static_cast<int>(id)},
                             {QStringLiteral("app"), app},
                             {QStringLiteral("summary"), summary},
                             {QStringLiteral("body"), body},
                             {QStringLiteral("actions"), actions.join(QLatin1Char(','))}};
            file.write(QJsonDocument(line).toJson(QJsonDocument::Compact) + "\n");
        }
        if (press_ && actions.contains(QStringLiteral("review"))) {
            QTimer::singleShot(0, this, [id] {
                QDBusMessage signal =
                    QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/Notifications"),
                                               QStringLiteral("org.freedesktop.Notifications"),
                                               QStringLiteral("ActionInvoked"));
                signal << id << QStringLiteral("review");
                QDBusConnection::sessionBus().send(signal);
            });
        }
        return id;
    }
    QStringList GetCapabilities() { return {QStringLiteral("actions"), QStringLiteral("body")}; }
    void CloseNotification(uint) {}
    QString GetServerInformation(QString& vendor, QString& version, QString& spec) {
        vendor = QStringLiteral("test");
        version = QStringLiteral("1");
        spec = QStringLiteral("1.2");
        return QStringLiteral("fake");
    }

private:
    QString log_;
    bool press_;
    uint last_ = 0;
};

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: fake_notification_server LOG [--press-review]\n");
        return 2;
    }
    Server server(QString::fromLocal8Bit(argv[1]),
                  argc > 2 && QByteArray(argv[2]) == "--press-review");
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject(QStringLiteral("/org/freedesktop/Notifications"), &server,
                            QDBusConnection::ExportAllSlots) ||
        !bus.registerService(QStringLiteral("org.freedesktop.Notifications"))) {
        std::fprintf(stderr, "could not take the name: %s\n",
                     qPrintable(bus.lastError().message()));
        return 1;
    }
    return QCoreApplication::exec();
}

#include "FakeNotificationServer.moc"
