#include "speech/LinearAudioResampler.h"

#include <QTest>
#include <limits>
#include <numeric>

namespace {

std::vector<float> ramp(size_t count) {
    std::vector<float> samples(count);
    std::iota(samples.begin(), samples.end(), 1.0f);
    return samples;
}

} // namespace

class TestLinearAudioResampler : public QObject {
    Q_OBJECT

private slots:
    void resamples_data() {
        QTest::addColumn<std::vector<float>>("input");
        QTest::addColumn<double>("from");
        QTest::addColumn<double>("to");
        QTest::addColumn<std::vector<float>>("expected");
        QTest::newRow("upsampling holds the last sample") << std::vector<float>{0, 1, 2, 3} << 8000.0 << 16000.0
                                                          << std::vector<float>{0, 0.5f, 1, 1.5f, 2, 2.5f, 3, 3};
        QTest::newRow("to two thirds") << std::vector<float>{0, 3, 6} << 48000.0 << 32000.0
                                       << std::vector<float>{0, 4.5f};
        QTest::newRow("too short for one output sample")
            << std::vector<float>{0.25f, 0.5f} << 48000.0 << 16000.0 << std::vector<float>{};
        QTest::newRow("NaN rate leaves the input")
            << ramp(3) << std::numeric_limits<double>::quiet_NaN() << 16000.0 << ramp(3);
    }
    void resamples() {
        QFETCH(std::vector<float>, input);
        QFETCH(double, from);
        QFETCH(double, to);
        QFETCH(std::vector<float>, expected);
        QCOMPARE(LinearAudioResampler::resample(input, from, to), expected);
    }

    void lengthFollowsRatio_data() {
        QTest::addColumn<int>("count");
        QTest::addColumn<double>("from");
        QTest::addColumn<double>("to");
        QTest::addColumn<int>("expected");
        QTest::newRow("44.1 kHz to 16 kHz, truncated") << 1000 << 44100.0 << 16000.0 << 362;
        QTest::newRow("16 kHz to 48 kHz") << 7 << 16000.0 << 48000.0 << 21;
    }
    void lengthFollowsRatio() {
        QFETCH(int, count);
        QFETCH(double, from);
        QFETCH(double, to);
        QFETCH(int, expected);
        const std::vector<float> output = LinearAudioResampler::resample(ramp(size_t(count)), from, to);
        QCOMPARE(int(output.size()), expected);
        // Interpolating a ramp stays within it, and never reads past its end.
        QCOMPARE(output.front(), 1.0f);
        QVERIFY(output.back() <= float(count));
    }
};

QTEST_GUILESS_MAIN(TestLinearAudioResampler)
#include "tst_linear_audio_resampler.moc"
