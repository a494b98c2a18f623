#include "benchmark/BenchmarkResults.h"

#include <QJsonArray>
#include <QStringList>
#include <algorithm>
#include <cmath>

using SpeechBenchmarkMetrics::EditCounts;
using SpeechBenchmarkMetrics::Score;

std::optional<double> ClipResult::realTimeFactor() const {
    if (!latencyMs || durationSeconds <= 0)
        return std::nullopt;
    return *latencyMs / 1000.0 / durationSeconds;
}

BenchmarkSummary BenchmarkSummary::of(const QList<ClipResult> &results) {
    BenchmarkSummary summary;
    QList<Score> scores;
    QList<double> latencies;
    double rtfSum = 0;
    qsizetype rtfCount = 0;
    for (const ClipResult &result : results) {
        if (!result.scored()) {
            ++summary.failed;
            continue;
        }
        ++summary.scored;
        scores.append(*result.score);
        summary.audioSeconds += result.durationSeconds;
        if (result.latencyMs)
            latencies.append(*result.latencyMs);
        if (const auto rtf = result.realTimeFactor()) {
            rtfSum += *rtf;
            ++rtfCount;
        }
    }
    summary.total = SpeechBenchmarkMetrics::aggregate(scores);
    summary.latencyP50 = BenchmarkResults::percentile(latencies, 50);
    summary.latencyP90 = BenchmarkResults::percentile(latencies, 90);
    summary.latencyP95 = BenchmarkResults::percentile(latencies, 95);
    summary.latencyP99 = BenchmarkResults::percentile(latencies, 99);
    summary.latencyMax = BenchmarkResults::percentile(latencies, 100);
    if (!latencies.isEmpty()) {
        double sum = 0;
        for (double latency : latencies)
            sum += latency;
        summary.latencyMean = sum / double(latencies.size());
    }
    if (rtfCount > 0)
        summary.meanRealTimeFactor = rtfSum / double(rtfCount);
    return summary;
}

