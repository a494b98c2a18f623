#include "platform/linux/HyprlandFrontmostApp.h"

#include "core/Log.h"
#include "platform/linux/FdTransfer.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <chrono>
#include <unistd.h>

namespace {

using Clock = FdTransfer::Clock;

// Asked before each paste: a compositor that does not answer quickly is treated as unknown.
constexpr auto requestDeadline = std::chrono::milliseconds(500);
// One window's description is well under a kilobyte.
constexpr qsizetype maxReply = 1024 * 1024;

} // namespace

HyprlandFrontmostApp::HyprlandFrontmostApp(QString socketPath) : m_socketPath(std::move(socketPath)) {}

QString HyprlandFrontmostApp::socketPath(const QString &runtimeDir, const QString &signature) {
    // A signature is one folder name; anything else would lead outside the folders we look in.
    if (signature.isEmpty() || signature.contains(QLatin1Char('/')) || signature.startsWith(QLatin1Char('.')))
        return {};
    const QString suffix = QStringLiteral("/hypr/") + signature + QStringLiteral("/.socket.sock");
    const QString current = runtimeDir + suffix, older = QStringLiteral("/tmp") + suffix;
    if (runtimeDir.isEmpty() || (!QFileInfo::exists(current) && QFileInfo::exists(older)))
        return older;
    return current;
}

std::optional<QByteArray> HyprlandFrontmostApp::request(const QString &socketPath, const QByteArray &command) {
    const int fd = FdTransfer::connectLocal(socketPath);
    if (fd < 0)
        return std::nullopt;
    const auto deadline = Clock::now() + requestDeadline;
    std::optional<QByteArray> reply;
    if (FdTransfer::writeAll(fd, command, deadline))
        reply = FdTransfer::readToEnd(fd, deadline, maxReply);
    close(fd);
    return reply;
}

bool HyprlandFrontmostApp::answers(const QString &socketPath) {
    const std::optional<QByteArray> reply = request(socketPath, QByteArrayLiteral("j/version"));
    return reply && QJsonDocument::fromJson(*reply).isObject();
}

std::optional<HyprlandFrontmostApp::Window> HyprlandFrontmostApp::activeWindow(const QJsonObject &reply) {
    const QString windowClass = reply.value(QLatin1String("class")).toString();
    const int pid = reply.value(QLatin1String("pid")).toInt();
    // "{}" when no window is active; a window that has neither is no use to us either.
    if (windowClass.isEmpty() && pid <= 0)
        return std::nullopt;
    Window window;
    if (reply.value(QLatin1String("xwayland")).toBool())
        window.identity.wmClass = windowClass;
    else
        window.identity.applicationID = windowClass;
    if (pid > 0)
        window.processID = pid;
    return window;
}

CompositorWindows HyprlandFrontmostApp::windows(const QJsonArray &clients, const QJsonObject &active) {
    CompositorWindows windows;
    for (const QJsonValue client : clients)
        if (const QString address = client.toObject().value(QLatin1String("address")).toString(); !address.isEmpty())
            windows.all << address;
    windows.focused = active.value(QLatin1String("address")).toString();
    return windows;
}

std::optional<CompositorWindows> HyprlandFrontmostApp::windows() {
    const std::optional<QByteArray> clients = request(m_socketPath, QByteArrayLiteral("j/clients"));
    const std::optional<QByteArray> active = request(m_socketPath, QByteArrayLiteral("j/activewindow"));
    const QJsonDocument list = clients ? QJsonDocument::fromJson(*clients) : QJsonDocument();
    const QJsonDocument front = active ? QJsonDocument::fromJson(*active) : QJsonDocument();
    if (!list.isArray() || !front.isObject())
        return std::nullopt;
    return windows(list.array(), front.object());
}

std::optional<std::optional<HyprlandFrontmostApp::Window>> HyprlandFrontmostApp::active() {
    const std::optional<QByteArray> reply = request(m_socketPath, QByteArrayLiteral("j/activewindow"));
    const QJsonDocument document = reply ? QJsonDocument::fromJson(*reply) : QJsonDocument();
    if (!document.isObject()) {
        if (!std::exchange(m_saidUnknown, true))
            Log::warn(QStringLiteral("The application in front cannot be known here (no answer from Hyprland's "
                                     "request socket); text is pasted without checking that the destination is "
                                     "unchanged."));
        return std::nullopt;
    }
    return activeWindow(document.object());
}

QString HyprlandFrontmostApp::focusedApplicationID() {
    std::lock_guard lock(m_mutex);
    const auto window = active();
    if (!window || !*window)
        return {};
    const DesktopEntries::Window &identity = (*window)->identity;
    return identity.applicationID.isEmpty() ? identity.wmClass : identity.applicationID;
}

FrontmostApp HyprlandFrontmostApp::frontmostApp() {
    std::lock_guard lock(m_mutex);
    const auto window = active();
    if (!window || !*window)
        return {};
    if (!m_entries)
        m_entries = std::make_unique<DesktopEntries>(DesktopEntries::standardDataDirs());
    FrontmostApp app = m_entries->describe((*window)->identity);
    app.processID = (*window)->processID;
    return app;
}
