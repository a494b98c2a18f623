#include "platform/linux/wayland/PortalRequest.h"

#include <QCoreApplication>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <atomic>
#include <utility>

namespace {

const QString requestInterface = QStringLiteral("org.freedesktop.portal.Request");

} // namespace

PortalRequest::PortalRequest(QDBusConnection bus, QObject *parent) : QObject(parent), m_bus(std::move(bus)) {}

PortalRequest::~PortalRequest() {
    if (m_path.isEmpty())
        return;
    unsubscribe();
    // Still open: a dialog the user has not answered yet should not outlive us.
    m_bus.call(QDBusMessage::createMethodCall(service, m_path, requestInterface, QStringLiteral("Close")),
               QDBus::NoBlock);
}

QString PortalRequest::newToken() {
    static std::atomic<int> counter{0};
    return QStringLiteral("quorvane_%1_%2").arg(QCoreApplication::applicationPid()).arg(++counter);
}

QString PortalRequest::handlePath(const QDBusConnection &bus, const QString &kind, const QString &token) {
    // ":1.42" becomes "1_42".
    QString sender = bus.baseService().mid(1);
    sender.replace(QLatin1Char('.'), QLatin1Char('_'));
    return objectPath + QLatin1Char('/') + kind + QLatin1Char('/') + sender + QLatin1Char('/') + token;
}

void PortalRequest::call(const QString &interface, const QString &method, QVariantList arguments, Finished finished) {
    m_finished = std::move(finished);
    const QString token = newToken();
    QVariantMap options = arguments.isEmpty() ? QVariantMap() : arguments.takeLast().toMap();
    options.insert(QStringLiteral("handle_token"), token);
    arguments << options;
    subscribe(handlePath(m_bus, QStringLiteral("request"), token));

    QDBusMessage message = QDBusMessage::createMethodCall(service, objectPath, interface, method);
    message.setArguments(arguments);
    auto *watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(message), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, &PortalRequest::replied);
}

void PortalRequest::subscribe(const QString &path) {
    unsubscribe();
    m_path = path;
    m_bus.connect(service, m_path, requestInterface, QStringLiteral("Response"), this,
                  SLOT(onResponse(uint, QVariantMap)));
}

void PortalRequest::unsubscribe() {
    if (!m_path.isEmpty())
        m_bus.disconnect(service, m_path, requestInterface, QStringLiteral("Response"), this,
                         SLOT(onResponse(uint, QVariantMap)));
}

void PortalRequest::replied(QDBusPendingCallWatcher *watcher) {
    watcher->deleteLater();
    const QDBusPendingReply<QDBusObjectPath> reply = *watcher;
    if (reply.isError()) {
        finish({Outcome::Kind::failed, {}, reply.error().message()});
        return;
    }
    // Portals older than the predictable path answer elsewhere; the answer cannot have come yet
    // on a path nobody knew.
    const QString path = reply.value().path();
    if (!m_finished || path == m_path)
        return;
    subscribe(path);
}

void PortalRequest::onResponse(uint response, const QVariantMap &results) {
    Outcome outcome;
    outcome.results = results;
    if (response == 0)
        outcome.kind = Outcome::Kind::success;
    else if (response == 1)
        outcome.kind = Outcome::Kind::cancelled;
    else
        outcome.problem = QStringLiteral("the portal ended the request (response %1)").arg(response);
    finish(outcome);
}

void PortalRequest::finish(const Outcome &outcome) {
    if (!m_finished)
        return;
    unsubscribe();
    m_path.clear();
    // Last: the callback may destroy us.
    std::exchange(m_finished, {})(outcome);
}
