#pragma once

#include "repository/HandoffTerminal.h"

#include <QString>
#include <QStringList>
#include <functional>
#include <optional>
#include <vector>

// A terminal emulator the agent handoff can open, run from its fixed absolute path.
struct TerminalEmulator {
    QString program;
    // What goes before the command the terminal should run ("-e", "--", "-x").
    QStringList commandOption;
    // Whether its screen text is published through AT-SPI; the handoff submits nothing into a
    // terminal it cannot read.
    bool exposesScreenText = false;

    // The arguments that run `script` under /bin/sh in a new window.
    QStringList arguments(const QString &script) const;
    bool operator==(const TerminalEmulator &) const = default;
};

namespace TerminalEmulators {

// Every terminal we know how to drive, in order of preference.
const std::vector<TerminalEmulator> &known();

// The terminal to open: the desktop's default (/usr/bin/x-terminal-emulator) when it is one whose
// screen we can read, else the first installed terminal we can read, else the default or xterm
// (the agent still starts; the prompt stays on the clipboard). `resolve` gives a path's symlink
// target.
std::optional<TerminalEmulator> choose(const std::function<bool(const QString &)> &isExecutable,
                                       const std::function<QString(const QString &)> &resolve);
// The same on this machine.
std::optional<TerminalEmulator> choose();

// Starts `terminal` running the launch script at `scriptPath`, detached: its window outlives us.
TerminalOpening start(const TerminalEmulator &terminal, const QString &scriptPath);

} // namespace TerminalEmulators
