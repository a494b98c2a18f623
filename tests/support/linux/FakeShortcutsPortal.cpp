#include "FakeShortcutsPortal.h"

#include "platform/linux/wayland/GlobalShortcutsSession.h"

#include <QDBusConnectionInterface>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QDateTime>

namespace {

const QString service = QStringLiteral("org.freedesktop.portal.Desktop");
const QString root = QStringLiteral("/org/freedesktop/portal/desktop");
const QString shortcutsInterface = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");

// Where the portal puts a caller's request or session: ":1.42" and "t" give ".../1_42/t".
QString handlePath(const QString &sender, const QString &kind, const QString &token) {
    QString name = sender.mid(1);
    name.replace(QLatin1Char('.'), QLatin1Char('_'));
    return root + QLatin1Char('/') + kind + QLatin1Char('/') + name + QLatin1Char('/') + token;
}

// A virtual object sees nested arguments undecoded.
QVariantMap mapOf(const QVariant &value) {
    if (value.canConvert<QDBusArgument>())
        return qdbus_cast<QVariantMap>(value.value<QDBusArgument>());
    return value.toMap();
}

} // namespace

class FakeShortcutsPortal::Handler final : public QDBusVirtualObject {
public:
    explicit Handler(FakeShortcutsPortal &portal) : m_portal(portal) {}
    QString introspect(const QString &) const override { return {}; }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override {
        return m_portal.handle(message, connection);
    }

private:
    FakeShortcutsPortal &m_portal;
};

FakeShortcutsPortal::FakeShortcutsPortal(Offers offers)
    : m_offers(offers),
      m_bus(QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("fake-shortcuts-portal"))) {
    qDBusRegisterMetaType<PortalShortcut>();
    qDBusRegisterMetaType<QList<PortalShortcut>>();
    m_thread.start();
    m_handler = new Handler(*this);
    m_handler->moveToThread(&m_thread);
    // From the handler's own thread: the connection hangs an object of its own on it.
    bool registered = false;
    QMetaObject::invokeMethod(
        m_handler,
        [this, &registered] { registered = m_bus.registerVirtualObject(root, m_handler, QDBusConnection::SubPath); },
        Qt::BlockingQueuedConnection);
    m_serving = registered && m_bus.registerService(service);
}

FakeShortcutsPortal::~FakeShortcutsPortal() {
    m_bus.unregisterService(service);
    m_bus.unregisterObject(root, QDBusConnection::UnregisterTree);
    Handler *handler = m_handler;
    QMetaObject::invokeMethod(
        handler, [handler] { delete handler; }, Qt::BlockingQueuedConnection);
    m_thread.quit();
    m_thread.wait();
    QDBusConnection::disconnectFromBus(QStringLiteral("fake-shortcuts-portal"));
}

int FakeShortcutsPortal::sessionsCreated() const {
    std::lock_guard lock(m_lock);
    return static_cast<int>(m_sessions.size());
}

QList<QList<FakeShortcutsPortal::Shortcut>> FakeShortcutsPortal::bindings() const {
    std::lock_guard lock(m_lock);
    return m_bindings;
}

void FakeShortcutsPortal::refuseBindings() {
    std::lock_guard lock(m_lock);
    m_refuse = true;
}

QString FakeShortcutsPortal::newestSession() const {
    std::lock_guard lock(m_lock);
    return m_sessions.isEmpty() ? QString() : m_sessions.constLast();
}

void FakeShortcutsPortal::activate(const QString &id) {
    shortcutSignal(QStringLiteral("Activated"), newestSession(), id);
}

void FakeShortcutsPortal::deactivate(const QString &id) {
    shortcutSignal(QStringLiteral("Deactivated"), newestSession(), id);
}

void FakeShortcutsPortal::activateElsewhere(const QString &id) {
    shortcutSignal(QStringLiteral("Activated"), root + QStringLiteral("/session/1_1/someone_else"), id);
}

