#include "TempGitRepository.h"
#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "platform/ProcessTreeSource.h"
#include "repository/AgentExecutableLocator.h"
#include "repository/AgentHandoffScriptBuilder.h"
#include "repository/AgentLauncher.h"
#include "repository/AgentStartupScreenClassifier.h"

#include <QCoreApplication>
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
        if (!commands.contains(processID))
            co_return std::nullopt;
        co_return commands.value(processID);
    }
};

bool writeExecutable(const QString &path, const QByteArray &text) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size() &&
           file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
}

bool trustedLocationsEmpty(AgentKind agent) {
    return !QFileInfo::exists(QStringLiteral("/opt/homebrew/bin/") + executableName(agent)) &&
           !QFileInfo::exists(QStringLiteral("/usr/local/bin/") + executableName(agent));
}

RepositoryContext contextFor(const QString &root) {
    RepositoryContext context;
    context.rootPath = root;
    context.name = QFileInfo(root).fileName();
    return context;
}

} // namespace

class TestAgentHandoff : public QObject {
    Q_OBJECT

private slots:
    // The script must reach exactly the repository and the agent whatever their paths hold.
    void scriptEntersRepositoryAndRecordsAgent_data() {
        QTest::addColumn<QString>("shell");
        for (const char *shell : {"/bin/zsh", "/bin/sh"}) {
            if (QFileInfo(QString::fromLatin1(shell)).isExecutable())
                QTest::newRow(shell) << QString::fromLatin1(shell);
        }
    }
    void scriptEntersRepositoryAndRecordsAgent() {
        QFETCH(QString, shell);
        if (!trustedLocationsEmpty(AgentKind::claude))
            QSKIP("an agent is installed system-wide on this machine");
        TempGitRepository repo(QStringLiteral("it's a \"repo\"\n$(touch pwned) `x`"));
        QVERIFY(repo.isValid());
        const QString home = repo.scratch() + QStringLiteral("/ho'me dir\nnext");
        const QString seen = repo.scratch() + QStringLiteral("/seen");
        QVERIFY(writeExecutable(home + QStringLiteral("/.local/bin/claude"),
                                "#!/bin/sh\npwd > \"$SEEN\"\n/bin/sleep 30\n"));
        const QString launchers = repo.scratch() + QStringLiteral("/data/handoffs");
        const auto launch = AgentLauncher::prepare(QStringLiteral("Fix the build"), AgentKind::claude,
                                                   contextFor(repo.root()), home, launchers);
        QCOMPARE(launch.executablePath, home + QStringLiteral("/.local/bin/claude"));
        QCOMPARE(QFileInfo(launchers).permissions() & 0x0777, QFileDevice::Permissions(0x0700));
        QCOMPARE(QFileInfo(launch.scriptPath).permissions() & 0x0777, QFileDevice::Permissions(0x0700));

        QProcess terminal;
        auto environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("SEEN"), seen);
        terminal.setProcessEnvironment(environment);
        terminal.setWorkingDirectory(repo.scratch());
        terminal.start(shell, {launch.scriptPath});
        QVERIFY(terminal.waitForStarted());
        QTRY_VERIFY(QFileInfo(seen).size() > 0);
        QFile pwd(seen);
        QVERIFY(pwd.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(pwd.readAll()), repo.root() + QLatin1Char('\n'));
        QVERIFY(!QFileInfo::exists(repo.scratch() + QStringLiteral("/pwned")));
        QFile marker(launch.markerPath);
        QVERIFY(marker.open(QIODevice::ReadOnly));
        QCOMPARE(marker.readAll().trimmed().toLongLong(), terminal.processId());

#ifdef Q_OS_LINUX
        // The marker's process runs the agent: the wait is over at once.
        const auto processID = syncWait(AgentLauncher::waitFor(launch.markerPath, launch.executablePath,
                                                               std::make_shared<ProcProcessTreeSource>()));
        QCOMPARE(processID, static_cast<qint32>(terminal.processId()));
#endif
        terminal.kill();
        terminal.waitForFinished();
    }

    void quoting_data() {
        QTest::addColumn<QString>("value");
        QTest::addColumn<QString>("quoted");
        QTest::newRow("plain") << "/usr/local/bin/codex"
                               << "'/usr/local/bin/codex'";
        QTest::newRow("single quote") << "/Users/o'neil/repo"
                                      << "'/Users/o'\\''neil/repo'";
        QTest::newRow("only quotes") << "''"
                                     << "''\\'''\\'''";
        QTest::newRow("empty") << ""
                               << "''";
    }
    void quoting() {
        QFETCH(QString, value);
        QFETCH(QString, quoted);
        QCOMPARE(AgentHandoffScriptBuilder::quote(value), quoted);
    }

    // Each refusal happens before anything is written, so no terminal is ever opened for it.
    void refusesBeforeWriting_data() {
        QTest::addColumn<QString>("prompt");
        QTest::addColumn<bool>("repositoryExists");
        QTest::addColumn<bool>("agentInstalled");
        QTest::addColumn<int>("errorCase");
        QTest::addColumn<QString>("message");
        const int failed = int(QuorvaneError::Case::agentHandoffFailed);
        QTest::newRow("empty prompt") << "" << true << true << failed
                                      << "Could not hand off the prompt: the generated prompt is empty";
        QTest::newRow("worktree gone") << "Add tests" << false << true << failed
                                       << "Could not hand off the prompt: the detected worktree no longer exists";
        QTest::newRow("no agent") << "Add tests" << true << false << int(QuorvaneError::Case::agentUnavailable)
                                  << "Codex CLI is not installed in a trusted location";
    }
    void refusesBeforeWriting() {
        QFETCH(QString, prompt);
        QFETCH(bool, repositoryExists);
        QFETCH(bool, agentInstalled);
        QFETCH(int, errorCase);
        QFETCH(QString, message);
        if (!trustedLocationsEmpty(AgentKind::codex))
            QSKIP("an agent is installed system-wide on this machine");
        TempGitRepository repo;
        const QString home = repo.scratch() + QStringLiteral("/home");
        // A file that is not executable does not count as installed.
        QVERIFY(writeExecutable(home + QStringLiteral("/.local/bin/codex"), "#!/bin/sh\n"));
        if (!agentInstalled)
            QVERIFY(QFile::setPermissions(home + QStringLiteral("/.local/bin/codex"), QFileDevice::ReadOwner));
        RepositoryContext context = contextFor(repo.root());
        if (!repositoryExists)
            context.rootPath = repo.scratch() + QStringLiteral("/removed-worktree");
        const QString launchers = repo.scratch() + QStringLiteral("/handoffs");
        try {
            AgentLauncher::prepare(prompt, AgentKind::codex, context, home, launchers);
            QFAIL("expected a refusal");
        } catch (const QuorvaneError &error) {
            QCOMPARE(int(error.errorCase()), errorCase);
            QCOMPARE(error.message(), message);
        }
        QVERIFY(!QFileInfo::exists(launchers));
    }

    void locatesInTrustedOrder() {
        QTemporaryDir home;
        const auto candidates = AgentExecutableLocator::candidates(AgentKind::claude, home.path());
        QCOMPARE(candidates, (QStringList{"/opt/homebrew/bin/claude", "/usr/local/bin/claude",
                                          home.path() + QStringLiteral("/.local/bin/claude")}));
        if (!trustedLocationsEmpty(AgentKind::claude))
            QSKIP("an agent is installed system-wide on this machine");
        // A folder of that name is not a program.
        QVERIFY(QDir().mkpath(home.path() + QStringLiteral("/.local/bin/claude")));
        QCOMPARE(AgentExecutableLocator::locate(AgentKind::claude, home.path()), std::nullopt);
    }

    void removesOnlyOldLaunchers() {
        QTemporaryDir directory;
        const QDateTime now = QDateTime::currentDateTimeUtc();
        const QList<std::pair<QString, qint64>> files{{"launch-old.command", 7200},
                                                      {"agent-old.pid", 3700},
                                                      {"launch-recent.command", 600},
                                                      {"agent-recent.pid", 3500},
                                                      {"notes-old.txt", 7200}};
        for (const auto &[name, age] : files) {
            QFile file(directory.filePath(name));
            QVERIFY(file.open(QIODevice::WriteOnly));
            QVERIFY(file.setFileTime(now.addSecs(-age), QFileDevice::FileModificationTime));
        }
        AgentLauncher::cleanupOldLaunchers(directory.path(), now);
        QStringList left = QDir(directory.path()).entryList(QDir::Files);
        left.sort();
        QCOMPARE(left, (QStringList{"agent-recent.pid", "launch-recent.command", "notes-old.txt"}));
    }

    // Without a matching process the wait gives up after twelve seconds, and not before.
    void waitGivesUp_data() {
        QTest::addColumn<QByteArray>("marker");
        QTest::newRow("no marker") << QByteArray();
        QTest::newRow("not a number") << QByteArray("starting\n");
        QTest::newRow("another program") << QByteArray("4242\n");
        QTest::newRow("the agent's path as a prefix") << QByteArray("4343\n");
        QTest::newRow("process gone") << QByteArray("4444\n");
    }
    void waitGivesUp() {
        QFETCH(QByteArray, marker);
        QTemporaryDir directory;
        const QString markerPath = directory.filePath(QStringLiteral("agent-x.pid"));
        if (!marker.isEmpty()) {
            QFile file(markerPath);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(marker);
        }
        auto processes = std::make_shared<ListedCommands>();
        processes->commands = {{4242, QStringLiteral("/bin/zsh /tmp/launch-x.command")},
                               {4343, QStringLiteral("/usr/local/bin/claude-dev")}};
        ManualScheduler scheduler;
        auto waiting =
            AgentLauncher::waitFor(markerPath, QStringLiteral("/usr/local/bin/claude"), processes, scheduler);
        scheduler.advance(11'900);
        QVERIFY(!waiting.isReady());
        scheduler.advance(200);
        QVERIFY(waiting.isReady());
        try {
            syncWait(std::move(waiting));
            QFAIL("expected the wait to give up");
        } catch (const QuorvaneError &error) {
            QCOMPARE(error.detail(), QStringLiteral("the agent did not become ready in Terminal"));
        }
    }

    void waitSeesLateAgent() {
        QTemporaryDir directory;
        const QString markerPath = directory.filePath(QStringLiteral("agent-x.pid"));
        auto processes = std::make_shared<ListedCommands>();
        processes->commands = {{77, QStringLiteral("/bin/zsh /tmp/launch-x.command")}};
        ManualScheduler scheduler;
        auto waiting =
            AgentLauncher::waitFor(markerPath, QStringLiteral("/opt/homebrew/bin/codex"), processes, scheduler);
        QFile file(markerPath);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("77\n");
        file.close();
        scheduler.advance(3'000);
        QVERIFY(!waiting.isReady()); // still the shell: the exec has not happened yet
        processes->commands[77] = QStringLiteral("node /opt/homebrew/bin/codex");
        scheduler.advance(100);
        QVERIFY(waiting.isReady());
        QCOMPARE(syncWait(std::move(waiting)), 77);
    }

    void commandNames_data() {
        QTest::addColumn<QString>("command");
        QTest::addColumn<bool>("names");
        QTest::newRow("the program") << "/usr/local/bin/claude" << true;
        QTest::newRow("with arguments") << "/usr/local/bin/claude --resume" << true;
        QTest::newRow("run by an interpreter") << "node /usr/local/bin/claude" << true;
        QTest::newRow("trailing newline") << "/usr/local/bin/claude\n" << true;
        QTest::newRow("a longer name") << "/usr/local/bin/claude-dev" << false;
        QTest::newRow("in another folder") << "/opt/usr/local/bin/claude" << false;
        QTest::newRow("the launcher shell") << "/bin/zsh /tmp/launch-1.command" << false;
    }
    void commandNames() {
        QFETCH(QString, command);
        QFETCH(bool, names);
        QCOMPARE(AgentLauncher::commandNames(command, QStringLiteral("/usr/local/bin/claude")), names);
    }

    void classifiesStartupScreen_data() {
        QTest::addColumn<QString>("screen");
        QTest::addColumn<bool>("needsUser");
        QTest::newRow("trust prompt") << "Do you trust the files in this folder?\n1. Yes, proceed" << true;
        QTest::newRow("sign-in") << "Please SIGN IN to continue" << true;
        QTest::newRow("authentication") << "Authentication required. Press Enter." << true;
        QTest::newRow("ready") << "Welcome to Claude Code!\n> Try \"fix lint errors\"" << false;
        QTest::newRow("empty") << "" << false;
    }
    void classifiesStartupScreen() {
        QFETCH(QString, screen);
        QFETCH(bool, needsUser);
        QCOMPARE(AgentStartupScreenClassifier::classify(screen) == AgentStartupScreenClassifier::Status::needsUser,
                 needsUser);
    }
};

QTEST_GUILESS_MAIN(TestAgentHandoff)
#include "tst_agent_handoff.moc"
