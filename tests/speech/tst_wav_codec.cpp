#include "speech/WavDecoder.h"
#include "speech/WavEncoder.h"

#include <QTest>
#include <QtEndian>
#include <limits>

namespace {

// Little-endian bytes of an integer of exactly this type.
template <typename T> QByteArray le(T value) {
    QByteArray bytes(sizeof(T), '\0');
    qToLittleEndian(value, bytes.data());
    return bytes;
}

// A chunk with its pad byte; a declared size, when given, replaces the real one and drops the pad.
QByteArray chunk(const QByteArray &tag, const QByteArray &body, std::optional<quint32> declaredSize = {}) {
    QByteArray bytes = tag + le<quint32>(declaredSize.value_or(quint32(body.size()))) + body;
    if (body.size() % 2 && !declaredSize)
        bytes += '\0';
    return bytes;
}

QByteArray fmt(quint16 formatTag, quint16 channels, quint32 rate, quint16 bits) {
    const quint16 blockAlign = quint16(channels * bits / 8);
    return chunk("fmt ", le<quint16>(formatTag) + le<quint16>(channels) + le<quint32>(rate) +
                             le<quint32>(rate * blockAlign) + le<quint16>(blockAlign) + le<quint16>(bits));
}

QByteArray pcm(std::initializer_list<qint16> samples) {
    QByteArray bytes;
    for (qint16 sample : samples)
        bytes += le<quint16>(quint16(sample));
    return bytes;
}

QByteArray riff(const QByteArray &chunks, const QByteArray &form = "WAVE") {
    return "RIFF" + le<quint32>(quint32(4 + chunks.size())) + form + chunks;
}

QByteArray pcm16(quint16 channels, quint32 rate, const QByteArray &data) {
    return riff(fmt(1, channels, rate, 16) + chunk("data", data));
}

} // namespace

class TestWavCodec : public QObject {
    Q_OBJECT

private slots:
    void encodes_data() {
        QTest::addColumn<float>("sample");
        QTest::addColumn<qint16>("expected");
        QTest::newRow("above full scale") << 1.5f << qint16(32767);
        QTest::newRow("below full scale") << -1.5f << qint16(-32767);
        QTest::newRow("half truncates toward zero") << 0.5f << qint16(16383);
        QTest::newRow("negative half truncates toward zero") << -0.5f << qint16(-16383);
        QTest::newRow("minus one is symmetric") << -1.0f << qint16(-32767);
        QTest::newRow("NaN") << std::numeric_limits<float>::quiet_NaN() << qint16(32767);
    }
    void encodes() {
        QFETCH(float, sample);
        QFETCH(qint16, expected);
        // A canonical 44-byte header; a fractional rate truncates.
        QCOMPARE(WavEncoder::encode({0.25f, sample}, 44100.9), pcm16(1, 44100, pcm({8191, expected})));
    }

    void decodes_data() {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<std::vector<float>>("expected");
        QTest::addColumn<double>("rate");
        QTest::newRow("mono extremes") << pcm16(1, 16000, pcm({-32768, 32767, 16384}))
                                       << std::vector<float>{-1.0f, 0.999969482421875f, 0.5f} << 16000.0;
        QTest::newRow("stereo mean, partial frame ignored") << pcm16(2, 44100, pcm({1000, 3000, -32768, -32768, 5}))
                                                            << std::vector<float>{2000.0f / 32768, -1.0f} << 44100.0;
        QTest::newRow("three channels") << pcm16(3, 8000, pcm({3, 6, 9})) << std::vector<float>{6.0f / 32768} << 8000.0;
        QTest::newRow("zero channels read as mono")
            << pcm16(0, 16000, pcm({8192, -8192})) << std::vector<float>{0.25f, -0.25f} << 16000.0;
        QTest::newRow("odd-sized chunk skipped with its pad byte")
            << riff(fmt(1, 1, 22050, 16) + chunk("junk", "abc") + chunk("data", pcm({-4096})))
            << std::vector<float>{-0.125f} << 22050.0;
        QTest::newRow("walk goes on after data, the later data wins")
            << riff(chunk("data", pcm({1, 2, 3})) + fmt(1, 1, 16000, 16) + chunk("data", pcm({-16384})))
            << std::vector<float>{-0.5f} << 16000.0;
        QTest::newRow("data size past end of file keeps what is there")
            << riff(fmt(1, 1, 16000, 16) + chunk("data", pcm({8192, 16384}), 1000)) << std::vector<float>{0.25f, 0.5f}
            << 16000.0;
    }
    void decodes() {
        QFETCH(QByteArray, file);
        QFETCH(std::vector<float>, expected);
        QFETCH(double, rate);
        const WavDecoder::Decoded decoded = WavDecoder::decode(file);
        QCOMPARE(decoded.samples, expected);
        QCOMPARE(decoded.sampleRate, rate);
    }

    void refuses_data() {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QString>("description");
        const QByteArray someData = chunk("data", pcm({1, 2, 3, 4}));
        const QByteArray filler = chunk("LIST", QByteArray(30, 'x'));
        QTest::newRow("44-byte header with empty data")
            << WavEncoder::encode({}, 16000) << "file is too short to be a WAV";
        QTest::newRow("big-endian RIFX") << "RIFX" + pcm16(1, 16000, pcm({1, 2})).mid(4) << "missing RIFF header";
        QTest::newRow("not WAVE") << riff(fmt(1, 1, 16000, 16) + someData, "AVI ") << "not a WAVE file";
        QTest::newRow("IEEE float") << riff(fmt(3, 1, 16000, 32) + someData) << "unsupported WAV: format 3 is not PCM";
        QTest::newRow("24-bit") << riff(fmt(1, 1, 16000, 24) + someData)
                                << "unsupported WAV: 24-bit samples (only 16-bit supported)";
        QTest::newRow("no fmt") << riff(someData + filler) << "no fmt chunk";
        QTest::newRow("fmt body cut off") << riff(filler + fmt(1, 1, 16000, 16).left(20)) << "no fmt chunk";
        QTest::newRow("no data") << riff(fmt(1, 1, 16000, 16) + filler) << "no data chunk";
    }
    void refuses() {
        QFETCH(QByteArray, file);
        QFETCH(QString, description);
        try {
            WavDecoder::decode(file);
            QFAIL("decoded a file it should refuse");
        } catch (const WavDecoder::DecodeError &error) {
            QCOMPARE(error.text(), description);
            QCOMPARE(QString::fromUtf8(error.what()), description);
        }
    }
};

QTEST_GUILESS_MAIN(TestWavCodec)
#include "tst_wav_codec.moc"
