#include "LogRecorder.h"
#include "core/QuorvaneError.h"
#include "platform/linux/PulseAudioBackend.h"

#include <QProcess>
#include <QTest>
#include <cmath>
#include <mutex>
#include <numbers>

namespace {

class Collector {
public:
    AudioBackend::BufferHandler handler() {
        return [this](std::vector<float> samples) {
            std::lock_guard lock(m_lock);
            ++m_buffers;
            m_largest = std::max(m_largest, samples.size());
            for (const float sample : samples)
                if (!m_heard.empty() || std::abs(sample) > 0.01f)
                    m_heard.push_back(sample);
        };
    }
    int buffers() {
        std::lock_guard lock(m_lock);
        return m_buffers;
    }
    std::size_t largest() {
        std::lock_guard lock(m_lock);
        return m_largest;
    }
    // Everything from the first sound on.
    std::vector<float> heard() {
        std::lock_guard lock(m_lock);
        return m_heard;
    }

private:
    std::mutex m_lock;
    int m_buffers = 0;
    std::size_t m_largest = 0;
    std::vector<float> m_heard;
};

// Plays a sine into the desktop's default sink, whose monitor is the default microphone.
std::unique_ptr<QProcess> playTone(double frequency, double seconds) {
    auto player = std::make_unique<QProcess>();
    player->start(QStringLiteral("pacat"),
                  {"--playback", "--format=float32le", "--rate=48000", "--channels=1", "--latency-msec=20"});
    if (!player->waitForStarted())
        return nullptr;
    QByteArray pcm(qsizetype(48000 * seconds) * qsizetype(sizeof(float)), Qt::Uninitialized);
    auto *samples = reinterpret_cast<float *>(pcm.data());
    for (qsizetype i = 0; i < pcm.size() / qsizetype(sizeof(float)); ++i)
        samples[i] = float(0.5 * std::sin(2 * std::numbers::pi * frequency * double(i) / 48000.0));
    player->write(pcm);
    player->closeWriteChannel();
    return player;
}

// The frequency between 100 and 2000 Hz, in 5 Hz steps, with the most energy (Goertzel).
double dominantFrequency(const std::vector<float> &samples, double rate) {
    double best = 0;
    double bestPower = -1;
    for (double frequency = 100; frequency <= 2000; frequency += 5) {
        const double coefficient = 2 * std::cos(2 * std::numbers::pi * frequency / rate);
        double previous = 0, beforePrevious = 0;
        for (const float sample : samples) {
            const double current = sample + coefficient * previous - beforePrevious;
            beforePrevious = previous;
            previous = current;
        }
        const double power =
            previous * previous + beforePrevious * beforePrevious - coefficient * previous * beforePrevious;
        if (power > bestPower) {
            bestPower = power;
            best = frequency;
        }
    }
    return best;
}

double rms(const std::vector<float> &samples) {
    double sum = 0;
    for (const float sample : samples)
        sum += double(sample) * sample;
    return samples.empty() ? 0 : std::sqrt(sum / double(samples.size()));
}

QString pactl(const QStringList &arguments) {
    QProcess process;
    process.start(QStringLiteral("pactl"), arguments);
    process.waitForFinished();
    return QString::fromUtf8(process.readAllStandardOutput()).trimmed();
}

// A source named as the server's echo canceller names its own, fed by the desktop's null sink.
QString loadEchoCancelSource() {
    return pactl(
        {"load-module", "module-remap-source", "master=quorvane_null.monitor", "source_name=quorvane_mic.echo-cancel"});
}

} // namespace

class PulseAudioDesktopTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() {
        // Plays tones and loads modules: only on the throwaway server, never the user's own.
        if (qEnvironmentVariableIsEmpty("QUORVANE_DESKTOP") || qEnvironmentVariableIsEmpty("PULSE_SERVER"))
            QSKIP("needs the sound server of scripts/headless-desktop");
    }

    void reachability_data() {
        QTest::addColumn<QString>("server");
        QTest::addColumn<bool>("reachable");
        QTest::newRow("the desktop's server") << QString() << true;
        QTest::newRow("nothing listening") << QStringLiteral("unix:/nonexistent/native") << false;
    }
    void reachability() {
        QFETCH(QString, server);
        QFETCH(bool, reachable);
        PulseAudioBackend backend(server);
        QCOMPARE(backend.permissionGranted(), reachable);
        const AudioBackend::InputFormat format = backend.inputFormat();
        QCOMPARE(format.sampleRate > 0 && format.channels > 0, reachable);
        try {
            backend.open(16000, [](std::vector<float>) {}, {});
            QVERIFY(reachable);
        } catch (const QuorvaneError &error) {
            QVERIFY(!reachable);
            QCOMPARE(error.errorCase(), QuorvaneError::Case::noAudioInput);
        }
        QCOMPARE(backend.isRunning(), reachable);
    }

    void aToneComesBackAtTheRateAskedFor_data() {
        QTest::addColumn<double>("rate");
        QTest::newRow("speech rate") << 16000.0;
        QTest::newRow("telephone rate") << 8000.0;
        QTest::newRow("the server's own rate") << 48000.0;
    }
    void aToneComesBackAtTheRateAskedFor() {
        QFETCH(double, rate);
        Collector collector;
        PulseAudioBackend backend;
        backend.open(rate, collector.handler(), {});
        QVERIFY(backend.isRunning());
        // An idle source left at its default latency would hold the first buffer for seconds.
        QTRY_VERIFY_WITH_TIMEOUT(collector.buffers() > 0, 300);

        auto player = playTone(440, 0.6);
        QVERIFY(player);
        const auto quarterSecond = std::size_t(rate / 4);
        QTRY_VERIFY(collector.heard().size() >= quarterSecond);
        std::vector<float> tone = collector.heard();
        tone.resize(quarterSecond);
        QVERIFY2(rms(tone) > 0.2, qPrintable(QString::number(rms(tone))));
        // Delivered at another rate than asked for, the tone would sit a factor away (147, 1320 Hz).
        const double frequency = dominantFrequency(tone, rate);
        QVERIFY2(std::abs(frequency - 440) <= 10, qPrintable(QString::number(frequency)));
        QVERIFY(collector.largest() <= std::size_t(rate / 10));

        backend.close();
        QVERIFY(!backend.isRunning());
        const int buffersAtClose = collector.buffers();
        QVERIFY(player->waitForFinished());
        QCOMPARE(collector.buffers(), buffersAtClose);
    }

    // While only warm, audio comes in batches; once listening, what was held back arrives at once,
    // none of it lost, and the rest comes fragment by fragment again.
    void audioHeldBackWhileWarmArrivesWhenListening() {
        constexpr double rate = 16000;
        constexpr double seconds = 0.5;
        Collector collector;
        PulseAudioBackend backend;
        backend.setListening(false);
        backend.open(rate, collector.handler(), {});
        auto player = playTone(440, seconds);
        QVERIFY(player);
        QVERIFY(player->waitForFinished());
        QVERIFY2(collector.largest() > std::size_t(rate / 10), qPrintable(QString::number(collector.largest())));

        backend.setListening(true);
        const auto tone = std::size_t(rate * seconds);
        QTRY_VERIFY_WITH_TIMEOUT(collector.heard().size() >= tone, 200);
        const std::vector<float> heard = collector.heard();
        std::size_t loud = 0;
        while (loud < heard.size() && std::abs(heard[loud]) > 0.01f)
            loud = std::min(heard.size(), loud + 160);
        // The tone's length in one piece, give or take a fragment at each end.
        QVERIFY2(loud + 480 >= tone && loud <= tone + 480, qPrintable(QString::number(loud)));
        const int buffers = collector.buffers();
        QTRY_VERIFY_WITH_TIMEOUT(collector.buffers() >= buffers + 5, 1000);
    }

    void aStreamWhoseSourceDisappearsIsNoLongerRunning() {
        const QString module = loadEchoCancelSource();
        PulseAudioBackend backend;
        backend.setVoiceProcessingEnabled(true);
        backend.open(16000, [](std::vector<float>) {}, {});
        QVERIFY(backend.voiceProcessingEnabled());
        pactl({"unload-module", module});
        QTRY_VERIFY(!backend.isRunning());
    }

    void voiceProcessingRecordsFromAnEchoCancellingSource_data() {
        QTest::addColumn<bool>("echoCancelSource");
        QTest::addColumn<bool>("asked");
        QTest::addColumn<bool>("expected");
        QTest::addColumn<int>("logLines");
        QTest::newRow("asked, none offered: said once") << false << true << false << 1;
        QTest::newRow("asked and offered") << true << true << true << 0;
        QTest::newRow("offered, not asked") << true << false << false << 0;
    }
    void voiceProcessingRecordsFromAnEchoCancellingSource() {
        QFETCH(bool, echoCancelSource);
        QFETCH(bool, asked);
        LogRecorder log;
        QString module;
        if (echoCancelSource)
            module = loadEchoCancelSource();
        PulseAudioBackend backend;
        backend.setVoiceProcessingEnabled(asked);
        backend.open(16000, [](std::vector<float>) {}, {});
        const bool first = backend.voiceProcessingEnabled();
        backend.open(16000, [](std::vector<float>) {}, {});
        const bool second = backend.voiceProcessingEnabled();
        backend.close();
        if (!module.isEmpty())
            pactl({"unload-module", module});
        QTEST(first, "expected");
        QTEST(second, "expected");
        QTEST(int(log.lines.size()), "logLines");
        QCOMPARE(backend.voiceProcessingEnabled(), asked);
    }
};

QTEST_GUILESS_MAIN(PulseAudioDesktopTest)
#include "tst_pulse_audio_desktop.moc"
