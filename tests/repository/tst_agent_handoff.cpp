#include "TempGitRepository.h"
#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "platform/ProcessTreeSource.h"
#include "repository/AgentLauncher.h"
#include "repository/AgentStartupScreenClassifier.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTest>

#ifdef Q_OS_LINUX
#include "platform/linux/ProcProcessTreeSource.h"
#endif

namespace {

// Command lines by process id, as a process table would report them.
class ListedCommands final : public ProcessTreeSource {
public:
    QHash<qint32, QString> commands;
    QCoro::Task<QList<ProcessRow>> processRows() override { co_return QList<ProcessRow>{}; }
    QCoro::Task<QHash<qint32, QString>> workingDirectories(QList<qint32>) override {
        co_return QHash<qint32, QString>{};
    }
    QCoro::Task<std::optional<QString>> commandLine(qint32 processID) override {
        co_return commands.contains(processID) ? std::optional(commands.value(processID)) : std::nullopt;
    }
};

// The tests install agents into a scratch home; one installed system-wide would be found first.
bool installedSystemWide(AgentKind agent) {
    return QFileInfo::exists("/opt/homebrew/bin/" + executableName(agent)) ||
           QFileInfo::exists("/usr/local/bin/" + executableName(agent));
}

RepositoryContext contextAt(const QString &root) {
    RepositoryContext context;
    context.rootPath = root;
    return context;
}

QByteArray contents(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString thrownMessage(QCoro::Task<qint32> task) {
    try {
        syncWait(std::move(task));
    } catch (const QuorvaneError &error) {
        return error.message();
    }
    return {};
}

} // namespace

class TestAgentHandoff : public QObject {
    Q_OBJECT

private slots:
    // The script must reach exactly the repository and the agent whatever their paths hold.
    void scriptEntersRepositoryAndRecordsAgent_data() {
        QTest::addColumn<QString>("shell");
        QTest::newRow("zsh") << "/bin/zsh";
        QTest::newRow("sh") << "/bin/sh";
    }
    void scriptEntersRepositoryAndRecordsAgent() {
        QFETCH(QString, shell);
        if (installedSystemWide(AgentKind::claude))
            QSKIP("an agent is installed system-wide on this machine");
        TempGitRepository repo("it's a \"repo\"\n$(touch pwned) `x`");
        QVERIFY(repo.isValid());
        const QString home = repo.scratch() + "/ho'me dir\nnext";
        const QString seen = repo.scratch() + "/seen";
        const QByteArray agent = "#!/bin/sh\npwd > '" + seen.toUtf8() + "'\n/bin/sleep 30\n";
        QVERIFY(TempGitRepository::writeFile(home + "/.local/bin/claude", agent, true));
        const QString launchers = repo.scratch() + "/data/handoffs";
        const auto launch =
            AgentLauncher::prepare("Fix the build", AgentKind::claude, contextAt(repo.root()), home, launchers);
        QCOMPARE(launch.executablePath, home + "/.local/bin/claude");
        QCOMPARE(QFileInfo(launchers).permissions() & 0x0777, QFileDevice::Permissions(0x0700));
        QCOMPARE(QFileInfo(launch.scriptPath).permissions() & 0x0777, QFileDevice::Permissions(0x0700));

        QProcess terminal;
        terminal.setWorkingDirectory(repo.scratch());
        terminal.start(shell, {launch.scriptPath});
        QVERIFY(terminal.waitForStarted());
        QTRY_VERIFY(QFileInfo(seen).size() > 0);
        QCOMPARE(QString::fromUtf8(contents(seen)), repo.root() + '\n');
        QVERIFY(!QFileInfo::exists(repo.scratch() + "/pwned"));
        QCOMPARE(contents(launch.markerPath).trimmed().toLongLong(), terminal.processId());
        // Written by the script's shell, whatever its umask.
        QCOMPARE(QFileInfo(launch.markerPath).permissions() & 0x0777, QFileDevice::Permissions(0x0600));
#ifdef Q_OS_LINUX
        // The marker's process runs the agent: the wait is over at once.
        const auto processes = std::make_shared<ProcProcessTreeSource>();
        QCOMPARE(syncWait(AgentLauncher::waitFor(launch.markerPath, launch.executablePath, processes)),
                 qint32(terminal.processId()));
#endif
    }

