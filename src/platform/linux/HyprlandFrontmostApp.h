#pragma once

#include "platform/TextInjection.h"
#include "platform/linux/CompositorWindows.h"
#include "platform/linux/DesktopEntries.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <memory>
#include <mutex>
#include <optional>

// The application in front in a Hyprland session, from the active window Hyprland's request socket
// describes: its class (an app_id, or for an XWayland window the X11 class), named by its desktop
// entry where one matches, with its process id. Where the socket does not answer the destination
// is unknown, which is said once in the log.
class HyprlandFrontmostApp final : public FrontmostAppProvider {
public:
    struct Window {
        DesktopEntries::Window identity;
        std::optional<qint32> processID;
        bool operator==(const Window &other) const {
            return identity.applicationID == other.identity.applicationID &&
                   identity.wmClass == other.identity.wmClass && processID == other.processID;
        }
    };

    // `socketPath`: the instance's request socket, empty where there is none.
    explicit HyprlandFrontmostApp(QString socketPath);

    FrontmostApp frontmostApp() override;
    // The class of the active window, for the paste chord; empty when unknown.
    QString focusedApplicationID();

    // Every window Hyprland manages now, by address; nullopt when it does not answer.
    std::optional<CompositorWindows> windows();

    // The request socket of the instance named by HYPRLAND_INSTANCE_SIGNATURE: under the runtime
    // folder, or under /tmp where an older Hyprland put it. Empty without a signature.
    static QString socketPath(const QString &runtimeDir, const QString &signature);
    // The window of an "activewindow" reply; nullopt when no window is active.
    static std::optional<Window> activeWindow(const QJsonObject &reply);
    // The windows of a "clients" reply and an "activewindow" reply.
    static CompositorWindows windows(const QJsonArray &clients, const QJsonObject &active);
    // Whether a compositor answers on the socket.
    static bool answers(const QString &socketPath);
    // One request; the reply is everything Hyprland writes before it closes. Nullopt on failure.
    static std::optional<QByteArray> request(const QString &socketPath, const QByteArray &command);

private:
    // Unknown (nullopt) and "no window" (a nullopt inside) differ: only the first is logged.
    std::optional<std::optional<Window>> active();

    const QString m_socketPath;
    std::mutex m_mutex;
    bool m_saidUnknown = false;
    std::unique_ptr<DesktopEntries> m_entries;
};
