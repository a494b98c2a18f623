#include "LogRecorder.h"
#include "QuorvaneProcess.h"
#include "TempGitRepository.h"
#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "linux/DesktopDriver.h"
#include "platform/PlatformKitFactory.h"

#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QTemporaryDir>
#include <QTest>

namespace {

QString contents(const QString &path) {
    return QString::fromUtf8(readFileBytes(path));
}

} // namespace

class WaylandAgentHandoffTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() {
        if (qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") || qEnvironmentVariableIsEmpty("SWAYSOCK"))
            QSKIP("needs the session of scripts/headless-wayland");
        if (!QFileInfo("/usr/bin/lxterminal").isExecutable())
            QSKIP("needs lxterminal");
        if (QFileInfo::exists("/opt/homebrew/bin/claude") || QFileInfo::exists("/usr/local/bin/claude"))
            QSKIP("an agent is installed system-wide on this machine");
        // The agent is looked for, and the terminal keeps its settings, under HOME.
        QVERIFY(m_home.isValid());
        qputenv("HOME", m_home.path().toUtf8());
    }

    // The session's own kit starts the agent in a terminal running natively on the compositor, and
    // pastes and submits only when the agent's first screen asks nothing.
    void handsOffThroughTheCompositor_data() {
        QTest::addColumn<QString>("banner"); // empty: no agent installed
        QTest::addColumn<QString>("reason"); // empty: handed off
        QTest::newRow("ready agent") << "Stand-in agent ready"
                                     << "";
        QTest::newRow("trust question") << "Do you trust the files in this folder?"
                                        << "finish the agent's trust or sign-in prompt, then paste the copied "
                                           "specification";
        QTest::newRow("no agent installed") << ""
                                            << "Claude Code CLI is not installed in a trusted location";
    }
    void handsOffThroughTheCompositor() {
        QFETCH(QString, banner);
        LogRecorder log;
        TempGitRepository repo;
        QVERIFY(repo.isValid());
        const QString record = repo.scratch() + "/record";
        const QString agent = m_home.path() + "/.local/bin/claude";
        QFile::remove(agent);
        if (!banner.isEmpty())
            QVERIFY(TempGitRepository::writeFile(agent, standInAgent(banner, record), true));

        const PlatformKit kit = makePlatformKit();
        QVERIFY(kit.agentHandoff);
        RepositoryContext repository;
        repository.rootPath = repo.root();
        const QString prompt = "Add a test for the parser's empty input";
        QString reason;
        try {
            syncWait(kit.agentHandoff->handoff(prompt, AgentKind::claude, repository));
        } catch (const QuorvaneError &error) {
            reason = error.detail();
        }
        QTEST(reason, "reason");
        if (reason.isEmpty()) {
            QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(record) && contents(record).count('\n') == 2, 5000);
            QCOMPARE(contents(record), repo.root() + "\n" + prompt + "\n");
        } else {
            QTest::qWait(300);
            QVERIFY(!QFileInfo::exists(record));
        }
    }

private:
    QTemporaryDir m_home;
};

int main(int argc, char **argv) {
    // The kit wires desktop services only for a GUI application; offscreen keeps Qt off the session.
    QGuiApplication app(argc, argv);
    WaylandAgentHandoffTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_wayland_agent_handoff.moc"
