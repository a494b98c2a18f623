#include "LogRecorder.h"
#include "ScriptedAudioBackend.h"
#include "core/Scheduler.h"
#include "platform/WarmMicrophone.h"

#include <QtTest>
#include <cmath>

Q_DECLARE_METATYPE(AudioCaptureStatus)

namespace {

constexpr double rate = 16000;

std::vector<float> constant(std::size_t count, float value) {
    return std::vector<float>(count, value);
}

// Distinct non-zero samples, so order and trimming show.
std::vector<float> ramp(std::size_t count, std::size_t from = 0) {
    std::vector<float> samples(count);
    for (std::size_t i = 0; i < count; ++i)
        samples[i] = float(from + i + 1) * 1e-5f;
    return samples;
}

std::vector<float> joined(std::vector<float> first, const std::vector<float> &second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

struct Rig {
    explicit Rig(bool voiceProcessing) {
        mic = std::make_unique<WarmMicrophone>(backend, clock);
        mic->setVoiceProcessingEnabled(voiceProcessing);
    }
    // As the pipeline does: warm-up drops the chunk handler, so it is set for each utterance.
    void start(bool retainAudio = false) {
        mic->setOnChunk([this](const AudioChunk &chunk) { chunks.push_back(chunk); });
        mic->start(rate, retainAudio);
    }
    // The log without the line every successful open writes.
    QStringList events() const {
        QStringList lines = log.lines;
        lines.removeIf([](const QString &line) { return line.startsWith(QStringLiteral("INFO Microphone ready")); });
        return lines;
    }
    bool lastOpenHadVoiceProcessing() const { return backend->openedVoiceProcessing().back(); }

    LogRecorder log;
    ManualScheduler clock;
    std::shared_ptr<ScriptedAudioBackend> backend = std::make_shared<ScriptedAudioBackend>();
    std::vector<AudioChunk> chunks;
    std::unique_ptr<WarmMicrophone> mic;
};

const QString stoppedWhileWarm =
    QStringLiteral("WARN The microphone engine stopped while warm. Rebuilding it before recording.");

} // namespace

class TestWarmMicrophone : public QObject {
    Q_OBJECT

private slots:
    void preRollIsTheFirstChunk_data() {
        QTest::addColumn<int>("buffered");
        QTest::addColumn<int>("handedOver");
        QTest::newRow("a second buffered keeps the latest 0.6 s") << 16000 << 9600;
        QTest::newRow("less than 0.6 s buffered") << 4000 << 4000;
    }
    void preRollIsTheFirstChunk() {
        QFETCH(int, buffered);
        QFETCH(int, handedOver);
        Rig rig(false);
        rig.mic->warmUp(rate);
        const std::vector<float> warm = ramp(std::size_t(buffered));
        for (std::size_t at = 0; at < warm.size(); at += 1000)
            rig.backend->deliver(std::vector<float>(warm.begin() + long(at), warm.begin() + long(at + 1000)));
        rig.start();
        const std::vector<float> live = constant(1600, 0.25f);
        rig.backend->deliver(live);

        QCOMPARE(rig.backend->opens(), 1);
        QCOMPARE(rig.chunks.size(), std::size_t(2));
        QCOMPARE(rig.chunks[0].samples, std::vector<float>(warm.end() - handedOver, warm.end()));
        QCOMPARE(rig.chunks[0].sampleRate, rate);
        QCOMPARE(rig.chunks[1].samples, live);
    }

