#pragma once

#include "core/Scheduler.h"
#include "platform/ProcessTreeSource.h"
#include "repository/AgentHandoffLaunching.h"

#include <QCoro/QCoroTask>
#include <QDateTime>
#include <QString>
#include <functional>
#include <memory>

// The parts of a handoff that do not touch the terminal: checking the request, writing the launch
// script, and waiting for the agent the script starts.
namespace AgentLauncher {

struct PreparedLaunch {
    QString executablePath;
    QString scriptPath;
    QString markerPath;
};

// "handoffs" in the data directory.
QString defaultDirectory();

// Checks the prompt, the repository and the agent, then writes a fresh launch script (700) into
// `launcherDirectory` (created 700), after removing launchers older than an hour. Throws
// QuorvaneError before writing anything when a check fails.
PreparedLaunch prepare(const QString &prompt, AgentKind agent, const RepositoryContext &repository,
                       const QString &homeDirectory, const QString &launcherDirectory,
                       const QDateTime &now = QDateTime::currentDateTimeUtc());

// Removes "launch-*" and "agent-*" files last modified more than an hour before `now`; a terminal
// may still be running a younger one.
void cleanupOldLaunchers(const QString &directory, const QDateTime &now);

// Whether a process's command line runs `executable`: as the program itself or as the script an
// interpreter runs ("node /opt/homebrew/bin/claude").
bool commandNames(const QString &commandLine, const QString &executable);

QCoro::Task<bool> processMatches(qint32 processID, QString executable, std::shared_ptr<ProcessTreeSource> processes);

// Polls the marker every 0.1 s for up to 12 s until it names a process running `expectedExecutable`
// and returns that process id; throws agentHandoffFailed when the time is up. `beforeEachWait`, when
// set, runs between polls and may throw to give up early (the terminal refused to start, say).
QCoro::Task<qint32> waitFor(QString markerPath, QString expectedExecutable,
                            std::shared_ptr<ProcessTreeSource> processes, Scheduler &scheduler = Scheduler::system(),
                            std::function<void()> beforeEachWait = {});

} // namespace AgentLauncher
