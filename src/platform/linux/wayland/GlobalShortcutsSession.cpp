#include "platform/linux/wayland/GlobalShortcutsSession.h"

#include "core/Log.h"
#include "platform/HotkeyBackend.h"
#include "platform/linux/wayland/PortalRequest.h"

#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusVariant>
#include <QTimer>
#include <algorithm>
#include <utility>

QDBusArgument &operator<<(QDBusArgument &argument, const PortalShortcut &shortcut) {
    argument.beginStructure();
    argument << shortcut.id << shortcut.properties;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, PortalShortcut &shortcut) {
    argument.beginStructure();
    argument >> shortcut.id >> shortcut.properties;
    argument.endStructure();
    return argument;
}

namespace {

const QString sessionInterface = QStringLiteral("org.freedesktop.portal.Session");
// A desktop that closes sessions right after binding them would otherwise have us ask forever.
constexpr int quickCloseLimit = 3;
constexpr qint64 quickCloseMs = 10000;

QString description(PipelineMode mode) {
    switch (mode) {
    case PipelineMode::dictation:
        return QStringLiteral("Dictate (hold to talk)");
    case PipelineMode::editSelection:
        return QStringLiteral("Edit the selection (hold to talk)");
    case PipelineMode::developerPrompt:
        return QStringLiteral("Developer prompt (hold to talk)");
    }
    return {};
}

void registerTypes() {
    static const bool once = [] {
        qDBusRegisterMetaType<PortalShortcut>();
        qDBusRegisterMetaType<QList<PortalShortcut>>();
        return true;
    }();
    Q_UNUSED(once);
}

} // namespace

