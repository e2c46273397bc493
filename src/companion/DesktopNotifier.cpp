#include "companion/DesktopNotifier.h"

#include <QDBusMessage>
#include <QDBusReply>
#include <QStringList>
#include <QVariantMap>

namespace sd::companion {
namespace {

const QString service = QStringLiteral("org.freedesktop.Notifications");
const QString path = QStringLiteral("/org/freedesktop/Notifications");
const QString interface = QStringLiteral("org.freedesktop.Notifications");
const QString reviewAction = QStringLiteral("review");

} // namespace

DesktopNotifier::DesktopNotifier(QDBusConnection bus, QObject* parent)
    : QObject(parent), bus_(std::move(bus)) {
    bus_.connect(service, path, interface, QStringLiteral("ActionInvoked"), this,
                 SLOT(onActionInvoked(uint, QString)));
    bus_.connect(service, path, interface, QStringLiteral("NotificationClosed"), this,
                 SLOT(onClosed(uint, uint)));
}

bool DesktopNotifier::send(const Notice& notice, QString* why) {
    QDBusMessage call =
        QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("Notify"));
    QVariantMap hints;
    hints.insert(QStringLiteral("desktop-entry"), QStringLiteral("org.sparrowdeck.Sparrowdeck"));
    hints.insert(QStringLiteral("urgency"),
                 QVariant::fromValue<uchar>(notice.kind == NoticeKind::lowSpace ? 2 : 1));
    call << QStringLiteral("Sparrowdeck") << uint(0)
         << QStringLiteral("org.sparrowdeck.Sparrowdeck") << QString::fromStdString(notice.title)
         << QString::fromStdString(notice.body)
         << QStringList{QStringLiteral("default"), QStringLiteral("Review"), reviewAction,
                        QStringLiteral("Review")}
         << hints << int(-1);
    QDBusReply<uint> reply = bus_.call(call, QDBus::Block, 5000);
    if (!reply.isValid()) {
        if (why != nullptr) {
            *why = reply.error().message();
        }
        return false;
    }
    shown_.insert(reply.value(), notice.screen);
    return true;
}

void DesktopNotifier::onActionInvoked(uint id, const QString& action) {
    auto found = shown_.find(id);
    if (found == shown_.end()) {
        return; // another program's notice
    }
    if (action == reviewAction || action == QStringLiteral("default")) {
        emit reviewRequested(found.value());
    }
}

void DesktopNotifier::onClosed(uint id, uint) {
    shown_.remove(id);
}

} // namespace sd::companion
