#include "PipelineHarness.h"

#include "QuorvaneProcess.h"
#include "TempGitRepository.h"
#include "core/Paths.h"
#include "platform/PlatformKitFactory.h"

#include <QTcpServer>

using Kind = PipelineState::Kind;
using Notice = RecordingNotifier::Notice;

Q_DECLARE_METATYPE(AudioCaptureStatus)

// The state machine around a recording: key-down and key-up with their races, taps, the capture's
// verdicts, the recording limit, preparation and settings changes.
class TestPipeline : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;

private slots:
    void initTestCase() {
        QVERIFY(m_home.isValid());
        qputenv("QUORVANE_HOME", m_home.path().toUtf8());
    }
    void cleanupTestCase() { Log::flush(); }

    void formatterBudget_data() {
        QTest::addColumn<qint64>("timeoutMS");
        QTest::addColumn<qint64>("words");
        QTest::addColumn<qint64>("maxBase");
        QTest::addColumn<qint64>("budget");
        QTest::newRow("30 words earn 500 ms") << qint64(2500) << qint64(30) << qint64(15000) << qint64(3000);
        QTest::newRow("up to 20 words earn nothing") << qint64(2500) << qint64(20) << qint64(15000) << qint64(2500);
        QTest::newRow("capped by the ceiling") << qint64(2500) << qint64(400) << qint64(15000) << qint64(15000);
        QTest::newRow("prompt base plus words") << qint64(2500) << qint64(30) << qint64(1800) << qint64(2300);
    }
    void formatterBudget() {
        QFETCH(qint64, timeoutMS);
        QFETCH(qint64, words);
        QFETCH(qint64, maxBase);
        Config config;
        config.formatterTimeoutMS = timeoutMS;
        QTEST(Pipeline::formatterBudget(config, words, maxBase), "budget");
    }

    void tapIsDiscarded() {
        PipelineHarness h;
        h.build();
        QVERIFY(h.hold(h.dictationKey, 200));
        QVERIFY(h.logged(QStringLiteral("INFO Ignored 200 ms key tap.")));
        QCOMPARE(h.states, (QList<PipelineState>{PipelineState::recording(), PipelineState::idle()}));
        QTest::qWait(20);
        QVERIFY(h.whisper.inferenceRequests().isEmpty());
        QVERIFY(h.injector->injected.isEmpty());
        QVERIFY(!h.capture->isCapturing());
    }

    // A key-up during start-up waits for the start: applied once it records, dropped with a start
    // that was cancelled or failed, and never left over for the next recording.
    void releaseDuringStartup_data() {
        QTest::addColumn<bool>("cancelled");
        QTest::addColumn<bool>("startFails");
        QTest::newRow("applied once recording") << false << false;
        QTest::newRow("dropped with a cancelled start") << true << false;
        QTest::newRow("dropped with a failed start") << false << true;
    }
    void releaseDuringStartup() {
        QFETCH(bool, cancelled);
        QFETCH(bool, startFails);
        PipelineHarness h;
        h.build();
        h.capture->holdStarts();
        if (startFails)
            h.capture->failNextStart(QuorvaneError(QuorvaneError::Case::noAudioInput));
        h.dictationKey.press();
        QVERIFY(h.pipeline->isStarting());
        h.scheduler.advance(700);
        h.dictationKey.release();
        if (cancelled)
            h.pipeline->cancel();
        h.capture->letStartsGo();
        QVERIFY(h.settle());
        const QStringList log = h.log();
        const qsizetype started = log.indexOf(QStringLiteral("INFO Recording started."));
        const QString applying = QStringLiteral("INFO Applying release that arrived during startup.");
        if (!cancelled && !startFails) {
            QVERIFY(started >= 0);
            QCOMPARE(log.value(started + 1), applying);
            // The hold counts from key-down, so this is a dictation, not a tap.
            QCOMPARE(h.injector->injected, QStringList{QStringLiteral("Hello world.")});
            return;
        }
        QCOMPARE(started, qsizetype(-1));
        QVERIFY(!log.contains(applying));
        QVERIFY(!h.capture->isCapturing());
        QVERIFY(h.press(h.dictationKey));
        h.scheduler.advance(1000);
        QCOMPARE(h.kind(), Kind::recording);
    }

    void otherKeysDoNotDisturbARun() {
        PipelineHarness h;
        h.ready();
        h.reply(QStringLiteral("Hello world."), 150);
        QVERIFY(h.press(h.dictationKey));
        // Another mode's key-up does not end the recording.
        h.promptKey.release();
        h.editKey.release();
        QCOMPARE(h.kind(), Kind::recording);
        QVERIFY(h.capture->isCapturing());
        h.scheduler.advance(1000);
        h.dictationKey.release();
        QVERIFY(h.modelAsked());
        QCOMPARE(h.kind(), Kind::thinking);
        // The paste's reads are taken when recording starts and brought up to date once the engine
        // is seen to take a while after key-up.
        QCOMPARE(h.injector->prepares, 1);
        h.scheduler.advance(Pipeline::keyUpReadsDelayMs);
        QCOMPARE(h.injector->prepares, 2);
        QVERIFY(h.injector->injected.isEmpty());
        // A second key-down while thinking starts nothing.
        h.dictationKey.press();
        h.editKey.press();
        QVERIFY(h.settle());
        QCOMPARE(h.capture->startCount(), 1);
        QCOMPARE(h.kind(), Kind::idle);
        QCOMPARE(h.injector->injected.size(), 1);
    }

    void unusableCaptureEndsInError_data() {
        QTest::addColumn<AudioCaptureStatus>("status"); // unknown: the microphone cannot start
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("logLine");
        QTest::newRow("no buffers") << AudioCaptureStatus::noBuffers << "Microphone recovered"
                                    << "The microphone stopped sending audio. Quorvane reset it; please try that "
                                       "dictation again."
                                    << "ERROR Recording produced no usable microphone audio. ";
        QTest::newRow("digital silence") << AudioCaptureStatus::digitalSilence << "Microphone recovered"
                                         << "macOS sent a silent microphone stream. Quorvane switched to its reliable "
                                            "fallback; please try that dictation again."
                                         << "ERROR Recording produced no usable microphone audio. ";
        QTest::newRow("cannot start") << AudioCaptureStatus::unknown << "Quorvane"
                                      << "No audio input device is available."
                                      << "ERROR Could not start recording: ";
    }
    void unusableCaptureEndsInError() {
        QFETCH(AudioCaptureStatus, status);
        QFETCH(QString, title);
        QFETCH(QString, message);
        QFETCH(QString, logLine);
        PipelineHarness h;
        h.build();
        const bool cannotStart = status == AudioCaptureStatus::unknown;
        if (cannotStart)
            h.capture->failNextStart(QuorvaneError(QuorvaneError::Case::noAudioInput));
        else
            h.capture->setNextStatus(status);
        QCOMPARE(h.hold(h.dictationKey), !cannotStart);
        QCOMPARE(h.pipeline->state(), PipelineState::error(message));
        QCOMPARE(h.notifier->notices, (QList<Notice>{{title, message}}));
        QVERIFY2(h.logged(logLine + message), h.logText());
        QTest::qWait(20);
        QVERIFY(h.whisper.inferenceRequests().isEmpty());
        // The error does not block the next dictation, nor does the key-up that follows it.
        h.dictationKey.release();
        h.capture->setNextStatus(AudioCaptureStatus::usable);
        QVERIFY(h.holdAndSettle(h.dictationKey));
        QCOMPARE(h.kind(), Kind::idle);
        QCOMPARE(h.injector->injected.size(), 1);
    }

    void recordingLimitFinishesOnlyTheRecordingStillHeld() {
        PipelineHarness h;
        h.config.maximumRecordingSeconds = 60;
        h.build();
        QVERIFY(h.holdAndSettle(h.dictationKey, 1000));
        QVERIFY(h.press(h.dictationKey));
        h.capture->deliver(std::vector<float>(8000, 0.2f));
        // The first recording's limit would come now; it ended with its key-up.
        h.scheduler.advance(59000);
        QCOMPARE(h.kind(), Kind::recording);
        QVERIFY(!h.loggedStartingWith(QStringLiteral("WARN Maximum")));
        h.scheduler.advance(1000);
        QCOMPARE(h.kind(), Kind::thinking);
        // The user lets go while the limited recording is being processed: what they said is kept.
        h.dictationKey.release();
        QVERIFY(h.settle());
        QVERIFY(
            h.logged(QStringLiteral("WARN Maximum 60s recording reached without a key-up; finishing automatically.")));
        QCOMPARE(h.notifier->notices,
                 (QList<Notice>{{QStringLiteral("Recording limit reached"),
                                 QStringLiteral("Quorvane finished this dictation after 1 minute. Choose a longer "
                                                "limit from the menu or continue in a new dictation.")}}));
        QCOMPARE(h.kind(), Kind::idle);
        QCOMPARE(h.injector->injected.size(), 2);
    }

    void cancelAbandonsTheRun() {
        PipelineHarness h;
        h.ready();
        // While starting, the microphone is stopped once it runs.
        h.dictationKey.press();
        h.pipeline->cancel();
        QVERIFY(QTest::qWaitFor([&] { return !h.pipeline->isStarting(); }, 2000));
        QCOMPARE(h.kind(), Kind::idle);
        QVERIFY(!h.capture->isCapturing());
        // While thinking, the model's late answer is dropped.
        h.reply(QStringLiteral("Hello world."), 60);
        QVERIFY(h.hold(h.dictationKey));
        QVERIFY(h.modelAsked());
        h.pipeline->cancel();
        QCOMPARE(h.kind(), Kind::idle);
        QTest::qWait(150);
        QCOMPARE(h.kind(), Kind::idle);
        QVERIFY(h.injector->injected.isEmpty());
        QVERIFY(h.utterances.isEmpty());
    }

    void preparationTimesOutAfterThirtySeconds() {
        QTcpServer silent; // accepts connections and never answers
        QVERIFY(silent.listen(QHostAddress::LocalHost));
        PipelineHarness h;
        h.config.whisperEndpoint = QStringLiteral("http://127.0.0.1:%1").arg(silent.serverPort());
        h.build();
        detach(h.pipeline->prepare());
        h.scheduler.advance(29999);
        QTest::qWait(10);
        QCOMPARE(h.kind(), Kind::idle);
        h.scheduler.advance(1);
        QVERIFY(QTest::qWaitFor([&] { return h.kind() == Kind::error; }, 2000));
        QCOMPARE(h.pipeline->state(), PipelineState::error(QStringLiteral("Speech model preparation timed out.")));
    }

    void preparationReportsAnUnavailableEngineAndFormatter() {
        PipelineHarness h;
        h.config.whisperEndpoint = QStringLiteral("http://127.0.0.1:%1").arg(FakeWhisperServer::closedPort());
        h.ollama.setModels({});
        h.ready();
        QCOMPARE(h.kind(), Kind::error);
        QVERIFY(h.pipeline->state().message.startsWith(QStringLiteral("The speech model is unavailable: ")));
        QVERIFY(h.logged(QStringLiteral("WARN Formatter '") + h.pipeline->formatter().name() +
                         QStringLiteral("' is unavailable; transcripts will ship unformatted.")));
    }

    void reloadSavesSettingsAndRebuildsTheFormatter() {
        PipelineHarness h;
        h.build();
        Config next = h.config;
        next.formatter = FormatterKind::none;
        next.voiceProcessingEnabled = false;
        syncWait(h.pipeline->reload(next));
        QCOMPARE(h.pipeline->formatter().name(), QStringLiteral("None (raw transcript)"));
        QCOMPARE(h.capture->voiceProcessing(), std::optional<bool>(false));
        QCOMPARE(Config::decode(readFileBytes(Paths::file(QStringLiteral("config.json"))))->formatter,
                 FormatterKind::none);
    }

    void reloadDuringARecordingLeavesItWhereItsAudioWent() {
        PipelineHarness h;
        h.config.formatter = FormatterKind::none;
        h.build();
        FakeWhisperServer next;
        h.transcript(QStringLiteral("hello world"));
        QVERIFY(h.press(h.dictationKey));
        Config changed = h.config;
        changed.whisperEndpoint = next.url().toString();
        changed.captureCommand =
            QStringList{QStringLiteral("/usr/bin/arecord"), QStringLiteral("-f"), QStringLiteral("S16_LE")};
        changed.voiceProcessingEnabled = false;
        syncWait(h.pipeline->reload(changed));
        QCOMPARE(h.kind(), Kind::recording);
        h.capture->deliver(std::vector<float>(8000, 0.2f));
        h.scheduler.advance(1000);
        h.dictationKey.release();
        QVERIFY(h.settle());
        QCOMPARE(h.injector->injected, QStringList{QStringLiteral("Hello world.")});
        QVERIFY(!h.capture->isCapturing());
        QVERIFY(next.inferenceRequests().isEmpty());

        // The next recording runs on what the reload built.
        h.recorder->setPreRoll(std::vector<float>(1600, 0.1f));
        next.enqueueInference(FakeWhisperServer::transcript(QStringLiteral("goodbye")));
        QVERIFY(h.holdAndSettle(h.dictationKey));
        QCOMPARE(h.recorder->startCount(), 1);
        QCOMPARE(h.recorder->voiceProcessing(), std::optional<bool>(false));
        QCOMPARE(h.injector->injected.last(), QStringLiteral("Goodbye."));
    }

    void repositoryFactsFollowTheSettings() {
        TempGitRepository repository(QStringLiteral("billing"));
        QVERIFY(repository.isValid());
        QVERIFY(repository.write(QStringLiteral("main.go"), "package main\n"));
        repository.commitAll();
        PipelineHarness h;
        h.repositoryProvider = makePlatformKit().repositoryContext;
        h.config.pinnedRepositoryPath = repository.root();
        h.ready();
        const auto contextArrives = [&] {
            return QTest::qWaitFor([&] { return h.pipeline->repositoryContext().has_value(); });
        };
        QVERIFY(contextArrives());
        QCOMPARE(h.pipeline->repositoryContext()->name, QStringLiteral("billing"));
        Config off = h.config;
        off.repositoryContextEnabled = false;
        syncWait(h.pipeline->updatePreferences(off));
        QVERIFY(!h.pipeline->repositoryContext());
        QCOMPARE(h.pipeline->config(), off);
        syncWait(h.pipeline->updatePreferences(h.config));
        QVERIFY(contextArrives());
    }
};

QTEST_GUILESS_MAIN(TestPipeline)
#include "tst_pipeline.moc"
