#pragma once

#include "platform/DesktopTextBackend.h"

#include <QString>
#include <memory>

struct _XDisplay;
class QSocketNotifier;

// Holds the X11 CLIPBOARD selection on a display connection of its own and hands out its formats
// to whoever asks, without Qt (whose clipboard may be a Wayland one). Under XWayland the compositor
// passes this selection on to its Wayland clients, which is how text reaches the clipboard where
// the compositor offers no clipboard control of its own. Requests are answered from the main
// thread's event loop; use it there only.
class X11ClipboardOwner final {
public:
    // `displayName`: DISPLAY; empty or unreachable leaves the owner unavailable.
    explicit X11ClipboardOwner(const QString &displayName);
    ~X11ClipboardOwner();
    X11ClipboardOwner(const X11ClipboardOwner &) = delete;
    X11ClipboardOwner &operator=(const X11ClipboardOwner &) = delete;

    bool isAvailable() const { return m_display != nullptr; }
    // Takes the selection with these formats (MIME types or X11 target names); false when the
    // server would not give it to us or the data is too large to hand over in one piece.
    bool own(const DesktopTextBackend::ClipboardItem &formats);
    // Lets the selection go, leaving the clipboard empty, if it is still ours.
    void release();
    // Moves whenever the selection changes hands.
    qint64 changeCount();

private:
    void handleEvents();
    unsigned long serverTime();

    _XDisplay *m_display = nullptr;
    unsigned long m_window = 0;
    unsigned long m_ownedSince = 0;
    bool m_owner = false;
    qint64 m_changeCount = 0;
    DesktopTextBackend::ClipboardItem m_formats;
    std::unique_ptr<QSocketNotifier> m_notifier;
};
