#include "speech/WavDecoder.h"
#include "speech/WavEncoder.h"

#include <QTest>
#include <QtEndian>
#include <cmath>
#include <limits>

using WavDecoder::DecodeError;

namespace {

QByteArray le16(quint16 value) {
    QByteArray bytes(2, '\0');
    qToLittleEndian(value, bytes.data());
    return bytes;
}

QByteArray le32(quint32 value) {
    QByteArray bytes(4, '\0');
    qToLittleEndian(value, bytes.data());
    return bytes;
}

QByteArray chunk(const QByteArray &tag, const QByteArray &body, std::optional<quint32> declaredSize = {}) {
    QByteArray bytes = tag + le32(declaredSize.value_or(quint32(body.size()))) + body;
    if (body.size() % 2 && !declaredSize)
        bytes += '\0';
    return bytes;
}

QByteArray fmt(quint16 formatTag, quint16 channels, quint32 rate, quint16 bits) {
    const quint16 blockAlign = quint16(channels * bits / 8);
    return chunk("fmt ", le16(formatTag) + le16(channels) + le32(rate) + le32(rate * blockAlign) + le16(blockAlign) +
                             le16(bits));
}

QByteArray pcm(std::initializer_list<qint16> samples) {
    QByteArray bytes;
    for (qint16 sample : samples)
        bytes += le16(quint16(sample));
    return bytes;
}

QByteArray riff(const QByteArray &chunks, const QByteArray &form = "WAVE") {
    return "RIFF" + le32(quint32(4 + chunks.size())) + form + chunks;
}

QByteArray pcm16(quint16 channels, quint32 rate, const QByteArray &data) {
    return riff(fmt(1, channels, rate, 16) + chunk("data", data));
}

} // namespace

class TestWavCodec : public QObject {
    Q_OBJECT

private slots:
    void encodesSamples_data() {
        QTest::addColumn<float>("sample");
        QTest::addColumn<int>("expected");
        QTest::newRow("above full scale") << 1.5f << 32767;
        QTest::newRow("below full scale") << -1.5f << -32767;
        QTest::newRow("half truncates toward zero") << 0.5f << 16383;
        QTest::newRow("negative half truncates toward zero") << -0.5f << -16383;
        QTest::newRow("minus one is symmetric") << -1.0f << -32767;
        QTest::newRow("one") << 1.0f << 32767;
        QTest::newRow("zero") << 0.0f << 0;
        QTest::newRow("tiny") << 1e-6f << 0;
        QTest::newRow("NaN") << std::numeric_limits<float>::quiet_NaN() << 32767;
        QTest::newRow("+infinity") << std::numeric_limits<float>::infinity() << 32767;
        QTest::newRow("-infinity") << -std::numeric_limits<float>::infinity() << -32767;
    }
    void encodesSamples() {
        QFETCH(float, sample);
        QFETCH(int, expected);
        const QByteArray wav = WavEncoder::encode({0.25f, sample}, 16000);
        QCOMPARE(wav.size(), 48);
        QCOMPARE(qFromLittleEndian<qint16>(wav.constData() + 44), qint16(8191));
        QCOMPARE(int(qFromLittleEndian<qint16>(wav.constData() + 46)), expected);
    }

    void writesCanonicalHeader_data() {
        QTest::addColumn<int>("count");
        QTest::addColumn<double>("rate");
        QTest::addColumn<quint32>("expectedRate");
        QTest::newRow("no samples") << 0 << 16000.0 << 16000u;
        QTest::newRow("three samples") << 3 << 16000.0 << 16000u;
        QTest::newRow("fractional rate truncates") << 5 << 44100.9 << 44100u;
    }
    void writesCanonicalHeader() {
        QFETCH(int, count);
        QFETCH(double, rate);
        QFETCH(quint32, expectedRate);
        const QByteArray wav = WavEncoder::encode(std::vector<float>(size_t(count), 0.1f), rate);
        const char *h = wav.constData();
        QCOMPARE(wav.size(), 44 + 2 * count);
        QCOMPARE(wav.left(4), QByteArray("RIFF"));
        QCOMPARE(qFromLittleEndian<quint32>(h + 4), quint32(36 + 2 * count));
        QCOMPARE(wav.mid(8, 8), QByteArray("WAVEfmt "));
        QCOMPARE(qFromLittleEndian<quint32>(h + 16), 16u);
        QCOMPARE(qFromLittleEndian<quint16>(h + 20), quint16(1));
        QCOMPARE(qFromLittleEndian<quint16>(h + 22), quint16(1));
        QCOMPARE(qFromLittleEndian<quint32>(h + 24), expectedRate);
        QCOMPARE(qFromLittleEndian<quint32>(h + 28), expectedRate * 2);
        QCOMPARE(qFromLittleEndian<quint16>(h + 32), quint16(2));
        QCOMPARE(qFromLittleEndian<quint16>(h + 34), quint16(16));
        QCOMPARE(wav.mid(36, 4), QByteArray("data"));
        QCOMPARE(qFromLittleEndian<quint32>(h + 40), quint32(2 * count));
    }