GlobalShortcutsSession::Availability GlobalShortcutsSession::probe(const QDBusConnection &bus, int timeoutMs) {
    if (!bus.isConnected())
        return {false, 0, QStringLiteral("no session bus could be reached")};
    QDBusMessage get =
        QDBusMessage::createMethodCall(PortalRequest::service, PortalRequest::objectPath,
                                       QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << interfaceName << QStringLiteral("version");
    const QDBusMessage reply = bus.call(get, QDBus::Block, timeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage) {
        const QString error = reply.errorName();
        if (error == QLatin1String("org.freedesktop.DBus.Error.ServiceUnknown") ||
            error == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner"))
            return {false, 0, QStringLiteral("no desktop portal runs on the session bus")};
        if (error == QLatin1String("org.freedesktop.DBus.Error.NoReply") ||
            error == QLatin1String("org.freedesktop.DBus.Error.Timeout"))
            return {false, 0, QStringLiteral("the desktop portal did not answer")};
        // Unknown interface or property: a portal whose desktop offers no global shortcuts.
        return {false, 0, QStringLiteral("the desktop portal offers no global shortcuts")};
    }
    const QVariant value = reply.arguments().value(0).value<QDBusVariant>().variant();
    bool isNumber = false;
    const uint version = value.toUInt(&isNumber);
    if (!isNumber || version < 1)
        return {false, 0, QStringLiteral("the desktop portal offers no global shortcuts")};
    return {true, version, {}};
}

QString GlobalShortcutsSession::shortcutId(PipelineMode mode) {
    switch (mode) {
    case PipelineMode::dictation:
        return QStringLiteral("dictate");
    case PipelineMode::editSelection:
        return QStringLiteral("edit");
    case PipelineMode::developerPrompt:
        return QStringLiteral("prompt");
    }
    return {};
}

QString GlobalShortcutsSession::preferredTrigger(PushToTalkKey key) {
    // A lone modifier has no "MOD+key" form: the key's own keysym, as a compositor binding names it.
    switch (key) {
    case PushToTalkKey::rightOption:
        return QStringLiteral("Alt_R");
    case PushToTalkKey::rightCommand:
        return QStringLiteral("Super_R");
    case PushToTalkKey::fn:
        break;
    }
    return QStringLiteral("Control_R");
}

std::shared_ptr<GlobalShortcutsSession> GlobalShortcutsSession::shared() {
    static std::weak_ptr<GlobalShortcutsSession> instance;
    std::shared_ptr<GlobalShortcutsSession> session = instance.lock();
    if (!session) {
        session = std::make_shared<GlobalShortcutsSession>(QDBusConnection::sessionBus());
        instance = session;
    }
    return session;
}

GlobalShortcutsSession::GlobalShortcutsSession(QDBusConnection bus) : m_bus(std::move(bus)) {
    registerTypes();
    m_bus.connect(PortalRequest::service, PortalRequest::objectPath, interfaceName, QStringLiteral("Activated"), this,
                  SLOT(onActivated(QDBusObjectPath, QString)));
    m_bus.connect(PortalRequest::service, PortalRequest::objectPath, interfaceName, QStringLiteral("Deactivated"), this,
                  SLOT(onDeactivated(QDBusObjectPath, QString)));
}

GlobalShortcutsSession::~GlobalShortcutsSession() {
    closeSession();
}

void GlobalShortcutsSession::listen(PipelineMode mode, PushToTalkKey key, Listener listener) {
    m_wanted[modeIndex(mode)] = Wanted{key, std::move(listener)};
    scheduleSync();
}

void GlobalShortcutsSession::forget(PipelineMode mode) {
    m_wanted[modeIndex(mode)].reset();
    m_held[modeIndex(mode)] = false;
    scheduleSync();
}

GlobalShortcutsSession::Shortcuts GlobalShortcutsSession::wantedShortcuts() const {
    Shortcuts shortcuts;
    for (std::size_t i = 0; i < m_wanted.size(); ++i)
        if (m_wanted[i])
            shortcuts[i] = m_wanted[i]->key;
    return shortcuts;
}

void GlobalShortcutsSession::scheduleSync() {
    if (std::exchange(m_syncScheduled, true))
        return;
    QTimer::singleShot(0, this, [this] {
        m_syncScheduled = false;
        sync();
    });
}

void GlobalShortcutsSession::sync() {
    // A request in flight finishes first; its end syncs again.
    if (m_request)
        return;
    const Shortcuts wanted = wantedShortcuts();
    const bool anyWanted = std::any_of(wanted.begin(), wanted.end(), [](const auto &key) { return key.has_value(); });
    if (wanted == m_requested && (m_givenUp || !m_sessionPath.isEmpty()))
        return;
    // A session binds once: other keys need a new one.
    closeSession();
    m_givenUp = false;
    if (anyWanted)
        createSession();
}

void GlobalShortcutsSession::createSession() {
    m_requested = wantedShortcuts();
    if (!std::exchange(m_registered, true)) {
        // Newer portals learn our application id this way (the desktop remembers the shortcuts under
        // it); older ones lack the call, which is harmless.
        QDBusMessage registry = QDBusMessage::createMethodCall(PortalRequest::service, PortalRequest::objectPath,
                                                               QStringLiteral("org.freedesktop.host.portal.Registry"),
                                                               QStringLiteral("Register"));
        registry << QStringLiteral("quorvane") << QVariantMap();
        m_bus.call(registry, QDBus::NoBlock);
    }
    const QString sessionToken = PortalRequest::newToken();
    const QString sessionPath = PortalRequest::handlePath(m_bus, QStringLiteral("session"), sessionToken);
    // Before the call, so a close right after creation is not missed.
    m_bus.connect(PortalRequest::service, sessionPath, sessionInterface, QStringLiteral("Closed"), this,
                  SLOT(onClosed()));
    m_sessionPath = sessionPath;

    m_request = std::make_unique<PortalRequest>(m_bus);
    m_request->call(interfaceName, QStringLiteral("CreateSession"),
                    {QVariantMap{{QStringLiteral("session_handle_token"), sessionToken}}},
                    [this](const PortalRequest::Outcome &outcome) {
                        m_request.release()->deleteLater();
                        if (outcome.kind != PortalRequest::Outcome::Kind::success) {
                            failed(outcome.kind == PortalRequest::Outcome::Kind::cancelled
                                       ? QStringLiteral("refused to create a shortcut session")
                                       : QStringLiteral("could not create a shortcut session: ") + outcome.problem);
                            return;
                        }
                        // Documented as a string; some portals send an object path.
                        const QVariant handle = outcome.results.value(QStringLiteral("session_handle"));
                        const QString path = handle.metaType() == QMetaType::fromType<QDBusObjectPath>()
                                                 ? handle.value<QDBusObjectPath>().path()
                                                 : handle.toString();
                        sessionCreated(path.isEmpty() ? m_sessionPath : path);
                    });
}

void GlobalShortcutsSession::sessionCreated(const QString &sessionPath) {
    if (sessionPath != m_sessionPath) {
        m_bus.disconnect(PortalRequest::service, m_sessionPath, sessionInterface, QStringLiteral("Closed"), this,
                         SLOT(onClosed()));
        m_sessionPath = sessionPath;
        m_bus.connect(PortalRequest::service, m_sessionPath, sessionInterface, QStringLiteral("Closed"), this,
                      SLOT(onClosed()));
    }
    QList<PortalShortcut> shortcuts;
    for (const PipelineMode mode : allPipelineModes)
        if (const std::optional<PushToTalkKey> key = m_requested[modeIndex(mode)])
            shortcuts << PortalShortcut{shortcutId(mode),
                                        {{QStringLiteral("description"), description(mode)},
                                         {QStringLiteral("preferred_trigger"), preferredTrigger(*key)}}};

    m_request = std::make_unique<PortalRequest>(m_bus);
    m_request->call(
        interfaceName, QStringLiteral("BindShortcuts"),
        {QVariant::fromValue(QDBusObjectPath(m_sessionPath)), QVariant::fromValue(shortcuts), QString(), QVariantMap()},
        [this](const PortalRequest::Outcome &outcome) {
            m_request.release()->deleteLater();
            if (outcome.kind == PortalRequest::Outcome::Kind::cancelled) {
                failed(QStringLiteral("was not allowed to bind the mode keys (the dialog was "
                                      "dismissed)"));
                return;
            }
            if (outcome.kind != PortalRequest::Outcome::Kind::success) {
                failed(QStringLiteral("could not bind the mode keys: ") + outcome.problem);
                return;
            }
            bound(qdbus_cast<QList<PortalShortcut>>(outcome.results.value(QStringLiteral("shortcuts"))));
        });
}

void GlobalShortcutsSession::bound(const QList<PortalShortcut> &shortcuts) {
    m_boundAt.start();
    QStringList triggers;
    QStringList missing;
    for (const PipelineMode mode : allPipelineModes) {
        if (!m_requested[modeIndex(mode)])
            continue;
        const QString id = shortcutId(mode);
        const auto found = std::find_if(shortcuts.begin(), shortcuts.end(),
                                        [&id](const PortalShortcut &shortcut) { return shortcut.id == id; });
        if (found == shortcuts.end()) {
            missing << id;
            continue;
        }
        const QString trigger = found->properties.value(QStringLiteral("trigger_description")).toString();
        triggers << id + QStringLiteral(" \u2192 ") + (trigger.isEmpty() ? QStringLiteral("(no key yet)") : trigger);
    }
    if (!triggers.isEmpty())
        Log::info(QStringLiteral("The desktop's shortcut portal bound the mode keys: ") +
                  triggers.join(QStringLiteral(", ")) + QLatin1Char('.'));
    if (!missing.isEmpty())
        Log::warn(QStringLiteral("The desktop's shortcut portal left %1 without a key: assign one in the desktop's "
                                 "keyboard shortcut settings.")
                      .arg(missing.join(QStringLiteral(", "))));
    // Keys that joined or left while we were binding.
    scheduleSync();
}

void GlobalShortcutsSession::failed(const QString &what) {
    Log::error(QStringLiteral("The desktop's shortcut portal %1, so the mode keys do nothing: restart Quorvane from "
                              "the menu and confirm the shortcuts when the desktop asks.")
                   .arg(what));
    // Trying again at once would only repeat the refusal (or the dialog); a changed key asks anew.
    const Shortcuts requested = m_requested;
    closeSession();
    m_requested = requested;
    m_givenUp = true;
}

void GlobalShortcutsSession::closeSession() {
    releaseHeld();
    m_request.reset();
    m_requested = {};
    if (m_sessionPath.isEmpty())
        return;
    m_bus.disconnect(PortalRequest::service, m_sessionPath, sessionInterface, QStringLiteral("Closed"), this,
                     SLOT(onClosed()));
    m_bus.call(QDBusMessage::createMethodCall(PortalRequest::service, m_sessionPath, sessionInterface,
                                              QStringLiteral("Close")),
               QDBus::NoBlock);
    m_sessionPath.clear();
}

void GlobalShortcutsSession::onClosed() {
    m_bus.disconnect(PortalRequest::service, m_sessionPath, sessionInterface, QStringLiteral("Closed"), this,
                     SLOT(onClosed()));
    m_sessionPath.clear();
    m_request.reset();
    // Closed before or soon after binding: the desktop is not keeping our sessions.
    const bool quick = !m_boundAt.isValid() || m_boundAt.elapsed() < quickCloseMs;
    m_quickCloses = quick ? m_quickCloses + 1 : 0;
    m_boundAt.invalidate();
    const bool givingUp = m_quickCloses >= quickCloseLimit;
    if (givingUp)
        Log::error(QStringLiteral("The desktop keeps closing Quorvane's shortcut session, so the mode keys do nothing: "
                                  "restart Quorvane from the menu."));
    else
        Log::warn(QStringLiteral("The desktop closed Quorvane's shortcut session; a held key counts as released and "
                                 "the session is created again."));
    releaseHeld();
    m_requested = givingUp ? wantedShortcuts() : Shortcuts{};
    m_givenUp = givingUp;
    scheduleSync();
}

void GlobalShortcutsSession::onActivated(const QDBusObjectPath &session, const QString &id) {
    if (session.path() == m_sessionPath)
        setHeld(id, true);
}

void GlobalShortcutsSession::onDeactivated(const QDBusObjectPath &session, const QString &id) {
    if (session.path() == m_sessionPath)
        setHeld(id, false);
}

void GlobalShortcutsSession::setHeld(const QString &id, bool down) {
    for (const PipelineMode mode : allPipelineModes) {
        if (shortcutId(mode) != id)
            continue;
        const std::size_t index = modeIndex(mode);
        if (!m_wanted[index] || m_held[index] == down)
            return;
        m_held[index] = down;
        // A copy: the listener may forget its mode.
        const Listener listener = m_wanted[index]->listener;
        if (listener)
            listener(down);
        return;
    }
}

void GlobalShortcutsSession::releaseHeld() {
    for (const PipelineMode mode : allPipelineModes)
        if (m_held[modeIndex(mode)])
            setHeld(shortcutId(mode), false);
}
