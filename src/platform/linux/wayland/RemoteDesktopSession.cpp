#include "platform/linux/wayland/RemoteDesktopSession.h"

#include "core/Log.h"
#include "platform/linux/FdTransfer.h"
#include "platform/linux/wayland/PortalRequest.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>
#include <QDBusVariant>
#include <QFile>
#include <QSaveFile>
#include <chrono>
#include <fcntl.h>
#include <poll.h>
#include <thread>
#include <unistd.h>

namespace {

using Clock = FdTransfer::Clock;

const QString sessionInterface = QStringLiteral("org.freedesktop.portal.Session");
constexpr uint keyboardDevice = 1;
// Allowed until the user revokes it, so the dialog is seen once.
constexpr uint persistUntilRevoked = 2;
// The keystroke calls are answered by the portal itself, at once when it is healthy.
constexpr int keyCallTimeoutMs = 1000;
// A clipboard owner that hangs must not stall the paste; a healthy one answers in a few ms.
constexpr auto snapshotDeadline = std::chrono::milliseconds(300);
// Handing our data to a reader that stops reading: give up rather than keep a thread forever.
constexpr int sendDeadlineMs = 2000;
// A paste of a huge image is not worth holding on to.
constexpr qsizetype maxSnapshotBytes = 64 * 1024 * 1024;

QString errorProblem(const QDBusMessage &reply) {
    const QString error = reply.errorName();
    if (error == QLatin1String("org.freedesktop.DBus.Error.ServiceUnknown") ||
        error == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner"))
        return QStringLiteral("no desktop portal runs on the session bus");
    if (error == QLatin1String("org.freedesktop.DBus.Error.NoReply") ||
        error == QLatin1String("org.freedesktop.DBus.Error.Timeout"))
        return QStringLiteral("the desktop portal did not answer");
    return QStringLiteral("the desktop portal offers no remote desktop");
}

std::optional<uint> portalProperty(const QDBusConnection &bus, const QString &interface, const QString &name,
                                   int timeoutMs, QString *problem) {
    QDBusMessage get =
        QDBusMessage::createMethodCall(PortalRequest::service, PortalRequest::objectPath,
                                       QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << interface << name;
    const QDBusMessage reply = bus.call(get, QDBus::Block, timeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage) {
        if (problem)
            *problem = errorProblem(reply);
        return std::nullopt;
    }
    bool isNumber = false;
    const uint value = reply.arguments().value(0).value<QDBusVariant>().variant().toUInt(&isNumber);
    if (!isNumber) {
        if (problem)
            *problem = QStringLiteral("the desktop portal offers no remote desktop");
        return std::nullopt;
    }
    return value;
}

QString sessionHandle(const QVariant &handle) {
    // Documented as a string; some portals send an object path.
    return handle.metaType() == QMetaType::fromType<QDBusObjectPath>() ? handle.value<QDBusObjectPath>().path()
                                                                       : handle.toString();
}

} // namespace

RemoteDesktopSession::Availability RemoteDesktopSession::probe(const QDBusConnection &bus, int timeoutMs) {
    if (!bus.isConnected())
        return {false, false, QStringLiteral("no session bus could be reached")};
    Availability availability;
    const std::optional<uint> devices =
        portalProperty(bus, interfaceName, QStringLiteral("AvailableDeviceTypes"), timeoutMs, &availability.problem);
    if (!devices)
        return availability;
    if (!(*devices & keyboardDevice)) {
        availability.problem = QStringLiteral("the desktop portal's remote desktop offers no keyboard");
        return availability;
    }
    availability.keyboard = true;
    availability.clipboard =
        portalProperty(bus, clipboardInterface, QStringLiteral("version"), timeoutMs, nullptr).value_or(0) >= 1;
    return availability;
}

RemoteDesktopSession::RemoteDesktopSession(QDBusConnection bus, bool withClipboard, QString tokenFile)
    : m_bus(std::move(bus)), m_withClipboard(withClipboard), m_tokenFile(std::move(tokenFile)) {
    if (m_withClipboard) {
        m_bus.connect(PortalRequest::service, PortalRequest::objectPath, clipboardInterface,
                      QStringLiteral("SelectionOwnerChanged"), this,
                      SLOT(onSelectionOwnerChanged(QDBusObjectPath, QVariantMap)));
        m_bus.connect(PortalRequest::service, PortalRequest::objectPath, clipboardInterface,
                      QStringLiteral("SelectionTransfer"), this,
                      SLOT(onSelectionTransfer(QDBusObjectPath, QString, uint)));
    }
}

RemoteDesktopSession::~RemoteDesktopSession() {
    closeSession();
}

void RemoteDesktopSession::start() {
    if (m_state == State::starting || m_state == State::started || m_state == State::refused)
        return;
    m_state = State::starting;
    const QString token = PortalRequest::newToken();
    m_sessionPath = PortalRequest::handlePath(m_bus, QStringLiteral("session"), token);
    // Before the call, so a close right after creation is not missed.
    watchSession(true);
    m_request = std::make_unique<PortalRequest>(m_bus);
    m_request->call(interfaceName, QStringLiteral("CreateSession"),
                    {QVariantMap{{QStringLiteral("session_handle_token"), token}}},
                    [this](const PortalRequest::Outcome &outcome) {
                        m_request.release()->deleteLater();
                        if (outcome.kind != PortalRequest::Outcome::Kind::success) {
                            fail(State::failed, QStringLiteral("could not create a session: ") + outcome.problem);
                            return;
                        }
                        sessionCreated(sessionHandle(outcome.results.value(QStringLiteral("session_handle"))));
                    });
}

void RemoteDesktopSession::sessionCreated(const QString &path) {
    if (!path.isEmpty() && path != m_sessionPath) {
        watchSession(false);
        m_sessionPath = path;
        watchSession(true);
    }
    selectDevices();
}

void RemoteDesktopSession::selectDevices() {
    QVariantMap options{{QStringLiteral("types"), keyboardDevice},
                        {QStringLiteral("persist_mode"), persistUntilRevoked}};
    if (const QString token = readToken(); !token.isEmpty())
        options.insert(QStringLiteral("restore_token"), token);
    m_request = std::make_unique<PortalRequest>(m_bus);
    m_request->call(interfaceName, QStringLiteral("SelectDevices"),
                    {QVariant::fromValue(QDBusObjectPath(m_sessionPath)), options},
                    [this](const PortalRequest::Outcome &outcome) {
                        m_request.release()->deleteLater();
                        if (outcome.kind == PortalRequest::Outcome::Kind::cancelled)
                            fail(State::refused, QStringLiteral("was not allowed to use the keyboard"));
                        else if (outcome.kind != PortalRequest::Outcome::Kind::success)
                            fail(State::failed, QStringLiteral("could not select the keyboard: ") + outcome.problem);
                        else
                            startSession();
                    });
}

void RemoteDesktopSession::startSession() {
    m_clipboardEnabled = false;
    if (m_withClipboard) {
        // Must come before Start; the dialog then covers the clipboard too.
        const QDBusMessage reply =
            m_bus.call(sessionCall(clipboardInterface, QStringLiteral("RequestClipboard")) << QVariantMap(),
                       QDBus::Block, keyCallTimeoutMs);
        m_clipboardEnabled = reply.type() == QDBusMessage::ReplyMessage;
        if (!m_clipboardEnabled)
            Log::warn(QStringLiteral("The desktop portal would not share the clipboard (%1); text goes to the "
                                     "clipboard through XWayland where it runs.")
                          .arg(reply.errorMessage()));
    }
    m_request = std::make_unique<PortalRequest>(m_bus);
    m_request->call(interfaceName, QStringLiteral("Start"),
                    {QVariant::fromValue(QDBusObjectPath(m_sessionPath)), QString(), QVariantMap()},
                    [this](const PortalRequest::Outcome &outcome) {
                        m_request.release()->deleteLater();
                        if (outcome.kind == PortalRequest::Outcome::Kind::cancelled)
                            fail(State::refused, QStringLiteral("dialog was dismissed"));
                        else if (outcome.kind != PortalRequest::Outcome::Kind::success)
                            fail(State::failed, QStringLiteral("could not start: ") + outcome.problem);
                        else
                            started(outcome.results);
                    });
}

void RemoteDesktopSession::started(const QVariantMap &results) {
    if (!(results.value(QStringLiteral("devices")).toUInt() & keyboardDevice)) {
        fail(State::refused, QStringLiteral("was not given the keyboard"));
        return;
    }
    // Older portals do not say; then the clipboard is enabled when it was requested without error.
    if (results.contains(QStringLiteral("clipboard_enabled")))
        m_clipboardEnabled = m_clipboardEnabled && results.value(QStringLiteral("clipboard_enabled")).toBool();
    if (const QString token = results.value(QStringLiteral("restore_token")).toString(); !token.isEmpty())
        saveToken(token);
    m_state = State::started;
    Log::info(m_clipboardEnabled
                  ? QStringLiteral("The desktop's remote desktop portal lets Quorvane send the paste keystroke and "
                                   "use the clipboard.")
                  : QStringLiteral("The desktop's remote desktop portal lets Quorvane send the paste keystroke."));
}

void RemoteDesktopSession::fail(State state, const QString &what) {
    Log::error(QStringLiteral("The desktop's remote desktop portal %1, so dictated text is left on the clipboard to "
                              "paste by hand: restart Quorvane from the menu and allow it to control the keyboard "
                              "when the desktop asks.")
                   .arg(what));
    closeSession();
    m_state = state;
}

void RemoteDesktopSession::watchSession(bool on) {
    if (on)
        m_bus.connect(PortalRequest::service, m_sessionPath, sessionInterface, QStringLiteral("Closed"), this,
                      SLOT(onClosed()));
    else
        m_bus.disconnect(PortalRequest::service, m_sessionPath, sessionInterface, QStringLiteral("Closed"), this,
                         SLOT(onClosed()));
}

void RemoteDesktopSession::closeSession() {
    m_request.reset();
    m_owner = false;
    m_clipboardEnabled = false;
    if (m_sessionPath.isEmpty())
        return;
    watchSession(false);
    m_bus.call(QDBusMessage::createMethodCall(PortalRequest::service, m_sessionPath, sessionInterface,
                                              QStringLiteral("Close")),
               QDBus::NoBlock);
    m_sessionPath.clear();
    m_state = State::closed;
}

void RemoteDesktopSession::onClosed() {
    watchSession(false);
    m_sessionPath.clear();
    m_request.reset();
    m_owner = false;
    m_clipboardEnabled = false;
    m_state = State::closed;
    Log::warn(QStringLiteral("The desktop closed Quorvane's remote desktop session, so the next dictation is left on "
                             "the clipboard; the session is started again then (the desktop may ask to allow it)."));
}

QDBusMessage RemoteDesktopSession::sessionCall(const QString &interface, const QString &method) const {
    QDBusMessage message =
        QDBusMessage::createMethodCall(PortalRequest::service, PortalRequest::objectPath, interface, method);
    message << QVariant::fromValue(QDBusObjectPath(m_sessionPath));
    return message;
}

bool RemoteDesktopSession::pressChord(const QList<int> &keycodes) {
    if (m_state != State::started)
        return false;
    const auto send = [this](int keycode, uint state) {
        const QDBusMessage reply = m_bus.call(sessionCall(interfaceName, QStringLiteral("NotifyKeyboardKeycode"))
                                                  << QVariantMap() << keycode << state,
                                              QDBus::Block, keyCallTimeoutMs);
        return reply.type() == QDBusMessage::ReplyMessage;
    };
    qsizetype pressed = 0;
    while (pressed < keycodes.size() && send(keycodes[pressed], 1))
        ++pressed;
    const bool allPressed = pressed == keycodes.size();
    // Whatever went down comes up, even after a failure: a stuck Ctrl would be worse than no paste.
    bool allReleased = true;
    while (pressed > 0)
        allReleased = send(keycodes[--pressed], 0) && allReleased;
    return allPressed && allReleased;
}

bool RemoteDesktopSession::offer(const DesktopTextBackend::ClipboardItem &formats) {
    if (!clipboardEnabled())
        return false;
    QStringList types;
    for (const auto &format : formats)
        types << format.first;
    const QDBusMessage reply = m_bus.call(sessionCall(clipboardInterface, QStringLiteral("SetSelection"))
                                              << QVariantMap{{QStringLiteral("mime_types"), types}},
                                          QDBus::Block, keyCallTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage)
        return false;
    m_owner = true;
    m_offered = formats;
    return true;
}

std::optional<DesktopTextBackend::ClipboardItem> RemoteDesktopSession::readClipboard() {
    // Our own offer is still there: asking the portal would have it ask us, and we are busy here.
    if (m_owner)
        return m_offered;
    if (!clipboardEnabled())
        return std::nullopt;
    DesktopTextBackend::ClipboardItem item;
    const auto deadline = Clock::now() + snapshotDeadline;
    for (const QString &type : std::as_const(m_foreignTypes)) {
        const QDBusMessage reply = m_bus.call(sessionCall(clipboardInterface, QStringLiteral("SelectionRead")) << type,
                                              QDBus::Block, std::max(FdTransfer::remainingMs(deadline), 1));
        if (reply.type() != QDBusMessage::ReplyMessage)
            return std::nullopt;
        const QDBusUnixFileDescriptor fd = reply.arguments().value(0).value<QDBusUnixFileDescriptor>();
        if (!fd.isValid())
            return std::nullopt;
        const std::optional<QByteArray> data = FdTransfer::readToEnd(fd.fileDescriptor(), deadline, maxSnapshotBytes);
        if (!data)
            return std::nullopt;
        item.append({type, *data});
    }
    return item;
}

void RemoteDesktopSession::onSelectionOwnerChanged(const QDBusObjectPath &session, const QVariantMap &options) {
    if (session.path() != m_sessionPath)
        return;
    m_ownerAnnounced = true;
    if (options.value(QStringLiteral("session_is_owner")).toBool())
        return;
    m_owner = false;
    m_offered.clear();
    m_foreignTypes = options.value(QStringLiteral("mime_types")).toStringList();
    ++m_changeCount;
}

void RemoteDesktopSession::onSelectionTransfer(const QDBusObjectPath &session, const QString &mimeType, uint serial) {
    if (session.path() != m_sessionPath)
        return;
    const auto done = [bus = m_bus, path = m_sessionPath, serial](bool success) {
        QDBusMessage message = QDBusMessage::createMethodCall(PortalRequest::service, PortalRequest::objectPath,
                                                              clipboardInterface, QStringLiteral("SelectionWriteDone"));
        message << QVariant::fromValue(QDBusObjectPath(path)) << serial << success;
        bus.send(message);
    };
    const auto found = std::find_if(m_offered.cbegin(), m_offered.cend(),
                                    [&mimeType](const auto &format) { return format.first == mimeType; });
    if (!m_owner || found == m_offered.cend()) {
        done(false);
        return;
    }
    auto *watcher = new QDBusPendingCallWatcher(
        m_bus.asyncCall(sessionCall(clipboardInterface, QStringLiteral("SelectionWrite")) << serial), this);
    connect(
        watcher, &QDBusPendingCallWatcher::finished, this,
        [done, bytes = found->second](QDBusPendingCallWatcher *finished) {
            finished->deleteLater();
            const QDBusPendingReply<QDBusUnixFileDescriptor> reply = *finished;
            const int fd = reply.isValid() ? dup(reply.value().fileDescriptor()) : -1;
            if (fd < 0) {
                done(false);
                return;
            }
            // Off the main thread, so a reader taking its time never blocks us.
            std::thread([fd, bytes, done] { done(FdTransfer::writeAllAndClose(fd, bytes, sendDeadlineMs)); }).detach();
        });
}

QString RemoteDesktopSession::readToken() const {
    QFile file(m_tokenFile);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.read(4096)).trimmed();
}

void RemoteDesktopSession::saveToken(const QString &token) const {
    // It lets whoever holds it control the keyboard without asking: owner-only.
    QSaveFile file(m_tokenFile);
    const bool saved = file.open(QIODevice::WriteOnly) &&
                       file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner) &&
                       file.write(token.toUtf8()) >= 0 && file.commit();
    if (!saved)
        Log::warn(QStringLiteral("Could not keep the desktop's remote desktop permission in %1; the desktop will ask "
                                 "again at the next start.")
                      .arg(m_tokenFile));
}
