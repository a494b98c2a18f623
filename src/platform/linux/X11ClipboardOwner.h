#pragma once

#include "platform/DesktopTextBackend.h"

#include <mutex>
#include <thread>

struct _XDisplay;

// Holds the X11 CLIPBOARD selection (and PRIMARY, where asked) on a display connection of its own
// and hands out its formats to whoever asks, without Qt (whose clipboard may be a Wayland one).
// Under XWayland the compositor passes this selection on to its Wayland clients, which is how text
// reaches the clipboard where the compositor offers no clipboard control of its own.
// Requests are answered on a thread of its own, the moment they arrive: a paste's reads wait on
// nothing else the application is doing. The calls below may come from any thread.
class X11ClipboardOwner final {
public:
    // `displayName`: DISPLAY; empty or unreachable leaves the owner unavailable.
    explicit X11ClipboardOwner(const QString &displayName);
    ~X11ClipboardOwner();
    X11ClipboardOwner(const X11ClipboardOwner &) = delete;
    X11ClipboardOwner &operator=(const X11ClipboardOwner &) = delete;

    bool isAvailable() const { return m_display != nullptr; }
    // Takes CLIPBOARD, and PRIMARY too when `primaryToo`, with these formats (MIME types or X11
    // target names, offered in this order); false when the server would not give it to us or the
    // data is too large to hand over in one piece.
    bool own(const DesktopTextBackend::ClipboardItem &formats, bool primaryToo = false);
    // Lets CLIPBOARD go, leaving the clipboard empty, if it is still ours.
    void release();
    bool ownsClipboard();
    // Moves whenever CLIPBOARD changes hands.
    qint64 changeCount();
    // The window that owns the selections, to recognise our own claims among the server's notices.
    unsigned long window() const { return m_window; }

private:
    void serve();
    // With m_lock held.
    void handleEvents();
    unsigned long serverTime();

    _XDisplay *m_display = nullptr;
    unsigned long m_window = 0;
    unsigned long m_ownedSince = 0;
    int m_stopFd = -1;
    std::mutex m_lock;
    bool m_ownsClipboard = false;
    bool m_ownsPrimary = false;
    qint64 m_changeCount = 0;
    DesktopTextBackend::ClipboardItem m_formats;
    std::thread m_server;
};
