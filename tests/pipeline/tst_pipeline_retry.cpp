#include "PipelineHarness.h"

#include <QDir>

using Kind = PipelineState::Kind;
using Notice = RecordingNotifier::Notice;

namespace {

const QString kRaw = QStringLiteral("the quarterly numbers look better than we expected for march");
const QString kClean = QStringLiteral("The quarterly numbers look better than we expected for March.");

// The samples of the WAV file the recogniser was sent in its `index`th request.
qsizetype samplesSent(const PipelineHarness &h, qsizetype index) {
    const QByteArray wav = h.whisper.inferenceRequests().value(index).field("file").value_or(QByteArray());
    return wav.size() < 44 ? -1 : (wav.size() - 44) / 2;
}

// Holds the dictation key while `samples` arrive after the pre-roll, then lets go.
bool dictate(PipelineHarness &h, std::size_t samples) {
    if (!h.press(h.dictationKey))
        return false;
    h.capture->deliver(std::vector<float>(samples, 0.2f));
    h.scheduler.advance(1200);
    h.dictationKey.release();
    return h.settle();
}

} // namespace

// A dictation whose transcription failed is held and can be transcribed again: nothing said is lost.
class TestPipelineRetry : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;

private slots:
    void initTestCase() { qputenv("QUORVANE_HOME", m_home.path().toUtf8()); }
    void cleanupTestCase() { Log::flush(); }

    void aDictationFailedWhileTheServerWasDownIsDeliveredByRetry_data() {
        QTest::addColumn<bool>("retainAudio");
        QTest::addColumn<bool>("switchApp");
        QTest::newRow("recordings not kept") << false << false;
        QTest::newRow("recordings kept") << true << false;
        QTest::newRow("another app in front by the retry") << false << true;
    }
    void aDictationFailedWhileTheServerWasDownIsDeliveredByRetry() {
        QFETCH(bool, retainAudio);
        QFETCH(bool, switchApp);
        PipelineHarness h;
        h.config.retainAudio = retainAudio;
        h.ready();
        QVERIFY(!h.pipeline->canRetry());

        h.whisper.setListening(false);
        QVERIFY(dictate(h, 8000));
        QCOMPARE(h.kind(), Kind::error);
        QCOMPARE(h.notifier->notices,
                 (QList<Notice>{{QStringLiteral("Transcription failed"), h.pipeline->state().message}}));
        QVERIFY(h.pipeline->canRetry());
        QVERIFY(h.injector->injected.isEmpty());
        // Kept recordings include this one already, so a quit before the retry loses nothing either.
        QDir audio(h.pipeline->store().audioDirectory());
        QCOMPARE(audio.entryList({QStringLiteral("*.wav")}, QDir::Files).size(), retainAudio ? 1 : 0);

        if (switchApp)
            h.frontmost->app = FrontmostApp{QStringLiteral("Mail"), QStringLiteral("com.apple.mail"), 77};
        h.whisper.setListening(true);
        h.transcript(kRaw);
        h.reply(kClean);
        h.pipeline->retryLastDictation();
        QVERIFY(h.settle());

        QCOMPARE(h.kind(), Kind::idle);
        QCOMPARE(h.injector->injected, QStringList{kClean});
        // Everything the microphone gave, the pre-roll with it.
        QCOMPARE(samplesSent(h, 0), qsizetype(1600 + 8000));
        QVERIFY(!h.pipeline->canRetry());
        QCOMPARE(h.utterances.size(), 1);
        const Utterance utterance = h.utterances.first();
        QCOMPARE(utterance.shippedText, kClean);
        QCOMPARE(utterance.appName,
                 std::optional<QString>(switchApp ? QStringLiteral("Mail") : QStringLiteral("Notes")));
        QCOMPARE(h.pipeline->store().recentTranscripts(5), QStringList{kClean});
        QCOMPARE(utterance.audioFile.has_value(), retainAudio);
        QCOMPARE(audio.entryList({QStringLiteral("*.wav")}, QDir::Files).size(), retainAudio ? 1 : 0);
    }

    // The server goes down while the engine is still being prepared and the user already speaks: the
    // failed preparation must not take the recording's state, or key-up would find nothing to finish.
    void aPreparationFailingDuringARecordingLeavesItToBeHeld() {
        PipelineHarness h;
        h.config.formatter = FormatterKind::none;
        h.build();
        QVERIFY(h.press(h.dictationKey));
        h.whisper.setListening(false);
        syncWait(h.pipeline->prepare());
        QVERIFY(h.loggedStartingWith(QStringLiteral("ERROR ASR unavailable: ")));
        QVERIFY(h.pipeline->preparationProblem());
        QCOMPARE(h.kind(), Kind::recording);

        h.capture->deliver(std::vector<float>(8000, 0.2f));
        h.scheduler.advance(1200);
        h.dictationKey.release();
        QVERIFY(h.settle());
        QCOMPARE(h.kind(), Kind::error);
        QVERIFY(h.pipeline->canRetry());
        h.whisper.setListening(true);
        h.transcript(kRaw);
        h.pipeline->retryLastDictation();
        QVERIFY(h.settle());
        QCOMPARE(samplesSent(h, 0), qsizetype(1600 + 8000));
        QCOMPARE(h.injector->injected.size(), 1);
    }

    // Only the last failure is held; a retry that fails again keeps it for the next try.
    void theLastFailedDictationIsHeld() {
        PipelineHarness h;
        h.config.formatter = FormatterKind::none;
        h.ready();
        h.whisper.setListening(false);
        QVERIFY(dictate(h, 4000));
        QVERIFY(dictate(h, 12000));
        h.pipeline->retryLastDictation();
        QVERIFY(h.settle());
        QCOMPARE(h.kind(), Kind::error);
        QVERIFY(h.pipeline->canRetry());

        h.whisper.setListening(true);
        h.transcript(kRaw);
        h.pipeline->retryLastDictation();
        QVERIFY(h.settle());
        QCOMPARE(h.whisper.inferenceRequests().size(), 1);
        QCOMPARE(samplesSent(h, 0), qsizetype(1600 + 12000));
        QCOMPARE(h.injector->injected.size(), 1);
        QVERIFY(!h.pipeline->canRetry());
    }

    void retryDoesNothingWithoutAHeldDictation_data() {
        QTest::addColumn<QString>("before");
        QTest::newRow("nothing failed") << "success";
        QTest::newRow("an edit command failed") << "edit fails";
        QTest::newRow("a recording is under way") << "recording";
    }
    void retryDoesNothingWithoutAHeldDictation() {
        QFETCH(QString, before);
        PipelineHarness h;
        h.config.formatter = FormatterKind::none;
        h.ready();
        if (before == "success") {
            QVERIFY(h.holdAndSettle(h.dictationKey));
        } else if (before == "edit fails") {
            h.whisper.setListening(false);
            QVERIFY(h.holdAndSettle(h.editKey));
            QCOMPARE(h.kind(), Kind::error);
            h.whisper.setListening(true);
        } else {
            h.whisper.setListening(false);
            QVERIFY(dictate(h, 8000));
            h.whisper.setListening(true);
            QVERIFY(h.press(h.dictationKey));
        }
        const PipelineState state = h.pipeline->state();
        const qsizetype requests = h.whisper.inferenceRequests().size();
        const QStringList injected = h.injector->injected;
        QVERIFY(!h.pipeline->canRetry());

        h.pipeline->retryLastDictation();
        QCoreApplication::processEvents();
        QCOMPARE(h.pipeline->state(), state);
        QCOMPARE(h.whisper.inferenceRequests().size(), requests);
        QCOMPARE(h.injector->injected, injected);
        QVERIFY(h.logged(QStringLiteral("INFO There is no dictation to retry.")));
    }
};

QTEST_GUILESS_MAIN(TestPipelineRetry)
#include "tst_pipeline_retry.moc"