    // While only warm the backend may hold audio back; while recording it must not, and what it held
    // back must not overtake the pre-roll.
    void backendListensOnlyWhileRecording_data() {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<bool>("listening");
        QTest::newRow("warm") << QStringList{"warm"} << false;
        QTest::newRow("warm, then recording") << QStringList{"warm", "start"} << true;
        QTest::newRow("recording from cold") << QStringList{"start"} << true;
        QTest::newRow("a usable utterance ends warm") << QStringList{"warm", "start", "speech", "stop"} << false;
        QTest::newRow("an empty utterance ends cold") << QStringList{"start", "stop"} << false;
        QTest::newRow("stream rebuilt while recording") << QStringList{"start", "stall"} << true;
    }
    void backendListensOnlyWhileRecording() {
        QFETCH(QStringList, steps);
        QFETCH(bool, listening);
        Rig rig(false);
        rig.backend->setListening(!listening);
        std::vector<bool> listeningAtChunk;
        for (const QString &step : steps) {
            if (step == "warm") {
                rig.mic->warmUp(rate);
                rig.backend->deliver(ramp(1600));
            } else if (step == "start") {
                rig.mic->setOnChunk([&](const AudioChunk &) { listeningAtChunk.push_back(rig.backend->listening()); });
                rig.mic->start(rate, false);
            } else if (step == "speech") {
                rig.backend->deliver(ramp(1600));
            } else if (step == "stop") {
                rig.mic->stop();
            } else if (step == "stall") {
                rig.backend->setRunning(false);
                rig.clock.advance(750);
            }
        }
        QCOMPARE(rig.backend->listening(), listening);
        if (steps.startsWith("warm") && steps.contains("start"))
            QCOMPARE(listeningAtChunk.front(), false);
    }

    void rebuildBeforeRecording_data() {
        QTest::addColumn<bool>("voiceProcessing");
        QTest::addColumn<QList<float>>("warm");
        QTest::addColumn<qint64>("idleMs");
        QTest::addColumn<bool>("engineDies");
        QTest::addColumn<QStringList>("expected");
        QTest::addColumn<bool>("nextVoiceProcessing");
        const QString silence = QStringLiteral(
            "WARN The macOS noise-reduction stream returned digital silence. Rebuilding the microphone on its "
            "reliable raw-input fallback.");
        const QList<float> speech(1600, 0.1f);
        QTest::newRow("0.4 s of noise-reduction silence")
            << true << QList<float>(6400, 0.0f) << qint64(0) << false << QStringList{silence} << false;
        QTest::newRow("shorter silence") << true << QList<float>(6399, 0.0f) << qint64(0) << false << QStringList{}
                                         << true;
        QTest::newRow("raw input may be silent")
            << false << QList<float>(9600, 0.0f) << qint64(0) << false << QStringList{} << false;
        QTest::newRow("engine stopped") << false << speech << qint64(0) << true << QStringList{stoppedWhileWarm}
                                        << false;
        QTest::newRow("no buffer for over a second")
            << true << speech << qint64(1001) << false << QStringList{stoppedWhileWarm} << true;
        QTest::newRow("a buffer a second old") << true << speech << qint64(1000) << false << QStringList{} << true;
    }
    void rebuildBeforeRecording() {
        QFETCH(bool, voiceProcessing);
        QFETCH(QList<float>, warm);
        QFETCH(qint64, idleMs);
        QFETCH(bool, engineDies);
        QFETCH(QStringList, expected);
        QFETCH(bool, nextVoiceProcessing);
        Rig rig(voiceProcessing);
        rig.mic->warmUp(rate);
        rig.backend->deliver(std::vector<float>(warm.begin(), warm.end()));
        rig.clock.advance(idleMs);
        if (engineDies)
            rig.backend->setRunning(false);
        rig.start();

        QCOMPARE(rig.events(), expected);
        QCOMPARE(rig.backend->opens(), expected.isEmpty() ? 1 : 2);
        QCOMPARE(rig.lastOpenHadVoiceProcessing(), nextVoiceProcessing);
        QVERIFY(rig.backend->isRunning());
    }

