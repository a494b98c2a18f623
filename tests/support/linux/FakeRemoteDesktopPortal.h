#pragma once

#include "FakePortal.h"
#include "platform/DesktopTextBackend.h"

#include <QHash>
#include <QList>
#include <QPair>
#include <QString>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

// A desktop portal offering RemoteDesktop (keyboard) and, if asked, Clipboard as the portal documents them. The test
// plays the desktop's side: the user's answer to the dialog, an application pasting (the portal asks the session's
// owner for the data through SelectionTransfer and an fd), another application copying, and the session being closed.
class FakeRemoteDesktopPortal final : public FakePortal {
public:
    enum class Offers { keyboardAndClipboard, keyboardOnly };
    using Key = QPair<int, uint>; // evdev keycode, 1 pressed / 0 released

    explicit FakeRemoteDesktopPortal(Offers offers = Offers::keyboardAndClipboard);
    ~FakeRemoteDesktopPortal();

    // The options of every SelectDevices so far.
    QList<QVariantMap> deviceSelections() const;
    int sessionsCreated() const;
    bool isStarted() const;
    // The restore token the last Start handed out.
    QString issuedToken() const;
    // The user dismisses the dialog from now on.
    void dismissDialog();
    // Every NotifyKeyboardKeycode of the started session, in order.
    QList<Key> keys() const;
    // The formats of every SetSelection, in order.
    QList<QStringList> selections() const;

    // An application pastes `mimeType` from the session's clipboard; the answer, once complete,
    // is in pasted(serial). Each SelectionWriteDone is recorded as well.
    uint paste(const QString &mimeType);
    std::optional<QByteArray> pasted(uint serial) const;
    // Another application copies these formats, which SelectionRead hands out from then on.
    void copyElsewhere(const DesktopTextBackend::ClipboardItem &formats);
    void closeSession();

    bool handle(const QDBusMessage &message, const QDBusConnection &connection) override;

private:
    struct Transfer {
        QString mimeType;
        std::optional<QByteArray> received;
        std::optional<bool> done;
    };

    bool handleClipboard(const QDBusMessage &message, const QDBusConnection &connection);
    void ownerChanged(const QStringList &types, bool sessionIsOwner);

    const Offers m_offers;

    mutable std::mutex m_lock;
    QString m_session;
    bool m_started = false;
    bool m_clipboardRequested = false;
    bool m_dismiss = false;
    int m_sessions = 0;
    QString m_token;
    QList<QVariantMap> m_deviceSelections;
    QList<Key> m_keys;
    QList<QStringList> m_setSelections;
    DesktopTextBackend::ClipboardItem m_foreign;
    uint m_nextSerial = 0;
    QHash<uint, Transfer> m_transfers;
    std::vector<std::thread> m_readers;
};
