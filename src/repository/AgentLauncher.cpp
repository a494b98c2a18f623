#include "repository/AgentLauncher.h"

#include "core/Paths.h"
#include "core/QuorvaneError.h"
#include "core/Text.h"
#include "repository/AgentExecutableLocator.h"
#include "repository/AgentHandoffScriptBuilder.h"
#include "repository/RepositoryIndexer.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QUuid>

namespace AgentLauncher {

namespace {

constexpr qint64 launcherLifetimeSeconds = 3600;
constexpr qint64 pollIntervalMs = 100;
constexpr qint64 readyDeadlineMs = 12'000;

} // namespace

QString defaultDirectory() {
    return Paths::file(QStringLiteral("handoffs"));
}

PreparedLaunch prepare(const QString &prompt, AgentKind agent, const RepositoryContext &repository,
                       const QString &homeDirectory, const QString &launcherDirectory, const QDateTime &now) {
    if (prompt.isEmpty())
        throw QuorvaneError::agentHandoffFailed(QStringLiteral("the generated prompt is empty"));
    if (!RepositoryIndexer::findRepositoryRoot(repository.rootPath))
        throw QuorvaneError::agentHandoffFailed(QStringLiteral("the detected worktree no longer exists"));
    const auto executable = AgentExecutableLocator::locate(agent, homeDirectory);
    if (!executable)
        throw QuorvaneError::agentUnavailable(displayName(agent) +
                                              QStringLiteral(" CLI is not installed in a trusted location"));

    if (!Paths::makeProtectedDirectory(launcherDirectory))
        throw QuorvaneError::agentHandoffFailed(QStringLiteral("could not create the launcher folder"));
    cleanupOldLaunchers(launcherDirectory, now);

    const QString id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    const QDir directory(launcherDirectory);
    PreparedLaunch launch{*executable, directory.filePath(QStringLiteral("launch-") + id + QStringLiteral(".command")),
                          directory.filePath(QStringLiteral("agent-") + id + QStringLiteral(".pid"))};
    QSaveFile script(launch.scriptPath);
    if (!script.open(QIODevice::WriteOnly) ||
        script.write(AgentHandoffScriptBuilder::make(*executable, repository, launch.markerPath).toUtf8()) < 0 ||
        !script.commit() ||
        !QFile::setPermissions(launch.scriptPath,
                               QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner))
        throw QuorvaneError::agentHandoffFailed(QStringLiteral("could not write the agent launcher"));
    // The shell's redirection keeps an existing file's mode; left to it, the marker would get the
    // user's umask and be readable by everyone.
    QFile marker(launch.markerPath);
    if (!marker.open(QIODevice::WriteOnly | QIODevice::NewOnly, QFileDevice::ReadOwner | QFileDevice::WriteOwner))
        throw QuorvaneError::agentHandoffFailed(QStringLiteral("could not write the agent launcher"));
    return launch;
}

void cleanupOldLaunchers(const QString &directory, const QDateTime &now) {
    const QFileInfoList entries = QDir(directory).entryInfoList({QStringLiteral("launch-*"), QStringLiteral("agent-*")},
                                                                QDir::Files | QDir::Hidden);
    for (const QFileInfo &entry : entries) {
        if (entry.lastModified().secsTo(now) > launcherLifetimeSeconds)
            QFile::remove(entry.absoluteFilePath());
    }
}

bool commandNames(const QString &commandLine, const QString &executable) {
    const QString command = Text::trimmed(commandLine);
    if (executable.isEmpty())
        return false;
    // The path must stand as a whole argument: "/usr/local/bin/claude-dev" is another program.
    for (qsizetype at = command.indexOf(executable); at >= 0; at = command.indexOf(executable, at + 1)) {
        const qsizetype end = at + executable.size();
        const bool startsArgument = at == 0 || command.at(at - 1) == QLatin1Char(' ');
        const bool endsArgument = end == command.size() || command.at(end) == QLatin1Char(' ');
        if (startsArgument && endsArgument)
            return true;
    }
    return false;
}

QCoro::Task<bool> processMatches(qint32 processID, QString executable, std::shared_ptr<ProcessTreeSource> processes) {
    if (processID <= 0)
        co_return false;
    const auto command = co_await processes->commandLine(processID);
    co_return command &&commandNames(*command, executable);
}

QCoro::Task<qint32> waitFor(QString markerPath, QString expectedExecutable,
                            std::shared_ptr<ProcessTreeSource> processes, Scheduler &scheduler,
                            std::function<void()> beforeEachWait) {
    const qint64 deadline = scheduler.nowMs() + readyDeadlineMs;
    while (true) {
        QFile marker(markerPath);
        if (marker.open(QIODevice::ReadOnly)) {
            bool ok = false;
            const qint32 processID = Text::trimmed(QString::fromUtf8(marker.read(64))).toInt(&ok);
            marker.close();
            if (ok && co_await processMatches(processID, expectedExecutable, processes))
                co_return processID;
        }
        if (scheduler.nowMs() >= deadline)
            throw QuorvaneError::agentHandoffFailed(QStringLiteral("the agent did not become ready in Terminal"));
        if (beforeEachWait)
            beforeEachWait();
        co_await scheduler.sleep(pollIntervalMs);
    }
}

} // namespace AgentLauncher
