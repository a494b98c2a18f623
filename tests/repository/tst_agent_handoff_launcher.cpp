#include "FakeDesktop.h"
#include "FakeHandoffTerminal.h"
#include "FakeProcessTable.h"
#include "LogRecorder.h"
#include "TempGitRepository.h"
#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "repository/AgentHandoffLauncher.h"

#include <QFileInfo>
#include <QTest>

namespace {

const QString agentPath = QStringLiteral("/.local/bin/claude");
constexpr qint32 terminalProcess = 100;
constexpr qint32 agentProcess = 4242;

const FrontmostApp terminalApp{QStringLiteral("Terminal"), QStringLiteral("terminal"), terminalProcess};
const FrontmostApp browser{QStringLiteral("Browser"), QStringLiteral("browser"), 555};

bool installedSystemWide() {
    return QFileInfo::exists("/opt/homebrew/bin/claude") || QFileInfo::exists("/usr/local/bin/claude");
}

} // namespace

class TestAgentHandoffLauncher : public QObject {
    Q_OBJECT

private slots:
    // Each step stops the handoff with its own reason, and nothing is pasted or submitted past a
    // step that failed.
    void handsOffInOrder_data() {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("reason");
        QTest::addColumn<bool>("opened");
        QTest::addColumn<bool>("pasted");
        QTest::addColumn<bool>("submitted");
        const QString rejected = "Terminal rejected the agent launcher";
        const QString focusChanged = "focus changed before the prompt could be submitted";
        const QString needsUser = "finish the agent's trust or sign-in prompt, then paste the copied specification";
        QTest::newRow("ready") << ""
                               << "" << true << true << true;
        QTest::newRow("no agent installed")
            << "no agent"
            << "Claude Code CLI is not installed in a trusted location" << false << false << false;
        QTest::newRow("terminal cannot start") << "not started"
                                               << "Terminal could not be opened" << true << false << false;
        QTest::newRow("opener exits with failure") << "opener fails" << rejected << true << false << false;
        QTest::newRow("terminal fails while the agent is awaited")
            << "fails later" << rejected << true << false << false;
        QTest::newRow("agent never starts") << "never starts"
                                            << "the agent did not become ready in Terminal" << true << false << false;
        QTest::newRow("another application in front") << "focus elsewhere" << focusChanged << true << false << false;
        QTest::newRow("an older window of the terminal in front")
            << "older window" << focusChanged << true << false << false;
        QTest::newRow("window raised late") << "window raised late"
                                            << "" << true << true << true;
        QTest::newRow("screen unreadable")
            << "unreadable"
            << "the terminal's screen could not be read, so the prompt was not pasted" << true << false << false;
        QTest::newRow("trust question") << "trust" << needsUser << true << false << false;
        QTest::newRow("trust question drawn late") << "trust drawn late" << needsUser << true << false << false;
        QTest::newRow("focus moves while the agent draws its screen")
            << "focus moves early" << focusChanged << true << false << false;
        QTest::newRow("screen stays blank") << "screen stays blank"
                                            << "" << true << true << true;
        QTest::newRow("agent exits during the paste")
            << "agent exits"
            << "Claude Code exited before receiving the prompt" << true << true << false;
        QTest::newRow("focus moves during the paste")
            << "focus moves"
            << "focus or agent state changed before submission" << true << true << false;
        QTest::newRow("return not posted") << "no return"
                                           << "could not submit the prompt" << true << true << false;
    }
    void handsOffInOrder() {
        QFETCH(QString, fault);
        if (installedSystemWide())
            QSKIP("an agent is installed system-wide on this machine");
        LogRecorder log;
        TempGitRepository repo;
        QVERIFY(repo.isValid());
        const QString home = repo.scratch() + "/home";
        if (fault != "no agent")
            QVERIFY(TempGitRepository::writeFile(home + agentPath, "#!/bin/sh\n", true));
        const QString launchers = repo.scratch() + "/handoffs";

        auto injector = std::make_shared<RecordingInjector>();
        auto frontmost = std::make_shared<FakeFrontmostApp>();
        frontmost->app = fault == "focus elsewhere" || fault == "window raised late" ? browser : terminalApp;
        auto processes = std::make_shared<FakeProcessTable>();
        processes->rows = {{1, 0, "/sbin/init"},
                           {terminalProcess, 1, "/usr/bin/terminal"},
                           {agentProcess, terminalProcess, home + agentPath}};
        auto terminal = std::make_shared<FakeHandoffTerminal>();
        terminal->agentProcessID = agentProcess;
        if (fault == "not started")
            terminal->outcome = TerminalOpening::Outcome::notStarted;
        if (fault == "opener fails")
            terminal->outcome = TerminalOpening::Outcome::rejected;
        terminal->failsLater = fault == "fails later";
        terminal->startsScript = fault != "fails later" && fault != "never starts";
        const QString trust = "Claude Code\nDo you trust the files in this folder?\n1. Yes, proceed";
        if (fault == "unreadable")
            terminal->screens = {std::nullopt};
        if (fault == "trust")
            terminal->screens = {trust};
        if (fault == "trust drawn late")
            terminal->screens = {"", " \n ", trust};
        if (fault == "focus moves early")
            terminal->screens = {"", "", "Welcome to the agent\n> "};
        if (fault == "screen stays blank")
            terminal->screens = {""};
        terminal->returnPosts = fault != "no return";
        terminal->windowInFrontIsNew = fault != "older window";
        ManualScheduler scheduler;
        AgentHandoffLauncher launcher(injector, frontmost, processes, terminal, home, launchers, scheduler);
        QCOMPARE(launcher.isAgentAvailable(AgentKind::claude), fault != "no agent");

        RepositoryContext repository;
        repository.rootPath = repo.root();
        auto running = launcher.handoff("Fix the flaky test", AgentKind::claude, repository);
        for (int step = 0; !running.isReady() && step < 2000; ++step) {
            // Once pasted, the handoff waits for the agent's input line to take it.
            if (!injector->injected.isEmpty() && fault == "agent exits")
                processes->remove(agentProcess);
            if (!injector->injected.isEmpty() && fault == "focus moves")
                frontmost->app = browser;
            if (!terminal->screensRead.isEmpty() && fault == "focus moves early")
                frontmost->app = browser;
            if (step == 150 && fault == "window raised late")
                frontmost->app = terminalApp;
            scheduler.advance(10);
        }
        QVERIFY(running.isReady());
        QString reason;
        try {
            syncWait(std::move(running));
        } catch (const QuorvaneError &error) {
            reason = error.detail();
        }
        QTEST(reason, "reason");
        QTEST(!terminal->opened.isEmpty(), "opened");
        QTEST(!injector->injected.isEmpty(), "pasted");
        QTEST(terminal->returnsPressed == 1, "submitted");
        if (reason.isEmpty()) {
            QCOMPARE(injector->injected, QStringList{"Fix the flaky test"});
            QCOMPARE(terminal->screensRead.first(), terminalProcess);
            QVERIFY(terminal->opened.first().startsWith(launchers + "/launch-"));
            QVERIFY(log.lines.contains(QString::fromUtf8("INFO Prompt handed off \u00b7 Claude Code")));
        }
    }
};

QTEST_GUILESS_MAIN(TestAgentHandoffLauncher)
#include "tst_agent_handoff_launcher.moc"