void FakeShortcutsPortal::closeSession() {
    QDBusMessage closed = QDBusMessage::createSignal(newestSession(), QStringLiteral("org.freedesktop.portal.Session"),
                                                     QStringLiteral("Closed"));
    closed << QVariantMap();
    m_bus.send(closed);
}

void FakeShortcutsPortal::shortcutSignal(const QString &member, const QString &sessionPath, const QString &id) {
    QDBusMessage signal = QDBusMessage::createSignal(root, shortcutsInterface, member);
    signal << QVariant::fromValue(QDBusObjectPath(sessionPath)) << id << qulonglong(QDateTime::currentMSecsSinceEpoch())
           << QVariantMap();
    m_bus.send(signal);
}

void FakeShortcutsPortal::respond(const QDBusConnection &connection, const QString &requestPath, uint response,
                                  const QVariantMap &results) {
    QDBusMessage signal = QDBusMessage::createSignal(requestPath, QStringLiteral("org.freedesktop.portal.Request"),
                                                     QStringLiteral("Response"));
    signal << response << results;
    connection.send(signal);
}

bool FakeShortcutsPortal::handle(const QDBusMessage &message, const QDBusConnection &connection) {
    const QString interface = message.interface();
    const QString member = message.member();
    const QVariantList arguments = message.arguments();

    if (interface == QLatin1String("org.freedesktop.DBus.Properties") && member == QLatin1String("Get")) {
        if (m_offers == Offers::globalShortcuts && arguments.value(0).toString() == shortcutsInterface &&
            arguments.value(1).toString() == QLatin1String("version"))
            connection.send(message.createReply(QVariant::fromValue(QDBusVariant(uint(1)))));
        else
            connection.send(message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs"),
                                                     QStringLiteral("No such interface or property")));
        return true;
    }
    if (interface == QLatin1String("org.freedesktop.portal.Session") && member == QLatin1String("Close")) {
        connection.send(message.createReply());
        return true;
    }
    if (interface != shortcutsInterface || m_offers != Offers::globalShortcuts)
        return false;

    const QVariantMap options = mapOf(arguments.value(arguments.size() - 1));
    const QString requestPath = handlePath(message.service(), QStringLiteral("request"),
                                           options.value(QStringLiteral("handle_token")).toString());
    if (member == QLatin1String("CreateSession")) {
        const QString sessionPath = handlePath(message.service(), QStringLiteral("session"),
                                               options.value(QStringLiteral("session_handle_token")).toString());
        {
            std::lock_guard lock(m_lock);
            m_sessions << sessionPath;
        }
        // The reply goes out before the answer, as the portal's does.
        connection.send(message.createReply(QVariant::fromValue(QDBusObjectPath(requestPath))));
        respond(connection, requestPath, 0, {{QStringLiteral("session_handle"), sessionPath}});
        return true;
    }
    if (member == QLatin1String("BindShortcuts")) {
        QList<PortalShortcut> asked;
        arguments.value(1).value<QDBusArgument>() >> asked;
        QList<Shortcut> recorded;
        QList<PortalShortcut> bound;
        for (const PortalShortcut &shortcut : std::as_const(asked)) {
            const QString trigger = shortcut.properties.value(QStringLiteral("preferred_trigger")).toString();
            recorded << Shortcut{shortcut.id, trigger};
            bound << PortalShortcut{
                shortcut.id,
                {{QStringLiteral("description"), shortcut.properties.value(QStringLiteral("description"))},
                 {QStringLiteral("trigger_description"), QStringLiteral("Press ") + trigger}}};
        }
        bool refuse;
        {
            std::lock_guard lock(m_lock);
            m_bindings << recorded;
            refuse = m_refuse;
        }
        connection.send(message.createReply(QVariant::fromValue(QDBusObjectPath(requestPath))));
        if (refuse)
            respond(connection, requestPath, 1, {});
        else
            respond(connection, requestPath, 0, {{QStringLiteral("shortcuts"), QVariant::fromValue(bound)}});
        return true;
    }
    return false;
}
