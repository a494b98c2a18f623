#pragma once

#include "platform/DesktopTextBackend.h"
#include "platform/linux/PasteChord.h"

#include <QMetaObject>
#include <memory>

class QWindow;

struct _XDisplay;

// Text on an X11 desktop: the CLIPBOARD selection through Qt (plus PRIMARY for terminals that
// paste it), the paste chord through XTest on a connection of our own, and the focused element
// through AT-SPI. Use on the main thread only: Qt's clipboard lives there.
class X11TextBackend final : public DesktopTextBackend {
public:
    X11TextBackend();
    ~X11TextBackend() override;
    X11TextBackend(const X11TextBackend &) = delete;
    X11TextBackend &operator=(const X11TextBackend &) = delete;

    bool isTrusted() override;
    std::unique_ptr<FocusedElement> focusedElement() override;
    ClipboardSnapshot readClipboard() override;
    bool writeText(const QString &text) override;
    void writeClipboard(const ClipboardSnapshot &items) override;
    qint64 changeCount() override;
    bool postPasteChord() override;

private:
    _XDisplay *display();
    bool clipboardOwnerAnswers();
    PasteChord chordForActiveWindow();
    void refreshQtServerTime();

    _XDisplay *m_display = nullptr;
    unsigned long m_probeWindow = 0;
    // A spare keycode given the Latin v for layouts that have none; given back on destruction.
    unsigned char m_borrowedKeycode = 0;
    qint64 m_changeCount = 0;
    // Our own writes are counted where they happen; Qt's notice of them must not count twice.
    bool m_writing = false;
    QMetaObject::Connection m_changed;
    // Never shown: a property change on it hands Qt a fresh server time.
    std::unique_ptr<QWindow> m_timeWindow;
};
