#include "platform/linux/SwayFrontmostApp.h"

#include "core/Log.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr quint32 getTree = 4;
constexpr quint32 getVersion = 7;
// Asked before each paste: a compositor that does not answer quickly is treated as unknown.
constexpr auto requestDeadline = std::chrono::milliseconds(500);
// A tree of many workspaces is a few hundred kilobytes; anything far larger is not sway talking.
constexpr quint32 maxReply = 32 * 1024 * 1024;
const QByteArray magic = QByteArrayLiteral("i3-ipc");

bool transfer(int fd, char *data, size_t size, bool sending, Clock::time_point deadline) {
    size_t done = 0;
    while (done < size) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd ready{fd, short(sending ? POLLOUT : POLLIN), 0};
        if (left <= 0 || poll(&ready, 1, int(left)) <= 0)
            return false;
        const ssize_t moved =
            sending ? send(fd, data + done, size - done, MSG_NOSIGNAL) : recv(fd, data + done, size - done, 0);
        if (moved <= 0)
            return false;
        done += size_t(moved);
    }
    return true;
}

std::optional<SwayFrontmostApp::Window> search(const QJsonObject &node) {
    if (node.value(QLatin1String("focused")).toBool() && node.contains(QLatin1String("pid"))) {
        SwayFrontmostApp::Window window;
        window.identity.applicationID = node.value(QLatin1String("app_id")).toString();
        const QJsonObject x11 = node.value(QLatin1String("window_properties")).toObject();
        window.identity.wmClass = x11.value(QLatin1String("class")).toString();
        window.identity.wmInstance = x11.value(QLatin1String("instance")).toString();
        if (const int pid = node.value(QLatin1String("pid")).toInt(); pid > 0)
            window.processID = pid;
        return window;
    }
    for (const char *children : {"nodes", "floating_nodes"})
        for (const QJsonValue child : node.value(QLatin1String(children)).toArray())
            if (auto found = search(child.toObject()))
                return found;
    return std::nullopt;
}

} // namespace

SwayFrontmostApp::SwayFrontmostApp(QString socketPath) : m_socketPath(std::move(socketPath)) {}

std::optional<QByteArray> SwayFrontmostApp::request(const QString &socketPath, quint32 type,
                                                    const QByteArray &payload) {
    const QByteArray path = socketPath.toLocal8Bit();
    sockaddr_un address{};
    if (path.isEmpty() || size_t(path.size()) >= sizeof address.sun_path)
        return std::nullopt;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.constData(), size_t(path.size()));
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return std::nullopt;
    const auto deadline = Clock::now() + requestDeadline;
    std::optional<QByteArray> reply;
    // The header's numbers are in the host's byte order, as the compositor runs on this machine.
    QByteArray message = magic;
    const quint32 header[2] = {quint32(payload.size()), type};
    message.append(reinterpret_cast<const char *>(header), sizeof header);
    message.append(payload);
    quint32 answer[2] = {};
    QByteArray answerMagic(magic.size(), '\0');
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
        transfer(fd, message.data(), size_t(message.size()), true, deadline) &&
        transfer(fd, answerMagic.data(), size_t(answerMagic.size()), false, deadline) && answerMagic == magic &&
        transfer(fd, reinterpret_cast<char *>(answer), sizeof answer, false, deadline) && answer[1] == type &&
        answer[0] <= maxReply) {
        QByteArray body(qsizetype(answer[0]), '\0');
        if (transfer(fd, body.data(), size_t(body.size()), false, deadline))
            reply = std::move(body);
    }
    close(fd);
    return reply;
}

bool SwayFrontmostApp::answers(const QString &socketPath) {
    return request(socketPath, getVersion).has_value();
}

std::optional<SwayFrontmostApp::Window> SwayFrontmostApp::focusedWindow(const QJsonObject &tree) {
    return search(tree);
}

std::optional<SwayFrontmostApp::Window> SwayFrontmostApp::focused() {
    const std::optional<QByteArray> reply = request(m_socketPath, getTree);
    if (!reply) {
        if (!std::exchange(m_saidUnknown, true))
            Log::warn(QStringLiteral("The application in front cannot be known here (no answer from sway's IPC "
                                     "socket); text is pasted without checking that the destination is "
                                     "unchanged."));
        return std::nullopt;
    }
    return focusedWindow(QJsonDocument::fromJson(*reply).object());
}

QString SwayFrontmostApp::focusedApplicationID() {
    std::lock_guard lock(m_mutex);
    const std::optional<Window> window = focused();
    if (!window)
        return {};
    return window->identity.applicationID.isEmpty() ? window->identity.wmClass : window->identity.applicationID;
}

FrontmostApp SwayFrontmostApp::frontmostApp() {
    std::lock_guard lock(m_mutex);
    const std::optional<Window> window = focused();
    if (!window)
        return {};
    // Read once, on first use, as on X11.
    if (!m_entries)
        m_entries = std::make_unique<DesktopEntries>(DesktopEntries::standardDataDirs());
    FrontmostApp app = m_entries->describe(window->identity);
    app.processID = window->processID;
    return app;
}
