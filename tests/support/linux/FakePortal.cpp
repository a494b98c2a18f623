#include "FakePortal.h"

#include "core/HandOver.h"

#include <QDBusArgument>
#include <QDBusVirtualObject>

namespace {

const QString service = QStringLiteral("org.freedesktop.portal.Desktop");

} // namespace

const QString FakePortal::root = QStringLiteral("/org/freedesktop/portal/desktop");

class FakePortal::Handler final : public QDBusVirtualObject {
public:
    explicit Handler(FakePortal &portal) : m_portal(portal) {}
    QString introspect(const QString &) const override { return {}; }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override {
        // Everything the test thread set up before serving is visible here.
        HandOver::received(this);
        HandOver::received(&m_portal);
        const bool handled = m_portal.handle(message, connection);
        HandOver::sent(&m_portal);
        return handled;
    }

private:
    FakePortal &m_portal;
};

FakePortal::FakePortal(const QString &connectionName)
    : m_bus(QDBusConnection::connectToBus(QDBusConnection::SessionBus, connectionName)),
      m_connectionName(connectionName) {}

FakePortal::~FakePortal() {
    QDBusConnection::disconnectFromBus(m_connectionName);
}

void FakePortal::serve() {
    m_thread.start();
    m_handler = new Handler(*this);
    HandOver::sent(m_handler);
    m_handler->moveToThread(&m_thread);
    // From the handler's own thread: the connection hangs an object of its own on it.
    bool registered = false;
    // The blocking call orders both sides inside Qt, where the thread checker cannot see it.
    HandOver::sent(this);
    QMetaObject::invokeMethod(
        m_handler,
        [this, &registered] {
            HandOver::received(this);
            registered = m_bus.registerVirtualObject(root, m_handler, QDBusConnection::SubPath);
            HandOver::sent(this);
        },
        Qt::BlockingQueuedConnection);
    HandOver::received(this);
    m_serving = registered && m_bus.registerService(service);
}

void FakePortal::stopServing() {
    m_bus.unregisterService(service);
    m_bus.unregisterObject(root, QDBusConnection::UnregisterTree);
    Handler *handler = std::exchange(m_handler, nullptr);
    HandOver::sent(this);
    QMetaObject::invokeMethod(
        handler,
        [this, handler] {
            HandOver::received(this);
            delete handler;
            HandOver::sent(this);
        },
        Qt::BlockingQueuedConnection);
    m_thread.quit();
    m_thread.wait();
    // Nothing of the handler thread touches this object after here, its destructor included.
    HandOver::received(this);
}

QString FakePortal::handlePath(const QString &sender, const QString &kind, const QString &token) {
    QString name = sender.mid(1);
    name.replace(QLatin1Char('.'), QLatin1Char('_'));
    return root + QLatin1Char('/') + kind + QLatin1Char('/') + name + QLatin1Char('/') + token;
}

QVariantMap FakePortal::mapOf(const QVariant &value) {
    if (value.canConvert<QDBusArgument>())
        return qdbus_cast<QVariantMap>(value.value<QDBusArgument>());
    return value.toMap();
}

void FakePortal::respond(const QDBusConnection &connection, const QString &requestPath, uint response,
                         const QVariantMap &results) {
    QDBusMessage signal = QDBusMessage::createSignal(requestPath, QStringLiteral("org.freedesktop.portal.Request"),
                                                     QStringLiteral("Response"));
    signal << response << results;
    connection.send(signal);
}

void FakePortal::sessionClosed(const QString &sessionPath) {
    QDBusMessage closed = QDBusMessage::createSignal(sessionPath, QStringLiteral("org.freedesktop.portal.Session"),
                                                     QStringLiteral("Closed"));
    closed << QVariantMap();
    m_bus.send(closed);
}
