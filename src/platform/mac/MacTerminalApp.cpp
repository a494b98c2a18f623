#include "platform/mac/MacTerminalApp.h"

#include "core/ProgramRun.h"

QCoro::Task<TerminalOpening> MacTerminalApp::open(QString scriptPath) {
    // "-a Terminal" runs the ".command" file in a new Terminal window; open returns once it is handed over.
    const std::optional<ProgramOutput> run = co_await runProgram(
        QStringLiteral("/usr/bin/open"), {QStringLiteral("-a"), QStringLiteral("Terminal"), scriptPath}, QString(),
        std::nullopt, 10'000);
    if (!run)
        co_return TerminalOpening{TerminalOpening::Outcome::notStarted, {}};
    co_return TerminalOpening{
        run->exitCode == 0 ? TerminalOpening::Outcome::opened : TerminalOpening::Outcome::rejected, {}};
}

bool MacTerminalApp::agentWindowInFront(const FrontmostApp &front) {
    // Terminal brings the script's new window to the front; its other windows cannot be told apart here.
    return front.bundleID == bundleID();
}
