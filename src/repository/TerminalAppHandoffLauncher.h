#pragma once

#include "core/Scheduler.h"
#include "platform/ProcessTreeSource.h"
#include "platform/TextInjection.h"
#include "repository/AgentHandoffLaunching.h"

#include <QCoro/QCoroTask>
#include <QString>
#include <memory>
#include <optional>

// A terminal application that runs every terminal window itself and is known by one application
// identifier (Terminal on macOS): how a launch script is opened in it, what its focused window
// shows, and its keyboard.
class TerminalApp {
public:
    virtual ~TerminalApp() = default;
    // Has the application open `scriptPath` in a new window and waits for the opener to finish:
    // the opener's exit status, or absent when it could not be started.
    virtual QCoro::Task<std::optional<int>> open(QString scriptPath) = 0;
    // What the focused window shows (its text and its title); absent when nothing can be read.
    virtual std::optional<QString> focusedText() = 0;
    // One Return key press to the application in front; false when it could not be posted.
    virtual bool pressReturn() = 0;
};

// Hands a prompt to a coding agent that a launch script starts in a new window of the terminal
// application. The prompt reaches the agent only through the injector's paste, and only while
// that application is in front, the agent runs and its screen asks the user nothing.
class TerminalAppHandoffLauncher final : public AgentHandoffLaunching {
public:
    // How long the agent's input line has to take the paste before Return.
    static constexpr qint64 settleAfterPasteMs = 120;

    // An empty `launcherDirectory` means "handoffs" in the data directory at the time of the handoff.
    TerminalAppHandoffLauncher(std::shared_ptr<TextInjector> injector, std::shared_ptr<FrontmostAppProvider> frontmost,
                               std::shared_ptr<ProcessTreeSource> processes, std::shared_ptr<TerminalApp> terminal,
                               QString terminalID, QString homeDirectory, QString launcherDirectory = {},
                               Scheduler &scheduler = Scheduler::system());

    QCoro::Task<void> handoff(QString prompt, AgentKind agent, RepositoryContext repository) override;
    bool isAgentAvailable(AgentKind agent) const override;

private:
    const std::shared_ptr<TextInjector> m_injector;
    const std::shared_ptr<FrontmostAppProvider> m_frontmost;
    const std::shared_ptr<ProcessTreeSource> m_processes;
    const std::shared_ptr<TerminalApp> m_terminal;
    const QString m_terminalID;
    const QString m_home;
    const QString m_launcherDirectory;
    Scheduler &m_scheduler;
};
