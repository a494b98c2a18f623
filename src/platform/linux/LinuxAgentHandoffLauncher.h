#pragma once

#include "core/Scheduler.h"
#include "platform/ProcessTreeSource.h"
#include "platform/TextInjection.h"
#include "repository/AgentHandoffLaunching.h"

#include <QString>
#include <functional>
#include <memory>
#include <optional>

// The terminal side of a handoff: the window the agent runs in, its screen and its keyboard.
class HandoffTerminal {
public:
    virtual ~HandoffTerminal() = default;
    // Opens a terminal window running `script` (a file in `folder`) under /bin/sh. Throws
    // QuorvaneError when no terminal can be started. The returned probe tells whether the terminal
    // program has since ended in failure.
    virtual std::function<bool()> open(const QString &folder, const QString &script) = 0;
    // Whether the window in front was opened since `open`: one terminal process often serves every
    // window, so the process alone cannot tell the agent's window from an older one.
    virtual bool newWindowInFront() = 0;
    // The text shown in the focused terminal window of process `terminalProcessID` (not its title);
    // absent when that terminal does not publish it.
    virtual std::optional<QString> screenText(qint32 terminalProcessID) = 0;
    // One Return key press to the focused window; false when it could not be posted.
    virtual bool pressReturn() = 0;
};

// Hands a prompt to a coding agent started in a terminal emulator on an X11 desktop. The prompt
// reaches the agent only through the injector's paste, never a command line, and only into the
// terminal running that agent, in front, showing a screen that asks the user nothing.
class LinuxAgentHandoffLauncher final : public AgentHandoffLaunching {
public:
    // How long the agent's input line has to take the paste before Return.
    static constexpr qint64 settleAfterPasteMs = 120;
    // How long the agent's new window has to come to the front, and a blank screen to show the
    // agent's first words; both are looked at every `screenPollMs`.
    static constexpr qint64 windowWaitMs = 2000;
    static constexpr qint64 firstScreenWaitMs = 3000;
    static constexpr qint64 screenPollMs = 100;

    // An empty `launcherDirectory` means "handoffs" in the data directory at the time of the handoff.
    LinuxAgentHandoffLauncher(std::shared_ptr<TextInjector> injector, std::shared_ptr<FrontmostAppProvider> frontmost,
                              std::shared_ptr<ProcessTreeSource> processes, std::shared_ptr<HandoffTerminal> terminal,
                              QString homeDirectory, QString launcherDirectory = {},
                              Scheduler &scheduler = Scheduler::system());
    // With this desktop's terminal, /proc and the user's home.
    static std::shared_ptr<LinuxAgentHandoffLauncher> create(std::shared_ptr<TextInjector> injector,
                                                             std::shared_ptr<FrontmostAppProvider> frontmost);

    QCoro::Task<void> handoff(QString prompt, AgentKind agent, RepositoryContext repository) override;
    bool isAgentAvailable(AgentKind agent) const override;

private:
    // The frontmost application when it is the terminal that runs `agentProcessID`.
    QCoro::Task<std::optional<FrontmostApp>> terminalInFront(qint32 agentProcessID);

    const std::shared_ptr<TextInjector> m_injector;
    const std::shared_ptr<FrontmostAppProvider> m_frontmost;
    const std::shared_ptr<ProcessTreeSource> m_processes;
    const std::shared_ptr<HandoffTerminal> m_terminal;
    const QString m_home;
    const QString m_launcherDirectory;
    Scheduler &m_scheduler;
};
