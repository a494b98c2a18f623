#pragma once

#include "platform/linux/TerminalEmulators.h"
#include "repository/HandoffTerminal.h"

#include <QList>
#include <mutex>

struct _XDisplay;

// The handoff's terminal on an X11 desktop: a terminal emulator from its fixed path, its screen
// text read through AT-SPI, and Return pressed through XTest on a connection of our own. Call on
// the main thread.
class X11HandoffTerminal final : public HandoffTerminal {
public:
    // Without a terminal the machine's preferred one is chosen at each handoff.
    explicit X11HandoffTerminal(std::optional<TerminalEmulator> terminal = std::nullopt);
    ~X11HandoffTerminal() override;

    QCoro::Task<TerminalOpening> open(QString scriptPath) override;
    bool agentWindowInFront(const FrontmostApp &front) override;
    std::optional<QString> screenText(qint32 terminalProcessID) override;
    bool pressReturn() override;

private:
    _XDisplay *display();

    const std::optional<TerminalEmulator> m_terminal;
    // The managed windows that existed when the terminal was asked for a new one.
    QList<unsigned long> m_windowsBefore;
    std::mutex m_mutex;
    _XDisplay *m_display = nullptr;
};
