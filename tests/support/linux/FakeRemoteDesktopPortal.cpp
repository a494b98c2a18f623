#include "FakeRemoteDesktopPortal.h"

#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusUnixFileDescriptor>
#include <QDBusVariant>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace {

const QString remoteDesktop = QStringLiteral("org.freedesktop.portal.RemoteDesktop");
const QString clipboard = QStringLiteral("org.freedesktop.portal.Clipboard");

QString pathOf(const QVariant &value) {
    return value.value<QDBusObjectPath>().path();
}

// What a reader gets from the write end until it is closed; nothing after a stall of 5 s.
std::optional<QByteArray> drain(int fd) {
    QByteArray data;
    char buffer[4096];
    for (;;) {
        pollfd readable{fd, POLLIN, 0};
        if (poll(&readable, 1, 5000) <= 0)
            return std::nullopt;
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got == 0)
            return data;
        if (got < 0)
            return std::nullopt;
        data.append(buffer, got);
    }
}

} // namespace

FakeRemoteDesktopPortal::FakeRemoteDesktopPortal(Offers offers)
    : FakePortal(QStringLiteral("fake-remote-desktop-portal")), m_offers(offers) {
    serve();
}

FakeRemoteDesktopPortal::~FakeRemoteDesktopPortal() {
    stopServing();
    for (std::thread &reader : m_readers)
        reader.join();
}

QList<QVariantMap> FakeRemoteDesktopPortal::deviceSelections() const {
    std::lock_guard lock(m_lock);
    return m_deviceSelections;
}

int FakeRemoteDesktopPortal::sessionsCreated() const {
    std::lock_guard lock(m_lock);
    return m_sessions;
}

bool FakeRemoteDesktopPortal::isStarted() const {
    std::lock_guard lock(m_lock);
    return m_started;
}

QString FakeRemoteDesktopPortal::issuedToken() const {
    std::lock_guard lock(m_lock);
    return m_token;
}

void FakeRemoteDesktopPortal::dismissDialog() {
    std::lock_guard lock(m_lock);
    m_dismiss = true;
}

QList<FakeRemoteDesktopPortal::Key> FakeRemoteDesktopPortal::keys() const {
    std::lock_guard lock(m_lock);
    return m_keys;
}

QList<QStringList> FakeRemoteDesktopPortal::selections() const {
    std::lock_guard lock(m_lock);
    return m_setSelections;
}

uint FakeRemoteDesktopPortal::paste(const QString &mimeType) {
    QString session;
    uint serial;
    {
        std::lock_guard lock(m_lock);
        session = m_session;
        serial = ++m_nextSerial;
        m_transfers.insert(serial, Transfer{mimeType, std::nullopt, std::nullopt});
    }
    QDBusMessage transfer = QDBusMessage::createSignal(root, clipboard, QStringLiteral("SelectionTransfer"));
    transfer << QVariant::fromValue(QDBusObjectPath(session)) << mimeType << serial;
    m_bus.send(transfer);
    return serial;
}

std::optional<QByteArray> FakeRemoteDesktopPortal::pasted(uint serial) const {
    std::lock_guard lock(m_lock);
    const Transfer transfer = m_transfers.value(serial);
    // Complete only once the data is in and the session said it succeeded.
    if (!transfer.received || transfer.done != true)
        return std::nullopt;
    return transfer.received;
}

void FakeRemoteDesktopPortal::copyElsewhere(const DesktopTextBackend::ClipboardItem &formats) {
    QStringList types;
    {
        std::lock_guard lock(m_lock);
        m_foreign = formats;
        for (const auto &format : formats)
            types << format.first;
    }
    ownerChanged(types, false);
}

void FakeRemoteDesktopPortal::closeSession() {
    QString session;
    {
        std::lock_guard lock(m_lock);
        session = std::exchange(m_session, {});
        m_started = false;
    }
    sessionClosed(session);
}

void FakeRemoteDesktopPortal::ownerChanged(const QStringList &types, bool sessionIsOwner) {
    QString session;
    {
        std::lock_guard lock(m_lock);
        session = m_session;
    }
    QDBusMessage changed = QDBusMessage::createSignal(root, clipboard, QStringLiteral("SelectionOwnerChanged"));
    changed << QVariant::fromValue(QDBusObjectPath(session))
            << QVariantMap{{QStringLiteral("mime_types"), types}, {QStringLiteral("session_is_owner"), sessionIsOwner}};
    m_bus.send(changed);
}