    // Each refusal happens before anything is written, so no terminal is ever opened for it.
    void refusesBeforeWriting_data() {
        QTest::addColumn<QString>("prompt");
        QTest::addColumn<bool>("repositoryExists");
        QTest::addColumn<QString>("agent");
        QTest::addColumn<int>("errorCase");
        QTest::addColumn<QString>("message");
        const int failed = int(QuorvaneError::Case::agentHandoffFailed);
        const int unavailable = int(QuorvaneError::Case::agentUnavailable);
        const QString missing = "Codex CLI is not installed in a trusted location";
        QTest::newRow("empty prompt") << "" << true << "program" << failed
                                      << "Could not hand off the prompt: the generated prompt is empty";
        QTest::newRow("worktree gone") << "Add tests" << false << "program" << failed
                                       << "Could not hand off the prompt: the detected worktree no longer exists";
        QTest::newRow("agent not executable") << "Add tests" << true << "text" << unavailable << missing;
        QTest::newRow("agent is a folder") << "Add tests" << true << "folder" << unavailable << missing;
    }
    void refusesBeforeWriting() {
        QFETCH(QString, prompt);
        QFETCH(bool, repositoryExists);
        QFETCH(QString, agent);
        if (installedSystemWide(AgentKind::codex))
            QSKIP("an agent is installed system-wide on this machine");
        TempGitRepository repo;
        const QString home = repo.scratch() + "/home";
        const QString program = home + "/.local/bin/codex";
        if (agent == "folder")
            QVERIFY(QDir().mkpath(program));
        else
            QVERIFY(TempGitRepository::writeFile(program, "#!/bin/sh\n", agent == "program"));
        const QString root = repositoryExists ? repo.root() : repo.scratch() + "/removed-worktree";
        const QString launchers = repo.scratch() + "/handoffs";
        try {
            AgentLauncher::prepare(prompt, AgentKind::codex, contextAt(root), home, launchers);
            QFAIL("expected a refusal");
        } catch (const QuorvaneError &error) {
            QTEST(int(error.errorCase()), "errorCase");
            QTEST(error.message(), "message");
        }
        QVERIFY(!QFileInfo::exists(launchers));
    }

    // Launchers younger than an hour may still be running in a terminal; other files are not ours.
    void removesOnlyOldLaunchers() {
        QTemporaryDir directory;
        const QDateTime now = QDateTime::currentDateTimeUtc();
        const QList<std::pair<QString, qint64>> ages{
            {"launch-old.command", 3700}, {"agent-old.pid", 3700}, {"agent-recent.pid", 3500}, {"notes-old.txt", 7200}};
        for (const auto &[name, age] : ages) {
            QFile file(directory.filePath(name));
            QVERIFY(file.open(QIODevice::WriteOnly));
            QVERIFY(file.setFileTime(now.addSecs(-age), QFileDevice::FileModificationTime));
        }
        AgentLauncher::cleanupOldLaunchers(directory.path(), now);
        QCOMPARE(QDir(directory.path()).entryList(QDir::Files, QDir::Name),
                 (QStringList{"agent-recent.pid", "notes-old.txt"}));
    }

    // The marker appears only after the wait has begun; until twelve seconds are up, the wait
    // looks for a process that runs the agent, as a whole argument.
    void waitFor_data() {
        QTest::addColumn<QByteArray>("marker");
        QTest::addColumn<QString>("command");
        QTest::addColumn<bool>("found");
        QTest::newRow("no marker") << QByteArray() << "/usr/local/bin/claude" << false;
        QTest::newRow("process gone") << QByteArray("78\n") << "/usr/local/bin/claude" << false;
        QTest::newRow("the launcher shell") << QByteArray("77\n") << "/bin/zsh /tmp/launch-1.command" << false;
        QTest::newRow("a longer name") << QByteArray("77\n") << "/usr/local/bin/claude-dev" << false;
        QTest::newRow("in another folder") << QByteArray("77\n") << "/opt/usr/local/bin/claude" << false;
        QTest::newRow("run by an interpreter") << QByteArray("77\n") << "node /usr/local/bin/claude --resume" << true;
        QTest::newRow("trailing newline") << QByteArray("77\n") << "/usr/local/bin/claude\n" << true;
    }
    void waitFor() {
        QFETCH(QByteArray, marker);
        QFETCH(QString, command);
        QFETCH(bool, found);
        QTemporaryDir directory;
        const QString markerPath = directory.filePath("agent-x.pid");
        auto processes = std::make_shared<ListedCommands>();
        processes->commands = {{77, command}};
        ManualScheduler scheduler;
        auto waiting = AgentLauncher::waitFor(markerPath, "/usr/local/bin/claude", processes, scheduler);
        scheduler.advance(3'000);
        QVERIFY(!waiting.isReady());
        if (!marker.isEmpty())
            QVERIFY(TempGitRepository::writeFile(markerPath, marker));
        scheduler.advance(8'900);
        QCOMPARE(waiting.isReady(), found);
        scheduler.advance(200);
        QVERIFY(waiting.isReady());
        if (found)
            QCOMPARE(syncWait(std::move(waiting)), 77);
        else
            QCOMPARE(thrownMessage(std::move(waiting)),
                     "Could not hand off the prompt: the agent did not become ready in Terminal");
    }

    void classifiesStartupScreen() {
        QVERIFY(AgentStartupScreenClassifier::classify("Please SIGN IN to continue") ==
                AgentStartupScreenClassifier::Status::needsUser);
        QVERIFY(AgentStartupScreenClassifier::classify("Welcome to Claude Code!\n> Try \"fix lint errors\"") ==
                AgentStartupScreenClassifier::Status::ready);
    }
};

QTEST_GUILESS_MAIN(TestAgentHandoff)
#include "tst_agent_handoff.moc"
