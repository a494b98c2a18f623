#include "LogRecorder.h"
#include "QuorvaneProcess.h"
#include "history/Store.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>
#include <cstdio>
#include <sys/stat.h>

static const char *const writerVariable = "QUORVANE_TEST_HISTORY_WRITER";

static Utterance makeUtterance(const QString &id, const QString &shipped) {
    Utterance u;
    u.id = id;
    u.timestamp = QDateTime::fromMSecsSinceEpoch(1714560000123, Qt::UTC);
    u.shippedText = shipped;
    return u;
}

static QByteArray line(const Utterance &u) {
    return QJsonDocument(u.toJson()).toJson(QJsonDocument::Compact) + '\n';
}

// The history's lines, or {"<fragment>"} when it does not end with a whole line.
static QList<QByteArray> historyLines(const QString &root) {
    QFile file(root + QStringLiteral("/history.jsonl"));
    if (!file.open(QIODevice::ReadOnly) || file.size() == 0)
        return {};
    QList<QByteArray> lines = file.readAll().split('\n');
    if (!lines.last().isEmpty())
        return {QByteArray("<fragment>")};
    lines.removeLast();
    return lines;
}

static ino_t inodeOf(const QString &path) {
    struct stat status {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_ino : 0;
}

static int mode(const QString &path) {
    return static_cast<int>(QFileInfo(path).permissions() & 0x7077);
}

// The child of the kill test: appends entries of assorted sizes, reporting each once it is written,
// until it is killed.
static int runWriter(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    const QString run = qEnvironmentVariable("QUORVANE_TEST_HISTORY_RUN");
    Store store(qEnvironmentVariable(writerVariable), RetentionLimits{40, 48 * 1024, 100, 1 << 20});
    for (unsigned i = 0;; ++i) {
        const auto length = static_cast<int>((i * 7919u + 13u) % 6000u);
        store.append(makeUtterance(QStringLiteral("%1-%2").arg(run).arg(i, 6, 10, QLatin1Char('0')),
                                   QString(length, QLatin1Char('w'))));
        store.drain();
        std::printf("%u\n", i);
        std::fflush(stdout);
    }
}

class TestStore : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;
    std::unique_ptr<QTemporaryDir> m_dir;
    QString root() const { return m_dir->path(); }
    QString history() const { return root() + QStringLiteral("/history.jsonl"); }

private slots:
    void initTestCase() { qputenv("QUORVANE_HOME", m_home.path().toUtf8()); }
    void init() { m_dir = std::make_unique<QTemporaryDir>(); }

    void readsBackWholeEntries() {
        const QString longText(200000, QLatin1Char('x'));
        // A line that does not parse is skipped; an unfinished last one is dropped before appending.
        writeFileBytes(history(), line(makeUtterance("1", "first")) + line(makeUtterance("2", longText)) +
                                      "{not json}\n{\"id\":\"4");
        Store store(root());
        QCOMPARE(store.totalCount(), 3);
        store.append(makeUtterance("5", "last"));
        // No drain: the read sees what was appended before it.
        QCOMPARE(store.recentTranscripts(2), (QStringList{longText, "last"}));
        QCOMPARE(store.recentTranscripts(5), (QStringList{"first", longText, "last"}));
    }

    // A line edited by hand is skipped like any unreadable one; the entries around it stay.
    void malformedDurationIsSkipped_data() {
        QTest::addColumn<QJsonValue>("asrMS");
        QTest::newRow("beyond 64 bits") << QJsonValue(1e300);
        QTest::newRow("fractional") << QJsonValue(1.5);
        QTest::newRow("text") << QJsonValue("412");
    }
    void malformedDurationIsSkipped() {
        QFETCH(QJsonValue, asrMS);
        QJsonObject edited = makeUtterance("2", "edited").toJson();
        edited.insert("asrMS", asrMS);
        writeFileBytes(history(), line(makeUtterance("1", "first")) +
                                      QJsonDocument(edited).toJson(QJsonDocument::Compact) + '\n' +
                                      line(makeUtterance("3", "last")));
        Store store(root());
        QCOMPARE(store.recentTranscripts(5), (QStringList{"first", "last"}));
    }

    void pruning_data() {
        QTest::addColumn<qint64>("maxEntries");
        QTest::addColumn<qint64>("maxBytes");
        QTest::addColumn<int>("appends");
        QTest::addColumn<int>("textLength");
        QTest::newRow("2001st entry") << qint64(2000) << qint64(8388608) << 2001 << 20;
        QTest::newRow("byte ceiling binds") << qint64(100) << qint64(5000) << 40 << 700;
        QTest::newRow("lines longer than a page") << qint64(30) << qint64(1 << 20) << 45 << 5000;
        QTest::newRow("one entry") << qint64(1) << qint64(8388608) << 3 << 20;
        QTest::newRow("no entries") << qint64(0) << qint64(8388608) << 3 << 20;
    }
    void pruning() {
        QFETCH(qint64, maxEntries);
        QFETCH(qint64, maxBytes);
        QFETCH(int, appends);
        QFETCH(int, textLength);
        Store store(root(), RetentionLimits{maxEntries, maxBytes, 100, 1 << 20});
        QByteArrayList written;
        for (int i = 0; i < appends; ++i) {
            const Utterance u = makeUtterance(QString::number(i), QString(textLength + i % 7, QLatin1Char('a')));
            written.append(line(u));
            store.append(u);
        }
        store.drain();
        // The newest lines, within both ceilings; pruning in batches may keep fewer than fit, but never
        // fewer than fit in three quarters of each ceiling.
        qsizetype fitting = 0;
        qint64 fittingBytes = 0;
        while (fitting < maxEntries * 3 / 4 &&
               fittingBytes + written[written.size() - 1 - fitting].size() <= maxBytes * 3 / 4)
            fittingBytes += written[written.size() - 1 - fitting++].size();
        const QList<QByteArray> lines = historyLines(root());
        QVERIFY(lines.size() <= maxEntries);
        QVERIFY(lines.size() >= fitting);
        QCOMPARE(store.totalCount(), lines.size());
        qint64 bytes = 0;
        for (qsizetype i = 0; i < lines.size(); ++i) {
            QCOMPARE(lines[i] + '\n', written[written.size() - lines.size() + i]);
            bytes += lines[i].size() + 1;
        }
        QCOMPARE(QFileInfo(history()).size(), bytes);
        QVERIFY(bytes <= maxBytes);
        if (!lines.isEmpty())
            QCOMPARE(mode(history()), 0x6000);
    }

    // Once a ceiling is reached, pruning makes room for more than the one entry at hand: the appends
    // that follow extend the same file instead of replacing it, whatever the entries' size.
    void fullHistoryMostlyAppends_data() {
        QTest::addColumn<qint64>("maxEntries");
        QTest::addColumn<qint64>("maxBytes");
        QTest::addColumn<int>("textLength");
        QTest::newRow("short entries") << qint64(100) << qint64(8388608) << 20;
        QTest::newRow("entries longer than a page") << qint64(20) << qint64(8388608) << 5000;
        QTest::newRow("byte ceiling binds") << qint64(1000) << qint64(200000) << 5000;
    }
    void fullHistoryMostlyAppends() {
        QFETCH(qint64, maxEntries);
        QFETCH(qint64, maxBytes);
        QFETCH(int, textLength);
        Store store(root(), RetentionLimits{maxEntries, maxBytes, 100, 1 << 20});
        int serial = 0;
        auto next = [&] { return makeUtterance(QString::number(serial++), QString(textLength, QLatin1Char('a'))); };
        // Fill until the first prune shrinks the file.
        qint64 size = 0;
        for (;;) {
            store.append(next());
            store.drain();
            const qint64 now = QFileInfo(history()).size();
            if (now < size)
                break;
            size = now;
            QVERIFY(serial <= maxEntries + 1);
        }
        const ino_t inode = inodeOf(history());
        // At least a tenth of each ceiling's worth of appends go to the end of the same file.
        qint64 appendedBytes = 0;
        for (int appended = 0;; ++appended) {
            const Utterance u = next();
            appendedBytes += line(u).size();
            if (appended + 1 > maxEntries / 10 || appendedBytes > maxBytes / 10)
                break;
            size = QFileInfo(history()).size();
            store.append(u);
            store.drain();
            QCOMPARE(inodeOf(history()), inode);
            QCOMPARE(QFileInfo(history()).size(), size + line(u).size());
        }
    }

    void failedWriteIsReported_data() {
        QTest::addColumn<int>("textLength");
        QTest::addColumn<qint64>("maxEntries");
        QTest::newRow("append") << 20 << qint64(2000);
        QTest::newRow("append longer than a page") << 5000 << qint64(2000);
        QTest::newRow("rewrite") << 20 << qint64(0);
    }
    void failedWriteIsReported() {
        QFETCH(int, textLength);
        QFETCH(qint64, maxEntries);
        // A directory where the history file belongs: every way of writing it fails.
        QVERIFY(QDir(root()).mkdir(QStringLiteral("history.jsonl")));
        Store store(root(), RetentionLimits{maxEntries, 8388608, 100, 1 << 20});
        LogRecorder log;
        store.append(makeUtterance("1", QString(textLength, QLatin1Char('x'))));
        store.drain();
        QCOMPARE(log.lines.size(), 1);
        QVERIFY2(log.lines.first().startsWith("ERROR Could not store a history entry: "),
                 qPrintable(log.lines.first()));
        QVERIFY(!QFile::exists(history() + ".tmp"));
    }

    void tooLargeEntryIsRefused() {
        Store store(root());
        store.append(makeUtterance("1", "kept"));
        LogRecorder log;
        store.append(makeUtterance("2", QString(8388608, QLatin1Char('x'))));
        QCOMPARE(log.lines,
                 QStringList{"WARN A history item exceeded the local retention ceiling and was not stored."});
        QCOMPARE(store.recentTranscripts(5), QStringList{"kept"});
        QCOMPARE(store.totalCount(), 1);
    }

    void audioPruning_data() {
        QTest::addColumn<int>("recordings");
        QTest::addColumn<qint64>("maxBytes");
        QTest::addColumn<int>("kept");
        QTest::newRow("101st recording") << 101 << qint64(268435456) << 100;
        QTest::newRow("byte ceiling") << 10 << qint64(3500) << 3;
    }
    void audioPruning() {
        QFETCH(int, recordings);
        QFETCH(qint64, maxBytes);
        QFETCH(int, kept);
        Store store(root(), RetentionLimits{2000, 8388608, 100, maxBytes});
        const QDateTime base = QDateTime::currentDateTimeUtc().addDays(-1);
        QStringList paths;
        for (int i = 0; i < recordings; ++i) {
            // Names sort in the opposite order of age, so only the dates can give the right answer.
            paths.append(store.audioURL(QStringLiteral("rec-%1").arg(999 - i)));
            QFile file(paths.last());
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(QByteArray(1000, 'r'));
            QVERIFY(file.flush()); // a later flush would move the date to now
            QVERIFY(file.setFileTime(base.addSecs(i), QFileDevice::FileModificationTime));
            file.close();
            store.didWriteAudio(paths.last());
        }
        QCOMPARE(store.retainedAudioCount(), kept);
        for (int i = 0; i < recordings; ++i)
            QCOMPARE(QFile::exists(paths[i]), i >= recordings - kept);
        QCOMPARE(mode(store.audioDirectory()), 0x7000);
        QCOMPARE(mode(paths.last()), 0x6000);
    }

    // A delivered utterance's recording is written before its entry, which names it only if it is there.
    void deliveredUtteranceIsKeptInOrder_data() {
        QTest::addColumn<QString>("recording");
        QTest::addColumn<bool>("appendEntry");
        QTest::addColumn<bool>("named");
        QTest::newRow("entry without recording") << "none" << true << false;
        QTest::newRow("recording written") << "written" << true << true;
        QTest::newRow("recording failed") << "failed" << true << false;
        QTest::newRow("recording without entry") << "written" << false << false;
    }
    void deliveredUtteranceIsKeptInOrder() {
        QFETCH(QString, recording);
        QFETCH(bool, appendEntry);
        QFETCH(bool, named);
        Store store(root());
        Utterance delivered = makeUtterance("rec-1", "kept");
        // A name the caller guessed is never trusted.
        delivered.audioFile = QStringLiteral("elsewhere.wav");
        std::optional<qsizetype> entriesSeenByWriter;
        Store::RecordingWriter writer;
        if (recording != "none")
            writer = [&](const QString &path) {
                entriesSeenByWriter = historyLines(root()).size();
                QFile file(path);
                return recording == "written" && file.open(QIODevice::WriteOnly) && file.write("RIFF") == 4;
            };
        store.keepDelivered(delivered, writer, appendEntry);
        const QList<Utterance> entries = store.recentEntries(5);

        QCOMPARE(entries.size(), appendEntry ? 1 : 0);
        if (appendEntry)
            QCOMPARE(entries.first().audioFile,
                     named ? std::optional<QString>(QStringLiteral("rec-1.wav")) : std::optional<QString>());
        QCOMPARE(entriesSeenByWriter, writer ? std::optional<qsizetype>(0) : std::nullopt);
        QCOMPARE(store.retainedAudioCount(), recording == "written" ? 1 : 0);
        if (recording == "written")
            QCOMPARE(mode(store.audioURL("rec-1")), 0x6000);
    }

    // Kept later, as after a paste: nothing is on disk meanwhile, and a deletion asked for meanwhile
    // still finds and removes it.
    void keptLaterStaysInOrder() {
        Store store(root());
        store.keepDelivered(makeUtterance("late", "kept later"), {}, true, 300);
        QTest::qWait(100);
        QVERIFY(!QFile::exists(history()));
        QObject context;
        std::optional<std::optional<QString>> outcome;
        store.deleteRetainedData(&context, [&](std::optional<QString> error) { outcome = error; });
        QTRY_VERIFY(outcome.has_value());
        QCOMPARE(*outcome, std::nullopt);
        QVERIFY(store.recentTranscripts(5).isEmpty());
    }

    void audioNamesStayInTheFolder() {
        Store store(root());
        QCOMPARE(store.audioURL("../../evil"), store.audioDirectory() + "/______evil.wav");
    }

    void vocabularyFile() {
        Store store(root());
        store.ensureVocabularyFile();
        QCOMPARE(mode(store.vocabularyPath()), 0x6000);
        QVERIFY(store.vocabulary().isEmpty());
        QFile file(store.vocabularyPath());
        QVERIFY(file.open(QIODevice::Append));
        file.write("Kubernetes\n\n  kubectl rollout  \n# not a term\nKubernetes\r\nQuorvane");
        file.close();
        store.ensureVocabularyFile(); // never overwrites the user's file
        QCOMPARE(store.vocabulary(), (QStringList{"Kubernetes", "kubectl rollout", "Quorvane"}));
    }

    void deleteRetainedData() {
        Store store(root());
        store.append(makeUtterance("1", "secret"));
        const QString recording = store.audioURL("1");
        writeFileBytes(recording, "RIFF");
        store.didWriteAudio(recording);
        store.ensureVocabularyFile();
        writeFileBytes(root() + "/config.json", "{}");
        writeFileBytes(history() + ".tmp", "{\"shippedText\":\"secret\"}\n");

        QObject context;
        std::optional<std::optional<QString>> outcome;
        store.deleteRetainedData(&context, [&](std::optional<QString> error) { outcome = error; });
        QTRY_VERIFY(outcome.has_value());
        QCOMPARE(*outcome, std::nullopt);
        for (const QString &gone : {history(), recording, history() + ".tmp"})
            QVERIFY2(!QFile::exists(gone), qPrintable(gone));
        QVERIFY(QFile::exists(store.vocabularyPath()));
        QVERIFY(QFile::exists(root() + "/config.json"));
        store.append(makeUtterance("2", "after"));
        QCOMPARE(store.recentTranscripts(5), QStringList{"after"});

        // A context destroyed before the work is done is not called.
        bool called = false;
        auto doomed = std::make_unique<QObject>();
        store.deleteRetainedData(doomed.get(), [&](std::optional<QString>) { called = true; });
        doomed.reset();
        store.drain();
        QCoreApplication::processEvents();
        QVERIFY(!called);
    }

    void killDuringWrite() {
        // Kills a writer at random moments and checks after each kill that the history, once opened
        // again, is whole entries, in order, within the ceilings, holding every entry the writer saw
        // finished. What the kill may leave is one unfinished last line.
        QStringList previousIds;
        for (int run = 0; run < 25; ++run) {
            const QString runId = QStringLiteral("%1").arg(run, 3, 10, QLatin1Char('0'));
            QProcess writer;
            QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
            environment.insert(writerVariable, root());
            environment.insert("QUORVANE_TEST_HISTORY_RUN", runId);
            writer.setProcessEnvironment(environment);
            writer.start(QCoreApplication::applicationFilePath(), {});
            QVERIFY2(writer.waitForReadyRead(10000), "the writer never finished an append");
            QThread::usleep(QRandomGenerator::global()->bounded(1000, 30000));
            writer.kill();
            QVERIFY(writer.waitForFinished());
            const int lastSeen = writer.readAllStandardOutput().trimmed().split('\n').last().toInt();
            (void)Store(root(), RetentionLimits{40, 48 * 1024, 100, 1 << 20}).totalCount();

            QStringList ids;
            for (const QByteArray &entry : historyLines(root())) {
                const std::optional<Utterance> u = Utterance::fromJson(QJsonDocument::fromJson(entry).object());
                QVERIFY2(u, qPrintable(QStringLiteral("after kill %1: %2").arg(run).arg(entry.left(80))));
                ids.append(u->id);
            }
            QVERIFY(ids.size() <= 40);
            QVERIFY(QFileInfo(history()).size() <= 48 * 1024);
            QVERIFY(ids.contains(QStringLiteral("%1-%2").arg(runId).arg(lastSeen, 6, 10, QLatin1Char('0'))));
            QVERIFY(std::is_sorted(ids.cbegin(), ids.cend()));
            // Only the oldest entries leave: what survives of the earlier history is its newest part.
            for (const QString &id : previousIds)
                QVERIFY2(id <= ids.first() || ids.contains(id), qPrintable(id));
            previousIds = ids;
        }
    }
};

int main(int argc, char **argv) {
    if (qEnvironmentVariableIsSet(writerVariable))
        return runWriter(argc, argv);
    QCoreApplication app(argc, argv);
    TestStore test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_store.moc"
