#include "FakeDesktop.h"
#include "FakeProcessTable.h"
#include "LogRecorder.h"
#include "TempGitRepository.h"
#include "core/Async.h"
#include "linux/FakeHandoffTerminal.h"
#include "platform/linux/LinuxAgentHandoffLauncher.h"
#include "platform/linux/TerminalEmulators.h"

#include <QFileInfo>
#include <QTest>

namespace {

const QString agentPath = QStringLiteral("/.local/bin/claude");
constexpr qint32 terminalProcess = 100;
constexpr qint32 agentProcess = 4242;

const FrontmostApp lxterminal{QStringLiteral("LXTerminal"), QStringLiteral("lxterminal"), terminalProcess};
const FrontmostApp browser{QStringLiteral("Firefox"), QStringLiteral("firefox"), 555};

bool installedSystemWide() {
    return QFileInfo::exists("/opt/homebrew/bin/claude") || QFileInfo::exists("/usr/local/bin/claude");
}

} // namespace

class TestLinuxAgentHandoff : public QObject {
    Q_OBJECT

private slots:
    // The desktop's default wins only when we can read its screen; otherwise a terminal we can read
    // beats it, and an unreadable one is the last resort.
    void choosesTerminal_data() {
        QTest::addColumn<QStringList>("installed");
        QTest::addColumn<QString>("defaultTarget");
        QTest::addColumn<QStringList>("expected");
        const QString fallback = "/usr/bin/x-terminal-emulator";
        QTest::newRow("default readable")
            << QStringList{fallback, "/usr/bin/gnome-terminal", "/usr/bin/lxterminal"} << "/usr/bin/lxterminal"
            << QStringList{"/usr/bin/lxterminal", "-e", "/bin/sh", "launch-1.command"};
        QTest::newRow("debian's gnome wrapper")
            << QStringList{fallback, "/usr/bin/konsole", "/usr/bin/gnome-terminal"} << "/usr/bin/gnome-terminal.wrapper"
            << QStringList{"/usr/bin/gnome-terminal", "--", "/bin/sh", "launch-1.command"};
        QTest::newRow("default is xterm")
            << QStringList{fallback, "/usr/bin/xterm", "/usr/bin/xfce4-terminal"} << "/usr/bin/lxterm"
            << QStringList{"/usr/bin/xfce4-terminal", "-x", "/bin/sh", "launch-1.command"};
        QTest::newRow("default outside the fixed paths")
            << QStringList{fallback, "/usr/bin/konsole"} << "/usr/local/bin/lxterminal"
            << QStringList{"/usr/bin/konsole", "-e", "/bin/sh", "launch-1.command"};
        QTest::newRow("nothing readable") << QStringList{"/usr/bin/xterm", fallback} << "/usr/bin/lxterm"
                                          << QStringList{fallback, "-e", "/bin/sh", "launch-1.command"};
        QTest::newRow("only xterm") << QStringList{"/usr/bin/xterm"} << ""
                                    << QStringList{"/usr/bin/xterm", "-e", "/bin/sh", "launch-1.command"};
        QTest::newRow("no terminal") << QStringList{} << "" << QStringList{};
    }
    void choosesTerminal() {
        QFETCH(QStringList, installed);
        QFETCH(QString, defaultTarget);
        const auto chosen = TerminalEmulators::choose(
            [&](const QString &path) { return installed.contains(path); },
            [&](const QString &path) { return path.endsWith("x-terminal-emulator") ? defaultTarget : path; });
        QStringList command;
        if (chosen)
            command = QStringList{chosen->program} + chosen->arguments("launch-1.command");
        QTEST(command, "expected");
    }

    // Each step stops the handoff with its own reason, and nothing is pasted or submitted past a
    // step that failed.
    void handsOffInOrder_data() {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("reason");
        QTest::addColumn<bool>("opened");
        QTest::addColumn<bool>("pasted");
        QTest::addColumn<bool>("submitted");
        QTest::newRow("ready") << ""
                               << "" << true << true << true;
        QTest::newRow("no agent installed")
            << "no agent"
            << "Claude Code CLI is not installed in a trusted location" << false << false << false;
        QTest::newRow("no terminal") << "no terminal"
                                     << "Terminal could not be opened" << false << false << false;
        QTest::newRow("terminal refuses the script")
            << "rejected"
            << "Terminal rejected the agent launcher" << true << false << false;
        QTest::newRow("another application in front")
            << "focus elsewhere"
            << "focus changed before the prompt could be submitted" << true << false << false;
        QTest::newRow("an older window of the terminal in front")
            << "older window"
            << "focus changed before the prompt could be submitted" << true << false << false;
        QTest::newRow("window raised late") << "window raised late"
                                            << "" << true << true << true;
        QTest::newRow("screen unreadable")
            << "unreadable"
            << "the terminal's screen could not be read, so the prompt was not pasted" << true << false << false;
        QTest::newRow("trust question")
            << "trust"
            << "finish the agent's trust or sign-in prompt, then paste the copied specification" << true << false
            << false;
        QTest::newRow("trust question drawn late")
            << "trust drawn late"
            << "finish the agent's trust or sign-in prompt, then paste the copied specification" << true << false
            << false;
        QTest::newRow("focus moves while the agent draws its screen")
            << "focus moves early"
            << "focus changed before the prompt could be submitted" << true << false << false;
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
        frontmost->app = fault == "focus elsewhere" || fault == "window raised late" ? browser : lxterminal;
        auto processes = std::make_shared<FakeProcessTable>();
        processes->rows = {{1, 0, "/sbin/init"},
                           {terminalProcess, 1, "/usr/bin/lxterminal"},
                           {agentProcess, terminalProcess, home + agentPath}};
        auto terminal = std::make_shared<FakeHandoffTerminal>();
        terminal->agentProcessID = agentProcess;
        terminal->opens = fault != "no terminal";
        terminal->rejects = fault == "rejected";
        terminal->startsScript = fault != "rejected";
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
        LinuxAgentHandoffLauncher launcher(injector, frontmost, processes, terminal, home, launchers, scheduler);
        QCOMPARE(launcher.isAgentAvailable(AgentKind::claude), fault != "no agent");

        RepositoryContext repository;
        repository.rootPath = repo.root();
        auto running = launcher.handoff("Fix the flaky test", AgentKind::claude, repository);
        for (int step = 0; !running.isReady() && step < 1000; ++step) {
            // Once pasted, the handoff waits for the agent's input line to take it.
            if (!injector->injected.isEmpty() && fault == "agent exits")
                processes->remove(agentProcess);
            if (!injector->injected.isEmpty() && fault == "focus moves")
                frontmost->app = browser;
            if (!terminal->screensRead.isEmpty() && fault == "focus moves early")
                frontmost->app = browser;
            if (step == 150 && fault == "window raised late")
                frontmost->app = lxterminal;
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

QTEST_GUILESS_MAIN(TestLinuxAgentHandoff)
#include "tst_linux_agent_handoff.moc"