    void warmHealthCheck_data() {
        QTest::addColumn<bool>("voiceProcessing");
        QTest::addColumn<QList<float>>("played");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<bool>("nextVoiceProcessing");
        QTest::newRow("stalled noise reduction")
            << true << QList<float>{}
            << "WARN Warm microphone health check found no audio buffers. Switching automatically to raw input."
            << false;
        QTest::newRow("stalled raw input")
            << false << QList<float>{} << "WARN Warm microphone health check found a stopped engine. Restarting it."
            << false;
        QTest::newRow("silent noise reduction")
            << true << QList<float>(9600, 0.0f)
            << "WARN Warm microphone health check found digital silence. Switching automatically to raw input."
            << false;
        QTest::newRow("flowing") << true << QList<float>(1600, 0.1f) << QString() << true;
    }
    void warmHealthCheck() {
        QFETCH(bool, voiceProcessing);
        QFETCH(QList<float>, played);
        QFETCH(QString, expected);
        QFETCH(bool, nextVoiceProcessing);
        Rig rig(voiceProcessing);
        rig.mic->warmUp(rate);
        rig.backend->deliver(ramp(1600));
        rig.clock.advance(900); // the first check finds it fresh
        rig.clock.advance(4100);
        if (!played.isEmpty())
            rig.backend->deliver(std::vector<float>(played.begin(), played.end()));
        rig.clock.advance(900);

        const QStringList recovered{expected, QStringLiteral("INFO Microphone recovered in the background.")};
        QCOMPARE(rig.events(), expected.isEmpty() ? QStringList{} : recovered);
        QCOMPARE(rig.backend->opens(), expected.isEmpty() ? 1 : 2);
        QCOMPARE(rig.lastOpenHadVoiceProcessing(), nextVoiceProcessing);
    }

    void rebuildWhileListening_data() {
        QTest::addColumn<bool>("voiceProcessing");
        QTest::addColumn<int>("zeroRun");
        QTest::addColumn<bool>("engineDies");
        QTest::addColumn<QStringList>("firstRound");
        QTest::addColumn<QString>("secondRound");
        const QString recovered = QStringLiteral("INFO Microphone recovered while listening.");
        QTest::newRow("0.7 s of noise-reduction silence")
            << true << 11200 << false
            << QStringList{QStringLiteral("WARN Microphone became unhealthy while listening (digital silence)"
                                          "Rebuilding it now without local noise reduction."),
                           recovered}
            << "ERROR Microphone recovery exhausted: the input still returns digital silence.";
        QTest::newRow("raw stream stopped")
            << false << 0 << true
            << QStringList{QStringLiteral("WARN Microphone became unhealthy while listening (audio stream stopped)"
                                          "Rebuilding it now."),
                           recovered}
            << "ERROR Microphone recovery exhausted: audio callbacks did not resume.";
        QTest::newRow("a pause under 0.7 s") << true << 11199 << false << QStringList{} << QString();
    }
    void rebuildWhileListening() {
        QFETCH(bool, voiceProcessing);
        QFETCH(int, zeroRun);
        QFETCH(bool, engineDies);
        QFETCH(QStringList, firstRound);
        QFETCH(QString, secondRound);
        Rig rig(voiceProcessing);
        rig.start();
        const auto play = [&] {
            rig.backend->deliver(ramp(1600));
            rig.backend->deliver(constant(std::size_t(zeroRun), 0));
            if (engineDies)
                rig.backend->setRunning(false);
            rig.clock.advance(750);
        };
        play();
        QCOMPARE(rig.events(), firstRound);
        play();
        QStringList both = firstRound;
        if (!secondRound.isEmpty())
            both << secondRound;
        QCOMPARE(rig.events(), both);

        const int opens = firstRound.isEmpty() ? 1 : 2;
        QCOMPARE(rig.backend->opens(), opens);
        QCOMPARE(rig.lastOpenHadVoiceProcessing(), voiceProcessing && opens == 1);
        // The rebuilt stream still feeds the same utterance.
        std::size_t delivered = 0;
        for (const AudioChunk &chunk : rig.chunks)
            delivered += chunk.samples.size();
        QCOMPARE(delivered, std::size_t(2 * (1600 + zeroRun)));
        rig.mic->stop();
        QCOMPARE(rig.mic->lastCaptureStatus(), AudioCaptureStatus::usable);
    }

