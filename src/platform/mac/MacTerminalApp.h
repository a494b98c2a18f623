#pragma once

#include "repository/TerminalAppHandoffLauncher.h"

// Terminal: launch scripts opened through "/usr/bin/open", the focused window read through the
// Accessibility interface, Return synthesised with Quartz. Call on the main thread; reading and
// pressing keys need the Accessibility permission.
class MacTerminalApp final : public TerminalApp {
public:
    // Terminal's bundle identifier, which the frontmost application must have.
    static QString bundleID() { return QStringLiteral("com.apple.Terminal"); }

    QCoro::Task<std::optional<int>> open(QString scriptPath) override;
    std::optional<QString> focusedText() override;
    bool pressReturn() override;
};
