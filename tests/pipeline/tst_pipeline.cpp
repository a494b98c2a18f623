#include "PipelineHarness.h"

#include "TempGitRepository.h"
#include "core/Async.h"
#include "core/Paths.h"
#include "platform/PlatformKitFactory.h"

#include <QFile>
#include <QTcpServer>
#include <QTemporaryDir>

using Kind = PipelineState::Kind;

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

    void recordingLimitLabel_data() {
        QTest::addColumn<qint64>("seconds");
        QTest::addColumn<QString>("label");
        QTest::newRow("one minute, singular") << qint64(60) << "1 minute";
        QTest::newRow("whole minutes") << qint64(180) << "3 minutes";
        QTest::newRow("not whole minutes") << qint64(90) << "90 seconds";
    }
    void recordingLimitLabel() {
        QFETCH(qint64, seconds);
        QFETCH(QString, label);
        QCOMPARE(Pipeline::recordingLimitLabel(seconds), label);
    }

    void formatterBudget_data() {
        QTest::addColumn<qint64>("timeoutMS");
        QTest::addColumn<qint64>("words");
        QTest::addColumn<qint64>("maxBase");
        QTest::addColumn<qint64>("budget");
        QTest::newRow("30 words earn 500 ms") << qint64(2500) << qint64(30) << qint64(15000) << qint64(3000);
        QTest::newRow("up to 20 words earn nothing") << qint64(2500) << qint64(20) << qint64(15000) << qint64(2500);
        QTest::newRow("capped by the ceiling") << qint64(2500) << qint64(400) << qint64(15000) << qint64(15000);
        QTest::newRow("short timeout, ceiling six times it")
            << qint64(500) << qint64(100) << qint64(15000) << qint64(3000);
        QTest::newRow("prompt base 1800") << qint64(2500) << qint64(10) << qint64(1800) << qint64(1800);
        QTest::newRow("prompt base plus words") << qint64(2500) << qint64(30) << qint64(1800) << qint64(2300);
    }
    void formatterBudget() {
        QFETCH(qint64, timeoutMS);
        QFETCH(qint64, words);
        QFETCH(qint64, maxBase);
        QFETCH(qint64, budget);
        Config config;
        config.formatterTimeoutMS = timeoutMS;
        QCOMPARE(Pipeline::formatterBudget(config, words, maxBase), budget);
    }

    void tapIsDiscarded() {
        PipelineHarness h;
        h.build();
        QVERIFY(h.hold(h.dictationKey, 200));
        QCOMPARE(h.kind(), Kind::idle);
        QVERIFY(h.logged(QStringLiteral("INFO Ignored 200 ms key tap.")));
        QCOMPARE(h.states, (QList<PipelineState>{PipelineState::recording(), PipelineState::idle()}));
        QTest::qWait(20);
        QVERIFY(h.whisper.inferenceRequests().isEmpty());
        QVERIFY(h.injector->injected.isEmpty());
        QVERIFY(!h.capture->isCapturing());
    }

    void releaseDuringStartupIsAppliedOnceRecording() {
        PipelineHarness h;
        h.build();
        h.dictationKey.press();
        QVERIFY(h.pipeline->isStarting());
        h.scheduler.advance(700);
        h.dictationKey.release();
        QVERIFY(h.logged(QStringLiteral("INFO Release arrived during startup; will apply once recording begins.")));
        QVERIFY(h.settle());
        const qsizetype started = h.logIndex(QStringLiteral("INFO Recording started."));
        QVERIFY(started >= 0);
        QCOMPARE(h.logIndex(QStringLiteral("INFO Applying release that arrived during startup.")), started + 1);
        // The hold counts from key-down, so this is a dictation, not a tap.
        QCOMPARE(h.injector->injected, QStringList{QStringLiteral("Hello world.")});
    }

    void anotherModesReleaseDoesNotEndRecording() {
        PipelineHarness h;
        h.build();
        QVERIFY(h.press(h.dictationKey));
        h.promptKey.release();
        h.editKey.release();
        QCOMPARE(h.kind(), Kind::recording);
        QVERIFY(h.capture->isCapturing());
        h.scheduler.advance(1000);
        h.dictationKey.release();
        QVERIFY(h.settle());
        QCOMPARE(h.injector->injected.size(), 1);
    }

    void secondPressWhileThinkingIsIgnored() {
        PipelineHarness h;
        h.ready();
        h.reply(QStringLiteral("Hello world."), 150);
        QVERIFY(h.hold(h.dictationKey));
        QVERIFY(h.modelAsked());
        QCOMPARE(h.kind(), Kind::thinking);
        h.dictationKey.press();
        h.editKey.press();
        QCOMPARE(h.capture->startCount(), 1);
        QCOMPARE(h.kind(), Kind::thinking);
        QVERIFY(h.settle());
        QCOMPARE(h.kind(), Kind::idle);
        QCOMPARE(h.injector->injected.size(), 1);
    }

    void unusableAudioEndsInError_data() {
        QTest::addColumn<AudioCaptureStatus>("status");
        QTest::addColumn<QString>("message");
        QTest::newRow("no buffers") << AudioCaptureStatus::noBuffers
                                    << "The microphone stopped sending audio. Quorvane reset it; please try that "
                                       "dictation again.";
        QTest::newRow("digital silence") << AudioCaptureStatus::digitalSilence
                                         << "macOS sent a silent microphone stream. Quorvane switched to its reliable "
                                            "fallback; please try that dictation again.";
    }
    void unusableAudioEndsInError() {
        QFETCH(AudioCaptureStatus, status);
        QFETCH(QString, message);
        PipelineHarness h;
        h.build();
        h.capture->setNextStatus(status);
        QVERIFY(h.hold(h.dictationKey));
        QCOMPARE(h.pipeline->state(), PipelineState::error(message));
        QCOMPARE(h.notifier->notices,
                 (QList<RecordingNotifier::Notice>{{QStringLiteral("Microphone recovered"), message}}));
        QVERIFY(h.logged(QStringLiteral("ERROR Recording produced no usable microphone audio. ") + message));
        QTest::qWait(20);
        QVERIFY(h.whisper.inferenceRequests().isEmpty());
        // An error does not block the next dictation.
        h.capture->setNextStatus(AudioCaptureStatus::usable);
        QVERIFY(h.holdAndSettle(h.dictationKey));
        QCOMPARE(h.kind(), Kind::idle);
        QCOMPARE(h.injector->injected.size(), 1);
    }

    void captureThatCannotStart() {
        PipelineHarness h;
        h.build();
        h.capture->failNextStart(QuorvaneError(QuorvaneError::Case::noAudioInput));
        QVERIFY(!h.press(h.dictationKey));
        const QString message = QStringLiteral("No audio input device is available.");
        QCOMPARE(h.pipeline->state(), PipelineState::error(message));
        QVERIFY(h.logged(QStringLiteral("ERROR Could not start recording: ") + message));
        QCOMPARE(h.notifier->notices, (QList<RecordingNotifier::Notice>{{QStringLiteral("Quorvane"), message}}));

        // The key-up that follows finds an error: logged, and the pipeline is ready again.
        h.dictationKey.release();
        QVERIFY(h.logged(QStringLiteral("INFO finish() ignored \u2014 not recording (state unchanged).")));
        QCOMPARE(h.kind(), Kind::idle);
    }

    void recordingLimitFinishesTheDictation() {
        PipelineHarness h;
        h.config.maximumRecordingSeconds = 60;
        h.build();
        QVERIFY(h.press(h.dictationKey));
        h.capture->deliver(std::vector<float>(8000, 0.2f));
        h.scheduler.advance(59999);
        QCOMPARE(h.kind(), Kind::recording);
        h.scheduler.advance(1);
        QVERIFY(
            h.logged(QStringLiteral("WARN Maximum 60s recording reached without a key-up; finishing automatically.")));
        QCOMPARE(h.notifier->notices,
                 (QList<RecordingNotifier::Notice>{
                     {QStringLiteral("Recording limit reached"),
                      QStringLiteral("Quorvane finished this dictation after 1 minute. Choose a longer limit from the "
                                     "menu or continue in a new dictation.")}}));
        QVERIFY(h.settle());
        QCOMPARE(h.injector->injected.size(), 1);
        // The late key-up changes nothing.
        h.dictationKey.release();
        QCOMPARE(h.kind(), Kind::idle);
        QCOMPARE(h.injector->injected.size(), 1);
    }

    void recordingLimitAfterKeyUpDoesNothing() {
        PipelineHarness h;
        h.config.maximumRecordingSeconds = 60;
        h.build();
        QVERIFY(h.holdAndSettle(h.dictationKey, 1000));
        // The next recording is still running when the first one's limit would have come.
        QVERIFY(h.press(h.dictationKey));
        h.scheduler.advance(59500);
        QCOMPARE(h.kind(), Kind::recording);
        QVERIFY(!h.loggedStartingWith(QStringLiteral("WARN Maximum")));
        h.dictationKey.release();
        QVERIFY(h.settle());
        QCOMPARE(h.injector->injected.size(), 2);
    }

    void cancelAbandonsTheRun() {
        PipelineHarness h;
        h.ready();
        h.reply(QStringLiteral("Hello world."), 60);
        QVERIFY(h.hold(h.dictationKey));
        QVERIFY(h.modelAsked());
        h.pipeline->cancel();
        QCOMPARE(h.kind(), Kind::idle);
        QTest::qWait(150);
        QVERIFY(h.injector->injected.isEmpty());
        QCOMPARE(h.kind(), Kind::idle);
        QVERIFY(h.utterances.isEmpty());
    }

    void cancelWhileStartingStopsTheMicrophone() {
        PipelineHarness h;
        h.build();
        h.dictationKey.press();
        h.pipeline->cancel();
        QVERIFY(QTest::qWaitFor([&] { return !h.pipeline->isStarting(); }, 2000));
        QCOMPARE(h.kind(), Kind::idle);
        QVERIFY(!h.capture->isCapturing());
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
        QVERIFY(
            h.logged(QStringLiteral("ERROR ASR preparation timed out after 30s. It will retry on first dictation.")));
    }

    void preparationReportsAnUnavailableEngineAndFormatter() {
        PipelineHarness h;
        h.config.whisperEndpoint = QStringLiteral("http://127.0.0.1:%1").arg(FakeWhisperServer::closedPort());
        h.ollama.setModels({});
        h.build();
        syncWait(h.pipeline->prepare());
        QCOMPARE(h.kind(), Kind::error);
        QVERIFY(h.pipeline->state().message.startsWith(QStringLiteral("The speech model is unavailable: ")));
        QVERIFY(h.logged(QStringLiteral("ERROR ASR unavailable: ") + h.pipeline->state().message));
        QVERIFY(h.logged(QStringLiteral("WARN Formatter '") + h.pipeline->formatter().name() +
                         QStringLiteral("' is unavailable; transcripts will ship unformatted.")));
    }

    void reloadSavesSettingsAndRebuildsTheFormatter() {
        PipelineHarness h;
        h.build();
        QVERIFY(h.pipeline->formatter().name() != QStringLiteral("None (raw transcript)"));
        Config next = h.config;
        next.formatter = FormatterKind::none;
        next.voiceProcessingEnabled = false;
        syncWait(h.pipeline->reload(next));
        QCOMPARE(h.pipeline->formatter().name(), QStringLiteral("None (raw transcript)"));
        QCOMPARE(h.capture->voiceProcessing(), std::optional<bool>(false));
        QFile saved(Paths::file(QStringLiteral("config.json")));
        QVERIFY(saved.open(QIODevice::ReadOnly));
        QCOMPARE(Config::decode(saved.readAll())->formatter, FormatterKind::none);
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
        QVERIFY(QTest::qWaitFor([&] { return h.pipeline->repositoryContext().has_value(); }, 3000));
        QCOMPARE(h.pipeline->repositoryContext()->name, QStringLiteral("billing"));

        Config off = h.config;
        off.repositoryContextEnabled = false;
        syncWait(h.pipeline->updatePreferences(off));
        QVERIFY(!h.pipeline->repositoryContext());
        QCOMPARE(h.pipeline->config(), off);

        syncWait(h.pipeline->updatePreferences(h.config));
        QVERIFY(QTest::qWaitFor([&] { return h.pipeline->repositoryContext().has_value(); }, 3000));
    }
};

QTEST_GUILESS_MAIN(TestPipeline)
#include "tst_pipeline.moc"
