#pragma once

#include "platform/linux/CompositorWindows.h"
#include "platform/linux/TerminalEmulators.h"
#include "repository/HandoffTerminal.h"

#include <functional>
#include <optional>

// The handoff's terminal in a Wayland session: a terminal emulator from its fixed path, the new
// window told from the compositor's window list, its screen text read through AT-SPI, and Return
// pressed through the virtual keyboard the paste uses. Call on the main thread.
class WaylandHandoffTerminal final : public HandoffTerminal {
public:
    // The compositor's windows now; nullopt when it does not answer.
    using WindowList = std::function<std::optional<CompositorWindows>()>;
    using KeyPress = std::function<bool()>;

    // Without a terminal the machine's preferred one is chosen at each handoff.
    WaylandHandoffTerminal(WindowList windows, KeyPress pressReturn,
                           std::optional<TerminalEmulator> terminal = std::nullopt);

    QCoro::Task<TerminalOpening> open(QString scriptPath) override;
    bool agentWindowInFront(const FrontmostApp &front) override;
    std::optional<QString> screenText(qint32 terminalProcessID) override;
    bool pressReturn() override;

private:
    const WindowList m_windows;
    const KeyPress m_pressReturn;
    const std::optional<TerminalEmulator> m_terminal;
    // The windows that existed when the terminal was asked for a new one; nullopt when the
    // compositor did not say, and then no window counts as the new one.
    std::optional<QStringList> m_windowsBefore;
};
