#include "FakeDesktop.h"
#include "FakeProcessTable.h"
#include "FakeTerminalApp.h"
#include "LogRecorder.h"
#include "TempGitRepository.h"
#include "core/Async.h"
#include "core/QuorvaneError.h"

#include <QFileInfo>
#include <QTest>

namespace {

const QString terminalID = QStringLiteral("com.apple.Terminal");
const QString agentPath = QStringLiteral("/.local/bin/claude");
constexpr qint32 agentProcess = 4242;

const FrontmostApp terminalApp{QStringLiteral("Terminal"), terminalID, 300};
const FrontmostApp browser{QStringLiteral("Safari"), QStringLiteral("com.apple.Safari"), 555};

bool installedSystemWide() {
    return QFileInfo::exists("/opt/homebrew/bin/claude") || QFileInfo::exists("/usr/local/bin/claude");
}

} // namespace

class TestTerminalAppHandoff : public QObject {
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
        const QString trustReason = "finish the agent's trust or sign-in prompt, then paste the copied specification";
        QTest::newRow("ready") << ""
                               << "" << true << true << true;
        QTest::newRow("no agent installed")
            << "no agent"
            << "Claude Code CLI is not installed in a trusted location" << false << false << false;
        QTest::newRow("opener missing") << "opener missing"
                                        << "Terminal could not be opened" << true << false << false;
        QTest::newRow("opener fails") << "opener fails"
                                      << "Terminal rejected the agent launcher" << true << false << false;
        QTest::newRow("agent never starts") << "never starts"
                                            << "the agent did not become ready in Terminal" << true << false << false;
        QTest::newRow("another application in front")
            << "focus elsewhere"
            << "focus changed before the prompt could be submitted" << true << false << false;
        QTest::newRow("screen unreadable")
            << "unreadable"
            << "the terminal's screen could not be read, so the prompt was not pasted" << true << false << false;
        QTest::newRow("trust question") << "trust" << trustReason << true << false << false;
        QTest::newRow("sign-in in the window title") << "sign in" << trustReason << true << false << false;
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
        frontmost->app = fault == "focus elsewhere" ? browser : terminalApp;
        auto processes = std::make_shared<FakeProcessTable>();
        processes->rows = {{1, 0, "/sbin/launchd"}, {agentProcess, 1, home + agentPath}};
        auto terminal = std::make_shared<FakeTerminalApp>();
        terminal->agentProcessID = agentProcess;
        if (fault == "opener missing")
            terminal->openerStatus = std::nullopt;
        if (fault == "opener fails")
            terminal->openerStatus = 1;
        terminal->startsScript = fault != "never starts";
        if (fault == "unreadable")
            terminal->screen = std::nullopt;
        if (fault == "trust")
            terminal->screen = "Claude Code\nDo you trust the files in this folder?\n1. Yes, proceed";
        if (fault == "sign in")
            terminal->screen = "claude \u2014 Sign in to continue \u2014 80\u00d724";
        terminal->returnPosts = fault != "no return";
        ManualScheduler scheduler;
        TerminalAppHandoffLauncher launcher(injector, frontmost, processes, terminal, terminalID, home, launchers,
                                            scheduler);
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
            QVERIFY(terminal->opened.first().startsWith(launchers + "/launch-"));
            QVERIFY(log.lines.contains(QString::fromUtf8("INFO Prompt handed off \u00b7 Claude Code")));
        }
    }
};

QTEST_GUILESS_MAIN(TestTerminalAppHandoff)
#include "tst_terminal_app_handoff.moc"
