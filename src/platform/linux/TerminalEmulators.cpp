#include "platform/linux/TerminalEmulators.h"

#include <QFileInfo>
#include <QProcess>
#include <atomic>
#include <memory>
#include <unistd.h>

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

TerminalOpening start(const TerminalEmulator &terminal, const QString &scriptPath) {
    // Never parented nor deleted while it runs: destroying a QProcess kills its program, and the
    // agent's window must outlive this handoff and the app itself.
    auto *process = new QProcess;
    process->setProgram(terminal.program);
    // The script is named relative to its folder so that no terminal's own parsing of the command
    // can split a home folder with spaces in it.
    const QFileInfo script(scriptPath);
    process->setArguments(terminal.arguments(script.fileName()));
    process->setWorkingDirectory(script.absolutePath());
    process->setStandardInputFile(QProcess::nullDevice());
    process->setStandardOutputFile(QProcess::nullDevice());
    process->setStandardErrorFile(QProcess::nullDevice());
    // Its own session: a Ctrl+C aimed at us in a shell must not reach the user's agent.
    process->setChildProcessModifier([] { ::setsid(); });
    auto failed = std::make_shared<std::atomic<bool>>(false);
    QObject::connect(process, &QProcess::finished, process, [process, failed](int code, QProcess::ExitStatus status) {
        failed->store(status != QProcess::NormalExit || code != 0);
        process->deleteLater();
    });
    process->start();
    if (!process->waitForStarted(5000)) {
        delete process;
        return TerminalOpening{TerminalOpening::Outcome::notStarted, {}};
    }
    // The emulator runs as long as its window: a failure shows while the agent is awaited.
    return TerminalOpening{TerminalOpening::Outcome::opened, [failed] { return failed->load(); }};
}

} // namespace TerminalEmulators