    void verdict_data() {
        QTest::addColumn<QList<float>>("played");
        QTest::addColumn<AudioCaptureStatus>("status");
        QTest::addColumn<QString>("line");
        QTest::addColumn<bool>("staysWarm");
        QTest::newRow("no frames") << QList<float>{} << AudioCaptureStatus::noBuffers
                                   << QStringLiteral("ERROR NO AUDIO CAPTURED \u2014 the microphone delivered zero "
                                                     "samples. Check the input device in System Settings \u203A Sound.")
                                   << false;
        const QString silence = QStringLiteral("ERROR DIGITAL SILENCE \u2014 captured 0.1s but every PCM sample was "
                                               "zero. The audio engine will be rebuilt before the next dictation.");
        QTest::newRow("zeros") << QList<float>(1600, 0.0f) << AudioCaptureStatus::digitalSilence << silence << false;
        QTest::newRow("not finite") << QList<float>(1600, std::nanf("")) << AudioCaptureStatus::digitalSilence
                                    << silence << false;
        QTest::newRow("quiet") << QList<float>(1600, 0.0005f) << AudioCaptureStatus::usable
                               << "WARN Captured 0.1s of audio but it was silent (peak 0.006). Wrong input device, "
                                  "or muted?"
                               << true;
        QTest::newRow("speech") << QList<float>(1600, 0.2f) << AudioCaptureStatus::usable << QString() << true;
    }
    void verdict() {
        QFETCH(QList<float>, played);
        QFETCH(AudioCaptureStatus, status);
        QFETCH(QString, line);
        QFETCH(bool, staysWarm);
        Rig rig(true);
        rig.start();
        if (!played.isEmpty())
            rig.backend->deliver(std::vector<float>(played.begin(), played.end()));
        rig.mic->stop();

        QCOMPARE(rig.mic->lastCaptureStatus(), status);
        QCOMPARE(rig.events(), line.isEmpty() ? QStringList{} : QStringList{line});
        QCOMPARE(rig.backend->isRunning(), staysWarm);
        // A failed utterance gives up noise reduction for the next stream.
        rig.mic->warmUp(rate);
        QCOMPARE(rig.backend->opens(), staysWarm ? 1 : 2);
        QCOMPARE(rig.lastOpenHadVoiceProcessing(), staysWarm);
    }

    void settingResetsFallback_data() {
        QTest::addColumn<QList<bool>>("settings");
        QTest::addColumn<bool>("nextVoiceProcessing");
        QTest::newRow("set again unchanged") << QList<bool>{true} << false;
        QTest::newRow("turned off and on") << QList<bool>{false, true} << true;
    }
    void settingResetsFallback() {
        QFETCH(QList<bool>, settings);
        QFETCH(bool, nextVoiceProcessing);
        Rig rig(true);
        rig.start();
        rig.mic->stop(); // no frames: falls back to raw input
        for (const bool on : settings)
            rig.mic->setVoiceProcessingEnabled(on);
        rig.mic->warmUp(rate);
        QCOMPARE(rig.backend->opens(), 2);
        QCOMPARE(rig.lastOpenHadVoiceProcessing(), nextVoiceProcessing);
    }

    void retainedAudio_data() {
        QTest::addColumn<bool>("retain");
        QTest::newRow("not retaining") << false;
        QTest::newRow("retaining") << true;
    }
    void retainedAudio() {
        QFETCH(bool, retain);
        Rig rig(false);
        rig.mic->warmUp(rate);
        const std::vector<float> preRoll = ramp(3200);
        const std::vector<float> live = ramp(1600, 3200);
        rig.backend->deliver(preRoll);
        rig.start(retain);
        rig.backend->deliver(live);
        rig.mic->stop();
        const RetainedAudio kept = rig.mic->takeRetainedAudio();

        QCOMPARE(kept.samples, retain ? joined(preRoll, live) : std::vector<float>());
        QCOMPARE(kept.sampleRate, retain ? rate : 0.0);
    }
};

QTEST_GUILESS_MAIN(TestWarmMicrophone)
#include "tst_warm_microphone.moc"