    void decodes_data() {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<std::vector<float>>("expected");
        QTest::addColumn<double>("rate");

        QTest::newRow("mono extremes") << pcm16(1, 16000, pcm({-32768, 32767, 0, 16384}))
                                       << std::vector<float>{-1.0f, 0.999969482421875f, 0.0f, 0.5f} << 16000.0;
        QTest::newRow("stereo opposite channels cancel")
            << pcm16(2, 48000, pcm({16384, -16384, 16384, -16384})) << std::vector<float>{0.0f, 0.0f} << 48000.0;
        QTest::newRow("stereo mean") << pcm16(2, 44100, pcm({1000, 3000, -32768, -32768}))
                                     << std::vector<float>{2000.0f / 32768, -1.0f} << 44100.0;
        QTest::newRow("three channels") << pcm16(3, 8000, pcm({3, 6, 9, -3, -3, -3}))
                                        << std::vector<float>{(3.0f / 32768 + 6.0f / 32768 + 9.0f / 32768) / 3,
                                                              (-3.0f / 32768 - 3.0f / 32768 - 3.0f / 32768) / 3}
                                        << 8000.0;
        QTest::newRow("zero channels read as mono")
            << pcm16(0, 16000, pcm({8192, -8192})) << std::vector<float>{0.25f, -0.25f} << 16000.0;
        QTest::newRow("partial frame ignored")
            << pcm16(2, 16000, pcm({100, 300, 500})) << std::vector<float>{200.0f / 32768} << 16000.0;
        QTest::newRow("odd trailing byte in 45-byte file")
            << pcm16(1, 16000, QByteArray(1, '\x7f')) << std::vector<float>{} << 16000.0;
        QTest::newRow("LIST chunk between fmt and data skipped")
            << riff(fmt(1, 1, 22050, 16) + chunk("LIST", "INFOISFT\x04\0\0\0abcd") + chunk("data", pcm({4096})))
            << std::vector<float>{0.125f} << 22050.0;
        QTest::newRow("odd-sized chunk followed by its pad byte")
            << riff(fmt(1, 1, 16000, 16) + chunk("junk", "abc") + chunk("data", pcm({-4096})))
            << std::vector<float>{-0.125f} << 16000.0;
        QTest::newRow("data before fmt") << riff(chunk("data", pcm({16384})) + fmt(1, 1, 16000, 16))
                                         << std::vector<float>{0.5f} << 16000.0;
        QTest::newRow("later data chunk replaces earlier")
            << riff(fmt(1, 1, 16000, 16) + chunk("data", pcm({1, 2, 3})) + chunk("data", pcm({-16384})))
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

    void mixDownMatchesPlainLoopForManyChannels() {
        // Wide layouts take the generic path; it must still sum in channel order.
        const int channels = 37;
        const int frames = 9;
        QByteArray data;
        std::vector<float> expected;
        for (int f = 0; f < frames; ++f) {
            float sum = 0.0f;
            for (int c = 0; c < channels; ++c) {
                const auto value = qint16((f * 7919 + c * 104729) % 65536 - 32768);
                data += le16(quint16(value));
                sum += float(value) * (1.0f / 32768.0f);
            }
            expected.push_back(sum / float(channels));
        }
        QCOMPARE(WavDecoder::decode(pcm16(channels, 16000, data)).samples, expected);
    }

    void encodedFileDecodes() {
        const std::vector<float> samples{0.0f, 0.5f, -1.0f, 1.0f};
        const WavDecoder::Decoded decoded = WavDecoder::decode(WavEncoder::encode(samples, 16000));
        QCOMPARE(decoded.sampleRate, 16000.0);
        QCOMPARE(decoded.samples, (std::vector<float>{0.0f, 16383.0f / 32768, -32767.0f / 32768, 32767.0f / 32768}));
    }

    void refuses_data() {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<DecodeError::Case>("errorCase");
        QTest::addColumn<QString>("description");

        const QByteArray someData = chunk("data", pcm({1, 2, 3, 4}));
        QTest::newRow("44-byte header with empty data")
            << WavEncoder::encode({}, 16000) << DecodeError::Case::tooShort << "file is too short to be a WAV";
        QTest::newRow("big-endian RIFX") << "RIFX" + pcm16(1, 16000, pcm({1, 2})).mid(4) << DecodeError::Case::notRIFF
                                         << "missing RIFF header";
        QTest::newRow("not WAVE") << riff(fmt(1, 1, 16000, 16) + someData, "AVI ") << DecodeError::Case::notWAVE
                                  << "not a WAVE file";
        QTest::newRow("IEEE float") << riff(fmt(3, 1, 16000, 32) + someData) << DecodeError::Case::unsupported
                                    << "unsupported WAV: format 3 is not PCM";
        QTest::newRow("extensible, even with 16-bit PCM inside")
            << riff(fmt(0xFFFE, 1, 16000, 16) + someData) << DecodeError::Case::unsupported
            << "unsupported WAV: format 65534 is not PCM";
        QTest::newRow("format tag refused before data is missed")
            << riff(fmt(3, 1, 16000, 32) + chunk("LIST", QByteArray(20, 'x'))) << DecodeError::Case::unsupported
            << "unsupported WAV: format 3 is not PCM";
        QTest::newRow("24-bit") << riff(fmt(1, 1, 16000, 24) + someData) << DecodeError::Case::unsupported
                                << "unsupported WAV: 24-bit samples (only 16-bit supported)";
        QTest::newRow("8-bit") << riff(fmt(1, 1, 16000, 8) + someData) << DecodeError::Case::unsupported
                               << "unsupported WAV: 8-bit samples (only 16-bit supported)";
        QTest::newRow("neither chunk") << riff(chunk("LIST", QByteArray(30, 'x'))) << DecodeError::Case::noFmtChunk
                                       << "no fmt chunk";
        QTest::newRow("data without fmt")
            << riff(someData + chunk("LIST", QByteArray(20, 'x'))) << DecodeError::Case::noFmtChunk << "no fmt chunk";
        QTest::newRow("fmt without data") << riff(fmt(1, 1, 16000, 16) + chunk("LIST", QByteArray(10, 'x')))
                                          << DecodeError::Case::noDataChunk << "no data chunk";
        QTest::newRow("missing data reported before sample width")
            << riff(fmt(1, 1, 16000, 24) + chunk("LIST", QByteArray(10, 'x'))) << DecodeError::Case::noDataChunk
            << "no data chunk";
        QTest::newRow("fmt body cut off") << riff(chunk("LIST", QByteArray(30, 'x')) + fmt(1, 1, 16000, 16).left(20))
                                          << DecodeError::Case::noFmtChunk << "no fmt chunk";
        QTest::newRow("non-ASCII tag") << riff(chunk("fm\xF4 ", fmt(1, 1, 16000, 16).mid(8)) + someData)
                                       << DecodeError::Case::noFmtChunk << "no fmt chunk";
    }
    void refuses() {
        QFETCH(QByteArray, file);
        QFETCH(DecodeError::Case, errorCase);
        QFETCH(QString, description);
        try {
            WavDecoder::decode(file);
            QFAIL("decoded a file it should refuse");
        } catch (const DecodeError &error) {
            QCOMPARE(error.errorDescription(), description);
            QCOMPARE(error.errorCase(), errorCase);
            QCOMPARE(QString::fromUtf8(error.what()), description);
        }
    }
};

QTEST_GUILESS_MAIN(TestWavCodec)
#include "tst_wav_codec.moc"
