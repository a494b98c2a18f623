#include "platform/linux/FreedesktopNotifications.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QVariantMap>

namespace FreedesktopNotifications {

void show(const QString &title, const QString &body, std::function<void()> fallback) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        if (fallback)
            fallback();
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("/org/freedesktop/Notifications"),
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("Notify"));
    call << QStringLiteral("Quorvane") << uint(0) << QStringLiteral("audio-input-microphone") << title << body
         << QStringList() << QVariantMap() << int(-1);
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 2000));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                     [fallback = std::move(fallback)](QDBusPendingCallWatcher *finished) {
                         if (finished->isError() && fallback)
                             fallback();
                         finished->deleteLater();
                     });
}

} // namespace FreedesktopNotifications
