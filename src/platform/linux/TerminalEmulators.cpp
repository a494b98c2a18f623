#include "platform/linux/TerminalEmulators.h"

#include <QFileInfo>

namespace {

const QString defaultTerminal = QStringLiteral("/usr/bin/x-terminal-emulator");

QString commandName(const QString &path) {
    QString name = QFileInfo(path).fileName();
    // Debian's alternative for GNOME Terminal points at a wrapper that translates xterm options.
    if (name.endsWith(QLatin1String(".wrapper")))
        name.chop(8);
    return name;
}

} // namespace

QStringList TerminalEmulator::arguments(const QString &script) const {
    return commandOption + QStringList{QStringLiteral("/bin/sh"), script};
}

namespace TerminalEmulators {

const std::vector<TerminalEmulator> &known() {
    // The desktops' own VTE and Qt terminals first: they publish their screen text. xterm and
    // unknown defaults come last because a handoff into them always stops before the paste.
    static const std::vector<TerminalEmulator> terminals{
        {QStringLiteral("/usr/bin/gnome-terminal"), {QStringLiteral("--")}, true},
        {QStringLiteral("/usr/bin/konsole"), {QStringLiteral("-e")}, true},
        {QStringLiteral("/usr/bin/xfce4-terminal"), {QStringLiteral("-x")}, true},
        {QStringLiteral("/usr/bin/mate-terminal"), {QStringLiteral("-x")}, true},
        {QStringLiteral("/usr/bin/lxterminal"), {QStringLiteral("-e")}, true},
        {defaultTerminal, {QStringLiteral("-e")}, false},
        {QStringLiteral("/usr/bin/xterm"), {QStringLiteral("-e")}, false},
    };
    return terminals;
}

std::optional<TerminalEmulator> choose(const std::function<bool(const QString &)> &isExecutable,
                                       const std::function<QString(const QString &)> &resolve) {
    if (isExecutable(defaultTerminal)) {
        const QString target = commandName(resolve(defaultTerminal));
        for (const TerminalEmulator &terminal : known())
            if (terminal.exposesScreenText && commandName(terminal.program) == target && isExecutable(terminal.program))
                return terminal;
    }
    for (const TerminalEmulator &terminal : known())
        if (terminal.exposesScreenText && isExecutable(terminal.program))
            return terminal;
    for (const TerminalEmulator &terminal : known())
        if (isExecutable(terminal.program))
            return terminal;
    return std::nullopt;
}

std::optional<TerminalEmulator> choose() {
    return choose([](const QString &path) { return QFileInfo(path).isExecutable(); },
                  [](const QString &path) { return QFileInfo(path).canonicalFilePath(); });
}

} // namespace TerminalEmulators
