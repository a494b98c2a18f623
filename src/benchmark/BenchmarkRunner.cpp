#include "benchmark/BenchmarkRunner.h"

#include "core/DescribedError.h"
#include "speech/AudioFeed.h"
#include "speech/LinearAudioResampler.h"
#include "speech/WavDecoder.h"

#include <QElapsedTimer>
#include <QFile>
#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace BenchmarkRunner {

namespace {

struct Prepared {
    std::vector<float> samples;
    double durationSeconds = 0;
};

Prepared readClip(const QString &path, double engineRate) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw std::runtime_error(QStringLiteral("cannot read %1: %2").arg(path, file.errorString()).toStdString());
    WavDecoder::Decoded decoded = WavDecoder::decode(file.readAll());
    Prepared prepared;
    if (decoded.sampleRate > 0)
        prepared.durationSeconds = double(decoded.samples.size()) / decoded.sampleRate;
    prepared.samples = decoded.sampleRate == engineRate
                           ? std::move(decoded.samples)
                           : LinearAudioResampler::resample(decoded.samples, decoded.sampleRate, engineRate);
    return prepared;
}

} // namespace

QCoro::Task<ClipResult> runClip(AsrEngine &engine, BenchmarkClip clip, QString locale) {
    ClipResult result;
    result.clip = std::move(clip);
    result.locale = std::move(locale);
    std::exception_ptr failure;
    try {
        const double rate = engine.requiredSampleRate();
        Prepared prepared = readClip(result.clip.audioPath, rate);
        result.durationSeconds = prepared.durationSeconds;
        // No vocabulary hints: the benchmark measures the engine itself.
        co_await engine.beginUtterance(QStringList());
        feedInChunks(engine, prepared.samples, rate);
        QElapsedTimer timer;
        timer.start();
        QString hypothesis = co_await engine.finishUtterance();
        result.latencyMs = double(timer.nsecsElapsed()) / 1e6;
        result.hypothesis = std::move(hypothesis);
        result.score = SpeechBenchmarkMetrics::score(result.clip.reference, result.hypothesis);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        result.latencyMs.reset();
        result.error = describeError(failure);
    }
    co_return result;
}

} // namespace BenchmarkRunner
