#include "TempGitRepository.h"
#include "core/Async.h"
#include "platform/ProcessListing.h"
#include "platform/linux/ProcProcessTreeSource.h"
#include "repository/RepositoryContextProvider.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTest>

namespace {

// Starts `program` in `directory`; the QProcess kills its own child when destroyed.
std::unique_ptr<QProcess> startIn(const QString &directory, const QString &program, const QStringList &arguments) {
    auto process = std::make_unique<QProcess>();
    process->setWorkingDirectory(directory);
    process->start(program, arguments);
    if (!process->waitForStarted())
        return nullptr;
    return process;
}

QString run(const QString &program, const QStringList &arguments) {
    QProcess process;
    process.start(program, arguments);
    process.waitForFinished();
    return QString::fromUtf8(process.readAllStandardOutput());
}

} // namespace

class TestProcProcessTree : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        QVERIFY(m_alpha.isValid() && m_beta.isValid());
        m_alpha.write(QStringLiteral("main.c"), "struct alpha_state {};\n");
        m_alpha.commitAll();
        // The agent is a script so that its command line names it, as a Node-based agent's does.
        m_agent = m_alpha.scratch() + QStringLiteral("/bin dir/claude");
        QVERIFY(QDir().mkpath(QFileInfo(m_agent).absolutePath()));
        QFile agent(m_agent);
        QVERIFY(agent.open(QIODevice::WriteOnly));
        agent.write("#!/bin/sh\n/bin/sleep 30\n");
        agent.close();
        QVERIFY(agent.setPermissions(agent.permissions() | QFileDevice::ExeOwner));
        m_deep = m_beta.root() + QStringLiteral("/one/two three/four\nfive");
        QVERIFY(QDir().mkpath(m_deep));
    }

    void readsChildren() {
        const auto sleeper = startIn(m_deep, QStringLiteral("/bin/sleep"), {QStringLiteral("30"), QStringLiteral("0")});
        QVERIFY(sleeper);
        const qint32 child = static_cast<qint32>(sleeper->processId());
        ProcProcessTreeSource source;
        const auto rows = syncWait(source.processRows());
        const auto row =
            std::find_if(rows.cbegin(), rows.cend(), [child](const ProcessRow &r) { return r.processID == child; });
        QVERIFY(row != rows.cend());
        QCOMPARE(row->parentProcessID, static_cast<qint32>(QCoreApplication::applicationPid()));
        QCOMPARE(row->command, QStringLiteral("/bin/sleep 30 0"));
        QCOMPARE(syncWait(source.commandLine(child)), std::optional(row->command));
        const auto directories = syncWait(source.workingDirectories({child, 1}));
        QCOMPARE(directories.value(child), m_deep);
        // Another user's process keeps its directory to itself; it is left out, not guessed.
        if (::geteuid() != 0)
            QVERIFY(!directories.contains(1));
    }

    void goneProcessesAndDirectories() {
        QTemporaryDir scratch;
        const QString doomed = scratch.path() + QStringLiteral("/doomed");
        QVERIFY(QDir().mkpath(doomed));
        const auto sleeper = startIn(doomed, QStringLiteral("/bin/sleep"), {QStringLiteral("30")});
        QVERIFY(sleeper);
        QVERIFY(QDir(doomed).removeRecursively());
        const qint32 child = static_cast<qint32>(sleeper->processId());
        ProcProcessTreeSource source;
        QVERIFY(!syncWait(source.workingDirectories({child})).contains(child));

        QProcess finished;
        finished.start(QStringLiteral("/bin/true"), {});
        QVERIFY(finished.waitForStarted());
        const qint32 gone = static_cast<qint32>(finished.processId());
        QVERIFY(finished.waitForFinished());
        QCOMPARE(syncWait(source.commandLine(gone)), std::nullopt);
    }

    // An agent in repository A beats a shell deeper down in repository B, found from real processes.
    void agentBeatsShell() {
        const auto shell =
            startIn(m_deep, QStringLiteral("/bin/sh"), {QStringLiteral("-c"), QStringLiteral("/bin/sleep 30; :")});
        const auto agent = startIn(m_alpha.root(), m_agent, {});
        QVERIFY(shell && agent);
        const qint32 self = static_cast<qint32>(QCoreApplication::applicationPid());
        auto source = std::make_shared<ProcProcessTreeSource>();
        QCOMPARE(syncWait(RepositoryContextProvider::detectFromProcessTree(source, self)),
                 std::optional(m_alpha.root()));

        RepositoryContextProvider provider(source, std::make_shared<UnsupportedFocusedDocumentSource>(),
                                           [self] { return std::optional<qint32>(self); });
        const auto context = syncWait(provider.refreshContext(QStringLiteral("test"), std::nullopt));
        QVERIFY(context);
        QCOMPARE(context->name, QStringLiteral("alpha"));
        QCOMPARE(context->vocabulary, QStringList{QStringLiteral("alpha_state")});
    }

    // The parsers used where there is no /proc agree with it when fed the real tools' output.
    void processToolsAgreeWithProc() {
        const auto sleeper = startIn(m_alpha.root(), QStringLiteral("/bin/sleep"), {QStringLiteral("30")});
        QVERIFY(sleeper);
        const qint32 child = static_cast<qint32>(sleeper->processId());
        const auto rows = ProcessListing::parseProcessRows(
            run(QStringLiteral("/bin/ps"),
                {QStringLiteral("-axww"), QStringLiteral("-o"), QStringLiteral("pid=,ppid=,command=")}));
        const auto row =
            std::find_if(rows.cbegin(), rows.cend(), [child](const ProcessRow &r) { return r.processID == child; });
        QVERIFY(row != rows.cend());
        QCOMPARE(row->parentProcessID, static_cast<qint32>(QCoreApplication::applicationPid()));
        QCOMPARE(row->command, QStringLiteral("/bin/sleep 30"));
        if (!QFileInfo::exists(QStringLiteral("/usr/bin/lsof")))
            QSKIP("lsof is not installed");
        const auto directories = ProcessListing::parseWorkingDirectories(
            run(QStringLiteral("/usr/bin/lsof"),
                {QStringLiteral("-a"), QStringLiteral("-d"), QStringLiteral("cwd"), QStringLiteral("-F"),
                 QStringLiteral("tn"), QStringLiteral("-p"), QStringLiteral("%1,1").arg(child)}));
        QCOMPARE(directories.value(child), m_alpha.root());
        if (::geteuid() != 0)
            QVERIFY(!directories.contains(1));
    }

    void parentFromStat_data() {
        QTest::addColumn<QByteArray>("stat");
        QTest::addColumn<int>("parent");
        QTest::newRow("plain") << QByteArray("42 (bash) S 7 42 42 0") << 7;
        QTest::newRow("name with blanks and parentheses") << QByteArray("42 (a) b (c) R 9 1 1") << 9;
        QTest::newRow("truncated") << QByteArray("42 (bash) S") << -1;
        QTest::newRow("empty") << QByteArray() << -1;
    }
    void parentFromStat() {
        QFETCH(QByteArray, stat);
        QFETCH(int, parent);
        QCOMPARE(ProcProcessTreeSource::parentFromStat(stat).value_or(-1), parent);
    }

private:
    TempGitRepository m_alpha{QStringLiteral("alpha")};
    TempGitRepository m_beta{QStringLiteral("beta")};
    QString m_agent;
    QString m_deep;
};

QTEST_GUILESS_MAIN(TestProcProcessTree)
#include "tst_proc_process_tree.moc"
