#include "repository/AgentHandoffLauncher.h"

#include "core/Log.h"
#include "core/QuorvaneError.h"
#include "repository/AgentExecutableLocator.h"
#include "repository/AgentLauncher.h"
#include "repository/AgentStartupScreenClassifier.h"

#include <QHash>

namespace {

QuorvaneError failed(const QString &reason) {
    return QuorvaneError::agentHandoffFailed(reason);
}

// The frontmost application when it is the terminal that runs `agentProcessID`, showing the window
// the handoff opened. Takes its collaborators so that it outlives a launcher rebuilt meanwhile.
QCoro::Task<std::optional<FrontmostApp>> terminalInFront(std::shared_ptr<FrontmostAppProvider> frontmost,
                                                         std::shared_ptr<HandoffTerminal> terminal,
                                                         std::shared_ptr<ProcessTreeSource> processes,
                                                         qint32 agentProcessID) {
    const FrontmostApp app = frontmost->frontmostApp();
    if (!app.processID || !terminal->agentWindowInFront(app))
        co_return std::nullopt;
    const QList<ProcessRow> rows = co_await processes->processRows();
    QHash<qint32, qint32> parents;
    for (const ProcessRow &row : rows)
        parents.insert(row.processID, row.parentProcessID);
    // The terminal is the agent's ancestor, whichever window or server process owns it; the walk is
    // bounded so that a table with a cycle cannot hold us.
    qint32 at = agentProcessID;
    for (qsizetype steps = 0; steps <= rows.size() && at > 0; ++steps) {
        if (at == *app.processID)
            co_return app;
        if (!parents.contains(at))
            break;
        at = parents.value(at);
    }
    co_return std::nullopt;
}

} // namespace

AgentHandoffLauncher::AgentHandoffLauncher(std::shared_ptr<TextInjector> injector,
                                           std::shared_ptr<FrontmostAppProvider> frontmost,
                                           std::shared_ptr<ProcessTreeSource> processes,
                                           std::shared_ptr<HandoffTerminal> terminal, QString homeDirectory,
                                           QString launcherDirectory, Scheduler &scheduler)
    : m_injector(std::move(injector)), m_frontmost(std::move(frontmost)), m_processes(std::move(processes)),
      m_terminal(std::move(terminal)), m_home(std::move(homeDirectory)),
      m_launcherDirectory(std::move(launcherDirectory)), m_scheduler(scheduler) {}

bool AgentHandoffLauncher::isAgentAvailable(AgentKind agent) const {
    return AgentExecutableLocator::locate(agent, m_home).has_value();
}

QCoro::Task<void> AgentHandoffLauncher::handoff(QString prompt, AgentKind agent, RepositoryContext repository) {
    // Keep every collaborator alive across the suspensions even if the kit is rebuilt meanwhile.
    const auto terminal = m_terminal;
    const auto injector = m_injector;
    const auto processes = m_processes;
    const auto frontmost = m_frontmost;
    Scheduler &scheduler = m_scheduler;
    const QString name = displayName(agent);
    const auto inFront = [&](qint32 agentProcess) {
        return terminalInFront(frontmost, terminal, processes, agentProcess);
    };

    const auto launch =
        AgentLauncher::prepare(prompt, agent, repository, m_home,
                               m_launcherDirectory.isEmpty() ? AgentLauncher::defaultDirectory() : m_launcherDirectory);

    const TerminalOpening opening = co_await terminal->open(launch.scriptPath);
    if (opening.outcome == TerminalOpening::Outcome::notStarted)
        throw failed(QStringLiteral("Terminal could not be opened"));
    if (opening.outcome == TerminalOpening::Outcome::rejected)
        throw failed(QStringLiteral("Terminal rejected the agent launcher"));

    const qint32 agentProcess =
        co_await AgentLauncher::waitFor(launch.markerPath, launch.executablePath, processes, scheduler, [&] {
            if (opening.failedSince && opening.failedSince())
                throw failed(QStringLiteral("Terminal rejected the agent launcher"));
        });

    // The agent can start before the window manager has raised its new window.
    auto front = co_await inFront(agentProcess);
    for (qint64 waited = 0; !front && waited < windowWaitMs; waited += screenPollMs) {
        co_await scheduler.sleep(screenPollMs);
        front = co_await inFront(agentProcess);
    }
    if (!front)
        throw failed(QStringLiteral("focus changed before the prompt could be submitted"));

    // Without the screen a trust or sign-in question cannot be told from a ready prompt, and a paste
    // followed by Return could answer it. An agent draws its first screen a moment after it starts,
    // and an empty screen would pass for a ready one: wait a little for something to read.
    auto screen = terminal->screenText(*front->processID);
    for (qint64 waited = 0; screen && screen->trimmed().isEmpty() && waited < firstScreenWaitMs;
         waited += screenPollMs) {
        co_await scheduler.sleep(screenPollMs);
        screen = terminal->screenText(*front->processID);
    }
    // The user may have moved on while the agent drew its first screen (a window in the background
    // shows us no screen either): the paste goes nowhere else.
    const auto stillFront = co_await inFront(agentProcess);
    if (!stillFront || stillFront->processID != front->processID)
        throw failed(QStringLiteral("focus changed before the prompt could be submitted"));
    if (!screen)
        throw failed(QStringLiteral("the terminal's screen could not be read, so the prompt was not pasted"));
    if (AgentStartupScreenClassifier::classify(*screen) == AgentStartupScreenClassifier::Status::needsUser)
        throw failed(QStringLiteral("finish the agent's trust or sign-in prompt, then paste the copied specification"));

    injector->inject(prompt);

    co_await scheduler.sleep(settleAfterPasteMs);
    if (!co_await AgentLauncher::processMatches(agentProcess, launch.executablePath, processes))
        throw failed(name + QStringLiteral(" exited before receiving the prompt"));
    const auto beforeReturn = co_await inFront(agentProcess);
    if (!beforeReturn || !beforeReturn->sameApplication(*front) || beforeReturn->processID != front->processID)
        throw failed(QStringLiteral("focus or agent state changed before submission"));

    if (!terminal->pressReturn())
        throw failed(QStringLiteral("could not submit the prompt"));
    Log::info(QStringLiteral("Prompt handed off \u00b7 ") + name);
}
