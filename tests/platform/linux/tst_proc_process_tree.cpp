#include "TempGitRepository.h"
#include "core/Async.h"
#include "platform/ProcessListing.h"
#include "platform/linux/ProcProcessTreeSource.h"
#include "repository/RepositoryContextProvider.h"

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QTest>

namespace {

// Starts `program` in `directory`; the QProcess kills its own child when destroyed.
std::unique_ptr<QProcess> startIn(const QString &directory, const QString &program, const QStringList &arguments = {}) {
    auto process = std::make_unique<QProcess>();
    process->setWorkingDirectory(directory);
    process->start(program, arguments);
    return process->waitForStarted() ? std::move(process) : nullptr;
}

QString output(const QString &program, const QStringList &arguments) {
    QProcess process;
    process.start(program, arguments);
    process.waitForFinished();
    return QString::fromUtf8(process.readAllStandardOutput());
}

std::optional<ProcessRow> rowOf(const QList<ProcessRow> &rows, qint32 processID) {
    const auto row =
        std::find_if(rows.cbegin(), rows.cend(), [=](const ProcessRow &r) { return r.processID == processID; });
    return row == rows.cend() ? std::nullopt : std::optional(*row);
}

} // namespace

class TestProcProcessTree : public QObject {
    Q_OBJECT

private slots:
    // A shell deep inside repository "beta", and an agent at the root of "alpha".
    void initTestCase() {
        QVERIFY(m_alpha.write("main.c", "struct alpha_state {};\n"));
        m_alpha.commitAll();
        m_deep = m_beta.root() + "/one/two three/four\nfive";
        QVERIFY(QDir().mkpath(m_deep));
        m_shell = startIn(m_deep, "/bin/sh", {"-c", "/bin/sleep 30; :"});
        // A script, so that its command line names the agent as a Node-based agent's does.
        const QString agent = m_alpha.scratch() + "/bin dir/claude";
        QVERIFY(TempGitRepository::writeFile(agent, "#!/bin/sh\n/bin/sleep 30\n", true));
        m_agent = startIn(m_alpha.root(), agent);
        QVERIFY(m_shell && m_agent);
    }

    // The parsers used where there is no /proc agree with it when fed the real tools' output.
    void readsChildren() {
        const ProcessRow shell{qint32(m_shell->processId()), qint32(QCoreApplication::applicationPid()),
                               "/bin/sh -c /bin/sleep 30; :"};
        const qint32 agent = qint32(m_agent->processId());
        ProcProcessTreeSource source;
        QCOMPARE(rowOf(syncWait(source.processRows()), shell.processID), shell);
        QCOMPARE(rowOf(ProcessListing::parseProcessRows(output("/bin/ps", {"-axww", "-o", "pid=,ppid=,command="})),
                       shell.processID),
                 shell);
        QCOMPARE(syncWait(source.commandLine(shell.processID)), shell.command);
        const auto directories = syncWait(source.workingDirectories({shell.processID, agent, 1}));
        QCOMPARE(directories.value(shell.processID), m_deep);
        // Another user's process keeps its directory to itself; it is left out, not guessed.
        if (::geteuid() != 0)
            QVERIFY(!directories.contains(1));
        if (!QFileInfo::exists("/usr/bin/lsof"))
            QSKIP("lsof is not installed");
        const auto listed = ProcessListing::parseWorkingDirectories(
            output("/usr/bin/lsof", {"-a", "-d", "cwd", "-F", "tn", "-p", QString("%1,1").arg(agent)}));
        QCOMPARE(listed.value(agent), m_alpha.root());
        if (::geteuid() != 0)
            QVERIFY(!listed.contains(1));
    }

    // The agent in "alpha" beats the deeper shell in "beta", found from real processes.
    void agentBeatsShell() {
        const qint32 self = qint32(QCoreApplication::applicationPid());
        auto source = std::make_shared<ProcProcessTreeSource>();
        RepositoryContextProvider provider(source, std::make_shared<UnsupportedFocusedDocumentSource>(),
                                           [self] { return std::optional(self); });
        const auto context = syncWait(provider.refreshContext("test", std::nullopt));
        QVERIFY(context);
        QCOMPARE(context->rootPath, m_alpha.root());
        QCOMPARE(context->vocabulary, QStringList{"alpha_state"});
    }

    // A directory removed after the process entered it holds no repository.
    void removedDirectoryIsLeftOut() {
        const QString doomed = m_beta.scratch() + "/doomed";
        QVERIFY(QDir().mkpath(doomed));
        const auto sleeper = startIn(doomed, "/bin/sleep", {"30"});
        QVERIFY(sleeper && QDir(doomed).removeRecursively());
        ProcProcessTreeSource source;
        QCOMPARE(syncWait(source.workingDirectories({qint32(sleeper->processId())})), (QHash<qint32, QString>{}));
    }

    // The command name in "stat" may itself hold blanks and parentheses.
    void parentFromStat() {
        QCOMPARE(ProcProcessTreeSource::parentFromStat("42 (a) b (c) R 9 1 1"), 9);
        QCOMPARE(ProcProcessTreeSource::parentFromStat("42 (bash) S"), std::nullopt);
    }

private:
    TempGitRepository m_alpha{"alpha"};
    TempGitRepository m_beta{"beta"};
    QString m_deep;
    std::unique_ptr<QProcess> m_shell;
    std::unique_ptr<QProcess> m_agent;
};

QTEST_GUILESS_MAIN(TestProcProcessTree)
#include "tst_proc_process_tree.moc"
