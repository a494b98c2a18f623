#include "core/Log.h"
#include "history/Store.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>
#include <cstdio>

static const char *const writerVariable = "QUORVANE_TEST_HISTORY_WRITER";

static Utterance makeUtterance(const QString &id, const QString &shipped) {
    Utterance u;
    u.id = id;
    u.timestamp = QDateTime::fromMSecsSinceEpoch(1714560000123 + id.size(), Qt::UTC);
    u.appBundleID = QStringLiteral("org.example.Editor");
    u.rawTranscript = QStringLiteral("raw ") + shipped;
    u.formattedText = shipped;
    u.shippedText = shipped;
    u.guardVerdict = QStringLiteral("accepted");
    u.engine = QStringLiteral("whisper");
    u.formatter = QStringLiteral("ollama");
    u.asrMS = 310;
    u.formatMS = 720;
    u.responseMS = 1100;
    return u;
}

static QList<QByteArray> historyLines(const QString &root) {
    QFile file(root + QStringLiteral("/history.jsonl"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray contents = file.readAll();
    if (contents.isEmpty())
        return {};
    QList<QByteArray> lines = contents.split('\n');
    // Whole lines end with a line feed, so the last piece is always empty; anything else is a fragment.
    if (!lines.last().isEmpty())
        return {QByteArray("<fragment>")};
    lines.removeLast();
    return lines;
}

static std::optional<Utterance> parse(const QByteArray &line) {
    const QJsonDocument document = QJsonDocument::fromJson(line);
    return document.isObject() ? Utterance::fromJson(document.object()) : std::nullopt;
}

static QStringList ids(const QString &root) {
    QStringList result;
    for (const QByteArray &line : historyLines(root)) {
        const std::optional<Utterance> u = parse(line);
        result.append(u ? u->id : QStringLiteral("<invalid>"));
    }
    return result;
}

static int mode(const QString &path) {
    return static_cast<int>(QFileInfo(path).permissions() & 0x7077);
}

// The child of the kill test: appends entries of assorted sizes, one after another, reporting each
// once it is written, until it is killed.
static int runWriter(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    const QString root = qEnvironmentVariable(writerVariable);
    const QString run = qEnvironmentVariable("QUORVANE_TEST_HISTORY_RUN");
    Store store(root, RetentionLimits{40, 48 * 1024, 100, 1 << 20});
    for (int i = 0;; ++i) {
        const int length = static_cast<int>((static_cast<unsigned>(i) * 7919u + 13u) % 6000u);
        store.append(makeUtterance(QStringLiteral("%1-%2").arg(run).arg(i, 6, 10, QLatin1Char('0')),
                                   QString(length, QLatin1Char('w'))));
        store.drain();
        std::printf("%d\n", i);
        std::fflush(stdout);
    }
}

class TestStore : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;
    std::unique_ptr<QTemporaryDir> m_dir;
    QString root() const { return m_dir->path(); }

private slots:
    void initTestCase() { qputenv("QUORVANE_HOME", m_home.path().toUtf8()); }
    void init() { m_dir = std::make_unique<QTemporaryDir>(); }

    void utteranceJson_data() {
        QTest::addColumn<bool>("withOptionals");
        QTest::newRow("all fields") << true;
        QTest::newRow("optionals absent") << false;
    }
    void utteranceJson() {
        QFETCH(bool, withOptionals);
        Utterance u =
            makeUtterance(QStringLiteral("6F9619FF-8B86-D011-B42D-00C04FC964FF"), QStringLiteral("Hi “there”"));
        u.appName = withOptionals ? std::optional<QString>(QStringLiteral("Editor")) : std::nullopt;
        u.audioFile = withOptionals ? std::optional<QString>(QStringLiteral("x.wav")) : std::nullopt;
        u.appBundleID = withOptionals ? u.appBundleID : std::nullopt;
        const QJsonObject object = u.toJson();
        QCOMPARE(object.contains("appName"), withOptionals);
        QCOMPARE(object.value("timestamp").toString(), QStringLiteral("2024-05-01T10:40:00.159Z"));
        QCOMPARE(Utterance::fromJson(object), std::optional<Utterance>(u));
        QJsonObject broken = object;
        broken.insert("asrMS", "fast");
        QVERIFY(!Utterance::fromJson(broken));
    }

    void recentTranscripts_data() {
        QTest::addColumn<int>("stored");
        QTest::addColumn<int>("limit");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("newest five, oldest first") << 7 << 5 << QStringList{"t3", "t4", "t5", "t6", "t7"};
        QTest::newRow("fewer than the limit") << 2 << 5 << QStringList{"t1", "t2"};
        QTest::newRow("limit 0") << 3 << 0 << QStringList{};
        QTest::newRow("no history") << 0 << 5 << QStringList{};
    }
    void recentTranscripts() {
        QFETCH(int, stored);
        QFETCH(int, limit);
        QFETCH(QStringList, expected);
        Store store(root());
        for (int i = 1; i <= stored; ++i)
            store.append(makeUtterance(QString::number(i), QStringLiteral("t%1").arg(i)));
        // No drain: the read sees what was appended before it.
        QCOMPARE(store.recentTranscripts(limit), expected);
        QCOMPARE(store.totalCount(), stored);
    }

    void recentSkipsUnreadableLinesAndReadsLongOnes() {
        const QString longText(200000, QLatin1Char('x'));
        {
            Store store(root());
            store.append(makeUtterance("1", "first"));
            store.append(makeUtterance("2", longText));
        }
        QFile file(root() + "/history.jsonl");
        QVERIFY(file.open(QIODevice::Append));
        file.write("{not json}\n");
        file.close();
        Store store(root());
        store.append(makeUtterance("3", "last"));
        QCOMPARE(store.recentTranscripts(3), (QStringList{"first", longText, "last"}));
        QCOMPARE(store.totalCount(), 4);
    }

    void pruning_data() {
        QTest::addColumn<qint64>("maxEntries");
        QTest::addColumn<qint64>("maxBytes");
        QTest::addColumn<int>("appends");
        QTest::addColumn<int>("textLength");
        QTest::newRow("2001st entry") << qint64(2000) << qint64(8388608) << 2001 << 20;
        QTest::newRow("entry ceiling binds") << qint64(5) << qint64(1 << 20) << 12 << 100;
        QTest::newRow("byte ceiling binds") << qint64(100) << qint64(5000) << 40 << 700;
        QTest::newRow("lines across page boundaries") << qint64(30) << qint64(1 << 20) << 60 << 3000;
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
            written.append(QJsonDocument(u.toJson()).toJson(QJsonDocument::Compact) + '\n');
            store.append(u);
        }
        store.drain();
        // Expected: the longest run of newest lines that fits both ceilings.
        qsizetype keep = 0;
        qint64 bytes = 0;
        while (keep < written.size() && keep < maxEntries &&
               bytes + written[written.size() - 1 - keep].size() <= maxBytes)
            bytes += written[written.size() - 1 - keep++].size();
        const QList<QByteArray> lines = historyLines(root());
        QCOMPARE(lines.size(), keep);
        QCOMPARE(lines.first() + '\n', written[written.size() - keep]);
        QCOMPARE(lines.last() + '\n', written.last());
        QCOMPARE(QFileInfo(root() + "/history.jsonl").size(), bytes);
        QCOMPARE(mode(root() + "/history.jsonl"), 0x6000);
        QCOMPARE(store.totalCount(), keep);
    }

    void tooLargeEntryIsRefused() {
        Store store(root());
        store.append(makeUtterance("1", "kept"));
        store.drain();
        const QByteArray before = historyLines(root()).join('\n');
        QStringList warnings;
        Log::setObserver([&](const QString &level, const QString &message) { warnings.append(level + " " + message); });
        store.append(makeUtterance("2", QString(8388608, QLatin1Char('x'))));
        Log::setObserver({});
        store.drain();
        QCOMPARE(warnings, QStringList{"WARN A history item exceeded the local retention ceiling and was not stored."});
        QCOMPARE(historyLines(root()).join('\n'), before);
        QCOMPARE(store.recentTranscripts(5), QStringList{"kept"});
    }

    void incompleteLastLineIsDropped() {
        QFile file(root() + "/history.jsonl");
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QJsonDocument(makeUtterance("1", "whole").toJson()).toJson(QJsonDocument::Compact) +
                   "\n{\"id\":\"2");
        file.close();
        Store store(root());
        QCOMPARE(store.totalCount(), 1);
        store.append(makeUtterance("3", "next"));
        store.drain();
        QCOMPARE(ids(root()), (QStringList{"1", "3"}));
    }

    void audioPruning_data() {
        QTest::addColumn<int>("recordings");
        QTest::addColumn<qint64>("maxBytes");
        QTest::addColumn<int>("kept");
        QTest::newRow("101st recording") << 101 << qint64(268435456) << 100;
        QTest::newRow("byte ceiling") << 10 << qint64(3500) << 3;
        QTest::newRow("within both") << 4 << qint64(268435456) << 4;
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
            const QString path = store.audioURL(QStringLiteral("rec-%1").arg(999 - i));
            QFile file(path);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(QByteArray(1000, 'r'));
            QVERIFY(file.flush()); // a later flush would move the date to now
            QVERIFY(file.setFileTime(base.addSecs(i), QFileDevice::FileModificationTime));
            file.close();
            store.didWriteAudio(path);
            paths.append(path);
        }
        store.drain();
        QCOMPARE(store.retainedAudioCount(), kept);
        for (int i = 0; i < recordings; ++i)
            QCOMPARE(QFile::exists(paths[i]), i >= recordings - kept);
        QCOMPARE(mode(store.audioDirectory()), 0x7000);
        QCOMPARE(mode(paths.last()), 0x6000);
    }

    void audioURLStaysInTheFolder_data() {
        QTest::addColumn<QString>("id");
        QTest::addColumn<QString>("fileName");
        QTest::newRow("uuid") << "6F9619FF-8B86-D011-B42D-00C04FC964FF"
                              << "6F9619FF-8B86-D011-B42D-00C04FC964FF.wav";
        QTest::newRow("path separators") << "../../evil"
                                         << "______evil.wav";
    }
    void audioURLStaysInTheFolder() {
        QFETCH(QString, id);
        QFETCH(QString, fileName);
        Store store(root());
        QCOMPARE(store.audioURL(id), store.audioDirectory() + "/" + fileName);
    }

    void vocabularyFile() {
        Store store(root());
        QVERIFY(store.vocabulary().isEmpty());
        store.ensureVocabularyFile();
        QFile file(store.vocabularyPath());
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(file.readLine()),
                 QStringLiteral("# Quorvane custom vocabulary — one term per line.\n"));
        file.close();
        QCOMPARE(mode(store.vocabularyPath()), 0x6000);
        QVERIFY(store.vocabulary().isEmpty());
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
        QFile audio(recording);
        QVERIFY(audio.open(QIODevice::WriteOnly));
        audio.write("RIFF");
        audio.close();
        store.didWriteAudio(recording);
        store.ensureVocabularyFile();
        QFile config(root() + "/config.json");
        QVERIFY(config.open(QIODevice::WriteOnly));
        config.write("{}");
        config.close();

        QFile stale(root() + "/history.jsonl.tmp");
        QVERIFY(stale.open(QIODevice::WriteOnly));
        stale.write("{\"shippedText\":\"secret\"}\n");
        stale.close();

        QObject context;
        std::optional<std::optional<QString>> outcome;
        store.deleteRetainedData(&context, [&](std::optional<QString> error) { outcome = error; });
        QTRY_VERIFY(outcome.has_value());
        QCOMPARE(*outcome, std::nullopt);
        QVERIFY(!QFile::exists(root() + "/history.jsonl"));
        QVERIFY(!QFile::exists(recording));
        QVERIFY(!QFile::exists(stale.fileName()));
        QVERIFY(QFile::exists(store.vocabularyPath()));
        QVERIFY(QFile::exists(root() + "/config.json"));
        QCOMPARE(store.totalCount(), 0);
        QCOMPARE(store.retainedAudioCount(), 0);
        store.append(makeUtterance("2", "after"));
        QCOMPARE(store.recentTranscripts(5), QStringList{"after"});

        // A context destroyed before the work is done is not called.
        bool called = false;
        auto gone = std::make_unique<QObject>();
        store.deleteRetainedData(gone.get(), [&](std::optional<QString>) { called = true; });
        gone.reset();
        store.drain();
        QCoreApplication::processEvents();
        QVERIFY(!called);
    }

    void killDuringWrite() {
        // Kills a writer at random moments, again and again, and checks after each kill that the
        // history is whole lines of whole entries, in order, and holds every entry the writer saw
        // finished.
        constexpr int kills = 25;
        QStringList previousIds;
        for (int run = 0; run < kills; ++run) {
            QProcess writer;
            QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
            environment.insert(writerVariable, root());
            environment.insert("QUORVANE_TEST_HISTORY_RUN", QStringLiteral("%1").arg(run, 3, 10, QLatin1Char('0')));
            writer.setProcessEnvironment(environment);
            writer.start(QCoreApplication::applicationFilePath(), {});
            QVERIFY(writer.waitForStarted());
            QVERIFY2(writer.waitForReadyRead(10000), "the writer never finished an append");
            QThread::usleep(QRandomGenerator::global()->bounded(1000, 30000));
            writer.kill();
            QVERIFY(writer.waitForFinished());
            const QList<QByteArray> acknowledged = writer.readAllStandardOutput().trimmed().split('\n');
            const QString lastSeen = QStringLiteral("%1-%2")
                                         .arg(run, 3, 10, QLatin1Char('0'))
                                         .arg(acknowledged.last().toInt(), 6, 10, QLatin1Char('0'));

            const QList<QByteArray> lines = historyLines(root());
            QVERIFY2(lines.isEmpty() || lines.first() != "<fragment>",
                     qPrintable(QStringLiteral("after kill %1").arg(run)));
            QVERIFY(lines.size() <= 40);
            QVERIFY(QFileInfo(root() + "/history.jsonl").size() <= 48 * 1024);
            const QStringList current = ids(root());
            QVERIFY2(!current.contains("<invalid>"), qPrintable(QStringLiteral("after kill %1").arg(run)));
            QVERIFY2(current.contains(lastSeen), qPrintable(lastSeen));
            QVERIFY(std::is_sorted(current.cbegin(), current.cend()));
            // Only the oldest entries leave: what survives of the earlier history is its newest part.
            for (const QString &id : previousIds) {
                if (id > current.first())
                    QVERIFY2(current.contains(id), qPrintable(id));
            }
            previousIds = current;
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
