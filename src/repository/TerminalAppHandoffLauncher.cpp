#include "repository/TerminalAppHandoffLauncher.h"

#include "core/Log.h"
#include "core/QuorvaneError.h"
#include "repository/AgentExecutableLocator.h"
#include "repository/AgentLauncher.h"
#include "repository/AgentStartupScreenClassifier.h"

namespace {

QuorvaneError failed(const QString &reason) {
    return QuorvaneError::agentHandoffFailed(reason);
}

} // namespace

TerminalAppHandoffLauncher::TerminalAppHandoffLauncher(std::shared_ptr<TextInjector> injector,
                                                       std::shared_ptr<FrontmostAppProvider> frontmost,
                                                       std::shared_ptr<ProcessTreeSource> processes,
                                                       std::shared_ptr<TerminalApp> terminal, QString terminalID,
                                                       QString homeDirectory, QString launcherDirectory,
                                                       Scheduler &scheduler)
    : m_injector(std::move(injector)), m_frontmost(std::move(frontmost)), m_processes(std::move(processes)),
      m_terminal(std::move(terminal)), m_terminalID(std::move(terminalID)), m_home(std::move(homeDirectory)),
      m_launcherDirectory(std::move(launcherDirectory)), m_scheduler(scheduler) {}

bool TerminalAppHandoffLauncher::isAgentAvailable(AgentKind agent) const {
    return AgentExecutableLocator::locate(agent, m_home).has_value();
}

QCoro::Task<void> TerminalAppHandoffLauncher::handoff(QString prompt, AgentKind agent, RepositoryContext repository) {
    // Keep every collaborator alive across the suspensions even if the kit is rebuilt meanwhile.
    const auto terminal = m_terminal;
    const auto injector = m_injector;
    const auto processes = m_processes;
    const auto frontmost = m_frontmost;
    const QString terminalID = m_terminalID;
    const auto inFront = [frontmost, terminalID] { return frontmost->frontmostApp().bundleID == terminalID; };
    const QString name = displayName(agent);

    const auto launch =
        AgentLauncher::prepare(prompt, agent, repository, m_home,
                               m_launcherDirectory.isEmpty() ? AgentLauncher::defaultDirectory() : m_launcherDirectory);

    const std::optional<int> opener = co_await terminal->open(launch.scriptPath);
    if (!opener)
        throw failed(QStringLiteral("Terminal could not be opened"));
    if (*opener != 0)
        throw failed(QStringLiteral("Terminal rejected the agent launcher"));

    const qint32 agentProcess =
        co_await AgentLauncher::waitFor(launch.markerPath, launch.executablePath, processes, m_scheduler);

    if (!inFront())
        throw failed(QStringLiteral("focus changed before the prompt could be submitted"));
    // Without the screen a trust or sign-in question cannot be told from a ready prompt, and a
    // paste followed by Return could answer it.
    const std::optional<QString> screen = terminal->focusedText();
    if (!screen)
        throw failed(QStringLiteral("the terminal's screen could not be read, so the prompt was not pasted"));
    if (AgentStartupScreenClassifier::classify(*screen) == AgentStartupScreenClassifier::Status::needsUser)
        throw failed(QStringLiteral("finish the agent's trust or sign-in prompt, then paste the copied specification"));

    injector->inject(prompt);

    co_await m_scheduler.sleep(settleAfterPasteMs);
    if (!co_await AgentLauncher::processMatches(agentProcess, launch.executablePath, processes))
        throw failed(name + QStringLiteral(" exited before receiving the prompt"));
    if (!inFront())
        throw failed(QStringLiteral("focus or agent state changed before submission"));

    if (!terminal->pressReturn())
        throw failed(QStringLiteral("could not submit the prompt"));
    Log::info(QStringLiteral("Prompt handed off \u00b7 ") + name);
}
