#pragma once

#include "platform/DesktopTextBackend.h"
#include "platform/linux/PasteChord.h"

#include <QMetaObject>
#include <chrono>
#include <memory>
#include <optional>

class QWindow;
class X11ClipboardOwner;

struct _XDisplay;

// Text on an X11 desktop: the dictated text on CLIPBOARD (plus PRIMARY for terminals that paste it)
// from a connection and thread of our own, the user's clipboard read and put back through Qt, the
// paste chord through XTest, and the focused element through AT-SPI. Use on the main thread only:
// Qt's clipboard lives there.
class X11TextBackend final : public DesktopTextBackend {
public:
    X11TextBackend();
    ~X11TextBackend() override;
    X11TextBackend(const X11TextBackend &) = delete;
    X11TextBackend &operator=(const X11TextBackend &) = delete;

    bool isTrusted() override;
    std::unique_ptr<FocusedElement> focusedElement() override;
    std::optional<ClipboardSnapshot> readClipboard() override;
    bool writeText(const QString &text) override;
    void writeClipboard(const ClipboardSnapshot &items) override;
    qint64 changeCount() override;
    bool postPasteChord() override;
    bool confirmsEarlyReads() override;
    qint64 focusedWindow() override;
    void preparePaste() override;

private:
    _XDisplay *display();
    void countOwnerChanges();
    bool isQtWindow(unsigned long window) const;
    // Ours, whichever connection claimed with it.
    bool isOwnWindow(unsigned long window) const;
    X11ClipboardOwner *textOwner();
    bool clipboardOwnerAnswers();
    PasteChord chordForActiveWindow();
    void refreshQtServerTime();
    // Only when someone else claimed CLIPBOARD since the last refresh, or that cannot be told.
    void refreshQtServerTimeIfStale();

    _XDisplay *m_display = nullptr;
    unsigned long m_probeWindow = 0;
    // Whether our connection has XTest, once asked.
    std::optional<bool> m_hasXTest;
    // A spare keycode given the Latin v for layouts that have none; given back on destruction.
    unsigned char m_borrowedKeycode = 0;
    qint64 m_changeCount = 0;
    // CLIPBOARD's owner changes reach our own connection through XFixes, which a round trip to
    // the server brings up to date; -1 without the extension, and Qt's notices count instead.
    int m_fixesEvent = -1;
    // Qt's connection's window ids, to tell its claims (our writes, counted where they happen).
    quint32 m_qtIdBase = 0, m_qtIdMask = 0;
    // Claims by others, and their number at Qt's last refreshed server time.
    qint64 m_foreignClaims = 0;
    std::optional<qint64> m_foreignClaimsAtRefresh;
    // Clearing leaves no owner to recognise: the notices of our own clears, yet to arrive.
    int m_ownClears = 0;
    // Our own writes are counted where they happen; Qt's notice of them must not count twice.
    bool m_writing = false;
    QMetaObject::Connection m_changed;
    // The chord found for the window in front by the last text write, which the paste keystroke
    // follows at once: one look at the window's class serves both.
    std::optional<PasteChord> m_chordOfWrite;
    // Holds the dictated text, answering the destination's reads without waiting for Qt's loop.
    std::unique_ptr<X11ClipboardOwner> m_textOwner;
    // What preparePaste() read for the paste that follows it, and when.
    struct Prepared {
        std::chrono::steady_clock::time_point at;
        PasteChord chord = PasteChord::ctrlV;
        // Xlib's modifier map (an unnamed struct there, so not named here).
        std::shared_ptr<void> modifiers;
    };
    std::optional<Prepared> m_prepared;
    // Only what was read moments ago: a paste follows its preparation at once.
    const std::optional<Prepared> &freshPrepared();
    // Never shown: a property change on it hands Qt a fresh server time.
    std::unique_ptr<QWindow> m_timeWindow;
};
