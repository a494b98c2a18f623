#include "QuorvaneProcess.h"
#include "core/Config.h"
#include "core/Paths.h"
#include "platform/CapturedAudio.h"
#include "speech/Learner.h"
#include "speech/WavDecoder.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFileInfo>
#include <QJsonDocument>
#include <QProcess>
#include <QRandomGenerator>
#include <QTest>
#include <QThread>
#include <cstdio>

// The history has its own kill test; this one covers every other file the app rewrites in place.

namespace {

const char *const writerVariable = "QUORVANE_TEST_CRASH_WRITER";

// Recordings of different lengths, so a recording cut short cannot pass for a whole one.
std::vector<float> recording(int version) {
    std::vector<float> samples(std::size_t(16000 + (version * 7919) % 160000));
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = float((i % 40) / 40.0 - 0.5);
    return samples;
}

QString audioPath() {
    return Paths::root() + QStringLiteral("/audio/latest.wav");
}

int utterancesIn(const QString &learned) {
    const auto model = Learner::Model::fromJson(QJsonDocument::fromJson(readFileBytes(learned)).object());
    return model ? model->utterances : -1;
}

// The child: rewrites the settings, the learned vocabulary and a recording as the app does, and
// reports each round once all three are written, until it is killed.
int runWriter(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    Paths::makeProtectedDirectory(Paths::root() + QStringLiteral("/audio"));
    ManualScheduler scheduler;
    Learner learner(Learner::defaultPath(), scheduler);
    for (int version = 0;; ++version) {
        Config config;
        config.formatter = FormatterKind::none;
        config.ollamaModel = QStringLiteral("model-%1").arg(version);
        config.save(Paths::file(QStringLiteral("config.json")));
        learner.ingest(QStringLiteral("Quorvane ships the Zephyr build on Tuesday."));
        scheduler.advance(Learner::saveDelayMs);
        learner.flush();
        CapturedAudio::save(audioPath(), recording(version), 16000);
        std::printf("%d\n", version);
        std::fflush(stdout);
    }
}

} // namespace

class TestCrashSafety : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;

private slots:
    void initTestCase() { qputenv("QUORVANE_HOME", m_home.path().toUtf8()); }

    // After each kill every file is one whole version, the last finished or the one after it, and
    // owner-only; then the app starts on what was left as if nothing had happened.
    void killDuringWrites() {
        const QString config = Paths::file(QStringLiteral("config.json"));
        const QString learned = Paths::file(QStringLiteral("learned.json"));
        for (int round = 0; round < 30; ++round) {
            const int utterancesBefore = std::max(utterancesIn(learned), 0);
            QProcess writer;
            QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
            environment.insert(writerVariable, "1");
            writer.setProcessEnvironment(environment);
            writer.start(QCoreApplication::applicationFilePath(), {});
            QVERIFY2(writer.waitForReadyRead(10000), "the writer never finished a round");
            QThread::usleep(QRandomGenerator::global()->bounded(500, 20000));
            writer.kill();
            QVERIFY(writer.waitForFinished());
            const int last = writer.readAllStandardOutput().trimmed().split('\n').last().toInt();
            const QString where = QStringLiteral("round %1, after version %2").arg(round).arg(last);

            const std::optional<Config> settings = Config::decode(readFileBytes(config));
            QVERIFY2(settings, qPrintable(where));
            const int settingsVersion = settings->ollamaModel.mid(6).toInt();
            QVERIFY2(settingsVersion == last || settingsVersion == last + 1, qPrintable(where));

            const int utterances = utterancesIn(learned) - utterancesBefore;
            QVERIFY2(utterances == last + 1 || utterances == last + 2, qPrintable(where));

            const std::size_t samples = WavDecoder::decode(readFileBytes(audioPath())).samples.size();
            QVERIFY2(samples == recording(last).size() || samples == recording(last + 1).size(), qPrintable(where));

            for (const QString &path : {config, learned, audioPath()})
                QCOMPARE(QFileInfo(path).permissions() & 0x7077, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
        }

        // Temporaries of the killed saves, made old enough that no running save can own them, plus
        // one of a save another process may still be writing.
        const QStringList abandoned = {QStringLiteral("config.json.a1B2c3"), QStringLiteral("audio/latest.wav.Zz9y8X")};
        for (const QString &name : abandoned) {
            QFile file(Paths::file(name));
            QVERIFY(file.open(QIODevice::WriteOnly));
            QVERIFY(file.setFileTime(QDateTime::currentDateTime().addSecs(-3600), QFileDevice::FileModificationTime));
        }
        const QString young = Paths::file(QStringLiteral("learned.json.Q7r8S9"));
        QVERIFY(QFile(young).open(QIODevice::WriteOnly));

        const QuorvaneRun run = runQuorvane(m_home.path(), {QStringLiteral("transcribe"), audioPath()});
        QVERIFY2(run.exitCode == 0, qPrintable(run.out + run.err));
        QVERIFY(!QFileInfo::exists(Paths::file(QStringLiteral("config.invalid.json"))));
        for (const QString &name : abandoned)
            QVERIFY2(!QFileInfo::exists(Paths::file(name)), qPrintable(name));
        QVERIFY(QFileInfo::exists(young));
    }
};

int main(int argc, char **argv) {
    if (qEnvironmentVariableIsSet(writerVariable))
        return runWriter(argc, argv);
    QCoreApplication app(argc, argv);
    TestCrashSafety test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_crash_safety.moc"
