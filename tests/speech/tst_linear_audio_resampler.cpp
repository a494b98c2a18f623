#include "speech/LinearAudioResampler.h"

#include <QTest>
#include <cmath>
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
    void returnsInputUnchanged_data() {
        QTest::addColumn<std::vector<float>>("input");
        QTest::addColumn<double>("from");
        QTest::addColumn<double>("to");
        const double nan = std::numeric_limits<double>::quiet_NaN();
        QTest::newRow("from zero") << ramp(10) << 0.0 << 16000.0;
        QTest::newRow("negative target") << ramp(10) << 48000.0 << -1.0;
        QTest::newRow("NaN source") << ramp(10) << nan << 16000.0;
        QTest::newRow("NaN target") << ramp(10) << 48000.0 << nan;
        QTest::newRow("same rate") << ramp(10) << 16000.0 << 16000.0;
        QTest::newRow("empty") << std::vector<float>{} << 48000.0 << 16000.0;
    }
    void returnsInputUnchanged() {
        QFETCH(std::vector<float>, input);
        QFETCH(double, from);
        QFETCH(double, to);
        QCOMPARE(LinearAudioResampler::resample(input, from, to), input);
    }

    void interpolates_data() {
        QTest::addColumn<std::vector<float>>("input");
        QTest::addColumn<double>("from");
        QTest::addColumn<double>("to");
        QTest::addColumn<std::vector<float>>("expected");
        QTest::newRow("upsampling holds the last sample") << std::vector<float>{0, 1, 2, 3} << 8000.0 << 16000.0
                                                          << std::vector<float>{0, 0.5f, 1, 1.5f, 2, 2.5f, 3, 3};
        QTest::newRow("three samples to a third")
            << std::vector<float>{0.25f, 0.5f, 0.75f} << 48000.0 << 16000.0 << std::vector<float>{0.25f};
        QTest::newRow("two samples to a third is empty")
            << std::vector<float>{0.25f, 0.5f} << 48000.0 << 16000.0 << std::vector<float>{};
        QTest::newRow("single sample upsampled")
            << std::vector<float>{0.75f} << 16000.0 << 48000.0 << std::vector<float>{0.75f, 0.75f, 0.75f};
        QTest::newRow("to two thirds") << std::vector<float>{0, 3, 6} << 48000.0 << 32000.0
                                       << std::vector<float>{0, 4.5f};
    }
    void interpolates() {
        QFETCH(std::vector<float>, input);
        QFETCH(double, from);
        QFETCH(double, to);
        QFETCH(std::vector<float>, expected);
        QCOMPARE(LinearAudioResampler::resample(input, from, to), expected);
    }

    void downsamplesByThreeToEveryThirdSample() {
        const std::vector<float> input = ramp(4800);
        const std::vector<float> output = LinearAudioResampler::resample(input, 48000, 16000);
        QCOMPARE(output.size(), size_t(1600));
        for (size_t i = 0; i < output.size(); ++i)
            QCOMPARE(output[i], input[3 * i]);
    }

    void lengthFollowsRatio_data() {
        QTest::addColumn<int>("count");
        QTest::addColumn<double>("from");
        QTest::addColumn<double>("to");
        QTest::addColumn<int>("expected");
        QTest::newRow("44.1 kHz to 16 kHz") << 44100 << 44100.0 << 16000.0 << 16000;
        QTest::newRow("44.1 kHz to 16 kHz, truncated") << 1000 << 44100.0 << 16000.0 << 362;
        QTest::newRow("16 kHz to 48 kHz") << 7 << 16000.0 << 48000.0 << 21;
        QTest::newRow("22.05 kHz to 16 kHz") << 22050 << 22050.0 << 16000.0 << 16000;
    }
    void lengthFollowsRatio() {
        QFETCH(int, count);
        QFETCH(double, from);
        QFETCH(double, to);
        QFETCH(int, expected);
        const std::vector<float> output = LinearAudioResampler::resample(ramp(size_t(count)), from, to);
        QCOMPARE(int(output.size()), expected);
        // Interpolating a ramp stays within it, and never reads past its end.
        QVERIFY(output.front() == 1.0f);
        QVERIFY(output.back() <= float(count));
    }
};

QTEST_GUILESS_MAIN(TestLinearAudioResampler)
#include "tst_linear_audio_resampler.moc"