bool FakeRemoteDesktopPortal::handle(const QDBusMessage &message, const QDBusConnection &connection) {
    const QString interface = message.interface();
    const QString member = message.member();
    const QVariantList arguments = message.arguments();
    const bool withClipboard = m_offers == Offers::keyboardAndClipboard;

    if (interface == QLatin1String("org.freedesktop.DBus.Properties") && member == QLatin1String("Get")) {
        const QString asked = arguments.value(0).toString() + QLatin1Char('.') + arguments.value(1).toString();
        if (asked == remoteDesktop + QStringLiteral(".AvailableDeviceTypes"))
            connection.send(message.createReply(QVariant::fromValue(QDBusVariant(uint(7)))));
        else if (asked == clipboard + QStringLiteral(".version") && withClipboard)
            connection.send(message.createReply(QVariant::fromValue(QDBusVariant(uint(1)))));
        else
            connection.send(message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs"),
                                                     QStringLiteral("No such interface or property")));
        return true;
    }
    if (interface == QLatin1String("org.freedesktop.portal.Session") && member == QLatin1String("Close")) {
        std::lock_guard lock(m_lock);
        if (message.path() == m_session) {
            m_session.clear();
            m_started = false;
        }
        connection.send(message.createReply());
        return true;
    }
    if (interface == clipboard && withClipboard)
        return handleClipboard(message, connection);
    if (interface != remoteDesktop)
        return false;

    if (member == QLatin1String("NotifyKeyboardKeycode")) {
        std::lock_guard lock(m_lock);
        // Only a started session may send keys.
        if (!m_started || pathOf(arguments.value(0)) != m_session) {
            connection.send(message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.AccessDenied"),
                                                     QStringLiteral("Session is not started")));
            return true;
        }
        m_keys << Key{arguments.value(2).toInt(), arguments.value(3).toUInt()};
        connection.send(message.createReply());
        return true;
    }

    const QVariantMap options = mapOf(arguments.value(arguments.size() - 1));
    const QString requestPath = handlePath(message.service(), QStringLiteral("request"),
                                           options.value(QStringLiteral("handle_token")).toString());
    // The reply goes out before the answer, as the portal's does.
    connection.send(message.createReply(QVariant::fromValue(QDBusObjectPath(requestPath))));
    if (member == QLatin1String("CreateSession")) {
        const QString session = handlePath(message.service(), QStringLiteral("session"),
                                           options.value(QStringLiteral("session_handle_token")).toString());
        {
            std::lock_guard lock(m_lock);
            m_session = session;
            m_started = false;
            m_clipboardRequested = false;
            ++m_sessions;
        }
        respond(connection, requestPath, 0, {{QStringLiteral("session_handle"), session}});
    } else if (member == QLatin1String("SelectDevices")) {
        {
            std::lock_guard lock(m_lock);
            m_deviceSelections << options;
        }
        respond(connection, requestPath, 0, {});
    } else if (member == QLatin1String("Start")) {
        QVariantMap results;
        uint response = 0;
        {
            std::lock_guard lock(m_lock);
            if (m_dismiss) {
                response = 1;
            } else {
                m_started = pathOf(arguments.value(0)) == m_session;
                m_token = QStringLiteral("token-%1").arg(m_sessions);
                results = {{QStringLiteral("devices"), uint(1)},
                           {QStringLiteral("clipboard_enabled"), m_clipboardRequested},
                           {QStringLiteral("restore_token"), m_token}};
            }
        }
        respond(connection, requestPath, response, results);
    } else {
        return false;
    }
    return true;
}

bool FakeRemoteDesktopPortal::handleClipboard(const QDBusMessage &message, const QDBusConnection &connection) {
    const QString member = message.member();
    const QVariantList arguments = message.arguments();
    std::unique_lock lock(m_lock);
    if (pathOf(arguments.value(0)) != m_session) {
        connection.send(message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.AccessDenied"),
                                                 QStringLiteral("Not this session")));
        return true;
    }
    if (member == QLatin1String("RequestClipboard")) {
        // Only before Start, as documented.
        m_clipboardRequested = !m_started;
        connection.send(message.createReply());
        return true;
    }
    if (!m_started || !m_clipboardRequested) {
        connection.send(message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.AccessDenied"),
                                                 QStringLiteral("Clipboard not enabled")));
        return true;
    }
    if (member == QLatin1String("SetSelection")) {
        const QStringList types = mapOf(arguments.value(1)).value(QStringLiteral("mime_types")).toStringList();
        m_setSelections << types;
        m_foreign.clear();
        connection.send(message.createReply());
        lock.unlock();
        ownerChanged(types, true);
        return true;
    }
    if (member == QLatin1String("SelectionRead")) {
        const QString type = arguments.value(1).toString();
        const auto found = std::find_if(m_foreign.cbegin(), m_foreign.cend(),
                                        [&type](const auto &format) { return format.first == type; });
        int fds[2];
        if (found == m_foreign.cend() || pipe2(fds, O_CLOEXEC) != 0) {
            connection.send(message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.Failed"),
                                                     QStringLiteral("No such type")));
            return true;
        }
        // The owner writes while the reader reads; a pipe's buffer holds what the tests copy.
        const bool written =
            write(fds[1], found->second.constData(), size_t(found->second.size())) == ssize_t(found->second.size());
        close(fds[1]);
        if (written)
            connection.send(message.createReply(QVariant::fromValue(QDBusUnixFileDescriptor(fds[0]))));
        else
            connection.send(message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.Failed"),
                                                     QStringLiteral("Too large")));
        close(fds[0]);
        return true;
    }
    if (member == QLatin1String("SelectionWrite")) {
        const uint serial = arguments.value(1).toUInt();
        int fds[2];
        if (!m_transfers.contains(serial) || pipe2(fds, O_CLOEXEC) != 0) {
            connection.send(message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.Failed"),
                                                     QStringLiteral("No such transfer")));
            return true;
        }
        connection.send(message.createReply(QVariant::fromValue(QDBusUnixFileDescriptor(fds[1]))));
        close(fds[1]);
        m_readers.emplace_back([this, serial, fd = fds[0]] {
            const std::optional<QByteArray> data = drain(fd);
            close(fd);
            std::lock_guard readerLock(m_lock);
            m_transfers[serial].received = data;
        });
        return true;
    }
    if (member == QLatin1String("SelectionWriteDone")) {
        const uint serial = arguments.value(1).toUInt();
        if (m_transfers.contains(serial))
            m_transfers[serial].done = arguments.value(2).toBool();
        connection.send(message.createReply());
        return true;
    }
    return false;
}
