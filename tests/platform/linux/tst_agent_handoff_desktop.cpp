#include "LogRecorder.h"
#include "QuorvaneProcess.h"
#include "TempGitRepository.h"
#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "linux/DesktopDriver.h"
#include "linux/XdotoolTypingInjector.h"
#include "platform/linux/ProcProcessTreeSource.h"
#include "platform/linux/X11FrontmostApp.h"
#include "platform/linux/X11HandoffTerminal.h"
#include "repository/AgentHandoffLauncher.h"

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

namespace {

const TerminalEmulator lxterminal{QStringLiteral("/usr/bin/lxterminal"), {QStringLiteral("-e")}, true};
const TerminalEmulator xterm{QStringLiteral("/usr/bin/xterm"), {QStringLiteral("-e")}, false};

// The real terminal, counting the windows it opens.
class CountingTerminal final : public HandoffTerminal {
public:
    explicit CountingTerminal(const TerminalEmulator &terminal) : real(terminal) {}
    X11HandoffTerminal real;
    int opened = 0;
    QCoro::Task<TerminalOpening> open(QString scriptPath) override {
        ++opened;
        return real.open(scriptPath);
    }
    bool agentWindowInFront(const FrontmostApp &front) override { return real.agentWindowInFront(front); }
    std::optional<QString> screenText(qint32 terminalProcessID) override { return real.screenText(terminalProcessID); }
    bool pressReturn() override { return real.pressReturn(); }
};

QString contents(const QString &path) {
    return QString::fromUtf8(readFileBytes(path));
}

} // namespace

class TestAgentHandoffDesktop : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        if (qEnvironmentVariableIsEmpty("DISPLAY"))
            QSKIP("needs an X11 desktop (DISPLAY is unset)");
        if (!QFileInfo("/usr/bin/lxterminal").isExecutable() || !QFileInfo("/usr/bin/xdotool").isExecutable())
            QSKIP("needs lxterminal and xdotool");
        if (QFileInfo::exists("/opt/homebrew/bin/claude") || QFileInfo::exists("/usr/local/bin/claude"))
            QSKIP("an agent is installed system-wide on this machine");
        // The terminal keeps its settings under HOME, and its first instance serves every row.
        QVERIFY(m_home.isValid());
        qputenv("HOME", m_home.path().toUtf8());
    }

    // A real terminal starts the agent in the repository; it gets the prompt and Return only when
    // its first screen asks nothing, and nothing opens when there is no agent.
    void handsOffInRealTerminal_data() {
        QTest::addColumn<QString>("terminalProgram");
        QTest::addColumn<QString>("repositoryName");
        QTest::addColumn<QString>("banner"); // empty: no agent installed
        QTest::addColumn<QString>("reason"); // empty: handed off
        QTest::addColumn<int>("windows");
        const QString ready = "Stand-in agent ready";
        const QString lx = lxterminal.program;
        QTest::newRow("ready agent") << lx << "project" << ready << "" << 1;
        QTest::newRow("quote in the repository path") << lx << "it's here" << ready << "" << 1;
        QTest::newRow("trust question")
            << lx << "project"
            << "Do you trust the files in this folder?"
            << "finish the agent's trust or sign-in prompt, then paste the copied specification" << 1;
        QTest::newRow("no agent installed") << lx << "project"
                                            << ""
                                            << "Claude Code CLI is not installed in a trusted location" << 0;
        QTest::newRow("terminal without screen text")
            << xterm.program << "project" << ready
            << "the terminal's screen could not be read, so the prompt was not pasted" << 1;
    }
    void handsOffInRealTerminal() {
        QFETCH(QString, terminalProgram);
        QFETCH(QString, repositoryName);
        if (!QFileInfo(terminalProgram).isExecutable())
            QSKIP("the terminal is not installed");
        QFETCH(QString, banner);
        LogRecorder log;
        TempGitRepository repo(repositoryName);
        QVERIFY(repo.isValid());
        const QString home = m_home.path();
        const QString record = repo.scratch() + "/record";
        const QString agent = home + "/.local/bin/claude";
        QFile::remove(agent);
        if (!banner.isEmpty())
            QVERIFY(TempGitRepository::writeFile(agent, standInAgent(banner, record), true));

        auto injector = std::make_shared<XdotoolTypingInjector>();
        auto terminal = std::make_shared<CountingTerminal>(terminalProgram == xterm.program ? xterm : lxterminal);
        AgentHandoffLauncher launcher(injector, std::make_shared<X11FrontmostApp>(),
                                      std::make_shared<ProcProcessTreeSource>(), terminal, home,
                                      repo.scratch() + "/handoffs");
        RepositoryContext repository;
        repository.rootPath = repo.root();
        const QString prompt = "Add a test for the parser's empty input";
        QString reason;
        try {
            syncWait(launcher.handoff(prompt, AgentKind::claude, repository));
        } catch (const QuorvaneError &error) {
            reason = error.detail();
        }
        QTEST(reason, "reason");
        QTEST(terminal->opened, "windows");
        if (reason.isEmpty()) {
            QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(record) && contents(record).count('\n') == 2, 5000);
            QCOMPARE(contents(record), repo.root() + "\n" + prompt + "\n");
        } else {
            QVERIFY(injector->typed.isEmpty());
            QTest::qWait(300);
            QVERIFY(!QFileInfo::exists(record));
        }
    }

private:
    QTemporaryDir m_home;
};

QTEST_GUILESS_MAIN(TestAgentHandoffDesktop)
#include "tst_agent_handoff_desktop.moc"
