#pragma once

#include "repository/HandoffTerminal.h"

// Terminal: launch scripts opened through "/usr/bin/open", the focused window read through the
// Accessibility interface, Return synthesised with Quartz. Call on the main thread; reading and
// pressing keys need the Accessibility permission.
class MacTerminalApp final : public HandoffTerminal {
public:
    // Terminal's bundle identifier, which the frontmost application must have.
    static QString bundleID() { return QStringLiteral("com.apple.Terminal"); }

    QCoro::Task<TerminalOpening> open(QString scriptPath) override;
    bool agentWindowInFront(const FrontmostApp &front) override;
    // The focused element's text and its window's title: Terminal publishes one focused window.
    std::optional<QString> screenText(qint32 terminalProcessID) override;
    bool pressReturn() override;
};
