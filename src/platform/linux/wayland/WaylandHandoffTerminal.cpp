#include "platform/linux/wayland/WaylandHandoffTerminal.h"

#include "platform/linux/AtspiTerminalText.h"

WaylandHandoffTerminal::WaylandHandoffTerminal(WindowList windows, KeyPress pressReturn,
                                               std::optional<TerminalEmulator> terminal)
    : m_windows(std::move(windows)), m_pressReturn(std::move(pressReturn)), m_terminal(std::move(terminal)) {}

QCoro::Task<TerminalOpening> WaylandHandoffTerminal::open(QString scriptPath) {
    const auto terminal = m_terminal ? m_terminal : TerminalEmulators::choose();
    if (!terminal)
        co_return TerminalOpening{TerminalOpening::Outcome::notStarted, {}};
    const std::optional<CompositorWindows> before = m_windows();
    m_windowsBefore = before ? std::optional(before->all) : std::nullopt;
    co_return TerminalEmulators::start(*terminal, scriptPath);
}

bool WaylandHandoffTerminal::agentWindowInFront(const FrontmostApp &) {
    // Unlike an X11 window manager's list, the compositor's is our only way to tell windows apart:
    // without it an older window of the same terminal could take the paste.
    if (!m_windowsBefore)
        return false;
    const std::optional<CompositorWindows> now = m_windows();
    return now && !now->focused.isEmpty() && !m_windowsBefore->contains(now->focused);
}

std::optional<QString> WaylandHandoffTerminal::screenText(qint32 terminalProcessID) {
    return AtspiTerminalText::read(terminalProcessID);
}

bool WaylandHandoffTerminal::pressReturn() {
    return m_pressReturn && m_pressReturn();
}
