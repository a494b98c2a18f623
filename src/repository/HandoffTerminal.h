#pragma once

#include "platform/TextInjection.h"

#include <QCoro/QCoroTask>
#include <QString>
#include <functional>
#include <optional>

// What became of asking the terminal for the agent's window.
struct TerminalOpening {
    enum class Outcome { opened, notStarted, rejected };
    Outcome outcome = Outcome::opened;
    // Whether the terminal has since ended in failure, asked while the agent is awaited; empty when
    // the opener had already finished (an emulator keeps running with its window, an opener does not).
    std::function<bool()> failedSince;
};

// The terminal side of a handoff: the window the agent runs in, its screen and its keyboard. Call on
// the main thread.
class HandoffTerminal {
public:
    virtual ~HandoffTerminal() = default;
    // Opens a new terminal window that runs the launch script at `scriptPath`.
    virtual QCoro::Task<TerminalOpening> open(QString scriptPath) = 0;
    // Whether the window in front, which belongs to `front`, can be the one `open` made: one terminal
    // process often serves every window, so the process alone cannot tell the agent's window from an
    // older one.
    virtual bool agentWindowInFront(const FrontmostApp &front) = 0;
    // The text shown in the focused window of the terminal process `terminalProcessID`; absent when
    // the terminal does not publish it.
    virtual std::optional<QString> screenText(qint32 terminalProcessID) = 0;
    // One Return key press to the focused window; false when it could not be posted.
    virtual bool pressReturn() = 0;
};
