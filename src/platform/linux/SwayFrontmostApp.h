#pragma once

#include "platform/TextInjection.h"
#include "platform/linux/CompositorWindows.h"
#include "platform/linux/DesktopEntries.h"

#include <QJsonObject>
#include <QString>
#include <memory>
#include <mutex>
#include <optional>

// The application in front in a sway session, from the window tree sway's IPC socket describes:
// the focused window's app_id (or, for an XWayland window, its X11 class), named by its desktop
// entry where one matches, with its process id. Where there is no socket the destination is
// unknown, which is said once in the log.
class SwayFrontmostApp final : public FrontmostAppProvider {
public:
    // What the tree says about the focused window.
    struct Window {
        DesktopEntries::Window identity;
        std::optional<qint32> processID;
        bool operator==(const Window &other) const {
            return identity.applicationID == other.identity.applicationID &&
                   identity.wmClass == other.identity.wmClass && identity.wmInstance == other.identity.wmInstance &&
                   processID == other.processID;
        }
    };

    // `socketPath`: SWAYSOCK, empty where there is none.
    explicit SwayFrontmostApp(QString socketPath);

    FrontmostApp frontmostApp() override;
    // The app_id or class of the focused window, for the paste chord; empty when unknown.
    QString focusedApplicationID();

    // Every window sway manages now; nullopt when sway does not answer.
    std::optional<CompositorWindows> windows();

    // The focused window of a GET_TREE reply; nullopt when nothing has the focus.
    static std::optional<Window> focusedWindow(const QJsonObject &tree);
    // The windows of a GET_TREE reply, by node id.
    static CompositorWindows windows(const QJsonObject &tree);
    // Whether a compositor answers on the socket.
    static bool answers(const QString &socketPath);
    // One request over the socket, with a time limit; nullopt when it fails.
    static std::optional<QByteArray> request(const QString &socketPath, quint32 type, const QByteArray &payload = {});

private:
    std::optional<Window> focused();

    const QString m_socketPath;
    std::mutex m_mutex;
    bool m_saidUnknown = false;
    std::unique_ptr<DesktopEntries> m_entries;
};
