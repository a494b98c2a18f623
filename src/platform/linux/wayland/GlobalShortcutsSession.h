#pragma once

#include "core/Config.h"
#include "pipeline/PipelineState.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusObjectPath>
#include <QElapsedTimer>
#include <QList>
#include <QMetaType>
#include <QObject>
#include <QString>
#include <QVariantMap>
#include <array>
#include <functional>
#include <memory>
#include <optional>

class PortalRequest;

// One entry of the portal's shortcut lists (D-Bus "(sa{sv})"): the id we chose and its properties
// ("description", "preferred_trigger" going out; "trigger_description" coming back).
struct PortalShortcut {
    QString id;
    QVariantMap properties;
};
Q_DECLARE_METATYPE(PortalShortcut)
QDBusArgument &operator<<(QDBusArgument &argument, const PortalShortcut &shortcut);
const QDBusArgument &operator>>(const QDBusArgument &argument, PortalShortcut &shortcut);

// This process's shortcuts on the desktop portal's GlobalShortcuts interface (GNOME, KDE Plasma,
// Hyprland): one session holding one shortcut per mode key, whose Activated and Deactivated
// signals are the key going down and up. The desktop, not us, decides the real trigger; it asks
// the user once to confirm the keys we prefer.
class GlobalShortcutsSession final : public QObject {
    Q_OBJECT

public:
    using Listener = std::function<void(bool down)>;

    static inline const QString interfaceName = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");

    struct Availability {
        bool usable = false;
        uint version = 0;
        // Why the portal cannot be used, as a sentence fragment naming what is missing.
        QString problem;
    };
    // Asks the portal for the interface's version. Blocks for at most `timeoutMs`: a portal that is
    // not running yet is started by the bus.
    static Availability probe(const QDBusConnection &bus, int timeoutMs = 3000);

    // "dictate", "edit", "prompt": the ids the desktop shows and remembers.
    static QString shortcutId(PipelineMode mode);
    // The key we ask for, named as the portal expects shortcut keys (an xkb keysym on its own).
    static QString preferredTrigger(PushToTalkKey key);

    // The session on the session bus, shared by the mode keys while any of them listens.
    static std::shared_ptr<GlobalShortcutsSession> shared();

    explicit GlobalShortcutsSession(QDBusConnection bus);
    ~GlobalShortcutsSession() override;

    // Joins or leaves. The session is (re)bound on the next turn of the event loop, so the modes
    // that start together are confirmed in one dialog.
    void listen(PipelineMode mode, PushToTalkKey key, Listener listener);
    void forget(PipelineMode mode);

private Q_SLOTS:
    void onActivated(const QDBusObjectPath &session, const QString &id);
    void onDeactivated(const QDBusObjectPath &session, const QString &id);
    void onClosed();

private:
    struct Wanted {
        PushToTalkKey key;
        Listener listener;
    };
    using Shortcuts = std::array<std::optional<PushToTalkKey>, 3>;

    void scheduleSync();
    void sync();
    void createSession();
    void sessionCreated(const QString &sessionPath);
    void bound(const QList<PortalShortcut> &shortcuts);
    void failed(const QString &what);
    void closeSession();
    void setHeld(const QString &id, bool down);
    void releaseHeld();
    Shortcuts wantedShortcuts() const;

    QDBusConnection m_bus;
    std::array<std::optional<Wanted>, 3> m_wanted;
    // What the current session holds, or is being created with.
    Shortcuts m_requested;
    QString m_sessionPath;
    std::unique_ptr<PortalRequest> m_request;
    std::array<bool, 3> m_held{};
    bool m_syncScheduled = false;
    // The desktop refused or failed the requested keys: not asked again until they change.
    bool m_givenUp = false;
    // Sessions the desktop closed soon after binding, in a row: past a few we stop re-creating.
    int m_quickCloses = 0;
    QElapsedTimer m_boundAt;
    bool m_registered = false;
};
