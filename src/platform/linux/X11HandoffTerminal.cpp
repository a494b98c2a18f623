#include "platform/linux/X11HandoffTerminal.h"

#include "platform/linux/AtspiTerminalText.h"
#include "platform/linux/X11Errors.h"
#include "platform/linux/X11Windows.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

namespace {

// The window manager's list of its top-level windows; empty without one.
QList<unsigned long> managedWindows(Display *display) {
    QList<unsigned long> windows;
    if (const auto bytes = X11Windows::readProperty(display, DefaultRootWindow(display), "_NET_CLIENT_LIST", XA_WINDOW))
        for (qsizetype at = 0; at + qsizetype(sizeof(long)) <= bytes->size(); at += sizeof(long))
            windows << *reinterpret_cast<const unsigned long *>(bytes->constData() + at);
    return windows;
}

} // namespace

X11HandoffTerminal::X11HandoffTerminal(std::optional<TerminalEmulator> terminal) : m_terminal(std::move(terminal)) {}

X11HandoffTerminal::~X11HandoffTerminal() {
    if (m_display)
        XCloseDisplay(m_display);
}

QCoro::Task<TerminalOpening> X11HandoffTerminal::open(QString scriptPath) {
    const auto terminal = m_terminal ? m_terminal : TerminalEmulators::choose();
    if (!terminal)
        co_return TerminalOpening{TerminalOpening::Outcome::notStarted, {}};
    {
        std::lock_guard lock(m_mutex);
        m_windowsBefore = display() ? managedWindows(display()) : QList<unsigned long>{};
    }
    co_return TerminalEmulators::start(*terminal, scriptPath);
}

std::optional<QString> X11HandoffTerminal::screenText(qint32 terminalProcessID) {
    return AtspiTerminalText::read(terminalProcessID);
}

_XDisplay *X11HandoffTerminal::display() {
    if (!m_display) {
        X11Errors::installTolerantHandler();
        m_display = XOpenDisplay(nullptr);
    }
    return m_display;
}

bool X11HandoffTerminal::agentWindowInFront(const FrontmostApp &) {
    std::lock_guard lock(m_mutex);
    if (!display())
        return false;
    // Without a window manager there is no list to compare with; the process check still applies.
    const unsigned long active = X11Windows::activeWindow(m_display);
    return active != None && !m_windowsBefore.contains(active);
}

bool X11HandoffTerminal::pressReturn() {
    std::lock_guard lock(m_mutex);
    display();
    int eventBase = 0, errorBase = 0, major = 0, minor = 0;
    if (!m_display || !XTestQueryExtension(m_display, &eventBase, &errorBase, &major, &minor))
        return false;
    const KeyCode code = XKeysymToKeycode(m_display, XK_Return);
    if (code == 0)
        return false;
    const bool posted =
        XTestFakeKeyEvent(m_display, code, True, CurrentTime) && XTestFakeKeyEvent(m_display, code, False, CurrentTime);
    XSync(m_display, False);
    return posted;
}
