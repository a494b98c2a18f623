#pragma once

#include "platform/DesktopTextBackend.h"

#include <QDBusConnection>
#include <QDBusObjectPath>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <memory>
#include <optional>

class PortalRequest;

// This process's session on the desktop portal's RemoteDesktop interface (GNOME, KDE Plasma): the
// way to synthesise keys, and, through the portal's Clipboard interface bound to the same session,
// the way to own and read the clipboard, on desktops that give ordinary Wayland clients neither.
// The desktop asks the user once to allow it; the restore token it hands back is kept in the data
// directory so later starts are allowed without asking. Use it on the main thread only.
class RemoteDesktopSession final : public QObject {
    Q_OBJECT

public:
    static inline const QString interfaceName = QStringLiteral("org.freedesktop.portal.RemoteDesktop");
    static inline const QString clipboardInterface = QStringLiteral("org.freedesktop.portal.Clipboard");

    struct Availability {
        bool keyboard = false;
        bool clipboard = false;
        // Why keys cannot be sent this way, as a sentence fragment.
        QString problem;
    };
    // Asks the portal which of the two interfaces it offers. Blocks for at most `timeoutMs` per question.
    static Availability probe(const QDBusConnection &bus, int timeoutMs = 3000);

    enum class State { idle, starting, started, refused, failed, closed };

    // `withClipboard`: ask for the clipboard too (the portal must offer it). `tokenFile`: where the
    // restore token is kept.
    RemoteDesktopSession(QDBusConnection bus, bool withClipboard, QString tokenFile);
    ~RemoteDesktopSession() override;
    RemoteDesktopSession(const RemoteDesktopSession &) = delete;
    RemoteDesktopSession &operator=(const RemoteDesktopSession &) = delete;

    // Creates and starts the session unless one is starting or running; after a refusal only a new
    // instance asks again.
    void start();
    State state() const { return m_state; }
    bool clipboardEnabled() const { return m_state == State::started && m_clipboardEnabled; }

    // Presses the evdev keycodes in order and lets them go in reverse; false when any was not sent.
    bool pressChord(const QList<int> &keycodes);

    // Takes the clipboard with these formats, handing them out when someone pastes.
    bool offer(const DesktopTextBackend::ClipboardItem &formats);
    // Whether what we offered is still the clipboard, and what that was.
    bool ownsClipboard() const { return m_owner; }
    const DesktopTextBackend::ClipboardItem &offered() const { return m_offered; }
    // Every format of the clipboard as another application put it there; nullopt when an owner
    // does not hand over all of it within the deadline.
    std::optional<DesktopTextBackend::ClipboardItem> readClipboard();
    // Whether the desktop has said what the clipboard holds, or we put it there: until then an empty
    // answer may just as well be a clipboard we were never told about.
    bool knowsClipboard() const { return m_owner || m_ownerAnnounced; }
    // Moves when another application takes the clipboard; our own offers do not move it.
    qint64 changeCount() const { return m_changeCount; }

private Q_SLOTS:
    void onClosed();
    void onSelectionOwnerChanged(const QDBusObjectPath &session, const QVariantMap &options);
    void onSelectionTransfer(const QDBusObjectPath &session, const QString &mimeType, uint serial);

private:
    void sessionCreated(const QString &path);
    void selectDevices();
    void startSession();
    void started(const QVariantMap &results);
    void fail(State state, const QString &what);
    void watchSession(bool on);
    void closeSession();
    QDBusMessage sessionCall(const QString &interface, const QString &method) const;
    QString readToken() const;
    void saveToken(const QString &token) const;

    QDBusConnection m_bus;
    const bool m_withClipboard;
    const QString m_tokenFile;
    State m_state = State::idle;
    QString m_sessionPath;
    std::unique_ptr<PortalRequest> m_request;
    bool m_clipboardEnabled = false;

    bool m_owner = false;
    DesktopTextBackend::ClipboardItem m_offered;
    // The formats the clipboard's current owner offers, when another application owns it.
    QStringList m_foreignTypes;
    bool m_ownerAnnounced = false;
    qint64 m_changeCount = 0;
};
