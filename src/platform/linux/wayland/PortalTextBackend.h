#pragma once

#include "platform/DesktopTextBackend.h"
#include "platform/linux/PasteChord.h"

#include <QList>
#include <functional>
#include <memory>

class RemoteDesktopSession;

// Text on desktops that keep synthetic keys to themselves (GNOME, KDE Plasma): the paste chord
// through the desktop portal's remote desktop session, the clipboard through the same session
// where the portal shares it. Everything else (the focused element, and the clipboard where the
// portal does not share it or the session is not running) is the compositor backend's: there
// the text still reaches the clipboard, to be pasted by hand if the chord cannot be sent.
class PortalTextBackend final : public DesktopTextBackend {
public:
    // The app_id (or X11 class) of the window in front, empty when unknown: picks the paste chord.
    using DestinationID = std::function<QString()>;

    // `compositorHasClipboard`: the compositor backend controls the clipboard itself, which then
    // wins over the portal's (no dialog stands between it and the user's clipboard).
    PortalTextBackend(std::shared_ptr<RemoteDesktopSession> session, std::shared_ptr<DesktopTextBackend> compositor,
                      bool compositorHasClipboard, DestinationID destination);

    // The chord as evdev keycodes, modifiers first.
    static QList<int> keycodes(PasteChord chord);

    bool isTrusted() override;
    std::unique_ptr<FocusedElement> focusedElement() override;
    std::optional<ClipboardSnapshot> readClipboard() override;
    bool writeText(const QString &text) override;
    void writeClipboard(const ClipboardSnapshot &items) override;
    qint64 changeCount() override;
    bool postPasteChord() override;

private:
    bool portalClipboard() const;

    const std::shared_ptr<RemoteDesktopSession> m_session;
    const std::shared_ptr<DesktopTextBackend> m_compositor;
    const bool m_compositorHasClipboard;
    DestinationID m_destination;
};
