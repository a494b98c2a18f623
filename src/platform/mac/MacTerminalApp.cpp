#include "platform/mac/MacTerminalApp.h"

#include "core/ProgramRun.h"

QCoro::Task<std::optional<int>> MacTerminalApp::open(QString scriptPath) {
    // "-a Terminal" runs the ".command" file in a new Terminal window; open returns once it is handed over.
    const std::optional<ProgramOutput> run = co_await runProgram(
        QStringLiteral("/usr/bin/open"), {QStringLiteral("-a"), QStringLiteral("Terminal"), scriptPath}, QString(),
        std::nullopt, 10'000);
    co_return run ? std::optional<int>(run->exitCode) : std::nullopt;
}
