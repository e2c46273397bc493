#pragma once

#include "companion/NoticePolicy.h"

#include <QDBusConnection>
#include <QHash>
#include <QObject>
#include <QString>

namespace sd::companion {

// Sends notices through the desktop's notification server (org.freedesktop.Notifications on the
// session bus), each with a "Review" action; pressing it comes back as reviewRequested.
class DesktopNotifier : public QObject {
    Q_OBJECT

public:
    explicit DesktopNotifier(QDBusConnection bus = QDBusConnection::sessionBus(),
                             QObject* parent = nullptr);

    // False, with the reason in `why`, when no notification server answered.
    bool send(const Notice& notice, QString* why = nullptr);

signals:
    void reviewRequested(sd::ReviewScreen screen);

private slots:
    void onActionInvoked(uint id, const QString& action);
    void onClosed(uint id, uint reason);

private:
    QDBusConnection bus_;
    QHash<uint, ReviewScreen> shown_;
};

} // namespace sd::companion