namespace BenchmarkResults {

namespace {

QString number(double value, int decimals) {
    return QString::number(value, 'f', decimals);
}

QJsonValue jsonMs(const std::optional<double> &value) {
    return value ? QJsonValue(roundedMs(*value)) : QJsonValue(QJsonValue::Null);
}

QJsonObject rateJson(double rate, qint64 referenceCount, qint64 hypothesisCount, const EditCounts &edits,
                     const QString &unit) {
    QJsonObject object;
    object.insert(QStringLiteral("rate"), rate);
    object.insert(QStringLiteral("reference") + unit, referenceCount);
    object.insert(QStringLiteral("hypothesis") + unit, hypothesisCount);
    object.insert(QStringLiteral("substitutions"), edits.substitutions);
    object.insert(QStringLiteral("insertions"), edits.insertions);
    object.insert(QStringLiteral("deletions"), edits.deletions);
    object.insert(QStringLiteral("errors"), edits.total());
    return object;
}

QString rtfText(const ClipResult &result) {
    const auto rtf = result.realTimeFactor();
    return rtf ? number(roundedRatio(*rtf), 4) : QString();
}

QString msText(const std::optional<double> &value) {
    return value ? number(roundedMs(*value), 0) + QStringLiteral(" ms") : QStringLiteral("–");
}

} // namespace

std::optional<double> percentile(QList<double> values, double p) {
    if (values.isEmpty())
        return std::nullopt;
    std::sort(values.begin(), values.end());
    const auto n = values.size();
    const auto rank = std::clamp<qsizetype>(qsizetype(std::ceil(p / 100.0 * double(n))), 1, n);
    return values[rank - 1];
}

double roundedMs(double ms) {
    return std::round(ms * 10.0) / 10.0;
}

double roundedRatio(double ratio) {
    return std::round(ratio * 10000.0) / 10000.0;
}

QString percent(double rate) {
    return number(rate * 100.0, 2) + QStringLiteral(" %");
}

QString csvField(const QString &value) {
    if (!value.contains(u',') && !value.contains(u'"') && !value.contains(u'\n') && !value.contains(u'\r'))
        return value;
    QString quoted = value;
    quoted.replace(u'"', QStringLiteral("\"\""));
    return u'"' + quoted + u'"';
}

QByteArray clipsCsv(const QList<ClipResult> &results) {
    static const QStringList header = {
        QStringLiteral("id"),
        QStringLiteral("audio"),
        QStringLiteral("locale"),
        QStringLiteral("duration_s"),
        QStringLiteral("latency_ms"),
        QStringLiteral("rtf"),
        QStringLiteral("reference_words"),
        QStringLiteral("hypothesis_words"),
        QStringLiteral("word_substitutions"),
        QStringLiteral("word_insertions"),
        QStringLiteral("word_deletions"),
        QStringLiteral("wer"),
        QStringLiteral("reference_chars"),
        QStringLiteral("hypothesis_chars"),
        QStringLiteral("char_substitutions"),
        QStringLiteral("char_insertions"),
        QStringLiteral("char_deletions"),
        QStringLiteral("cer"),
        QStringLiteral("reference"),
        QStringLiteral("hypothesis"),
        QStringLiteral("error"),
    };
    // RFC 4180: CR LF between records, so spreadsheets and csv readers agree.
    QString text = header.join(u',') + QStringLiteral("\r\n");
    for (const ClipResult &result : results) {
        QStringList row = {result.clip.id,
                           result.clip.audio,
                           result.locale,
                           result.durationSeconds > 0 ? number(result.durationSeconds, 3) : QString(),
                           result.latencyMs ? number(roundedMs(*result.latencyMs), 1) : QString(),
                           rtfText(result)};
        if (const auto &score = result.score) {
            row << QString::number(score->referenceWords) << QString::number(score->hypothesisWords)
                << QString::number(score->wordEdits.substitutions) << QString::number(score->wordEdits.insertions)
                << QString::number(score->wordEdits.deletions) << number(score->wordErrorRate, 6)
                << QString::number(score->referenceCharacters) << QString::number(score->hypothesisCharacters)
                << QString::number(score->characterEdits.substitutions)
                << QString::number(score->characterEdits.insertions) << QString::number(score->characterEdits.deletions)
                << number(score->characterErrorRate, 6);
        } else {
            for (int i = 0; i < 12; ++i)
                row << QString();
        }
        row << result.clip.reference << result.hypothesis << result.error;
        for (QString &field : row)
            field = csvField(field);
        text += row.join(u',') + QStringLiteral("\r\n");
    }
    return text.toUtf8();
}

QJsonObject summaryJson(const BenchmarkManifest &manifest, const BenchmarkRunInfo &run,
                        const BenchmarkSummary &summary) {
    QJsonObject engine;
    engine.insert(QStringLiteral("name"), run.engineName);
    engine.insert(QStringLiteral("kind"), run.engineKind);
    if (run.endpoint)
        engine.insert(QStringLiteral("endpoint"), *run.endpoint);

    QJsonObject dataset;
    dataset.insert(QStringLiteral("name"), manifest.name);
    dataset.insert(QStringLiteral("manifest"), manifest.path);
    dataset.insert(QStringLiteral("provenance"), manifest.provenance);
    dataset.insert(QStringLiteral("clipsInManifest"), manifest.clips.size());

    QJsonObject clips;
    clips.insert(QStringLiteral("run"), summary.scored + summary.failed);
    clips.insert(QStringLiteral("scored"), summary.scored);
    clips.insert(QStringLiteral("failed"), summary.failed);
    clips.insert(QStringLiteral("warmup"), run.warmup);

    const Score &total = summary.total;
    QJsonObject latency;
    latency.insert(QStringLiteral("p50"), jsonMs(summary.latencyP50));
    latency.insert(QStringLiteral("p90"), jsonMs(summary.latencyP90));
    latency.insert(QStringLiteral("p95"), jsonMs(summary.latencyP95));
    latency.insert(QStringLiteral("p99"), jsonMs(summary.latencyP99));
    latency.insert(QStringLiteral("max"), jsonMs(summary.latencyMax));
    latency.insert(QStringLiteral("mean"), jsonMs(summary.latencyMean));

    QJsonObject object;
    object.insert(QStringLiteral("tool"), QStringLiteral("quorvane ") + run.version);
    object.insert(QStringLiteral("startedAt"), run.startedAt);
    object.insert(QStringLiteral("commit"), run.commit ? QJsonValue(*run.commit) : QJsonValue(QJsonValue::Null));
    object.insert(QStringLiteral("engine"), engine);
    object.insert(QStringLiteral("locale"), run.locale);
    object.insert(QStringLiteral("dataset"), dataset);
    object.insert(QStringLiteral("normalization"), SpeechBenchmarkMetrics::normalizationRule);
    object.insert(QStringLiteral("clips"), clips);
    object.insert(QStringLiteral("wer"), rateJson(total.wordErrorRate, total.referenceWords, total.hypothesisWords,
                                                  total.wordEdits, QStringLiteral("Words")));
    object.insert(QStringLiteral("cer"),
                  rateJson(total.characterErrorRate, total.referenceCharacters, total.hypothesisCharacters,
                           total.characterEdits, QStringLiteral("Characters")));
    object.insert(QStringLiteral("latencyMs"), latency);
    object.insert(QStringLiteral("meanRealTimeFactor"), summary.meanRealTimeFactor
                                                            ? QJsonValue(roundedRatio(*summary.meanRealTimeFactor))
                                                            : QJsonValue(QJsonValue::Null));
    object.insert(QStringLiteral("audioSeconds"), std::round(summary.audioSeconds * 1000.0) / 1000.0);
    if (run.limit)
        object.insert(QStringLiteral("limit"), *run.limit);
    return object;
}

QString consoleTable(const BenchmarkManifest &manifest, const BenchmarkRunInfo &run, const BenchmarkSummary &summary) {
    const Score &total = summary.total;
    QList<std::pair<QString, QString>> rows;
    rows.append({QStringLiteral("Dataset"), manifest.name});
    rows.append({QStringLiteral("Engine"),
                 run.engineName + (run.endpoint ? QStringLiteral(" at ") + *run.endpoint : QString())});
    rows.append({QStringLiteral("Locale"), run.locale});
    rows.append(
        {QStringLiteral("Clips"), QStringLiteral("%1 scored, %2 failed").arg(summary.scored).arg(summary.failed)});
    rows.append({QStringLiteral("WER"), QStringLiteral("%1  (%2 errors in %3 words: %4 sub, %5 ins, %6 del)")
                                            .arg(percent(total.wordErrorRate))
                                            .arg(total.wordEdits.total())
                                            .arg(total.referenceWords)
                                            .arg(total.wordEdits.substitutions)
                                            .arg(total.wordEdits.insertions)
                                            .arg(total.wordEdits.deletions)});
    rows.append({QStringLiteral("CER"), QStringLiteral("%1  (%2 errors in %3 characters)")
                                            .arg(percent(total.characterErrorRate))
                                            .arg(total.characterEdits.total())
                                            .arg(total.referenceCharacters)});
    rows.append({QStringLiteral("Latency"),
                 QStringLiteral("p50 %1 · p90 %2 · p95 %3 · p99 %4 · max %5")
                     .arg(msText(summary.latencyP50), msText(summary.latencyP90), msText(summary.latencyP95),
                          msText(summary.latencyP99), msText(summary.latencyMax))});
    rows.append(
        {QStringLiteral("RTF"),
         summary.meanRealTimeFactor
             ? QStringLiteral("%1 mean (below 1 is faster than real time)").arg(number(*summary.meanRealTimeFactor, 3))
             : QStringLiteral("–")});
    rows.append({QStringLiteral("Audio"), QStringLiteral("%1 s").arg(number(summary.audioSeconds, 1))});
    QString text;
    for (const auto &[label, value] : rows)
        text += label.leftJustified(10) + value + u'\n';
    return text;
}

} // namespace BenchmarkResults
