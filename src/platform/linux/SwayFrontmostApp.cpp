#include "platform/linux/SwayFrontmostApp.h"

#include "core/Log.h"
#include "platform/linux/FdTransfer.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <chrono>
#include <cstring>
#include <unistd.h>

namespace {

using Clock = FdTransfer::Clock;

constexpr quint32 getTree = 4;
constexpr quint32 getVersion = 7;
// Asked before each paste: a compositor that does not answer quickly is treated as unknown.
constexpr auto requestDeadline = std::chrono::milliseconds(500);
// A tree of many workspaces is a few hundred kilobytes; anything far larger is not sway talking.
constexpr quint32 maxReply = 32 * 1024 * 1024;
const QByteArray magic = QByteArrayLiteral("i3-ipc");

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

// Windows are the nodes with a client process; containers and workspaces have none.
void collectWindows(const QJsonObject &node, CompositorWindows &windows) {
    if (node.contains(QLatin1String("pid"))) {
        const QString id = QString::number(node.value(QLatin1String("id")).toInteger());
        windows.all << id;
        if (node.value(QLatin1String("focused")).toBool())
            windows.focused = id;
    }
    for (const char *children : {"nodes", "floating_nodes"})
        for (const QJsonValue child : node.value(QLatin1String(children)).toArray())
            collectWindows(child.toObject(), windows);
}

} // namespace

SwayFrontmostApp::SwayFrontmostApp(QString socketPath) : m_socketPath(std::move(socketPath)) {}

std::optional<QByteArray> SwayFrontmostApp::request(const QString &socketPath, quint32 type,
                                                    const QByteArray &payload) {
    const int fd = FdTransfer::connectLocal(socketPath);
    if (fd < 0)
        return std::nullopt;
    const auto deadline = Clock::now() + requestDeadline;
    // The header's numbers are in the host's byte order, as the compositor runs on this machine.
    QByteArray message = magic;
    const quint32 header[2] = {quint32(payload.size()), type};
    message.append(reinterpret_cast<const char *>(header), sizeof header);
    message.append(payload);
    std::optional<QByteArray> reply;
    std::optional<QByteArray> answer;
    if (FdTransfer::writeAll(fd, message, deadline) &&
        (answer = FdTransfer::readExactly(fd, magic.size() + qsizetype(sizeof header), deadline)) &&
        answer->startsWith(magic)) {
        quint32 answered[2] = {};
        std::memcpy(answered, answer->constData() + magic.size(), sizeof answered);
        if (answered[1] == type && answered[0] <= maxReply)
            reply = FdTransfer::readExactly(fd, qsizetype(answered[0]), deadline);
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

CompositorWindows SwayFrontmostApp::windows(const QJsonObject &tree) {
    CompositorWindows windows;
    collectWindows(tree, windows);
    return windows;
}

std::optional<CompositorWindows> SwayFrontmostApp::windows() {
    const std::optional<QByteArray> reply = request(m_socketPath, getTree);
    const QJsonDocument document = reply ? QJsonDocument::fromJson(*reply) : QJsonDocument();
    if (!document.isObject())
        return std::nullopt;
    return windows(document.object());
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
