#include "PipelineHarness.h"

#include "platform/CueSound.h"

#include <cmath>

Q_DECLARE_METATYPE(Cue)
Q_DECLARE_METATYPE(QList<Cue>)

namespace {

// Sign changes per second over `samples`, a stand-in for the pitch of a pure tone.
double crossingsPerSecond(const std::vector<float> &samples, std::size_t from, std::size_t to) {
    int crossings = 0;
    for (std::size_t i = from + 1; i < to; ++i)
        if ((samples[i - 1] < 0) != (samples[i] < 0))
            ++crossings;
    return crossings * CueSound::sampleRate / double(to - from);
}

} // namespace

// The sounds that frame a recording: when each plays, and that the setting is followed at once.
class TestRecordingCues : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;

private slots:
    void initTestCase() { qputenv("QUORVANE_HOME", m_home.path().toUtf8()); }
    void cleanupTestCase() { Log::flush(); }

    void cuesFrameEachRecording_data() {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<bool>("playSounds");
        QTest::addColumn<QList<Cue>>("expected");
        const QList<Cue> both{Cue::start, Cue::stop};
        QTest::newRow("held and released") << "hold" << true << both;
        QTest::newRow("sounds off") << "hold" << false << QList<Cue>{};
        QTest::newRow("a tap still opened the microphone") << "tap" << true << both;
        QTest::newRow("cancelled while recording") << "cancel" << true << both;
        QTest::newRow("ended by the recording limit") << "limit" << true << both;
        QTest::newRow("the microphone never started") << "start fails" << true << QList<Cue>{};
    }
    void cuesFrameEachRecording() {
        QFETCH(QString, scenario);
        QFETCH(bool, playSounds);
        PipelineHarness h;
        h.config.formatter = FormatterKind::none;
        h.config.playSounds = playSounds;
        h.ready();
        // The start cue may be heard by a running microphone; the stop cue never.
        QList<bool> capturingAtCue;
        h.cues->onPlay = [&](Cue) { capturingAtCue.append(h.capture->isCapturing()); };

        if (scenario == "start fails") {
            h.capture->failNextStart(QuorvaneError(QuorvaneError::Case::noAudioInput));
            h.dictationKey.press();
            QVERIFY(h.settle());
        } else if (scenario == "limit") {
            QVERIFY(h.press(h.dictationKey));
            h.scheduler.advance(h.config.maximumRecordingSeconds * 1000);
            QVERIFY(h.settle());
        } else if (scenario == "cancel") {
            QVERIFY(h.press(h.dictationKey));
            h.pipeline->cancel();
        } else {
            QVERIFY(h.holdAndSettle(h.dictationKey, scenario == "tap" ? 100 : 1200));
        }
        QTEST(h.cues->played, "expected");
        QCOMPARE(capturingAtCue.size(), h.cues->played.size());
        for (qsizetype i = 0; i < capturingAtCue.size(); ++i)
            QCOMPARE(capturingAtCue[i], h.cues->played[i] == Cue::start);
    }

    void theSettingIsFollowedWithoutRestart_data() {
        QTest::addColumn<bool>("before");
        QTest::newRow("switched off") << true;
        QTest::newRow("switched on") << false;
    }
    void theSettingIsFollowedWithoutRestart() {
        QFETCH(bool, before);
        PipelineHarness h;
        h.config.formatter = FormatterKind::none;
        h.config.playSounds = before;
        h.ready();
        QVERIFY(h.holdAndSettle(h.dictationKey));
        QCOMPARE(h.cues->played.size(), before ? 2 : 0);

        Config changed = h.pipeline->config();
        changed.playSounds = !before;
        syncWait(h.pipeline->updatePreferences(changed));
        h.cues->played.clear();
        QVERIFY(h.holdAndSettle(h.dictationKey));
        QCOMPARE(h.cues->played.size(), before ? 0 : 2);
    }

    // Soft, short and free of clicks; the start rises and the stop falls, so the two are told apart.
    void generatedSounds_data() {
        QTest::addColumn<Cue>("cue");
        QTest::addColumn<bool>("rising");
        QTest::newRow("start") << Cue::start << true;
        QTest::newRow("stop") << Cue::stop << false;
    }
    void generatedSounds() {
        QFETCH(Cue, cue);
        QFETCH(bool, rising);
        const std::vector<float> samples = CueSound::samples(cue);
        const double seconds = double(samples.size()) / CueSound::sampleRate;
        QVERIFY2(seconds >= 0.05 && seconds <= 0.3, qPrintable(QString::number(seconds)));
        float peak = 0;
        for (const float sample : samples)
            peak = std::max(peak, std::abs(sample));
        QVERIFY2(peak >= 0.05f && peak <= 0.3f, qPrintable(QString::number(peak)));
        QVERIFY(std::abs(samples.front()) < 0.01f && std::abs(samples.back()) < 0.01f);
        // No jump between neighbours larger than a tone at this level can make: no click.
        for (std::size_t i = 1; i < samples.size(); ++i)
            QVERIFY(std::abs(samples[i] - samples[i - 1]) < 0.05f);
        const std::size_t half = samples.size() / 2;
        const double first = crossingsPerSecond(samples, 0, half);
        const double second = crossingsPerSecond(samples, half, samples.size());
        QCOMPARE(first < second, rising);
    }
};

QTEST_GUILESS_MAIN(TestRecordingCues)
#include "tst_recording_cues.moc"
