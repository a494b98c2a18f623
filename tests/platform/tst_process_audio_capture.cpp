#include "LogRecorder.h"
#include "platform/ProcessAudioCapture.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <mutex>

namespace {

// A recorder that notes its arguments, writes two samples and a stray byte, then keeps running
// until it is stopped, as a real one would.
QString writeRecorder(const QTemporaryDir &dir) {
    const QString path = dir.filePath(QStringLiteral("recorder.sh"));
    QFile script(path);
    script.open(QIODevice::WriteOnly);
    script.write("#!/bin/sh\n"
                 "printf '%s\\n' \"$@\" > \"$(dirname \"$0\")/arguments\"\n"
                 "printf '\\000\\100\\000\\300\\177'\n"
                 "exec sleep 30\n");
    script.close();
    script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return path;
}

} // namespace

class ProcessAudioCaptureTest : public QObject {
    Q_OBJECT
private slots:
    void decodesLittleEndianSixteenBit_data() {
        QTest::addColumn<QByteArray>("pcm");
        QTest::addColumn<QList<float>>("samples");
        QTest::newRow("one sample and a stray byte") << QByteArray("\x00\x40\x7f", 3) << QList<float>{0.5f};
        QTest::newRow("extremes") << QByteArray("\x00\x80\xff\x7f", 4) << QList<float>{-1.0f, 32767.0f / 32768.0f};
        QTest::newRow("nothing") << QByteArray("\x01", 1) << QList<float>{};
    }
    void decodesLittleEndianSixteenBit() {
        QFETCH(QByteArray, pcm);
        QFETCH(QList<float>, samples);
        const std::vector<float> decoded = ProcessAudioCapture::decode(pcm);
        QCOMPARE(QList<float>(decoded.begin(), decoded.end()), samples);
    }

    void substitutesTheRateInPlace() {
        const QStringList command{QStringLiteral("rec"), QStringLiteral("-r"), QStringLiteral("{RATE}"),
                                  QStringLiteral("--rate={RATE}Hz")};
        QCOMPARE(ProcessAudioCapture::arguments(command, 16000.9),
                 QStringList({"rec", "-r", "16000", "--rate=16000Hz"}));
    }

    void recordsFromARealProcess() {
        LogRecorder log;
        QTemporaryDir dir;
        const QString recorder = writeRecorder(dir);
        ProcessAudioCapture capture({recorder, QStringLiteral("-r"), QStringLiteral("{RATE}")});
        std::mutex mutex;
        std::vector<float> received;
        double rate = 0;
        capture.setOnChunk([&](const AudioChunk &chunk) {
            std::lock_guard lock(mutex);
            received.insert(received.end(), chunk.samples.begin(), chunk.samples.end());
            rate = chunk.sampleRate;
        });
        capture.start(16000, true);
        QTRY_VERIFY([&] {
            std::lock_guard lock(mutex);
            return received.size() == 2;
        }());
        QVERIFY(capture.currentLevel() > 0.99f); // RMS 0.5 on the meter's scale is full
        capture.stop();
        QCOMPARE(capture.currentLevel(), 0.0f);
        QCOMPARE(capture.lastCaptureStatus(), AudioCaptureStatus::unknown);
        QCOMPARE(received, std::vector<float>({0.5f, -0.5f}));
        QCOMPARE(rate, 16000.0);
        QFile arguments(dir.filePath(QStringLiteral("arguments")));
        QVERIFY(arguments.open(QIODevice::ReadOnly));
        QCOMPARE(arguments.readAll(), QByteArray("-r\n16000\n"));

        const RetainedAudio kept = capture.takeRetainedAudio();
        QCOMPARE(kept.samples, received);
        QCOMPARE(kept.sampleRate, 16000.0);
        QVERIFY(capture.takeRetainedAudio().samples.empty()); // taken once: nothing is left
    }

    void aMissingRecorderSaysWhatToDo() {
        ProcessAudioCapture capture({QStringLiteral("quorvane-no-such-recorder"), QStringLiteral("{RATE}")});
        try {
            capture.start(16000, false);
            QFAIL("started a recorder that does not exist");
        } catch (const QuorvaneError &error) {
            QCOMPARE(error.errorCase(), QuorvaneError::Case::speechModelUnavailable);
            QCOMPARE(error.detail(), QStringLiteral("could not start recorder 'quorvane-no-such-recorder'. Install "
                                                    "it, or set captureCommand in config.json."));
        }
        ProcessAudioCapture empty({});
        QVERIFY_THROWS_EXCEPTION(QuorvaneError, empty.start(16000, false));
    }
};

QTEST_GUILESS_MAIN(ProcessAudioCaptureTest)
#include "tst_process_audio_capture.moc"
