#include "LogRecorder.h"
#include "platform/linux/PulseCuePlayer.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QTest>
#include <cmath>

Q_DECLARE_METATYPE(Cue)

namespace {

// Records what the desktop's speakers play: the null sink's monitor, as raw mono floats.
class SpeakerRecorder {
public:
    SpeakerRecorder() {
        m_process.start(QStringLiteral("parec"), {"--device=quorvane_null.monitor", "--format=float32le",
                                                  "--rate=48000", "--channels=1", "--latency-msec=10", "--raw"});
        started = m_process.waitForStarted();
    }
    ~SpeakerRecorder() {
        m_process.kill();
        m_process.waitForFinished();
    }
    SpeakerRecorder(const SpeakerRecorder &) = delete;
    SpeakerRecorder &operator=(const SpeakerRecorder &) = delete;

    qsizetype samples() {
        m_bytes += m_process.readAllStandardOutput();
        return m_bytes.size() / qsizetype(sizeof(float));
    }
    float peak() {
        m_bytes += m_process.readAllStandardOutput();
        const auto *samples = reinterpret_cast<const float *>(m_bytes.constData());
        float loudest = 0;
        for (qsizetype i = 0; i < m_bytes.size() / qsizetype(sizeof(float)); ++i)
            loudest = std::max(loudest, std::abs(samples[i]));
        return loudest;
    }

    bool started = false;

private:
    QProcess m_process;
    QByteArray m_bytes;
};

} // namespace

class CuePlayerDesktopTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() {
        // Plays sound: only on the throwaway server, never the user's own.
        if (qEnvironmentVariableIsEmpty("QUORVANE_DESKTOP") || qEnvironmentVariableIsEmpty("PULSE_SERVER"))
            QSKIP("needs the sound server of scripts/headless-desktop");
    }

    void eachCueReachesTheSpeakers_data() {
        QTest::addColumn<Cue>("cue");
        QTest::newRow("start") << Cue::start;
        QTest::newRow("stop") << Cue::stop;
    }
    void eachCueReachesTheSpeakers() {
        QFETCH(Cue, cue);
        LogRecorder log;
        SpeakerRecorder speakers;
        QVERIFY(speakers.started);
        // The speakers are quiet until the cue.
        QTRY_VERIFY(speakers.samples() > 0);
        QCOMPARE(speakers.peak(), 0.0f);
        PulseCuePlayer player;
        player.play(cue);
        QTRY_VERIFY_WITH_TIMEOUT(speakers.peak() > 0.05f, 3000);
        player.drain();
        QVERIFY2(log.lines.isEmpty(), qPrintable(log.lines.join('\n')));
    }

    // A cue asked for while the last one is still playing is dropped, so play() never waits.
    void playNeverWaits() {
        PulseCuePlayer player;
        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < 20; ++i)
            player.play(i % 2 ? Cue::stop : Cue::start);
        // Waiting for each cue in turn would take seconds.
        QVERIFY2(timer.elapsed() < 1000, qPrintable(QString::number(timer.elapsed())));
        player.drain();
    }

    void aMissingServerIsToldOnceAndStaysSilent() {
        LogRecorder log;
        PulseCuePlayer player(QStringLiteral("unix:/nonexistent/native"));
        for (const Cue cue : {Cue::start, Cue::stop, Cue::start}) {
            player.play(cue);
            player.drain();
        }
        QCOMPARE(log.lines.size(), 1);
        QVERIFY2(log.lines.first().startsWith(QStringLiteral("WARN Sounds are silent")), qPrintable(log.lines.first()));
    }
};

QTEST_GUILESS_MAIN(CuePlayerDesktopTest)
#include "tst_cue_player_desktop.moc"
