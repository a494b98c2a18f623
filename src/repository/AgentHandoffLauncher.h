#pragma once

#include "core/Scheduler.h"
#include "platform/ProcessTreeSource.h"
#include "platform/TextInjection.h"
#include "repository/AgentHandoffLaunching.h"
#include "repository/HandoffTerminal.h"

#include <QCoro/QCoroTask>
#include <QString>
#include <memory>
#include <optional>

// Hands a prompt to a coding agent that a launch script starts in a new terminal window. The prompt
// reaches the agent only through the injector's paste, never a command line, and only into the
// terminal running that agent, in front, showing a screen that asks the user nothing.
class AgentHandoffLauncher final : public AgentHandoffLaunching {
public:
    // How long the agent's input line has to take the paste before Return.
    static constexpr qint64 settleAfterPasteMs = 120;
    // How long the agent's new window has to come to the front, and a blank screen to show the
    // agent's first words; both are looked at every `screenPollMs`.
    static constexpr qint64 windowWaitMs = 2000;
    static constexpr qint64 firstScreenWaitMs = 3000;
    static constexpr qint64 screenPollMs = 100;

    // An empty `launcherDirectory` means "handoffs" in the data directory at the time of the handoff.
    AgentHandoffLauncher(std::shared_ptr<TextInjector> injector, std::shared_ptr<FrontmostAppProvider> frontmost,
                         std::shared_ptr<ProcessTreeSource> processes, std::shared_ptr<HandoffTerminal> terminal,
                         QString homeDirectory, QString launcherDirectory = {},
                         Scheduler &scheduler = Scheduler::system());

    QCoro::Task<void> handoff(QString prompt, AgentKind agent, RepositoryContext repository) override;
    bool isAgentAvailable(AgentKind agent) const override;

private:
    const std::shared_ptr<TextInjector> m_injector;
    const std::shared_ptr<FrontmostAppProvider> m_frontmost;
    const std::shared_ptr<ProcessTreeSource> m_processes;
    const std::shared_ptr<HandoffTerminal> m_terminal;
    const QString m_home;
    const QString m_launcherDirectory;
    Scheduler &m_scheduler;
};
