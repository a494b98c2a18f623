#pragma once

#include "benchmark/BenchmarkManifest.h"
#include "benchmark/SpeechBenchmarkMetrics.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <optional>

// What happened to one clip: scored (with its hypothesis and latency) or failed (with its error).
struct ClipResult {
    BenchmarkClip clip;
    QString locale;
    // Of the audio as recorded, before resampling; 0 when it could not be decoded.
    double durationSeconds = 0;
    // From the end of the audio to the transcript: the time finishUtterance() took.
    std::optional<double> latencyMs;
    QString hypothesis;
    std::optional<SpeechBenchmarkMetrics::Score> score;
    QString error;

    bool scored() const { return score.has_value(); }
    // Latency over audio duration; below 1 is faster than real time.
    std::optional<double> realTimeFactor() const;
};

// How the run was made, for the record.
struct BenchmarkRunInfo {
    QString engineName;
    // "whisper" or "native".
    QString engineKind;
    std::optional<QString> endpoint;
    QString locale;
    QString startedAt;
    std::optional<QString> commit;
    QString version;
    qsizetype warmup = 0;
    std::optional<qsizetype> limit;
};

struct BenchmarkSummary {
    qsizetype scored = 0;
    qsizetype failed = 0;
    // Micro-averaged over the scored clips.
    SpeechBenchmarkMetrics::Score total;
    double audioSeconds = 0;
    // Milliseconds, nearest rank, over the scored clips; absent when none was scored.
    std::optional<double> latencyP50, latencyP90, latencyP95, latencyP99, latencyMax, latencyMean;
    std::optional<double> meanRealTimeFactor;

    static BenchmarkSummary of(const QList<ClipResult> &results);
};

namespace BenchmarkResults {

// Nearest rank: the value at rank ceil(p/100 × n), clamped to 1...n, of the sorted values.
std::optional<double> percentile(QList<double> values, double p);

// Rounded the same way wherever a figure is shown, so the files agree with each other.
double roundedMs(double ms);
double roundedRatio(double ratio);

// One field, quoted when it holds a comma, a quote or a line break.
QString csvField(const QString &value);
QByteArray clipsCsv(const QList<ClipResult> &results);
QJsonObject summaryJson(const BenchmarkManifest &manifest, const BenchmarkRunInfo &run,
                        const BenchmarkSummary &summary);
// The figures printed at the end of a run.
QString consoleTable(const BenchmarkManifest &manifest, const BenchmarkRunInfo &run, const BenchmarkSummary &summary);

QString percent(double rate);

} // namespace BenchmarkResults
