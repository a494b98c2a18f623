#include "FakeShortcutsPortal.h"

#include "platform/linux/wayland/GlobalShortcutsSession.h"

#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDateTime>

namespace {

const QString shortcutsInterface = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");

} // namespace

FakeShortcutsPortal::FakeShortcutsPortal(Offers offers)
    : FakePortal(QStringLiteral("fake-shortcuts-portal")), m_offers(offers) {
    qDBusRegisterMetaType<PortalShortcut>();
    qDBusRegisterMetaType<QList<PortalShortcut>>();
    serve();
}

FakeShortcutsPortal::~FakeShortcutsPortal() {
    stopServing();
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
    sessionClosed(newestSession());
}

void FakeShortcutsPortal::shortcutSignal(const QString &member, const QString &sessionPath, const QString &id) {
    QDBusMessage signal = QDBusMessage::createSignal(root, shortcutsInterface, member);
    signal << QVariant::fromValue(QDBusObjectPath(sessionPath)) << id << qulonglong(QDateTime::currentMSecsSinceEpoch())
           << QVariantMap();
    m_bus.send(signal);
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
