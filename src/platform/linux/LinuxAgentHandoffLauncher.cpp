#include "platform/linux/LinuxAgentHandoffLauncher.h"

#include "core/Log.h"
#include "core/QuorvaneError.h"
#include "platform/linux/ProcProcessTreeSource.h"
#include "platform/linux/X11FrontmostApp.h"
#include "platform/linux/X11HandoffTerminal.h"
#include "repository/AgentExecutableLocator.h"
#include "repository/AgentLauncher.h"
#include "repository/AgentStartupScreenClassifier.h"

#include <QDir>
#include <QFileInfo>
#include <QHash>

namespace {

QuorvaneError failed(const QString &reason) {
    return QuorvaneError::agentHandoffFailed(reason);
}

} // namespace

LinuxAgentHandoffLauncher::LinuxAgentHandoffLauncher(std::shared_ptr<TextInjector> injector,
                                                     std::shared_ptr<FrontmostAppProvider> frontmost,
                                                     std::shared_ptr<ProcessTreeSource> processes,
                                                     std::shared_ptr<HandoffTerminal> terminal, QString homeDirectory,
                                                     QString launcherDirectory, Scheduler &scheduler)
    : m_injector(std::move(injector)), m_frontmost(std::move(frontmost)), m_processes(std::move(processes)),
      m_terminal(std::move(terminal)), m_home(std::move(homeDirectory)),
      m_launcherDirectory(std::move(launcherDirectory)), m_scheduler(scheduler) {}

std::shared_ptr<LinuxAgentHandoffLauncher>
LinuxAgentHandoffLauncher::create(std::shared_ptr<TextInjector> injector,
                                  std::shared_ptr<FrontmostAppProvider> frontmost) {
    return std::make_shared<LinuxAgentHandoffLauncher>(std::move(injector), std::move(frontmost),
                                                       std::make_shared<ProcProcessTreeSource>(),
                                                       std::make_shared<X11HandoffTerminal>(), QDir::homePath());
}

bool LinuxAgentHandoffLauncher::isAgentAvailable(AgentKind agent) const {
    return AgentExecutableLocator::locate(agent, m_home).has_value();
}

QCoro::Task<void> LinuxAgentHandoffLauncher::handoff(QString prompt, AgentKind agent, RepositoryContext repository) {
    // Keep every collaborator alive across the suspensions even if the kit is rebuilt meanwhile.
    const auto terminal = m_terminal;
    const auto injector = m_injector;
    const auto processes = m_processes;
    const QString name = displayName(agent);

    const auto launch =
        AgentLauncher::prepare(prompt, agent, repository, m_home,
                               m_launcherDirectory.isEmpty() ? AgentLauncher::defaultDirectory() : m_launcherDirectory);

    const QFileInfo script(launch.scriptPath);
    const std::function<bool()> terminalFailed = terminal->open(script.absolutePath(), script.fileName());

    const qint32 agentProcess =
        co_await AgentLauncher::waitFor(launch.markerPath, launch.executablePath, processes, m_scheduler, [&] {
            if (terminalFailed && terminalFailed())
                throw failed(QStringLiteral("Terminal rejected the agent launcher"));
        });

    // The agent can start before the window manager has raised its new window.
    auto inFront = co_await terminalInFront(agentProcess);
    for (qint64 waited = 0; !inFront && waited < windowWaitMs; waited += screenPollMs) {
        co_await m_scheduler.sleep(screenPollMs);
        inFront = co_await terminalInFront(agentProcess);
    }
    if (!inFront)
        throw failed(QStringLiteral("focus changed before the prompt could be submitted"));

    // Without the screen we cannot tell a trust or sign-in question from a ready prompt, and a paste
    // into such a question could answer it.
    // An agent draws its first screen a moment after it starts, and an empty screen would pass for
    // a ready one: wait a little for something to read.
    auto screen = terminal->screenText(*inFront->processID);
    for (qint64 waited = 0; screen && screen->trimmed().isEmpty() && waited < firstScreenWaitMs;
         waited += screenPollMs) {
        co_await m_scheduler.sleep(screenPollMs);
        screen = terminal->screenText(*inFront->processID);
    }
    // The user may have moved on while the agent drew its first screen (a window in the background
    // shows us no screen either): the paste goes nowhere else.
    const auto stillFront = co_await terminalInFront(agentProcess);
    if (!stillFront || stillFront->processID != inFront->processID)
        throw failed(QStringLiteral("focus changed before the prompt could be submitted"));
    if (!screen)
        throw failed(QStringLiteral("the terminal's screen could not be read, so the prompt was not pasted"));
    if (AgentStartupScreenClassifier::classify(*screen) == AgentStartupScreenClassifier::Status::needsUser)
        throw failed(QStringLiteral("finish the agent's trust or sign-in prompt, then paste the copied specification"));

    injector->inject(prompt);

    co_await m_scheduler.sleep(settleAfterPasteMs);
    if (!co_await AgentLauncher::processMatches(agentProcess, launch.executablePath, processes))
        throw failed(name + QStringLiteral(" exited before receiving the prompt"));
    const auto stillInFront = co_await terminalInFront(agentProcess);
    if (!stillInFront || !stillInFront->sameApplication(*inFront) || stillInFront->processID != inFront->processID)
        throw failed(QStringLiteral("focus or agent state changed before submission"));

    if (!terminal->pressReturn())
        throw failed(QStringLiteral("could not submit the prompt"));
    Log::info(QStringLiteral("Prompt handed off \u00b7 ") + name);
}

QCoro::Task<std::optional<FrontmostApp>> LinuxAgentHandoffLauncher::terminalInFront(qint32 agentProcessID) {
    const FrontmostApp app = m_frontmost->frontmostApp();
    if (!app.processID || !m_terminal->newWindowInFront())
        co_return std::nullopt;
    const auto processes = m_processes;
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
